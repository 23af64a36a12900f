# ARMv7 hard-float: cmake -S . -B build-arm-linux-gnueabihf --toolchain cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CLIENTMGR_TRIPLE arm-linux-gnueabihf)
set(CLIENTMGR_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
