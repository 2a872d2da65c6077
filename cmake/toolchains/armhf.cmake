# 32-bit ARM, hard float (Debian armhf: ARMv7, Thumb-2, VFPv3-D16), with
# Debian's g++-arm-linux-gnueabihf; tests run under qemu-arm.
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(NVQ_CROSS_TRIPLE arm-linux-gnueabihf)
set(NVQ_QEMU_ARCH arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
