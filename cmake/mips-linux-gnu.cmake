# MIPS32 big-endian (Atheros/QCA): cmake -S . -B build-mips-linux-gnu --toolchain cmake/mips-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CLIENTMGR_TRIPLE mips-linux-gnu)
set(CLIENTMGR_QEMU qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
