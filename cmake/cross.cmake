# Shared part of the toolchain files in this folder: Debian's cross
# compiler for CLIENTMGR_TRIPLE, its libraries under /usr/<triple>, and
# qemu-user to run what is built (ctest, test discovery).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${CLIENTMGR_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${CLIENTMGR_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${CLIENTMGR_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CLIENTMGR_QEMU} -L /usr/${CLIENTMGR_TRIPLE})
