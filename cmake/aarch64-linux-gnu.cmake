# AArch64: cmake -S . -B build-aarch64-linux-gnu --toolchain cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CLIENTMGR_TRIPLE aarch64-linux-gnu)
set(CLIENTMGR_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
