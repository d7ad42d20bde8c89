# Big-endian 64-bit build (IBM Z) cross-compiled on this host (Debian:
# g++-s390x-linux-gnu, libc6-dev-s390x-cross) and run under qemu-s390x, which
# finds the s390x C and C++ libraries under /usr/s390x-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/s390x-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x -L /usr/s390x-linux-gnu)
set(VARLO_OTHER_ARCH ON CACHE BOOL "Built for another architecture than this machine's")
