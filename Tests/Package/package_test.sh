#!/usr/bin/env bash
# Installs the library (static, as built, and a shared build of it), then
# builds the README's host program as an outside project against each
# installation, through find_package and through pkg-config, and runs it.
#   package_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The host program is the README's first C++ block, compiled as shown.
mkdir -p "$work/host"
awk '/^```cpp/{inside=1; next} /^```/{if (inside) exit} inside' "$source_dir/README.md" > "$work/host/host.cpp"
cmp -s "$work/host/host.cpp" "$source_dir/Tests/Package/host.cpp" ||
  { echo "README's host program differs from Tests/Package/host.cpp"; exit 1; }
cp "$source_dir/Tests/Package/CMakeLists.txt.in" "$work/host/CMakeLists.txt"

mkdir -p "$work/site"
echo "hello from the installed library" > "$work/site/hello.txt"

run_host() { # binary
  local log=$work/host.log input=$work/host.in
  rm -f "$input"
  mkfifo "$input"
  "$1" "$work/site" 0 < "$input" > "$log" &
  local pid=$!
  exec 3> "$input" # Enter, written below, stops the host
  local port=
  for _ in $(seq 100); do
    port=$(sed -n 's|.*localhost:\([0-9]*\)/.*|\1|p' "$log")
    [ -n "$port" ] && break
    sleep 0.1
  done
  if [ -z "$port" ]; then
    echo "host did not start"
    exec 3>&-
    kill $pid
    return 1
  fi
  local body
  body=$(python3 -c "import urllib.request; print(urllib.request.urlopen('http://127.0.0.1:$port/hello.txt').read().decode(), end='')")
  echo >&3
  exec 3>&-
  wait $pid
  [ "$body" = "hello from the installed library" ] || { echo "unexpected answer: $body"; return 1; }
}

check_installation() { # prefix label
  local prefix=$1 label=$2
  cmake -S "$work/host" -B "$work/host-build-$label" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
  cmake --build "$work/host-build-$label" > /dev/null
  run_host "$work/host-build-$label/host"
  echo "$label: find_package host works"
  if command -v pkg-config > /dev/null; then
    local flags
    flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs nvqhttp)
    # shellcheck disable=SC2086
    g++ -std=c++17 "$work/host/host.cpp" -o "$work/host-pc-$label" $flags -Wl,-rpath,"$prefix/lib"
    run_host "$work/host-pc-$label"
    echo "$label: pkg-config host works"
  fi
}

cmake --install "$build_dir" --prefix "$work/static" > /dev/null
check_installation "$work/static" static

cmake -S "$source_dir" -B "$work/shared-build" -G Ninja -DBUILD_SHARED_LIBS=ON -DNVQ_BUILD_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build "$work/shared-build" > /dev/null
cmake --install "$work/shared-build" --prefix "$work/shared" > /dev/null
check_installation "$work/shared" shared
