#!/usr/bin/env bash
# Footprint of the demo server and the libraries as a device would carry
# them: stripped sizes for x86-64, armhf and aarch64, and the resident memory
# of nvq-httpd right after start and while it holds 100 idle keep-alive
# connections (natively only: under qemu-user the figure would be QEMU's).
#
#   Bench/footprint.sh [--update-results] [--no-install]
#
# Builds in build/footprint-<arch>-{static,shared,static-runtime}/ with the
# options below, writes the Markdown section to build/footprint/FOOTPRINT.md
# and prints it; --update-results also puts it into Bench/RESULTS.md as its
# "## Footprint" section (replacing that section only, or appending it).
# Installs the cross compilers with apt-get unless --no-install. Takes a few
# minutes on two cores: nine builds of the libraries and the demo.
set -euo pipefail
REPO=$(cd "$(dirname "$0")/.." && pwd)
cd "$REPO"

# The CMake options of every measured build, one per line. An optional
# feature adds its "-DNVQ_WITH_<NAME>=OFF" line here: the goals are for the
# build with every optional feature off, and each such feature gets a row of
# its own, built with it ON, once the project has the option ("n/a" until
# then). MinSizeRel (-Os) because devices count kilobytes (-O2/-O3 builds are
# 15-20% larger; the speed figures in RESULTS.md are of a Release build);
# function and data sections with --gc-sections leave out what the demo
# does not use.
FOOTPRINT_CMAKE_OPTIONS=${FOOTPRINT_CMAKE_OPTIONS:-"-DCMAKE_BUILD_TYPE=MinSizeRel
-DCMAKE_CXX_FLAGS=-ffunction-sections -fdata-sections
-DCMAKE_EXE_LINKER_FLAGS=-Wl,--gc-sections
-DCMAKE_SHARED_LINKER_FLAGS=-Wl,--gc-sections
-DNVQ_BUILD_TESTS=OFF
-DNVQ_WITH_TLS=OFF
-DNVQ_WITH_UPLOADS=OFF
-DNVQ_WITH_WEBSOCKET=OFF"}
mapfile -t OPTIONS <<< "$FOOTPRINT_CMAKE_OPTIONS"
# The demo with the C++ run-time linked in: no libstdc++.so on the device,
# and only the parts used are loaded.
STATIC_RUNTIME_FLAGS="-Wl,--gc-sections -Wl,--as-needed -static-libstdc++ -static-libgcc"
IDLE_CONNECTIONS=100
LIBRARIES=(kzf_base nvq_sockets nvq_http)

update_results=0
install=1
for argument in "$@"; do
  case "$argument" in
    --update-results) update_results=1 ;;
    --no-install) install=0 ;;
    *) echo "usage: $0 [--update-results] [--no-install]" >&2; exit 2 ;;
  esac
done
if [ $install -eq 1 ]; then
  scripts/ensure_packages.sh cmake ninja-build g++ g++-arm-linux-gnueabihf g++-aarch64-linux-gnu python3
fi

declare -A TRIPLE=([x86-64]="" [armhf]=arm-linux-gnueabihf [aarch64]=aarch64-linux-gnu)
ARCHES=(x86-64 armhf aarch64)
out=build/footprint
mkdir -p "$out"

tool() { # arch name
  if [ -n "${TRIPLE[$1]}" ]; then echo "${TRIPLE[$1]}-$2"; else echo "$2"; fi
}

configure_and_build() { # dir arch target... ; extra options in EXTRA
  local dir=$1 arch=$2
  shift 2
  local toolchain=()
  [ "$arch" != x86-64 ] && toolchain=(-DCMAKE_TOOLCHAIN_FILE="$REPO/cmake/toolchains/$arch.cmake")
  cmake -S . -B "$dir" -G Ninja --no-warn-unused-cli "${toolchain[@]}" "${OPTIONS[@]}" "${EXTRA[@]}" >/dev/null
  cmake --build "$dir" -j 2 --target "$@" >/dev/null
}

stripped_size() { # arch file
  local copy=$out/stripped.tmp
  "$(tool "$1" strip)" --strip-unneeded -o "$copy" "$2"
  stat -c %s "$copy"
  rm -f "$copy"
}

text_size() { # arch archive
  "$(tool "$1" size)" -t "$2" | awk 'END { print $1 }'
}

kib() {
  awk -v b="$1" 'BEGIN { printf "%.1f KiB", b / 1024 }'
}

