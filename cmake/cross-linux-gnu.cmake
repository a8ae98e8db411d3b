# Shared part of the toolchain files: Debian's cross compiler for the triple
# that the including file sets, its sysroot, and qemu-user to run what it
# builds, which is how ctest and test discovery start the programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${METERD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${METERD_CROSS_TRIPLE}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${METERD_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L /usr/${METERD_CROSS_TRIPLE})
