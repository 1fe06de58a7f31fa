# riscv64 (Android's riscv64 ABI, LP64D): cmake --preset riscv64
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(DM_TRIPLE riscv64-linux-gnu)
set(DM_QEMU qemu-riscv64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
