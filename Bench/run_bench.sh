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
# scenario into a keep-alive one. Like the peers it resumes no sessions
# (wrk would otherwise resume each new connection with the last ticket).
# ---------------------------------------------------------------------------
OURS_TABLE='
nvq        | {nvq}                                                         | plain
nvq-web    | {nvq} --web                                                   | plain
nvq-tls    | {nvq} --strict --tls-no-tickets --tls-cert {cert} --tls-key {key} --tls-port {tlsport} | https
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
64mclose  | large | http  | /64m.bin        | 4    | --timeout 30s -H "Connection: close" | 64 MiB, every transfer closes, 4 connections
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

# The jobs of the run, one file each; they only define functions and their
# own state, and the main sequence below calls them.
# shellcheck source-path=SCRIPTDIR source=lib/build.sh
source "$BENCH_DIR/lib/build.sh"
# shellcheck source-path=SCRIPTDIR source=lib/servers.sh
source "$BENCH_DIR/lib/servers.sh"
# shellcheck source-path=SCRIPTDIR source=lib/control.sh
source "$BENCH_DIR/lib/control.sh"
# shellcheck source-path=SCRIPTDIR source=lib/measure.sh
source "$BENCH_DIR/lib/measure.sh"
# shellcheck source-path=SCRIPTDIR source=lib/phases.sh
source "$BENCH_DIR/lib/phases.sh"

REPORT_PY=/usr/bin/python3   # Debian's interpreter sees python3-matplotlib
BIN="$REPO/build/bench-peers"

# ---------------------------------------------------------------------------
# Install what is missing, then build the peers, tools and ours.
# ---------------------------------------------------------------------------
ensure_packages
export PATH="$PATH:/usr/sbin:/sbin"
build_peer_tools
build_nvq

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

# The servers of this run (servers.txt), and each phase's record of them.
list_servers
: > "$RUN/phases.txt"

trap 'stop_all; autogroup_nice $$ "$own_autogroup_nice"' EXIT
trap 'exit 130' INT TERM

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
