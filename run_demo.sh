#!/usr/bin/env bash
# Builds the demo server (build/bin/nvq-httpd) and starts it on port 7070,
# serving the sample site; Ctrl-C stops it. Installs what a fresh Debian
# machine lacks. Flags go to the server:
#   ./run_demo.sh [--port N] [--root DIR] [--log-level N]
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure_packages.sh cmake ninja-build g++
[ -f build/CMakeCache.txt ] || cmake -S . -B build -G Ninja -DNVQ_BUILD_TESTS=OFF > /dev/null
cmake --build build --target nvq-httpd
exec build/bin/nvq-httpd "$@"
