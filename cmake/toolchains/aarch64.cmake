# 64-bit ARM with Debian's g++-aarch64-linux-gnu; tests run under
# qemu-aarch64.
#   cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(NVQ_CROSS_TRIPLE aarch64-linux-gnu)
set(NVQ_QEMU_ARCH aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
