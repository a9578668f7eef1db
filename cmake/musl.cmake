# musl as the C library, on a PC with Debian's packages musl-tools, clang-14 and libc++-14-dev. The programs run there
# as they are. Of the C++ library only headers are used, clang's own, as those of GCC are made for glibc. There is no
# C++ library to link with, and so no GoogleTest.
set(processor ${CMAKE_HOST_SYSTEM_PROCESSOR})
set(musl /usr/lib/${processor}-linux-musl)
set(kernel /usr/include/${processor}-linux-gnu)

# musl's files, and the kernel's headers without glibc's, which lie beside those.
set(root ${CMAKE_BINARY_DIR}/musl)
file(MAKE_DIRECTORY ${root}/usr/include)
foreach(link
    include=/usr/include/${processor}-linux-musl lib=${musl}
    usr/include/linux=/usr/include/linux usr/include/asm-generic=/usr/include/asm-generic
    usr/include/asm=${kernel}/asm)
  string(REGEX MATCH "^(.*)=(.*)$" link ${link})
  file(CREATE_LINK ${CMAKE_MATCH_2} ${root}/${CMAKE_MATCH_1} SYMBOLIC)
endforeach()

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET ${processor}-linux-musl)
set(CMAKE_CXX_COMPILER_TARGET ${processor}-linux-musl)
set(CMAKE_SYSROOT ${root})
set(CMAKE_CXX_FLAGS_INIT "-stdlib++-isystem /usr/lib/llvm-14/include/c++/v1 -D_LIBCPP_HAS_MUSL_LIBC")
# What the compiler itself links with is GCC's, and is the same for both C libraries.
set(CMAKE_C_FLAGS_INIT "--gcc-toolchain=/usr")
string(APPEND CMAKE_CXX_FLAGS_INIT " --gcc-toolchain=/usr")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc")
# Its ioctl takes an int, which not every request fits into; the kernel looks at 32 bits all the same.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-error=sign-conversion -Wno-error=shorten-64-to-32")
# CMake tries the compilers with programs that need the C++ library.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
