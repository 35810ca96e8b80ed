# The shipped shape: 32-bit code from the native compiler (package g++-12-multilib).
#
# The kernel's headers (asm/) lie in the native folder, which the compiler leaves
# out for -m32. Package g++-multilib would link them to where it looks, but
# cannot stand beside any cross compiler, so we say where they are.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(flags "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_C_FLAGS_INIT ${flags})
set(CMAKE_CXX_FLAGS_INIT ${flags})
