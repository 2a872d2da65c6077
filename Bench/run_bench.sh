#!/usr/bin/env bash
# Side-by-side HTTP server benchmark: our server's variants and the peers
# nginx, h2o, libmicrohttpd, civetweb and cpp-httplib (plus our own upload
# and WebSocket peer programs and a floor server), all on loopback ports,
# measured with wrk and our own clients.
#
#   Bench/run_bench.sh                 everything (about 25 minutes today)
#   Bench/run_bench.sh --quick         every scenario once, 3 s each
#
# Our demo server nvq-httpd is built first (Release, in build/bench-nvq).
#
# Options:
#   --nvq CMD          our server's base command line instead of the one
#                      built here; {port} and {root} are filled in, and the
#                      variants add their flags to it
#   --no-nvq           the peers only
#   --duration SEC     seconds per measurement (default 5)
#   --quick            3 s per measurement, each measured once
#   --small-repeat N   rounds of the small-request scenarios, every server
#                      once per round (default 5)
#   --repeat N         measurements of every other scenario (default 3)
#   --only A,B         run only these servers (names as in the tables
#                      below: nvq, nvq-web, nvq-tls, nvq-upload, nvq-ws,
#                      floor, nginx, h2o, ...)
#   --phases A,B       run only these phases: small large slow idle https
#                      tlsidle upload ws wsidle (default: all, in that order)
#   --idle-conns N     connections for the idle tests (default 10000)
#   --slow-conns N     slow clients in the slow-reader test (default 1000)
#   --uploads N        uploads per client per measurement (default 8)
#   --profile NAME     also profile server NAME in the small-request
#                      scenarios (perf stat and strace -c, separate runs)
#   --out DIR          run directory (default build/bench/<timestamp>)
#   --quiet-wait SEC   before each server, wait up to SEC seconds for other
#                      processes to leave the CPUs idle (default 60)
#   --nice N           run the servers and clients at this niceness
#                      (default 0; e.g. -10 as root so builds and tests that
#                      share the machine disturb the numbers less)
#   --no-install       do not apt-get or npm anything; fail if missing
#
# Results: <run dir>/results.md and chart.png; raw outputs beside them.
set -euo pipefail

BENCH_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
REPO=$(cd "$BENCH_DIR/.." && pwd)
cd "$REPO"

# ---------------------------------------------------------------------------
# Our server's variants: name | command | groups.
#   {nvq} is our base command (the nvq-httpd built here with --port {port}
#   --root {root}, or --nvq CMD). Every --flag a variant adds to it must
#   appear in the program's --help output; until it does, the variant is
#   skipped and the report says so. A command of its own (not starting with
#   {nvq}) is skipped while its program does not exist; there {bin} is the
#   directory our nvq-httpd was built into.
#   Placeholders as for the peers, plus {cert} and {key} (a self-signed
#   certificate made for the run) and {tlsport}.
# Groups: plain (every plain-HTTP scenario: small requests, large answers,
# slow readers, idle connections), https (the HTTPS scenarios and idle TLS
# connections), upload, ws (WebSocket echo and idle WebSockets), floor
# (small requests only).
# nvq-tls runs strict: the reference mode keeps a connection whatever its
# Connection field says, which would turn the new-connection-per-request
# scenario into a keep-alive one.
# ---------------------------------------------------------------------------
OURS_TABLE='
nvq        | {nvq}                                                         | plain
nvq-web    | {nvq} --web                                                   | plain
nvq-tls    | {nvq} --strict --tls-cert {cert} --tls-key {key} --tls-port {tlsport} | https
nvq-upload | {nvq} --upload-dir {run}/uploads                              | upload
nvq-ws     | {bin}/nvq_bench_ws --port {port}                              | ws
'

# ---------------------------------------------------------------------------
# The peers: name | groups | config template | command.
#   config template: a file in Bench/peers/ whose {port}, {tlsport}, {root},
#     {run}, {cert} and {key} are filled in and written to {conf}; "-" for
#     none. Lines starting with "#ifroot " are kept (without the marker)
#     only when run as root.
#   command: run from the repository root, in the foreground, with
#     placeholders {port}, {root} (the served directory), {run} (this
#     server's own scratch directory), {conf}, {bin} (our peer programs),
#     {bench} (this folder), {node_path} (where npm put ws) and {cores}.
# nginx takes part in the upload test with PUT (see nginx.conf.in).
# ---------------------------------------------------------------------------
PEER_TABLE='
floor         | floor              | -             | {bin}/floor_server --port {port} --root {root} --threads {cores}
nginx         | plain https upload | nginx.conf.in | nginx -p {run}/ -c {conf} -e {run}/error.log
h2o           | plain https        | h2o.conf.in   | h2o -c {conf}
libmicrohttpd | plain              | -             | {bin}/mhd_static --port {port} --root {root} --threads {cores}
civetweb      | plain              | -             | {bin}/civetweb_static --port {port} --root {root} --threads 1024
cpp-httplib   | plain              | -             | {bin}/httplib_static --port {port} --root {root} --threads 1024
mhd-upload    | upload             | -             | {bin}/mhd_upload --port {port} --dir {run}/uploads --threads {cores}
civetweb-ws   | ws                 | -             | {bin}/civetweb_ws_echo --port {port} --threads 1024
node-ws       | ws                 | -             | env NODE_PATH={node_path} node {bench}/peers/ws_echo.js --port {port}
'
# Method and path of the upload test per server (POST /upload otherwise).
upload_method() { case $1 in nginx) echo PUT ;; *) echo POST ;; esac; }

