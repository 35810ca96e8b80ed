# Flags and include root of everything we compile: link a target to build_flags.

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Programs never offer their symbols to the modules they load: the dynamic
# linker would merge a module's registry into the program's.
set(CMAKE_ENABLE_EXPORTS OFF)

find_package(Threads REQUIRED)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# Also for code that is not ours (GoogleTest built here): objects of one program
# agree on the width of off_t and time_t and on the sanitizer.
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(NOT FILESTORE_NATIVE)
    # Without it, the system refuses to examine a file that is dated after January 2038.
    add_compile_definitions(_TIME_BITS=64)
endif()
if(FILESTORE_SANITIZE)
    add_compile_options(-fsanitize=${FILESTORE_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${FILESTORE_SANITIZE})
    if(FILESTORE_SANITIZE STREQUAL "thread")
        # The runtime guesses the size of a loaded module's thread-local block from the bytes before
        # it, and ends the program where they happen to be something else. What is in the static
        # block is known.
        add_compile_options(-ftls-model=initial-exec)
    endif()
endif()

if(FILESTORE_HARDEN)
    add_compile_options(-D_FORTIFY_SOURCE=2 -fstack-protector-strong)
    add_link_options(-Wl,-z,relro,-z,now)
endif()

add_library(build_flags INTERFACE)
target_compile_features(build_flags INTERFACE cxx_std_20)
target_include_directories(build_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(build_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion)
target_link_libraries(build_flags INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # A unique symbol would be shared by all modules of a process, registry and
    # all, and would pin its module in memory.
    target_compile_options(build_flags INTERFACE -fno-gnu-unique)
    target_link_options(build_flags INTERFACE -fno-gnu-unique)
    # The compiler collects its garbage first when it has 400 MB (by itself at 128 MB): most
    # sources are then done, a tenth sooner.
    target_compile_options(build_flags INTERFACE --param=ggc-min-heapsize=400000)
    if(FILESTORE_UNITY)
        # A source within a group is taken for a header, whose classes have no business with
        # unnamed namespaces.
        target_compile_options(build_flags INTERFACE -Wno-subobject-linkage)
    endif()
else()
    target_compile_options(build_flags INTERFACE -Wthread-safety)
endif()
