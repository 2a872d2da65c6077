#!/bin/sh
# The cross toolchain files' CMAKE_CROSSCOMPILING_EMULATOR:
#   qemu-run.sh QEMU SYSROOT PROGRAM [ARG...]
# runs PROGRAM under user-mode QEMU, its loader and libraries taken from
# SYSROOT. Without binfmt_misc a program that starts a copy of itself through
# argv[0] (GoogleTest's threadsafe death tests) would get "Exec format
# error", so the program sees qemu-rerun.sh beside this script as its
# argv[0], and that starts the same program under QEMU again.
set -e
if [ $# -lt 3 ]; then
  echo "usage: $0 QEMU SYSROOT PROGRAM [ARG...]" >&2
  exit 2
fi
NVQ_QEMU=$1
NVQ_QEMU_SYSROOT=$2
case $3 in
  /*) NVQ_QEMU_PROGRAM=$3 ;;
  *) NVQ_QEMU_PROGRAM=$PWD/$3 ;;
esac
export NVQ_QEMU NVQ_QEMU_SYSROOT NVQ_QEMU_PROGRAM
shift 3
exec "$NVQ_QEMU" -L "$NVQ_QEMU_SYSROOT" -0 "$(cd "$(dirname "$0")" && pwd)/qemu-rerun.sh" "$NVQ_QEMU_PROGRAM" "$@"
