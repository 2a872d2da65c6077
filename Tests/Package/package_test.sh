#!/usr/bin/env bash
# Installs the library twice -- static as built, and a shared build without
# TLS -- then builds the README's host program as an outside project against
# each installation, through find_package and through pkg-config, and runs it.
#   package_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1 build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The host program is the README's first C++ block, compiled as shown.
mkdir -p "$work/host" "$work/site"
awk '/^```cpp/{inside=1; next} /^```/{if (inside) exit} inside' "$source_dir/README.md" > "$work/host/host.cpp"
cmp -s "$work/host/host.cpp" "$source_dir/Tests/Package/host.cpp" ||
  { echo "README's host program differs from Tests/Package/host.cpp"; exit 1; }
cp "$source_dir/Tests/Package/CMakeLists.txt.in" "$work/host/CMakeLists.txt"
echo "hello from the installed library" > "$work/site/hello.txt"

run_host() { # binary label: serves the site on a free port; Enter stops it
  coproc HOST { "$1" "$work/site" 0; }
  local line body
  read -r -t 20 line <&"${HOST[0]}" || { echo "$2: host did not start"; kill "$HOST_PID"; return 1; }
  line=${line#*localhost:}
  body=$(python3 -c "import urllib.request; print(urllib.request.urlopen('http://127.0.0.1:${line%%/*}/hello.txt').read().decode(), end='')")
  echo >&"${HOST[1]}"
  wait "$HOST_PID"
  [ "$body" = "hello from the installed library" ] || { echo "$2: unexpected answer: $body"; return 1; }
  echo "$2 works"
}

check_installation() { # prefix label
  cmake -S "$work/host" -B "$work/build-$2" -DCMAKE_PREFIX_PATH="$1" > /dev/null
  cmake --build "$work/build-$2" > /dev/null
  run_host "$work/build-$2/host" "$2, find_package"
  # shellcheck disable=SC2046
  g++ -std=c++17 "$work/host/host.cpp" -o "$work/pc-$2" -Wl,-rpath,"$1/lib" \
    $(PKG_CONFIG_PATH="$1/lib/pkgconfig" pkg-config --cflags --libs nvqhttp)
  run_host "$work/pc-$2" "$2, pkg-config"
}

cmake --install "$build_dir" --prefix "$work/static" > /dev/null
check_installation "$work/static" "static$(grep -q '^NVQ_WITH_TLS:BOOL=ON' "$build_dir/CMakeCache.txt" && echo ', TLS')"
cmake -S "$source_dir" -B "$work/shared-build" -G Ninja -DBUILD_SHARED_LIBS=ON -DNVQ_WITH_TLS=OFF \
  -DNVQ_BUILD_TESTS=OFF -DNVQ_BUILD_DEMO=OFF -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build "$work/shared-build" > /dev/null
cmake --install "$work/shared-build" --prefix "$work/shared" > /dev/null
check_installation "$work/shared" "shared, no TLS"
