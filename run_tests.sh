#!/usr/bin/env bash
# Builds the project and runs every test suite (unit, integration over real
# sockets, end to end with curl, Python and headless Chromium, and the
# installed package), installing what a fresh Debian machine lacks. By
# default these builds run one after another:
#   warnings  -Werror build, the whole suite
#   asan      ASan+UBSan build, the whole suite
#   tsan      TSan build, the whole suite
#   armhf     -Werror build for 32-bit ARM with Debian's cross g++, the whole
#             suite under qemu-user (the clients of the end-to-end tests
#             run natively)
#   aarch64   the same for 64-bit ARM
# HTTPS (OpenSSL) is built and tested where the target's libssl-dev is
# installed: always natively; the cross builds go without it unless the
# multiarch package (libssl-dev:armhf, libssl-dev:arm64) is there.
# Pass build names to run only some of them: ./run_tests.sh warnings armhf
set -euo pipefail
cd "$(dirname "$0")"

builds=("$@")
[ ${#builds[@]} -eq 0 ] && builds=(warnings asan tsan armhf aarch64)
jobs=$(nproc)

scripts/ensure_packages.sh cmake ninja-build g++ libgtest-dev libgmock-dev python3 curl pkg-config file \
  libssl-dev openssl
# The browser tests, and those with nginx in front, skip themselves where
# Chromium or nginx cannot be installed.
scripts/ensure_packages.sh --optional chromium nginx
# Cross builds: the compiler with its target C library, user-mode QEMU, and
# GoogleTest's sources to build for the target.
cross=()
for build in "${builds[@]}"; do
  case "$build" in
    armhf) cross+=(g++-arm-linux-gnueabihf) ;;
    aarch64) cross+=(g++-aarch64-linux-gnu) ;;
  esac
done
if [ ${#cross[@]} -gt 0 ]; then
  scripts/ensure_packages.sh "${cross[@]}" qemu-user googletest
fi

timings=()
for build in "${builds[@]}"; do
  case "$build" in
    warnings) flags=(-DNVQ_WERROR=ON) ;;
    asan) flags=(-DNVQ_WERROR=ON -DNVQ_SANITIZE=address) ;;
    tsan) flags=(-DNVQ_WERROR=ON -DNVQ_SANITIZE=thread) ;;
    armhf) flags=(-DNVQ_WERROR=ON -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/armhf.cmake") ;;
    aarch64) flags=(-DNVQ_WERROR=ON -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64.cmake") ;;
    *) echo "unknown build '$build' (warnings, asan, tsan, armhf, aarch64)" >&2; exit 2 ;;
  esac
  dir="build/test-$build"
  echo "=== $build build in $dir"
  started=$SECONDS
  cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
  echo "$build: NVQ_WITH_TLS=$(sed -n 's/^NVQ_WITH_TLS:BOOL=//p' "$dir/CMakeCache.txt")"
  cmake --build "$dir" -j "$jobs"
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1 \
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
  timings+=("$build $((SECONDS - started)) s")
done
echo "Build times: $(IFS=,; echo "${timings[*]}" | sed 's/,/, /g')"
echo "All test builds passed: ${builds[*]}"