declare -A SIZE
for arch in "${ARCHES[@]}"; do
  echo "building for $arch" >&2
  EXTRA=()
  configure_and_build "build/footprint-$arch-static" "$arch" nvq-httpd
  SIZE[$arch,demo]=$(stripped_size "$arch" "build/footprint-$arch-static/bin/nvq-httpd")
  total=0
  for library in "${LIBRARIES[@]}"; do
    archive=$(find "build/footprint-$arch-static" -name "lib$library.a")
    SIZE[$arch,$library.a]=$(text_size "$arch" "$archive")
    total=$((total + SIZE[$arch,$library.a]))
  done
  SIZE[$arch,archives]=$total
  EXTRA=(-DBUILD_SHARED_LIBS=ON)
  configure_and_build "build/footprint-$arch-shared" "$arch" nvq_http
  total=0
  for library in "${LIBRARIES[@]}"; do
    shared=$(find "build/footprint-$arch-shared" -name "lib$library.so")
    SIZE[$arch,$library.so]=$(stripped_size "$arch" "$shared")
    total=$((total + SIZE[$arch,$library.so]))
  done
  SIZE[$arch,shared]=$total
  EXTRA=("-DCMAKE_EXE_LINKER_FLAGS=$STATIC_RUNTIME_FLAGS")
  configure_and_build "build/footprint-$arch-static-runtime" "$arch" nvq-httpd
  SIZE[$arch,demo-static-runtime]=$(stripped_size "$arch" "build/footprint-$arch-static-runtime/bin/nvq-httpd")
done

# Optional features: a row each, built with the feature ON where the project
# knows the option (a declared option is a BOOL in the cache; one the project
# does not declare stays UNINITIALIZED).
feature_rows=()
for option in "${OPTIONS[@]}"; do
  [[ "$option" =~ ^-D(NVQ_WITH_[A-Z0-9_]+)=OFF$ ]] || continue
  name=${BASH_REMATCH[1]}
  row="| nvq-httpd with $name=ON, stripped |"
  if grep -q "^$name:BOOL=" build/footprint-x86-64-static/CMakeCache.txt; then
    for arch in "${ARCHES[@]}"; do
      EXTRA=("-D$name=ON")
      # A feature whose library the target lacks (OpenSSL for the cross
      # builds here) cannot be built for it: said so in its cell.
      if configure_and_build "build/footprint-$arch-$name" "$arch" nvq-httpd > "$out/$arch-$name.log" 2>&1; then
        row+=" $(kib "$(stripped_size "$arch" "build/footprint-$arch-$name/bin/nvq-httpd")") |"
      else
        row+=" not built (see $out/$arch-$name.log) |"
      fi
    done
  else
    row+=" n/a | n/a | n/a |"
  fi
  feature_rows+=("$row")
done

# Resident memory, natively: after start, then holding idle connections that
# each made one keep-alive request.
www=$out/www
mkdir -p "$www"
head -c 1024 /dev/zero > "$www/1k.bin"
measure_memory() { # binary -> "rss_start private_start rss_idle threads_idle"
  local log=$out/server.log
  "$1" --port 0 --root "$www" --log-level 4 2> "$log" &
  local pid=$!
  local port=
  for _ in $(seq 100); do
    port=$(sed -n 's|.*localhost:\([0-9]*\)/.*|\1|p' "$log")
    [ -n "$port" ] && break
    sleep 0.1
  done
  [ -n "$port" ] || { kill $pid; echo "nvq-httpd did not start" >&2; exit 1; }
  sleep 1
  python3 - "$pid" "$port" "$IDLE_CONNECTIONS" <<'EOF'
import socket, sys, time
pid, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])

def status(key):
    for line in open("/proc/%s/status" % pid):
        if line.startswith(key + ":"):
            return int(line.split()[1])

def private_kb():
    values = {}
    for line in open("/proc/%s/smaps_rollup" % pid):
        parts = line.split()
        if len(parts) == 3 and parts[2] == "kB":
            values[parts[0].rstrip(":")] = int(parts[1])
    return values["Private_Clean"] + values["Private_Dirty"]

start_rss, start_private = status("VmRSS"), private_kb()
clients = []
for _ in range(count):
    client = socket.create_connection(("127.0.0.1", port), timeout=10)
    client.sendall(b"GET /1k.bin HTTP/1.1\r\nHost: footprint\r\n\r\n")
    answer = b""
    while not (b"\r\n\r\n" in answer and len(answer.split(b"\r\n\r\n", 1)[1]) >= 1024):
        more = client.recv(4096)
        if not more:
            sys.exit("connection closed early")
        answer += more
    clients.append(client)