# The wrk scenarios: id | phase | scheme | path | connections | wrk options | label.
# Phase "small" runs in alternating rounds over every server at once; the
# others run server by server. The wrk options are split like shell words.
SCENARIOS='
1k        | small | http  | /1k.bin         | 32   |                           | 1 KiB keep-alive, 32 connections
404       | small | http  | /does-not-exist | 32   |                           | 404 keep-alive, 32 connections
c1000     | small | http  | /1k.bin         | 1000 | --timeout 10s             | 1 KiB, 1000 connections
100k      | large | http  | /100k.bin       | 32   |                           | 100 KiB, 32 connections
100kclose | large | http  | /100k.bin       | 32   | -H "Connection: close"    | 100 KiB, every answer closes, 32 connections
64m       | large | http  | /64m.bin        | 4    | --timeout 30s             | 64 MiB throughput, 4 connections
tls1k     | https | https | /1k.bin         | 32   |                           | HTTPS 1 KiB keep-alive, 32 connections
tlsclose  | https | https | /1k.bin         | 32   | -H "Connection: close"    | HTTPS new connection per request, 32 connections
tls64m    | https | https | /64m.bin        | 4    | --timeout 30s             | HTTPS 64 MiB throughput, 4 connections
'
WRK_THREADS=2
# Ports: 18080 + 40 x phase + row; the TLS port of an instance is 20 higher.
BASE_PORT=18080
PHASES=(small large slow idle https tlsidle upload ws wsidle)
# The slow-reader test's own load, and the WebSocket message sizes.
SLOW_WRK_CONNS=8
# A server that keeps each stalled download in memory must not take the
# shared machine down: the slow clients stop opening once the server's
# resident memory passes this (a quarter of RAM, at most 2 GiB).
SLOW_MAX_RSS_MB=$(awk '/MemTotal/ { m = int($2 / 1024 / 4); print (m < 2048 ? m : 2048) }' /proc/meminfo)
WS_SIZES=(64 16384)
WS_CONNS=32
UPLOAD_CLIENTS=4
UPLOAD_SIZE=$((64 * 1024 * 1024))

duration=5
repeat=
small_repeat=
quiet_wait=60
niceness=0
idle_conns=10000
slow_conns=1000
uploads=8
profile=""
nvq_cmd=""
build_nvq=1
only=""
phases=""
out=""
install=1
while [ $# -gt 0 ]; do
  case "$1" in
    --nvq) nvq_cmd=$2; build_nvq=0; shift 2 ;;
    --no-nvq) nvq_cmd=""; build_nvq=0; shift ;;
    --duration) duration=$2; shift 2 ;;
    --quick) duration=3; repeat=${repeat:-1}; small_repeat=${small_repeat:-1}; shift ;;
    --only) only=$2; shift 2 ;;
    --phases) phases=$2; shift 2 ;;
    --idle-conns) idle_conns=$2; shift 2 ;;
    --slow-conns) slow_conns=$2; shift 2 ;;
    --uploads) uploads=$2; shift 2 ;;
    --profile) profile=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --repeat) repeat=$2; shift 2 ;;
    --small-repeat) small_repeat=$2; shift 2 ;;
    --quiet-wait) quiet_wait=$2; shift 2 ;;
    --nice) niceness=$2; shift 2 ;;
    --no-install) install=0; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown option: $1 (see --help)" >&2; exit 2 ;;
  esac
