# MIPS32 little-endian (MediaTek): cmake -S . -B build-mipsel-linux-gnu --toolchain cmake/mipsel-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CLIENTMGR_TRIPLE mipsel-linux-gnu)
set(CLIENTMGR_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
