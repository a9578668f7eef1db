# The device: 32-bit ARM, ARM926EJ-S, soft float. CFLAGS and CXXFLAGS still add to these.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv5te)

set(KIV_ARM_PREFIX arm-linux-gnueabi CACHE STRING "Prefix of the cross tools, and name of their root")
set(CMAKE_C_COMPILER ${KIV_ARM_PREFIX}-gcc)
set(CMAKE_CXX_COMPILER ${KIV_ARM_PREFIX}-g++)
set(CMAKE_C_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft")
set(CMAKE_CXX_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft")

# Every ARMv5T has BLX. The linker does not dare to rely on it by itself and would put an ARM veneer before
# each exported Thumb function.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,--use-blx")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--use-blx")

# Behind the roots that -DCMAKE_FIND_ROOT_PATH names, an image or a tool chain's.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${KIV_ARM_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KIV_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(KIV_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KIV_QEMU_ARM} -L /usr/${KIV_ARM_PREFIX})
endif()
