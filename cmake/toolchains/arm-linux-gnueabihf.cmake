# 32-bit ARM (armeabi-v7a, hard float): cmake --preset armv7
set(CMAKE_SYSTEM_PROCESSOR armv7-a)
set(DM_TRIPLE arm-linux-gnueabihf)
set(DM_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
