# Shared part of the toolchain files beside it: Debian's cross g++ for
# NVQ_CROSS_TRIPLE, its sysroot, and qemu-user to run what is built (tests,
# test discovery) on this machine. Needs g++-<triple> and, to run the
# tests, qemu-user; no binfmt_misc registration is assumed (qemu-run.sh).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${NVQ_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${NVQ_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NVQ_CROSS_TRIPLE})

# Debian keeps the cross C library under /usr/<triple> and multiarch
# packages (libfoo-dev:armhf) under /usr/lib/<triple>: both are searched,
# never the build machine's own libraries and headers; programs (cmake,
# python3, pkg-config) are the build machine's.
set(CMAKE_FIND_ROOT_PATH /usr/${NVQ_CROSS_TRIPLE} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(NVQ_CROSS_QEMU qemu-${NVQ_QEMU_ARCH})
if(NVQ_CROSS_QEMU)
  # The target's dynamic loader and libraries come from the sysroot.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-run.sh ${NVQ_CROSS_QEMU} /usr/${NVQ_CROSS_TRIPLE})
endif()

# pkg-config (used by find_package(OpenSSL)) answers for the target alone:
# its multiarch .pc files, never the build machine's libraries.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${NVQ_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
