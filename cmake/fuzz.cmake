# store_fuzz(<name> [SOURCES <file>...] [LAYERS <lib>...] [OS os_posix|os_fault] [LIBS <lib>...])
#
# A fuzz target from <name>.cpp of the calling folder. With FILESTORE_FUZZERS it
# is a libFuzzer program bin/<name>; otherwise replay_main.cpp runs it over
# corpus/<name>/ as a ctest entry, so that an input that once hurt stays tested.
function(store_fuzz name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "OS" "SOURCES;LAYERS;LIBS")
    if(FILESTORE_FUZZERS)
        add_executable(${name} ${name}.cpp ${arg_SOURCES})
        target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    elseif(FILESTORE_SANITIZE STREQUAL "thread")
        return()  # no target starts a thread
    else()
        add_executable(${name} ${name}.cpp ${arg_SOURCES})
        target_link_libraries(${name} PRIVATE fuzz_replay)
        add_test(NAME ${name}
                 COMMAND ${STORE_TEST_LAUNCHER} $<TARGET_FILE:${name}>
                         ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
        set_tests_properties(${name} PROPERTIES TIMEOUT 300)
    endif()
    target_link_libraries(${name} PRIVATE build_flags ${arg_LAYERS} ${arg_OS} ${arg_LIBS})
endfunction()
