#!/usr/bin/env bash
# Builds the project and runs every test suite (unit, integration over real
# sockets, end to end with curl, Python and headless Chromium, and the
# installed package), installing what a fresh Debian machine lacks. By
# default three builds run one after another:
#   warnings  -Werror build, the whole suite
#   asan      ASan+UBSan build, the whole suite
#   tsan      TSan build, the whole suite
# Pass build names to run only some of them: ./run_tests.sh warnings
set -euo pipefail
cd "$(dirname "$0")"

scripts/ensure_packages.sh cmake ninja-build g++ libgtest-dev libgmock-dev python3 curl pkg-config
# The browser tests skip themselves where Chromium cannot be installed.
scripts/ensure_packages.sh --optional chromium

builds=("$@")
[ ${#builds[@]} -eq 0 ] && builds=(warnings asan tsan)
jobs=$(nproc)

for build in "${builds[@]}"; do
  case "$build" in
    warnings) flags=(-DNVQ_WERROR=ON) ;;
    asan) flags=(-DNVQ_WERROR=ON -DNVQ_SANITIZE=address) ;;
    tsan) flags=(-DNVQ_WERROR=ON -DNVQ_SANITIZE=thread) ;;
    *) echo "unknown build '$build' (warnings, asan, tsan)" >&2; exit 2 ;;
  esac
  dir="build/test-$build"
  echo "=== $build build in $dir"
  cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1 \
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
done
echo "All test builds passed: ${builds[*]}"
