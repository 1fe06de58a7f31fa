# Shared by the cross toolchains: Debian's cross compiler for DM_TRIPLE, the
# target's libraries from its multiarch root (/usr/<triple>, installed with
# the compiler), and qemu-user as the emulator that CTest (and GoogleTest's
# test discovery) put before every test program, so that `ctest --preset
# arm64` runs the suite as it is.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DM_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${DM_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${DM_QEMU} -L /usr/${DM_TRIPLE})