time.sleep(1)
print(start_rss, start_private, status("VmRSS"), status("Threads"))
for client in clients:
    client.close()
EOF
  kill -TERM $pid
  wait $pid || true
}
echo "measuring resident memory" >&2
read -r rss_start private_start rss_idle threads_idle < <(measure_memory build/footprint-x86-64-static/bin/nvq-httpd)
read -r rss_start_sr private_start_sr rss_idle_sr threads_idle_sr < <(
  measure_memory build/footprint-x86-64-static-runtime/bin/nvq-httpd)

verdict() { # value limit
  [ "$1" -le "$2" ] && echo "**met**" || echo "**missed**"
}

report=$out/FOOTPRINT.md
{
  echo "## Footprint"
  echo
  echo "Measured $(date -u +%Y-%m-%dT%H:%M:%SZ) by \`Bench/footprint.sh\` at $(git rev-parse --short HEAD)," \
    "with $(g++ --version | head -1), $(arm-linux-gnueabihf-g++ --version | head -1) and" \
    "$(aarch64-linux-gnu-g++ --version | head -1). Every build: $(printf '`%s` ' "${OPTIONS[@]}" | sed 's/ $//');" \
    "static libraries unless marked shared. Sizes are of stripped files (\`strip --strip-unneeded\`);" \
    "archives count the text of their members (\`size -t\`). The aarch64 files are larger mostly by" \
    "padding: GNU ld aligns aarch64 segments for 64 KiB pages (\`-Wl,-z,max-page-size=4096\`" \
    "removes it where the kernel uses 4 KiB pages)."
  echo
  echo "| What | x86-64 | armhf | aarch64 |"
  echo "|---|---:|---:|---:|"
  row() { # label key
    local line="| $1 |"
    for arch in "${ARCHES[@]}"; do line+=" $(kib "${SIZE[$arch,$2]}") |"; done
    echo "$line"
  }
  row "nvq-httpd (libstdc++ shared)" demo
  row "nvq-httpd (libstdc++ and libgcc linked in)" demo-static-runtime
  for library in "${LIBRARIES[@]}"; do row "lib$library.a, text" "$library.a"; done
  row "the three archives, text" archives
  for library in "${LIBRARIES[@]}"; do row "lib$library.so" "$library.so"; done
  row "the three shared libraries" shared
  printf '%s\n' "${feature_rows[@]}"
  echo
  echo "Resident memory of nvq-httpd on x86-64 (VmRSS; \"private\" leaves out the pages of shared" \
    "libraries, which the kernel maps from the page cache and counts in full for every process)." \
    "Not measured for ARM: under qemu-user it would be QEMU's."
  echo
  echo "| nvq-httpd | After start | Private after start | With $IDLE_CONNECTIONS idle keep-alive connections | Threads then |"
  echo "|---|---:|---:|---:|---:|"
  echo "| libstdc++ shared | $rss_start KiB | $private_start KiB | $rss_idle KiB | $threads_idle |"
  echo "| libstdc++ and libgcc linked in | $rss_start_sr KiB | $private_start_sr KiB | $rss_idle_sr KiB | $threads_idle_sr |"
  echo
  echo "| Goal | Measured | Verdict |"
  echo "|---|---|---|"
  echo "| Stripped demo at most 256 KiB on armhf, optional features off | $(kib "${SIZE[armhf,demo]}")" \
    "(libstdc++ shared), $(kib "${SIZE[armhf,demo-static-runtime]}") (linked in) |" \
    "$(verdict "${SIZE[armhf,demo]}" 262144) |"
  echo "| At most 2 MiB resident after start | $rss_start KiB (libstdc++ shared), $rss_start_sr KiB" \
    "(linked in) | $(verdict "$rss_start" 2048) with libstdc++ shared, $(verdict "$rss_start_sr" 2048)" \
    "with it linked in |"
} > "$report"

if [ $update_results -eq 1 ]; then
  python3 - Bench/RESULTS.md "$report" <<'EOF'
import re, sys
results, section = sys.argv[1], open(sys.argv[2]).read()
text = open(results).read()
match = re.search(r"^## Footprint\n.*?(?=^## |\Z)", text, re.M | re.S)
if match:
    text = text[:match.start()] + section + "\n" + text[match.end():]
else:
    text = text.rstrip("\n") + "\n\n" + section
open(results, "w").write(text.rstrip("\n") + "\n")
EOF
fi
cat "$report"
