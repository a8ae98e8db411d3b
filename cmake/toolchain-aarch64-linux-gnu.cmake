# 64-bit ARM Linux, with Debian's g++-aarch64-linux-gnu; programs run under
# qemu-aarch64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(METERD_CROSS_TRIPLE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
