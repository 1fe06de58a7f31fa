# arm64 (arm64-v8a): cmake --preset arm64
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(DM_TRIPLE aarch64-linux-gnu)
set(DM_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
