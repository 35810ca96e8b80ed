# GoogleTest as Debian has it: its libraries for native code (libgtest-dev,
# libgmock-dev), its sources (googletest) for 32-bit code.
if(FILESTORE_NATIVE)
    find_package(GTest 1.12 CONFIG REQUIRED)
else()
    block()
        set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)  # its warnings are not ours to mend
        set(CMAKE_CXX_STANDARD 20)
        set(INSTALL_GTEST OFF)
        add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest
                         EXCLUDE_FROM_ALL SYSTEM)
    endblock()
endif()
