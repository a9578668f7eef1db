# 64-bit ARM. The device has none; it shows that nothing counts on 32 bits or on the processor of a PC.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KIV_CROSS_PREFIX aarch64-linux-gnu)
set(KIV_CROSS_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
