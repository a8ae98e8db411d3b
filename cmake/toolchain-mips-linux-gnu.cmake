# Big-endian 32-bit MIPS Linux, with Debian's g++-mips-linux-gnu; programs run
# under qemu-mips.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(METERD_CROSS_TRIPLE mips-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
