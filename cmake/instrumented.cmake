# How programs run that a sanitizer has been built into.

# Instrumented programs run several times slower.
set(STORE_TEST_SLOWDOWN 1)
if(FILESTORE_SANITIZE)
    set(STORE_TEST_SLOWDOWN 4)
endif()

# The thread sanitizer's memory map does not fit every random layout that newer
# kernels choose; where a fixed layout may be asked for, we ask.
set(STORE_TEST_LAUNCHER)
if(FILESTORE_SANITIZE STREQUAL "thread")
    execute_process(COMMAND setarch --addr-no-randomize true RESULT_VARIABLE refused
                    OUTPUT_QUIET ERROR_QUIET)
    if(NOT refused)
        set(STORE_TEST_LAUNCHER setarch --addr-no-randomize)
    endif()
endif()
