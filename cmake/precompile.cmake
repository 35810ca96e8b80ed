# precompile(<target> <header>...)
# precompile(<target> AS <other>)
#
# Parses these headers once and not in each source; or uses those of another target, which is
# compiled with the same flags. What a source forgets to include is found by the `dev` preset,
# which precompiles nothing, and by clang-tidy, which uses that preset.
function(precompile target)
    if(ARGV1 STREQUAL "AS")
        target_precompile_headers(${target} REUSE_FROM ${ARGV2})
    else()
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # g++ 12 forgets that a precompiled header is the system's, and then reports what its
        # optimiser makes of std::string.
        target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-restrict
                                                 -Wno-stringop-overflow -Wno-stringop-overread)
    endif()
endfunction()