done
count_ok() { [[ "$1" =~ ^[0-9]+$ ]] && [ "$1" -gt 0 ]; }
count_ok "$duration" || { echo "--duration wants whole seconds" >&2; exit 2; }
repeat=${repeat:-3}
small_repeat=${small_repeat:-5}
count_ok "$repeat" || { echo "--repeat wants a count" >&2; exit 2; }
count_ok "$small_repeat" || { echo "--small-repeat wants a count" >&2; exit 2; }
count_ok "$idle_conns" || { echo "--idle-conns wants a count" >&2; exit 2; }
count_ok "$slow_conns" || { echo "--slow-conns wants a count" >&2; exit 2; }
count_ok "$uploads" || { echo "--uploads wants a count" >&2; exit 2; }
[[ "$quiet_wait" =~ ^[0-9]+$ ]] || { echo "--quiet-wait wants whole seconds" >&2; exit 2; }
for p in ${phases//,/ }; do
  [[ " ${PHASES[*]} " == *" $p "* ]] || { echo "--phases: no phase '$p' (${PHASES[*]})" >&2; exit 2; }
done
[[ "$niceness" =~ ^-?[0-9]+$ ]] || { echo "--nice wants a number" >&2; exit 2; }
# Every measured process (servers and clients) runs through this.
NICE=(nice -n "$niceness")
if [ "$niceness" -lt 0 ] && ! nice -n "$niceness" true 2>/dev/null; then
  echo "--nice $niceness needs root" >&2
  exit 2
fi
# With autogrouping on, the scheduler first shares the CPUs between
# sessions and applies nice values only inside one, so a nice value alone
# would not move wrk and the servers ahead of other sessions' builds. The
# session's own nice is set as well (this script's session for the clients,
# each server's new session as it starts) and put back at exit.
autogroup_nice() { # pid niceness
  [ "$niceness" -ne 0 ] && [ -w "/proc/$1/autogroup" ] || return 0
  echo "$2" > "/proc/$1/autogroup" 2>/dev/null || true
}
own_autogroup_nice=$(awk '{ print $NF }' /proc/$$/autogroup 2>/dev/null || echo 0)

log() { printf '[%s] %s\n' "$(date +%H:%M:%S)" "$*" >&2; }
trim() { local s=$1; s=${s#"${s%%[![:space:]]*}"}; s=${s%"${s##*[![:space:]]}"}; printf '%s' "$s"; }

# ---------------------------------------------------------------------------
# Install what is missing (Debian 12).
# ---------------------------------------------------------------------------
REPORT_PY=/usr/bin/python3   # Debian's interpreter sees python3-matplotlib
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
ensure_packages
export PATH="$PATH:/usr/sbin:/sbin"

# ---------------------------------------------------------------------------
# Build our peer programs and tools (plain compiler calls, own build dir).
# ---------------------------------------------------------------------------
BIN="$REPO/build/bench-peers"
mkdir -p "$BIN"
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

# Ours, optimised as a user would ship it. The WebSocket bench program is
# built too once a target of that name exists (the benchmarks' CMake folder
# needs libbenchmark-dev and libhttp-parser-dev; without them only
# nvq-httpd is built).
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

# ---------------------------------------------------------------------------
# The served directory: deterministic content, reused across runs.
# ---------------------------------------------------------------------------
WWW="$REPO/build/bench/www"
"$REPORT_PY" "$BENCH_DIR/tools/make_www.py" "$WWW"
# nginx and h2o workers drop to an unprivileged user when started as root.
chmod -R a+rX "$WWW"

# ---------------------------------------------------------------------------
# Run directory, limits, certificate.
# ---------------------------------------------------------------------------
[ -n "$out" ] || out="build/bench/$(date +%Y%m%d-%H%M%S)"
mkdir -p "$out"
RUN=$(cd "$out" && pwd)
mkdir -p "$RUN/raw" "$RUN/idle" "$RUN/servers" "$RUN/slow" "$RUN/upload" "$RUN/ws" "$RUN/profile"
log "run directory: $RUN"

# Every connection is a descriptor, for the clients and each server (they
# inherit this limit).
hard=$(ulimit -Hn)
if [ "$hard" = unlimited ]; then nofile=1048576; else nofile=$hard; fi
[ "$nofile" -gt 1048576 ] && nofile=1048576
ulimit -Sn "$nofile" 2>/dev/null || true
if [ "$(ulimit -Sn)" -lt $((idle_conns + 100)) ]; then
  log "warning: open-file limit $(ulimit -Sn) is below the $idle_conns idle connections"
fi

# One self-signed certificate for every HTTPS server: ECDSA on P-256, the
# usual choice for a device (small keys, cheap handshakes).
CERT="$RUN/tls/cert.pem" KEY="$RUN/tls/key.pem"
mkdir -p "$RUN/tls"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 7 -subj /CN=127.0.0.1 \
  -keyout "$KEY" -out "$CERT" 2>/dev/null
chmod a+r "$KEY" "$CERT"

cores=$(nproc)
{
  echo "date=$(date -u +%Y-%m-%dT%H:%M:%SZ)"
  echo "host_cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
  echo "cores=$cores"
  echo "memory=$(awk '/MemTotal/ {printf "%.1f GiB", $2/1048576}' /proc/meminfo)"
  echo "kernel=$(uname -r)"
  echo "os=$(. /etc/os-release && echo "$PRETTY_NAME")"
  echo "wrk=$(wrk -v 2>&1 | head -1 | awk '{print $2}')"
  echo "wrk_threads=$WRK_THREADS"
  echo "duration=$duration"
  echo "repeat=$repeat"
  echo "small_repeat=$small_repeat"
  echo "nice=$niceness"
  echo "idle_conns=$idle_conns"
  echo "slow_conns=$slow_conns"
  echo "slow_wrk_conns=$SLOW_WRK_CONNS"
  echo "slow_max_rss_mb=$SLOW_MAX_RSS_MB"
  echo "upload_clients=$UPLOAD_CLIENTS"
  echo "upload_size=$UPLOAD_SIZE"
  echo "uploads=$uploads"
  echo "ws_conns=$WS_CONNS"
  echo "ws_sizes=${WS_SIZES[*]}"
  echo "tls_key=ECDSA P-256 (self-signed)"
  echo "openssl=$(openssl version | awk '{print $2}')"
  echo "node=$(node --version 2>/dev/null || echo none)"
  echo "profile=$profile"
  echo "nofile=$(ulimit -Sn)"
  echo "load_before=$(cut -d' ' -f1-3 /proc/loadavg)"
  for p in nginx h2o libmicrohttpd-dev libcivetweb-dev libcpp-httplib-dev libssl-dev; do
    echo "version_$p=$(dpkg-query -W -f='${Version}' "$p" 2>/dev/null || echo unknown)"
  done
} > "$RUN/machine.txt"

printf '%s\n' "$SCENARIOS" | sed '/^[[:space:]]*$/d' > "$RUN/scenarios.txt"

# ---------------------------------------------------------------------------
# The list of servers for this run: ours (the variants that exist), the
# floor and the peers.
# ---------------------------------------------------------------------------
names=() kinds=() groups=() confs=() cmds=()
: > "$RUN/servers.txt"
want() { [ -z "$only" ] || [[ ",$only," == *",$1,"* ]]; }
row_note() { # name kind groups status note command
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$@" >> "$RUN/servers.txt"
}
add_row() { # name kind groups conf cmd
  names+=("$1") kinds+=("$2") groups+=("$3") confs+=("$4") cmds+=("$5")
  row_note "$1" "$2" "$3" ok "" "$5"
}
nvq_help=""
nvq_prog=""
if [ -n "$nvq_cmd" ]; then
  # The first word is the program, relative to the repository root.
  read -r nvq_prog _ <<< "$nvq_cmd"
  if [ -x "$nvq_prog" ] || command -v "$nvq_prog" >/dev/null 2>&1; then
    nvq_help=$(timeout 10 "$nvq_prog" --help 2>&1 || true)
    [[ "$nvq_prog" == */* ]] && nvq_bin_dir=$(cd "$(dirname "$nvq_prog")" && pwd)
  else
    log "warning: our server program '$nvq_prog' does not exist; no variant of ours runs"
    echo "ours_missing=$nvq_prog" >> "$RUN/machine.txt"
  fi
fi
while IFS='|' read -r name cmd grp; do
  name=$(trim "$name") cmd=$(trim "$cmd") grp=$(trim "$grp")
  [ -n "$name" ] || continue
  want "$name" || continue
  if [ -z "$nvq_cmd" ]; then
    row_note "$name" ours "$grp" skipped "our server is not part of this run" "$cmd"
    continue
  elif [[ "$cmd" == "{nvq}"* ]]; then
    if [ -z "$nvq_help" ]; then
      row_note "$name" ours "$grp" skipped "our server program is missing" "$cmd"
      continue
    fi
    missing_flags=()
    for word in ${cmd#"{nvq}"}; do
      [[ "$word" == --* ]] || continue
      grep -qE -- "(^|[^[:alnum:]-])$word([^[:alnum:]-]|\$)" <<< "$nvq_help" || missing_flags+=("$word")
    done
    if [ ${#missing_flags[@]} -gt 0 ]; then
      why="$(basename "$nvq_prog") has no ${missing_flags[*]} flag"
      [ ${#missing_flags[@]} -gt 1 ] && why+=s
      row_note "$name" ours "$grp" skipped "$why yet" "$cmd"
      log "skipping $name: $why yet"
      continue
    fi
    add_row "$name" ours "$grp" - "$(trim "$nvq_cmd")${cmd#"{nvq}"}"
  else
    cmd=${cmd//\{bin\}/$nvq_bin_dir}
    read -r prog _ <<< "$cmd"
    if [ ! -x "$prog" ]; then
      row_note "$name" ours "$grp" skipped "not built yet: ${prog#"$REPO"/}" "$cmd"
      log "skipping $name: ${prog#"$REPO"/} does not exist yet"
      continue
    fi
    add_row "$name" ours "$grp" - "$cmd"
  fi
done <<< "$OURS_TABLE"
node_path="$RUN/build/node_modules"
while IFS='|' read -r name grp conf cmd; do
  name=$(trim "$name") grp=$(trim "$grp") conf=$(trim "$conf") cmd=$(trim "$cmd")
  [ -n "$name" ] || continue
  want "$name" || continue
  kind=peer
  [ "$name" = floor ] && kind=floor
  if [ "$name" = node-ws ]; then
    # ws from the npm registry, into this run's own directory.
    if [ ! -d "$node_path/ws" ]; then
      if [ "$install" -eq 1 ] && command -v npm >/dev/null; then
        log "npm install ws"
        mkdir -p "$RUN/build"
        (cd "$RUN/build" && timeout 300 npm install --no-audit --no-fund --no-save --silent ws) \
          > "$RUN/build/npm.log" 2>&1 || true
      fi
    fi
    if [ ! -d "$node_path/ws" ]; then
      if [ "$install" -eq 1 ]; then
        row_note "$name" "$kind" "$grp" skipped "npm could not install ws (see build/npm.log)" "$cmd"
      else
        row_note "$name" "$kind" "$grp" skipped "ws is not installed, and --no-install keeps npm away" "$cmd"
      fi
      continue
    fi
    echo "version_ws=$(sed -n 's/.*"version": *"\([^"]*\)".*/\1/p' "$node_path/ws/package.json" | head -1)" >> "$RUN/machine.txt"
  fi
  add_row "$name" "$kind" "$grp" "$conf" "$cmd"
done <<< "$PEER_TABLE"
[ ${#names[@]} -gt 0 ] || { echo "no server selected" >&2; exit 2; }
if [ -n "$profile" ]; then
  printf '%s\n' "${names[@]}" | grep -qx -- "$profile" || log "warning: --profile $profile: no such server in this run"
fi

# Which rows take part in a phase.
in_phase() { # row-index phase
  local g=" ${groups[$1]} "
  case $2 in
    small) [[ "$g" == *" plain "* || "$g" == *" floor "* ]] ;;
    large|slow|idle) [[ "$g" == *" plain "* ]] ;;
    https|tlsidle) [[ "$g" == *" https "* ]] ;;
    upload) [[ "$g" == *" upload "* ]] ;;
    ws|wsidle) [[ "$g" == *" ws "* ]] ;;
    *) return 1 ;;
  esac
}
phase_index() { local i; for i in "${!PHASES[@]}"; do [ "${PHASES[$i]}" = "$1" ] && echo "$i" && return; done; }
port_of() { echo $((BASE_PORT + 40 * $(phase_index "$2") + $1)); } # row phase
# Results of each row in each phase: name, phase, status, note, command.
: > "$RUN/phases.txt"
phase_note() { printf '%s\t%s\t%s\t%s\t%s\n' "$@" >> "$RUN/phases.txt"; }

# ---------------------------------------------------------------------------
# Starting and stopping servers.
# ---------------------------------------------------------------------------
fill() { # template port run conf
  local s=$1 tlsport=$(($2 + 20))
  s=${s//\{port\}/$2}
  s=${s//\{tlsport\}/$tlsport}
  s=${s//\{root\}/$WWW}
  s=${s//\{run\}/$3}
  s=${s//\{conf\}/$4}
  s=${s//\{bin\}/$BIN}
  s=${s//\{bench\}/$BENCH_DIR}
  s=${s//\{node_path\}/$node_path}
  s=${s//\{cert\}/$CERT}
  s=${s//\{key\}/$KEY}
  s=${s//\{cores\}/$cores}
  printf '%s' "$s"
}

write_config() { # template output port run
  local line
  : > "$2"
  while IFS= read -r line || [ -n "$line" ]; do
    if [[ "$line" == "#ifroot "* ]]; then
      [ "$(id -u)" -eq 0 ] || continue
      line=${line#"#ifroot "}
    fi
    printf '%s\n' "$(fill "$line" "$3" "$4" "$2")" >> "$2"
  done < "$1"
}

# The command of row i for an instance on port p: config written, scratch
# directory (with an uploads/ folder the servers' users may write) ready.
instance_cmd() { # row port phase
  local i=$1 p=$2 sdir="$RUN/servers/${names[$1]}" conf_file=-
  mkdir -p "$sdir/uploads"
  chmod 777 "$sdir/uploads"
  if [ "${confs[$i]}" != - ]; then
    conf_file="$sdir/$(basename "${confs[$i]}" .in).$3"
    write_config "$BENCH_DIR/peers/${confs[$i]}" "$conf_file" "$p" "$sdir"
  fi
  fill "${cmds[$i]}" "$p" "$sdir" "$conf_file"
}

live_pids=()   # every server and helper client still running, for the exit trap
forget_pid() {
  local kept=() p
  for p in "${live_pids[@]}"; do [ "$p" = "$1" ] || kept+=("$p"); done
  live_pids=("${kept[@]}")
}
stop_server() { # pid (the leader of its own process group)
  local pid=$1 i
  [ -n "$pid" ] || return 0
  forget_pid "$pid"
  # The server leads its own process group, so its workers go with it.
  kill -TERM -- "-$pid" 2>/dev/null || true
  for i in $(seq 50); do
    alive "$pid" || break
    sleep 0.1
  done
  kill -KILL -- "-$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  # Let every worker of the group exit before the next server starts.
  for i in $(seq 50); do
    pgrep -g "$pid" >/dev/null 2>&1 || break
    sleep 0.1
  done
  kill -KILL -- "-$pid" 2>/dev/null || true
}
stop_all() {
  local p
  for p in "${live_pids[@]}"; do stop_server "$p"; done
}
trap 'stop_all; autogroup_nice $$ "$own_autogroup_nice"' EXIT
trap 'exit 130' INT TERM

# A dead child stays a zombie until waited for, and kill -0 still
# succeeds on a zombie, so look at its state instead.
alive() { # pid
  local state
  state=$(awk '{ sub(/^.*\) /, ""); print $1 }' "/proc/$1/stat" 2>/dev/null) || return 1
  [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

# Any HTTP answer will do, or a connection closed without one (a WebSocket
# server may have nothing to say to a plain GET).
answers() { # url
  local rc=0
  curl -s -o /dev/null -m 1 "$1" || rc=$?
  [ "$rc" -eq 0 ] || [ "$rc" -eq 52 ]
}

fail_note=""
server_pid=""
start_server() { # command port logfile; sets server_pid, or fail_note on failure
  server_pid=""
  if answers "http://127.0.0.1:$2/"; then
    fail_note="port $2 is already in use by another program"
    return 1
  fi
  (
    cd "$REPO"
    # setsid makes the server the leader of a new process group (same PID,
    # since this subshell is no group leader), so stopping it reaches every
    # process it forks and nothing else.
    exec setsid "${NICE[@]}" bash -c "exec $1"
  ) > "$3" 2>&1 < /dev/null &
  local pid=$! i
  live_pids+=("$pid")
  for i in $(seq 150); do
    if ! alive "$pid"; then
      wait "$pid" 2>/dev/null || true
      forget_pid "$pid"
      fail_note="exited at start (see $(basename "$3"))"
      return 1
    fi
    if answers "http://127.0.0.1:$2/1k.bin"; then
      # Only now is the server surely in its own session.
      autogroup_nice "$pid" "$niceness"
      server_pid=$pid
      return 0
    fi
    sleep 0.1
  done
  stop_server "$pid"
  fail_note="not answering on port $2 after 15 s"
  return 1
}

# A server that answers wrongly would make its numbers meaningless.
check_files() { # base-url full|floor; on failure prints why
  local u=$1 f code size
  local files=(1k.bin 100k.bin)
  [ "$2" = floor ] && files=(1k.bin)
  for f in "${files[@]}"; do
    if ! curl -sk -m 10 -o "$RUN/check.tmp" "$u/$f" || ! cmp -s "$RUN/check.tmp" "$WWW/$f"; then
      rm -f "$RUN/check.tmp"
      echo "wrong body for /$f"
      return 1
    fi
  done
  rm -f "$RUN/check.tmp"
  if [ "$2" != floor ]; then
    size=$(curl -sk -m 30 -o /dev/null -w '%{size_download}' "$u/64m.bin" || true)
    if [ "$size" != "$(stat -c %s "$WWW/64m.bin")" ]; then
      echo "/64m.bin gave $size bytes"
      return 1
    fi
  fi
  code=$(curl -sk -m 10 -o /dev/null -w '%{http_code}' "$u/does-not-exist" || true)
  if [ "$code" != 404 ]; then
    echo "missing file gave status $code"
    return 1
  fi
  return 0
}

# Whether a TLS server lets a client resume its session: the HTTPS tests
# are meant to compare full handshakes (see nginx.conf.in), so a server
# that resumes is marked in the report.
tls_resumes() { # port
  local s="$RUN/tls/session.$1"
  printf 'GET /1k.bin HTTP/1.0\r\n\r\n' | timeout 10 openssl s_client -connect "127.0.0.1:$1" -sess_out "$s" \
    -ign_eof > /dev/null 2>&1 || true
  [ -s "$s" ] || { echo unknown; return; }
  if printf 'GET /1k.bin HTTP/1.0\r\n\r\n' | timeout 10 openssl s_client -connect "127.0.0.1:$1" -sess_in "$s" \
       -ign_eof 2>/dev/null | grep -q '^Reused'; then
    echo yes
  else
    echo no
  fi
}

# Figures of a server's whole process group from /proc/PID/status.
group_status() { # pgid -> "threads rss_kb hwm_kb processes"
  local p t=0 r=0 h=0 n=0 line a b c
  for p in $(pgrep -g "$1" 2>/dev/null); do
    line=$(awk '/^Threads:/ { t = $2 } /^VmRSS:/ { r = $2 } /^VmHWM:/ { h = $2 }
                END { print t + 0, r + 0, h + 0 }' "/proc/$p/status" 2>/dev/null) || continue
    read -r a b c <<< "$line"
    t=$((t + a)) r=$((r + b)) h=$((h + c)) n=$((n + 1))
  done
  echo "$t $r $h $n"
}

# CPU accounting, so a reader can tell a slow server from a busy machine:
# wrk and the servers share the 2 cores, and so does anything else running.
HZ=$(getconf CLK_TCK)
# Busy ticks without irq and softirq time: loopback traffic is processed in
# softirq context on behalf of wrk and the server, and is not charged to any
# process, so counting it would blame our own load on "other processes".
cpu_busy() { awk '/^cpu / { print $2 + $3 + $4 + $9; exit }' /proc/stat; }
group_cpu() { # process group -> user+system ticks of its live processes
  # The command name in parentheses may hold spaces, so fields are counted
  # from after it: pgrp is the 3rd, utime and stime the 12th and 13th.
  cat /proc/[0-9]*/stat 2>/dev/null | awk -v g="$1" '
    { sub(/^.*\) /, ""); if ($3 == g) s += $12 + $13 } END { print s + 0 }'
}
# The shell's own "times" must run in this shell, not in a $(...) subshell,
# whose children start from zero: snapshot_children writes it to a file and
# children_cpu reads that file.
snapshot_children() { times > "$RUN/.times"; }
children_cpu() { # ticks used by this shell's finished children at the snapshot
  awk -v hz="$HZ" 'NR == 2 {
      n = split($0, t, " "); s = 0
      for (i = 1; i <= n; i++) { split(t[i], ms, "m"); sub(/s$/, "", ms[2]); s += ms[1] * 60 + ms[2] }
      printf "%d\n", s * hz }' "$RUN/.times"
}
now() { date +%s.%N; }

# Waits, up to the given seconds, until the other processes on the machine
# use less than a quarter of a core; fails if they never did.
wait_quiet() { # seconds
  local deadline=$((SECONDS + $1)) b0 b1 busy
  while :; do
    # Half a second is enough to see a build; a full second before each of
    # the ~200 measurements would add minutes to the run.
    b0=$(cpu_busy)
    sleep 0.5
    b1=$(cpu_busy)
    busy=$(awk -v d=$((b1 - b0)) -v hz="$HZ" 'BEGIN { printf "%.2f", 2 * d / hz }')
    if awk -v b="$busy" 'BEGIN { exit !(b < 0.25) }'; then
      return 0
    fi
    if [ "$SECONDS" -ge "$deadline" ]; then
      log "   machine still busy ($busy cores used by other processes); measuring anyway"
      return 1
    fi
  done
}


# Measures one client command against server pid: runs it with its output
# in out, and writes out's .cpu beside it (cores used by the server, by the
# client and by everything else during it).
measure() { # server-pid out-file timeout command...
  local pid=$1 outf=$2 limit=$3 t0 t1 b0 b1 g0 g1 c0 c1
  shift 3
  snapshot_children
  t0=$(now) b0=$(cpu_busy) g0=$(group_cpu "$pid") c0=$(children_cpu)
  "${NICE[@]}" timeout -k 5 "$limit" "$@" > "$outf" 2>&1 || echo "client exited with $? (timed out or failed)" >> "$outf"
  snapshot_children
  t1=$(now) b1=$(cpu_busy) g1=$(group_cpu "$pid") c1=$(children_cpu)
  awk -v t="$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')" -v hz="$HZ" \
    -v busy=$((b1 - b0)) -v srv=$((g1 - g0)) -v cli=$((c1 - c0)) 'BEGIN {
      # A server that died took its CPU count with it.
      if (srv < 0) { print "server_cpu=unknown"; srv = 0 } else printf "server_cpu=%.2f\n", srv / hz / t
      other = busy - srv - cli; if (other < 0) other = 0
      printf "wrk_cpu=%.2f\nother_cpu=%.2f\n", cli / hz / t, other / hz / t
    }' > "${outf%.txt}.cpu"
  if ! alive "$pid"; then
    echo "SERVER EXITED during this measurement" >> "$outf"
    return 1
  fi
}

scen_field() { # scenario-line field-number
  local f
  IFS='|' read -ra f <<< "$1"
  trim "${f[$2]}"
}
wrk_args() { # scenario-line port duration -> sets WRK_ARGS
  local scheme path conns extra url port=$2
  scheme=$(scen_field "$1" 2) path=$(scen_field "$1" 3) conns=$(scen_field "$1" 4) extra=$(scen_field "$1" 5)
  [ "$scheme" = https ] && port=$((port + 20))
  url="$scheme://127.0.0.1:$port$path"
  eval "local extra_words=($extra)"
  WRK_ARGS=(wrk -t"$WRK_THREADS" -c"$conns" -d"$3"s --latency "${extra_words[@]}" "$url")
}
warm_up() { # scenario-line port
  # A short unrecorded run, so every server meets the measured load with
  # warm caches, grown buffers and established connections.
  wrk_args "$1" "$2" 1
  "${NICE[@]}" timeout -k 5 30 "${WRK_ARGS[@]}" > /dev/null 2>&1 || true
}
measure_wrk() { # pid scenario-line port out-file
  wrk_args "$2" "$3" "$duration"
  measure "$1" "$4" $((duration + 60)) "${WRK_ARGS[@]}"
}

# perf stat and strace -c of one server under one scenario's load, each
# in a short run of its own so the timed runs stay undisturbed.
profile_server() { # pid scenario-line port name
  local pid=$1 id pids out secs=3 p strace_pid perf_pid
  id=$(scen_field "$2" 0)
  out="$RUN/profile/$4-$id"
  pids=$(pgrep -g "$pid" | paste -sd, -)
  [ -n "$pids" ] || return 0
  wrk_args "$2" "$3" "$secs"
  log "   $4: $id: perf stat"
  # Software events only: hardware counters are often missing in VMs.
  timeout -k 5 $((secs + 30)) perf stat -e task-clock,context-switches -p "$pids" -o "$out.perf.txt" \
    -- sleep $((secs + 1)) > /dev/null 2>&1 &
  perf_pid=$!
  live_pids+=("$perf_pid")
  sleep 0.3
  "${NICE[@]}" timeout -k 5 $((secs + 30)) "${WRK_ARGS[@]}" > "$out.perf-wrk.txt" 2>&1 || true
  wait "$perf_pid" 2>/dev/null || true
  forget_pid "$perf_pid"
  log "   $4: $id: strace -c"
  local attach=()
  for p in ${pids//,/ }; do attach+=(-p "$p"); done
  timeout -k 5 $((secs + 60)) strace -c -f -o "$out.strace.txt" "${attach[@]}" > /dev/null 2>&1 &
  strace_pid=$!
  live_pids+=("$strace_pid")
  sleep 1
  "${NICE[@]}" timeout -k 5 $((secs + 60)) "${WRK_ARGS[@]}" > "$out.strace-wrk.txt" 2>&1 || true
  kill -INT "$strace_pid" 2>/dev/null || true
  wait "$strace_pid" 2>/dev/null || true
  forget_pid "$strace_pid"
}

# The idle test of one fresh instance: idle_conns with the given mode.
idle_test() { # row phase out-file idle_conns-options...
  local i=$1 phase=$2 outf=$3 p cmd
  shift 3
  p=$(port_of "$i" "$phase")
  cmd=$(instance_cmd "$i" "$p" "$phase")
  log "   ${names[$i]}: $phase, $idle_conns connections (port $p)"
  if ! start_server "$cmd" "$p" "$RUN/servers/${names[$i]}/server-$phase.log"; then
    echo "error=$fail_note" > "$outf"
    phase_note "${names[$i]}" "$phase" failed "$fail_note" "$cmd"
    return
  fi
  local pid=$server_pid
  sleep 1
  local tls_port_args=(--port "$p")
  [[ " $* " == *" --tls "* ]] && tls_port_args=(--port $((p + 20)))
  "${NICE[@]}" timeout -k 5 150 "$BIN/idle_conns" "${tls_port_args[@]}" --pid "$pid" --conns "$idle_conns" \
    --timeout 90 --stall 8 --settle 2 "$@" > "$outf" 2> "${outf%.txt}.err" || echo "exit=$?" >> "$outf"
  stop_server "$pid"
  phase_note "${names[$i]}" "$phase" ok "" "$cmd"
}

# Starts row i for a phase and checks it; sets server_pid or returns 1.
start_checked() { # row phase
  local i=$1 phase=$2 p cmd why
  p=$(port_of "$i" "$phase")
  cmd=$(instance_cmd "$i" "$p" "$phase")
  log "== ${names[$i]}: $phase on port $p: $cmd"
  if ! start_server "$cmd" "$p" "$RUN/servers/${names[$i]}/server-$phase.log"; then
    phase_note "${names[$i]}" "$phase" failed "$fail_note" "$cmd"
    log "   ${names[$i]}: $fail_note"
    return 1
  fi
  why=""
  case $phase in
    small|large|slow)
      local mode=full
      [ "${kinds[$i]}" = floor ] && mode=floor
      why=$(check_files "http://127.0.0.1:$p" "$mode") || true ;;
    https)
      why=$(check_files "https://127.0.0.1:$((p + 20))" full) || true
      [ -z "$why" ] && echo "$(tls_resumes $((p + 20)))" > "$RUN/servers/${names[$i]}/tls-resumes.txt" ;;
    upload)
      if ! "$BIN/upload_client" --port "$p" --method "$(upload_method "${names[$i]}")" --clients 1 --uploads 1 \
           --size 1024 --timeout 10 > "$RUN/upload/${names[$i]}.check.txt" 2>&1; then
        why="upload check failed: $(grep -m1 '^failure=' "$RUN/upload/${names[$i]}.check.txt" | cut -d= -f2-)"
      fi ;;
    ws)
      if ! timeout -k 5 30 "$BIN/ws_load" --port "$p" --conns 1 --duration 0.5 --warmup 0 --threads 1 --timeout 5 \
           > "$RUN/ws/${names[$i]}.check.txt" 2>&1; then
        why="echo check failed: $(grep -m1 '^first_error=' "$RUN/ws/${names[$i]}.check.txt" | cut -d= -f2-)"
      fi ;;
  esac
  if [ -n "$why" ]; then
    stop_server "$server_pid"
    server_pid=""
    phase_note "${names[$i]}" "$phase" failed "$why" "$cmd"
    log "   ${names[$i]}: failed its check: $why"
    return 1
  fi
  phase_note "${names[$i]}" "$phase" ok "" "$cmd"
  return 0
}

# Short waits before each measurement too, unless the machine just stayed
# busy for the whole long wait: then they would only add time.
scenario_wait=$((quiet_wait < 10 ? quiet_wait : 10))
quiet_before_server() {
  wait_quiet "$quiet_wait" && scenario_wait=$((quiet_wait < 10 ? quiet_wait : 10)) || scenario_wait=0
}

rows_in() { # phase -> row indices
  local i out=()
  for i in "${!names[@]}"; do in_phase "$i" "$1" && out+=("$i"); done
  echo "${out[@]}"
}
scenarios_of() { grep -E "^[^|]*\|[[:space:]]*$1[[:space:]]*\|" "$RUN/scenarios.txt" || true; }

# ---------------------------------------------------------------------------
# Small requests: every server of the phase runs at once on its own port,
# and each scenario is measured in rounds, every server once per round, so
# a slow spell of the machine spreads over all of them instead of landing
# on one.
# ---------------------------------------------------------------------------
phase_small() {
  local rows i r scen id pids=() live=()
  read -ra rows <<< "$(rows_in small)"
  [ ${#rows[@]} -gt 0 ] || return 0
  log "small requests: ${#rows[@]} servers, $small_repeat rounds of ${duration}s"
  quiet_before_server
  for i in "${rows[@]}"; do
    if start_checked "$i" small; then
      pids[$i]=$server_pid
      live+=("$i")
    fi
  done
  while IFS= read -r scen; do
    [ -n "$scen" ] || continue
    id=$(scen_field "$scen" 0)
    for r in $(seq "$small_repeat"); do
      log "   $id: round $r of $small_repeat"
      for i in "${live[@]}"; do
        [ -n "${pids[$i]:-}" ] || continue
        [ "$r" -eq 1 ] && warm_up "$scen" "$(port_of "$i" small)"
        wait_quiet "$scenario_wait" || true
        if ! measure_wrk "${pids[$i]}" "$scen" "$(port_of "$i" small)" "$RUN/raw/${names[$i]}-$id.r$r.txt"; then
          phase_note "${names[$i]}" small crashed "exited during $id" ""
          log "   ${names[$i]}: exited during $id"
          stop_server "${pids[$i]}"
          pids[$i]=""
        fi
      done
    done
    for i in "${live[@]}"; do
      if [ -n "${pids[$i]:-}" ] && [ "${names[$i]}" = "$profile" ]; then
        profile_server "${pids[$i]}" "$scen" "$(port_of "$i" small)" "${names[$i]}"
      fi
    done
  done <<< "$(scenarios_of small)"
  for i in "${live[@]}"; do [ -n "${pids[$i]:-}" ] && stop_server "${pids[$i]}"; done
  return 0
}

# Large answers, server by server, each scenario measured $repeat times.
phase_large() {
  local i r scen id pid
  for i in $(rows_in large); do
    quiet_before_server
    start_checked "$i" large || continue
    pid=$server_pid
    while IFS= read -r scen; do
      [ -n "$scen" ] || continue
      id=$(scen_field "$scen" 0)
      log "   ${names[$i]}: $id"
      warm_up "$scen" "$(port_of "$i" large)"
      for r in $(seq "$repeat"); do
        wait_quiet "$scenario_wait" || true
        if ! measure_wrk "$pid" "$scen" "$(port_of "$i" large)" "$RUN/raw/${names[$i]}-$id.r$r.txt"; then
          phase_note "${names[$i]}" large crashed "exited during $id" ""
          break 2
        fi
      done
    done <<< "$(scenarios_of large)"
    stop_server "$pid"
  done
}

# Slow readers: $slow_conns clients stall in the middle of /64m.bin while
# wrk measures small requests beside them.
phase_slow() {
  local i pid p sc_pid n out
  for i in $(rows_in slow); do
    quiet_before_server
    start_checked "$i" slow || continue
    pid=$server_pid p=$(port_of "$i" slow) out="$RUN/slow/${names[$i]}"
    log "   ${names[$i]}: $slow_conns slow readers"
    "${NICE[@]}" "$BIN/slow_readers" --port "$p" --conns "$slow_conns" --path /64m.bin --timeout 60 --stall 8 \
      --hold $((duration + 150)) --pgid "$pid" --max-rss-mb "$SLOW_MAX_RSS_MB" > "$out.clients.txt" 2> "$out.clients.err" &
    sc_pid=$!
    live_pids+=("$sc_pid")
    # Opening stops by itself after 60 s at most (8 s without progress).
    for n in $(seq 900); do
      grep -q '^ready' "$out.clients.txt" 2>/dev/null && break
      alive "$sc_pid" || break
      sleep 0.1
    done
    group_status "$pid" | awk '{ printf "threads_held=%d\nrss_held_kb=%d\n", $1, $2 }' > "$out.server.txt"
    measure_wrk "$pid" "1k | slow | http | /1k.bin | $SLOW_WRK_CONNS | --timeout 5s | slow" "$p" "$out.wrk.txt" || true
    # Sampled at the end, while the slow clients are still held.
    group_status "$pid" | awk '{ printf "threads=%d\nrss_kb=%d\nprocesses=%d\n", $1, $2, $4 }' >> "$out.server.txt"
    kill -TERM "$sc_pid" 2>/dev/null || true
    for n in $(seq 100); do alive "$sc_pid" || break; sleep 0.1; done
    kill -KILL "$sc_pid" 2>/dev/null || true
    wait "$sc_pid" 2>/dev/null || true
    forget_pid "$sc_pid"
    alive "$pid" || phase_note "${names[$i]}" slow crashed "exited during the slow-reader test" ""
    stop_server "$pid"
  done
}

phase_idle() {
  local i
  for i in $(rows_in idle); do
    quiet_before_server
    # A fresh instance, so memory grown by the load tests does not hide
    # what idle connections cost.
    idle_test "$i" idle "$RUN/idle/${names[$i]}.txt" --path /1k.bin
  done
}

phase_https() {
  local i r scen id pid
  for i in $(rows_in https); do
    quiet_before_server
    start_checked "$i" https || continue
    pid=$server_pid
    while IFS= read -r scen; do
      [ -n "$scen" ] || continue
      id=$(scen_field "$scen" 0)
      log "   ${names[$i]}: $id"
      warm_up "$scen" "$(port_of "$i" https)"
      for r in $(seq "$repeat"); do
        wait_quiet "$scenario_wait" || true
        if ! measure_wrk "$pid" "$scen" "$(port_of "$i" https)" "$RUN/raw/${names[$i]}-$id.r$r.txt"; then
          phase_note "${names[$i]}" https crashed "exited during $id" ""
          break 2
        fi
      done
    done <<< "$(scenarios_of https)"
    stop_server "$pid"
  done
}

phase_tlsidle() {
  local i
  for i in $(rows_in tlsidle); do
    quiet_before_server
    idle_test "$i" tlsidle "$RUN/idle/${names[$i]}.tls.txt" --path /1k.bin --tls
  done
}

# Uploads: each measurement sends $UPLOAD_CLIENTS x $uploads bodies; the
# server's peak resident memory (VmHWM, reset first) against its resident
# memory at the start shows how much of each body it buffered.
phase_upload() {
  local i r pid p out st
  for i in $(rows_in upload); do
    quiet_before_server
    start_checked "$i" upload || continue
    pid=$server_pid p=$(port_of "$i" upload)
    for r in $(seq "$repeat"); do
      out="$RUN/upload/${names[$i]}.r$r.txt"
      log "   ${names[$i]}: upload, run $r of $repeat"
      # Deleted files take their unwritten pages with them, so the next run
      # does not pay for this one's writeback.
      rm -f "$RUN/servers/${names[$i]}/uploads/"* 2>/dev/null || true
      wait_quiet "$scenario_wait" || true
      for st in $(pgrep -g "$pid"); do echo 5 > "/proc/$st/clear_refs" 2>/dev/null || true; done
      read -r _ rss0 hwm0 _ <<< "$(group_status "$pid")"
      measure "$pid" "$out" 600 "$BIN/upload_client" --port "$p" --path /upload \
        --method "$(upload_method "${names[$i]}")" --clients "$UPLOAD_CLIENTS" --uploads "$uploads" \
        --size "$UPLOAD_SIZE" --timeout 60 || { phase_note "${names[$i]}" upload crashed "exited during the upload" ""; break; }
      read -r _ rss1 hwm1 _ <<< "$(group_status "$pid")"
      printf 'rss_start_kb=%s\nhwm_start_kb=%s\nrss_end_kb=%s\nhwm_end_kb=%s\n' "$rss0" "$hwm0" "$rss1" "$hwm1" >> "$out"
    done
    rm -f "$RUN/servers/${names[$i]}/uploads/"* 2>/dev/null || true
    stop_server "$pid"
  done
}

phase_ws() {
  local i r size pid p
  for i in $(rows_in ws); do
    quiet_before_server
    start_checked "$i" ws || continue
    pid=$server_pid p=$(port_of "$i" ws)
    for size in "${WS_SIZES[@]}"; do
      log "   ${names[$i]}: WebSocket echo, $size-byte messages"
      for r in $(seq "$repeat"); do
        wait_quiet "$scenario_wait" || true
        measure "$pid" "$RUN/ws/${names[$i]}-$size.r$r.txt" $((duration + 60)) "$BIN/ws_load" --port "$p" \
          --path /echo --conns "$WS_CONNS" --size "$size" --duration "$duration" --warmup 1 \
          --threads "$WRK_THREADS" --timeout 10 || { phase_note "${names[$i]}" ws crashed "exited during the echo test" ""; break 2; }
      done
    done
    stop_server "$pid"
  done
}

phase_wsidle() {
  local i
  for i in $(rows_in wsidle); do
    quiet_before_server
    idle_test "$i" wsidle "$RUN/idle/${names[$i]}.ws.txt" --path /echo --ws
  done
}

# ---------------------------------------------------------------------------
# The run.
# ---------------------------------------------------------------------------
autogroup_nice $$ "$niceness"
log "servers: ${names[*]}"
run_start=$SECONDS
for phase in "${PHASES[@]}"; do
  [ -z "$phases" ] || [[ ",$phases," == *",$phase,"* ]] || continue
  "phase_$phase" || log "the $phase phase ended early"
done
echo "run_seconds=$((SECONDS - run_start))" >> "$RUN/machine.txt"
echo "load_after=$(cut -d' ' -f1-3 /proc/loadavg)" >> "$RUN/machine.txt"

"$REPORT_PY" "$BENCH_DIR/report/report.py" "$RUN"
log "results: $RUN/results.md ($(( SECONDS - run_start )) s of measuring)"
[ -f "$RUN/chart.png" ] && log "chart:   $RUN/chart.png"
