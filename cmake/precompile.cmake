# precompile(<target> <header>...)
#
# Parses these headers once and not in each source. What a source forgets to include is found
# by the `dev` preset, which precompiles nothing, and by clang-tidy, which uses that preset.
function(precompile target)
    target_precompile_headers(${target} PRIVATE ${ARGN})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # g++ 12 forgets that a precompiled header is the system's, and then reports what its
        # optimiser makes of std::string.
        target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-restrict
                                                 -Wno-stringop-overflow -Wno-stringop-overread)
    endif()
endfunction()
