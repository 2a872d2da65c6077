# shellcheck shell=bash
# Installing what the bench needs and building it: the peer programs and
# client tools (plain compiler calls) and our nvq-httpd. Sourced by
# run_bench.sh, which calls these in its main sequence.

# ---------------------------------------------------------------------------
# Install what is missing (Debian 12).
# ---------------------------------------------------------------------------
ensure_packages() {
  local missing=()
  command -v wrk >/dev/null || missing+=(wrk)
  command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] || missing+=(nginx)
  command -v h2o >/dev/null || missing+=(h2o)
  command -v curl >/dev/null || missing+=(curl)
  command -v openssl >/dev/null || missing+=(openssl)
  command -v gcc >/dev/null || missing+=(gcc)
  command -v cmake >/dev/null || missing+=(cmake)
  command -v ninja >/dev/null || missing+=(ninja-build)
  command -v g++ >/dev/null || missing+=(g++)
  command -v timeout >/dev/null || missing+=(coreutils)
  command -v pgrep >/dev/null || missing+=(procps)
  command -v node >/dev/null || missing+=(nodejs)
  command -v npm >/dev/null || missing+=(npm)
  [ -f /usr/include/microhttpd.h ] || missing+=(libmicrohttpd-dev)
  [ -f /usr/include/civetweb.h ] || missing+=(libcivetweb-dev)
  [ -f /usr/include/httplib.h ] || missing+=(libcpp-httplib-dev)
  [ -f /usr/include/openssl/ssl.h ] || missing+=(libssl-dev)
  if [ -n "$profile" ]; then
    command -v perf >/dev/null || missing+=(linux-perf)
    command -v strace >/dev/null || missing+=(strace)
  fi
  [ -x "$REPORT_PY" ] || missing+=(python3)
  "$REPORT_PY" -c 'import matplotlib' 2>/dev/null || missing+=(python3-matplotlib)
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$install" -eq 0 ]; then
    echo "missing: ${missing[*]} (run without --no-install to apt-get them)" >&2
    exit 1
  fi
  log "installing: ${missing[*]}"
  local sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -q
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# ---------------------------------------------------------------------------
# Build our peer programs and tools (plain compiler calls, own build dir).
# ---------------------------------------------------------------------------
build_one() { # output source compiler flags... (DEPS: headers the source includes)
  local output=$1 source=$2 dep stale=0
  shift 2
  for dep in "$source" ${DEPS:-}; do
    if [ "$dep" -nt "$BIN/$output" ]; then stale=1; fi
  done
  if [ ! -x "$BIN/$output" ] || [ $stale = 1 ]; then
    log "building $output"
    "$@" -o "$BIN/$output.tmp" "$source" ${LINK:-} && mv "$BIN/$output.tmp" "$BIN/$output"
  fi
}

build_peer_tools() {
  mkdir -p "$BIN"
  CFLAGS=(-O2 -Wall -Wextra)
  LINK="-lmicrohttpd" build_one mhd_static "$BENCH_DIR/peers/mhd_static.c" gcc "${CFLAGS[@]}"
  LINK="-lmicrohttpd" build_one mhd_upload "$BENCH_DIR/peers/mhd_upload.c" gcc "${CFLAGS[@]}"
  LINK="-lcivetweb" build_one civetweb_static "$BENCH_DIR/peers/civetweb_static.c" gcc "${CFLAGS[@]}"
  LINK="-lcivetweb" build_one civetweb_ws_echo "$BENCH_DIR/peers/civetweb_ws_echo.c" gcc "${CFLAGS[@]}"
  LINK="-lcpp-httplib -pthread" build_one httplib_static "$BENCH_DIR/peers/httplib_static.cpp" g++ -std=c++17 "${CFLAGS[@]}"
  LINK="-pthread" build_one floor_server "$BENCH_DIR/floor/floor_server.c" gcc "${CFLAGS[@]}"
  DEPS="$BENCH_DIR/tools/idle_conns_client.h" LINK="-lssl -lcrypto" build_one idle_conns "$BENCH_DIR/tools/idle_conns.cpp" g++ -std=c++17 "${CFLAGS[@]}"
  DEPS="$BENCH_DIR/tools/slow_readers_client.h" LINK="" build_one slow_readers "$BENCH_DIR/tools/slow_readers.cpp" g++ -std=c++17 "${CFLAGS[@]}"
  LINK="-pthread" build_one upload_client "$BENCH_DIR/tools/upload_client.cpp" g++ -std=c++17 "${CFLAGS[@]}"
  DEPS="$BENCH_DIR/tools/ws_load_worker.h" LINK="-pthread" build_one ws_load "$BENCH_DIR/tools/ws_load.cpp" g++ -std=c++17 "${CFLAGS[@]}"
}

# Ours, optimised as a user would ship it. The WebSocket bench program is
# built too once a target of that name exists (the benchmarks' CMake folder
# needs libbenchmark-dev and libhttp-parser-dev; without them only
# nvq-httpd is built).
build_nvq() {
  NVQ_BUILD="$REPO/build/bench-nvq"
  nvq_bin_dir="$NVQ_BUILD/bin"
  if [ "$build_nvq" -eq 1 ]; then
    log "building nvq-httpd"
    if ! cmake -S "$REPO" -B "$NVQ_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNVQ_BUILD_TESTS=OFF \
           -DNVQ_BUILD_BENCH=ON > "$REPO/build/bench-nvq.cmake.log" 2>&1; then
      cmake -S "$REPO" -B "$NVQ_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNVQ_BUILD_TESTS=OFF \
        -DNVQ_BUILD_BENCH=OFF >/dev/null
    fi
    cmake --build "$NVQ_BUILD" -j2 --target nvq-httpd >/dev/null
    if ninja -C "$NVQ_BUILD" -t targets all 2>/dev/null | grep -q '^nvq_bench_ws:'; then
      log "building nvq_bench_ws"
      cmake --build "$NVQ_BUILD" -j2 --target nvq_bench_ws >/dev/null || log "warning: nvq_bench_ws did not build"
    fi
    # Like the peers' access logs, the log's per-connection notices stay off
    # (/proxy/log keeps levels up to 4); everything else is the default.
    nvq_cmd="build/bench-nvq/bin/nvq-httpd --port {port} --root {root} --capture-level 4"
  fi
}
