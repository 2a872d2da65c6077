#!/bin/sh
# The argv[0] of a program that qemu-run.sh runs: started by that program,
# it runs the same program under QEMU again with the arguments given.
exec "$NVQ_QEMU" -L "$NVQ_QEMU_SYSROOT" -0 "$0" "$NVQ_QEMU_PROGRAM" "$@"
