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

# What a packager's flags name already is the packager's: the flags of CXXFLAGS and LDFLAGS come
# first, and the later one would win.
function(add_unless given pattern)
    if(NOT given MATCHES "${pattern}")
        cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "COMPILE;LINK")
        add_compile_options(${arg_COMPILE})
        add_link_options(${arg_LINK})
    endif()
endfunction()

# Of programs that attackers feed, whatever the architecture; all of it as distributions do.
macro(harden)
    if(NOT CMAKE_BUILD_TYPE STREQUAL "None" OR CMAKE_CXX_FLAGS MATCHES "-O[1-9s]")
        # Undefined first: some compilers define it themselves.
        add_unless("${CMAKE_CXX_FLAGS}" _FORTIFY_SOURCE
                   COMPILE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
    add_unless("${CMAKE_CXX_FLAGS}" stack-protector COMPILE -fstack-protector-strong)
    add_unless("${CMAKE_CXX_FLAGS}" stack-clash COMPILE -fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
        add_unless("${CMAKE_CXX_FLAGS}" cf-protection COMPILE -fcf-protection=full)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
        add_unless("${CMAKE_CXX_FLAGS}" branch-protection COMPILE -mbranch-protection=standard)
    endif()
    set(linking "${CMAKE_EXE_LINKER_FLAGS} ${CMAKE_MODULE_LINKER_FLAGS}")
    add_unless("${linking}" "relro" LINK LINKER:-z,relro)
    add_unless("${linking}" "z,(now|lazy)" LINK LINKER:-z,now)
    add_unless("${linking}" "execstack" LINK LINKER:-z,noexecstack)
endmacro()

if(FILESTORE_HARDEN)
    harden()
endif()

# The same bytes from any folder. Where somebody debugs, the debugger needs the folder.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
                        -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endif()
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

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
