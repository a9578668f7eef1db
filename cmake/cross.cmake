# What the tool chain files share, for Debian's cross compilers and those laid out like them:
# KIV_CROSS_PREFIX is the prefix of the tools and the name of their root, KIV_CROSS_EMULATOR the program that runs
# what they build.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KIV_CROSS_PREFIX}-gcc)
set(CMAKE_CXX_COMPILER ${KIV_CROSS_PREFIX}-g++)

# Behind the roots that -DCMAKE_FIND_ROOT_PATH names, an image or a tool chain's.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${KIV_CROSS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KIV_QEMU_${KIV_CROSS_EMULATOR} NAMES ${KIV_CROSS_EMULATOR}-static ${KIV_CROSS_EMULATOR})
if(KIV_QEMU_${KIV_CROSS_EMULATOR})
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KIV_QEMU_${KIV_CROSS_EMULATOR}} -L /usr/${KIV_CROSS_PREFIX})
endif()
