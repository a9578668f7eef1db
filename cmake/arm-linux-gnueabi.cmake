# The device: 32-bit ARM, ARM926EJ-S, soft float. CFLAGS and CXXFLAGS still add to these.
set(KIV_ARM_PREFIX arm-linux-gnueabi CACHE STRING "Prefix of the cross tools, and name of their root")
set(CMAKE_SYSTEM_PROCESSOR armv5te)
set(KIV_CROSS_PREFIX ${KIV_ARM_PREFIX})
set(KIV_CROSS_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)

set(CMAKE_C_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft")
set(CMAKE_CXX_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft")

# Every ARMv5T has BLX. The linker does not dare to rely on it by itself and would put an ARM veneer before
# each exported Thumb function.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,--use-blx")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--use-blx")
