#!/usr/bin/env bash
# Side-by-side HTTP server benchmark: our server (when given) and the peers
# nginx, h2o, libmicrohttpd, civetweb and cpp-httplib, all serving the same
# static files from loopback ports, measured with wrk and with our
# idle-connection client, one server at a time.
#
#   Bench/run_bench.sh                 ours and the peers, 3 x 10 s per scenario
#   Bench/run_bench.sh --quick         1 x 3 s per scenario
#
# Our demo server nvq-httpd is built first (Release, in build/bench-nvq).
#
# Options:
#   --nvq CMD          our server's command line instead of the one built
#                      here; {port} and {root} are filled in
#   --no-nvq           the peers only
#   --duration SEC     seconds per wrk scenario (default 10)
#   --quick            3 s per scenario, measured once
#   --only A,B         run only these servers (names as in the table below;
#                      "nvq" is ours)
#   --idle-conns N     connections for the idle test (default 10000)
#   --out DIR          run directory (default build/bench/<timestamp>)
#   --repeat N         measure each scenario N times and report the median
#                      (default 3: on 2 shared cores one 10 s run of the same
#                      server can land 30% off depending on where the
#                      scheduler puts wrk's and the server's threads)
#   --quiet-wait SEC   before each server, wait up to SEC seconds for other
#                      processes to leave the CPUs idle (default 60)
#   --nice N           run the servers, wrk and the idle client at this
#                      niceness (default 0; e.g. -10 as root so builds and
#                      tests that share the machine disturb the numbers less)
#   --no-install       do not apt-get anything; fail if something is missing
#
# Results: <run dir>/results.md and chart.png; raw wrk output in raw/.
set -euo pipefail

BENCH_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
REPO=$(cd "$BENCH_DIR/.." && pwd)
cd "$REPO"

# ---------------------------------------------------------------------------
# The servers. To add one, add a line: name | config template | command.
#   config template: a file in Bench/peers/ whose {port}, {root} and {run}
#     are filled in and written to {conf}; "-" for none. Lines starting
#     with "#ifroot " are kept (without the marker) only when run as root.
#   command: run from the repository root, in the foreground, with
#     placeholders {port}, {root} (the served directory), {run} (this
#     server's own scratch directory), {conf}, {bin} (our peer programs)
#     and {cores}.
# Ports are 18081 upwards in table order (ours: 18080); the idle test runs a
# fresh instance on the port 10 higher.
# ---------------------------------------------------------------------------
PEER_TABLE='
nginx         | nginx.conf.in | nginx -p {run}/ -c {conf} -e {run}/error.log
h2o           | h2o.conf.in   | h2o -c {conf}
libmicrohttpd | -             | {bin}/mhd_static --port {port} --root {root} --threads {cores}
civetweb      | -             | {bin}/civetweb_static --port {port} --root {root} --threads 1024
cpp-httplib   | -             | {bin}/httplib_static --port {port} --root {root} --threads 1024
'
OURS_NAME=nvq
OURS_PORT=18080
FIRST_PEER_PORT=18081
IDLE_PORT_OFFSET=10

# The scenarios: id | path | connections | extra wrk options | label.
SCENARIOS='
1k    | /1k.bin          | 32   |                | 1 KiB keep-alive, 32 connections
404   | /does-not-exist  | 32   |                | 404 keep-alive, 32 connections
100k  | /100k.bin        | 32   |                | 100 KiB, 32 connections
64m   | /64m.bin         | 4    | --timeout 30s  | 64 MiB throughput, 4 connections
c1000 | /1k.bin          | 1000 | --timeout 10s  | 1 KiB, 1000 connections
'
WRK_THREADS=2

duration=10
repeat=
quiet_wait=60
niceness=0
idle_conns=10000
nvq_cmd=""
build_nvq=1
only=""
out=""
install=1
while [ $# -gt 0 ]; do
  case "$1" in
    --nvq) nvq_cmd=$2; build_nvq=0; shift 2 ;;
    --no-nvq) nvq_cmd=""; build_nvq=0; shift ;;
    --duration) duration=$2; shift 2 ;;
    --quick) duration=3; repeat=${repeat:-1}; shift ;;
    --only) only=$2; shift 2 ;;
    --idle-conns) idle_conns=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --repeat) repeat=$2; shift 2 ;;
    --quiet-wait) quiet_wait=$2; shift 2 ;;
    --nice) niceness=$2; shift 2 ;;
    --no-install) install=0; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown option: $1 (see --help)" >&2; exit 2 ;;
  esac
done
[[ "$duration" =~ ^[0-9]+$ ]] && [ "$duration" -gt 0 ] || { echo "--duration wants whole seconds" >&2; exit 2; }
repeat=${repeat:-3}
[[ "$repeat" =~ ^[0-9]+$ ]] && [ "$repeat" -gt 0 ] || { echo "--repeat wants a count" >&2; exit 2; }
[[ "$quiet_wait" =~ ^[0-9]+$ ]] || { echo "--quiet-wait wants whole seconds" >&2; exit 2; }
[[ "$niceness" =~ ^-?[0-9]+$ ]] || { echo "--nice wants a number" >&2; exit 2; }
# Every measured process (servers, wrk, idle client) runs through this.
NICE=(nice -n "$niceness")
if [ "$niceness" -lt 0 ] && ! nice -n "$niceness" true 2>/dev/null; then
  echo "--nice $niceness needs root" >&2
  exit 2
fi
# With autogrouping on, the scheduler first shares the CPUs between
# sessions and applies nice values only inside one, so a nice value alone
# would not move wrk and the servers ahead of other sessions' builds. The
# session's own nice is set as well (this script's session for wrk and the
# idle client, each server's new session as it starts) and put back at exit.
autogroup_nice() { # pid niceness
  [ "$niceness" -ne 0 ] && [ -w "/proc/$1/autogroup" ] || return 0
  echo "$2" > "/proc/$1/autogroup" 2>/dev/null || true
}
own_autogroup_nice=$(awk '{ print $NF }' /proc/$$/autogroup 2>/dev/null || echo 0)
[[ "$idle_conns" =~ ^[0-9]+$ ]] && [ "$idle_conns" -gt 0 ] || { echo "--idle-conns wants a count" >&2; exit 2; }

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
  command -v gcc >/dev/null || missing+=(gcc)
  command -v cmake >/dev/null || missing+=(cmake)
  command -v ninja >/dev/null || missing+=(ninja-build)
  command -v g++ >/dev/null || missing+=(g++)
  command -v timeout >/dev/null || missing+=(coreutils)
  command -v pgrep >/dev/null || missing+=(procps)
  [ -f /usr/include/microhttpd.h ] || missing+=(libmicrohttpd-dev)
  [ -f /usr/include/civetweb.h ] || missing+=(libcivetweb-dev)
  [ -f /usr/include/httplib.h ] || missing+=(libcpp-httplib-dev)
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
build_one() { # output source compiler flags...
  local output=$1 source=$2
  shift 2
  if [ ! -x "$BIN/$output" ] || [ "$source" -nt "$BIN/$output" ]; then
    log "building $output"
    "$@" -o "$BIN/$output.tmp" "$source" ${LINK:-} && mv "$BIN/$output.tmp" "$BIN/$output"
  fi
}
CFLAGS=(-O2 -Wall -Wextra)
LINK="-lmicrohttpd" build_one mhd_static "$BENCH_DIR/peers/mhd_static.c" gcc "${CFLAGS[@]}"
LINK="-lcivetweb" build_one civetweb_static "$BENCH_DIR/peers/civetweb_static.c" gcc "${CFLAGS[@]}"
LINK="-lcpp-httplib -pthread" build_one httplib_static "$BENCH_DIR/peers/httplib_static.cpp" g++ -std=c++17 "${CFLAGS[@]}"
LINK="" build_one idle_conns "$BENCH_DIR/tools/idle_conns.cpp" g++ -std=c++17 "${CFLAGS[@]}"

# Ours, optimised as a user would ship it.
if [ "$build_nvq" -eq 1 ]; then
  log "building nvq-httpd"
  cmake -S "$REPO" -B "$REPO/build/bench-nvq" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNVQ_BUILD_TESTS=OFF >/dev/null
  cmake --build "$REPO/build/bench-nvq" --target nvq-httpd >/dev/null
  nvq_cmd="build/bench-nvq/bin/nvq-httpd --port {port} --root {root}"
fi

# ---------------------------------------------------------------------------
# The served directory: deterministic content, reused across runs.
# ---------------------------------------------------------------------------
WWW="$REPO/build/bench/www"
"$REPORT_PY" "$BENCH_DIR/tools/make_www.py" "$WWW"
# nginx and h2o workers drop to an unprivileged user when started as root.
chmod -R a+rX "$WWW"

# ---------------------------------------------------------------------------
# Run directory and limits.
# ---------------------------------------------------------------------------
[ -n "$out" ] || out="build/bench/$(date +%Y%m%d-%H%M%S)"
mkdir -p "$out/raw" "$out/idle" "$out/servers"
RUN=$(cd "$out" && pwd)
log "run directory: $RUN"

# Every connection is a descriptor, for wrk, the idle client and each server
# (they inherit this limit).
hard=$(ulimit -Hn)
if [ "$hard" = unlimited ]; then nofile=1048576; else nofile=$hard; fi
[ "$nofile" -gt 1048576 ] && nofile=1048576
ulimit -Sn "$nofile" 2>/dev/null || true
if [ "$(ulimit -Sn)" -lt $((idle_conns + 100)) ]; then
  log "warning: open-file limit $(ulimit -Sn) is below the $idle_conns idle connections"
fi

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
  echo "nice=$niceness"
  echo "idle_conns=$idle_conns"
  echo "nofile=$(ulimit -Sn)"
  echo "load_before=$(cut -d' ' -f1-3 /proc/loadavg)"
  for p in nginx h2o libmicrohttpd-dev libcivetweb-dev libcpp-httplib-dev; do
    echo "version_$p=$(dpkg-query -W -f='${Version}' "$p" 2>/dev/null || echo unknown)"
  done
} > "$RUN/machine.txt"

# ---------------------------------------------------------------------------
# The list of servers for this run.
# ---------------------------------------------------------------------------
names=() confs=() cmds=() ports=() kinds=()
want() { [ -z "$only" ] || [[ ",$only," == *",$1,"* ]]; }
if [ -n "$nvq_cmd" ] && want "$OURS_NAME"; then
  # The first word is the program, relative to the repository root.
  read -r nvq_prog _ <<< "$nvq_cmd"
  if [ -x "$nvq_prog" ] || command -v "$nvq_prog" >/dev/null 2>&1; then
    names+=("$OURS_NAME") confs+=(-) cmds+=("$nvq_cmd") ports+=("$OURS_PORT") kinds+=(ours)
  else
    log "warning: our server program '$nvq_prog' does not exist; benchmarking the peers only"
    echo "ours_missing=$nvq_prog" >> "$RUN/machine.txt"
  fi
fi
port=$FIRST_PEER_PORT
while IFS='|' read -r name conf cmd; do
  name=$(trim "$name")
  [ -n "$name" ] || continue
  if want "$name"; then
    names+=("$name") confs+=("$(trim "$conf")") cmds+=("$(trim "$cmd")") ports+=("$port") kinds+=(peer)
  fi
  port=$((port + 1))
done <<< "$PEER_TABLE"
[ ${#names[@]} -gt 0 ] || { echo "no server selected" >&2; exit 2; }

printf '%s\n' "$SCENARIOS" | sed '/^[[:space:]]*$/d' > "$RUN/scenarios.txt"
: > "$RUN/servers.txt"

# ---------------------------------------------------------------------------
# Starting and stopping one server.
# ---------------------------------------------------------------------------
server_pid=""
fill() { # template port run conf
  local s=$1
  s=${s//\{port\}/$2}
  s=${s//\{root\}/$WWW}
  s=${s//\{run\}/$3}
  s=${s//\{conf\}/$4}
  s=${s//\{bin\}/$BIN}
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

stop_server() {
  [ -n "$server_pid" ] || return 0
  local pid=$server_pid i
  server_pid=""
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
}
trap 'stop_server; autogroup_nice $$ "$own_autogroup_nice"' EXIT
trap 'exit 130' INT TERM

# A dead child stays a zombie until waited for, and kill -0 still
# succeeds on a zombie, so look at its state instead.
alive() { # pid
  local state
  state=$(awk '{ sub(/^.*\) /, ""); print $1 }' "/proc/$1/stat" 2>/dev/null) || return 1
  [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

fail_note=""
start_server() { # command port logfile; on failure sets fail_note
  stop_server
  if curl -s -o /dev/null -m 1 "http://127.0.0.1:$2/"; then
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
  server_pid=$!
  local i
  for i in $(seq 150); do
    if ! alive "$server_pid"; then
      wait "$server_pid" 2>/dev/null || true
      server_pid=""
      fail_note="exited at start (see $(basename "$3"))"
      return 1
    fi
    if curl -s -o /dev/null -m 1 "http://127.0.0.1:$2/1k.bin"; then
      # Only now is the server surely in its own session.
      autogroup_nice "$server_pid" "$niceness"
      return 0
    fi
    sleep 0.1
  done
  stop_server
  fail_note="not answering on port $2 after 15 s"
  return 1
}

# A server that answers wrongly would make its numbers meaningless.
check_server() { # port; on failure prints why
  local p=$1 f code size
  for f in 1k.bin 100k.bin; do
    if ! curl -s -m 10 -o "$RUN/check.tmp" "http://127.0.0.1:$p/$f" || ! cmp -s "$RUN/check.tmp" "$WWW/$f"; then
      rm -f "$RUN/check.tmp"
      echo "wrong body for /$f"
      return 1
    fi
  done
  rm -f "$RUN/check.tmp"
  size=$(curl -s -m 30 -o /dev/null -w '%{size_download}' "http://127.0.0.1:$p/64m.bin" || true)
  if [ "$size" != "$(stat -c %s "$WWW/64m.bin")" ]; then
    echo "/64m.bin gave $size bytes"
    return 1
  fi
  code=$(curl -s -m 10 -o /dev/null -w '%{http_code}' "http://127.0.0.1:$p/does-not-exist" || true)
  if [ "$code" != 404 ]; then
    echo "missing file gave status $code"
    return 1
  fi
  return 0
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
    b0=$(cpu_busy)
    sleep 1
    b1=$(cpu_busy)
    busy=$(awk -v d=$((b1 - b0)) -v hz="$HZ" 'BEGIN { printf "%.2f", d / hz }')
    if awk -v b="$busy" 'BEGIN { exit !(b < 0.25) }'; then
      return 0
    fi
    if [ "$SECONDS" -ge "$deadline" ]; then
      log "   machine still busy ($busy cores used by other processes); measuring anyway"
      return 1
    fi
  done
}

run_wrk() { # port scenario-line output-prefix
  local id path conns extra label
  IFS='|' read -r id path conns extra label <<< "$2"
  path=$(trim "$path") conns=$(trim "$conns") extra=$(trim "$extra")
  local url="http://127.0.0.1:$1$path" r out t0 t1 b0 b1 g0 g1 c0 c1
  # A short unrecorded run first, so every server meets the measured load
  # with warm caches, grown buffers and established connections.
  # shellcheck disable=SC2086
  "${NICE[@]}" timeout -k 5 30 wrk -t"$WRK_THREADS" -c"$conns" -d1s $extra "$url" > /dev/null 2>&1 || true
  for r in $(seq "$repeat"); do
    out="$3.r$r.txt"
    wait_quiet "$scenario_wait" || true
    snapshot_children
    t0=$(now) b0=$(cpu_busy) g0=$(group_cpu "$server_pid") c0=$(children_cpu)
    # shellcheck disable=SC2086
    "${NICE[@]}" timeout -k 5 $((duration + 60)) wrk -t"$WRK_THREADS" -c"$conns" -d"${duration}s" --latency $extra "$url" > "$out" 2>&1 ||
      echo "wrk exited with $? (timed out or failed)" >> "$out"
    snapshot_children
    t1=$(now) b1=$(cpu_busy) g1=$(group_cpu "$server_pid") c1=$(children_cpu)
    awk -v t="$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')" -v hz="$HZ" \
      -v busy=$((b1 - b0)) -v srv=$((g1 - g0)) -v wrk=$((c1 - c0)) 'BEGIN {
        # A server that died took its CPU count with it.
        if (srv < 0) { print "server_cpu=unknown"; srv = 0 } else printf "server_cpu=%.2f\n", srv / hz / t
        other = busy - srv - wrk; if (other < 0) other = 0
        printf "wrk_cpu=%.2f\nother_cpu=%.2f\n", wrk / hz / t, other / hz / t
      }' > "$3.r$r.cpu"
    if ! alive "$server_pid"; then
      echo "SERVER EXITED during this measurement" >> "$out"
      return
    fi
  done
}

# ---------------------------------------------------------------------------
# The run.
# ---------------------------------------------------------------------------
autogroup_nice $$ "$niceness"
n_scen=$(wc -l < "$RUN/scenarios.txt")
log "servers: ${names[*]}; $n_scen scenarios of ${duration}s each plus the $idle_conns-connection idle test"
for i in "${!names[@]}"; do
  name=${names[$i]} port=${ports[$i]} kind=${kinds[$i]}
  sdir="$RUN/servers/$name"
  mkdir -p "$sdir"
  conf_file=-
  if [ "${confs[$i]}" != - ]; then
    conf_file="$sdir/$(basename "${confs[$i]}" .in)"
    write_config "$BENCH_DIR/peers/${confs[$i]}" "$conf_file" "$port" "$sdir"
  fi
  cmd=$(fill "${cmds[$i]}" "$port" "$sdir" "$conf_file")
  load=$(cut -d' ' -f1 /proc/loadavg)
  log "== $name on port $port (load $load): $cmd"
  # Short waits before each measurement too, unless the machine just stayed
  # busy for the whole long wait: then they would only add time.
  scenario_wait=$((quiet_wait < 10 ? quiet_wait : 10))
  wait_quiet "$quiet_wait" || scenario_wait=0
  status=ok note=""
  if ! start_server "$cmd" "$port" "$sdir/server.log"; then
    status=failed note=$fail_note
  elif ! note=$(check_server "$port"); then
    status=failed
  fi
  if [ "$status" = ok ]; then
    while IFS= read -r scen; do
      id=$(trim "${scen%%|*}")
      log "   $name: $id"
      run_wrk "$port" "$scen" "$RUN/raw/$name-$id"
      if ! alive "$server_pid"; then
        note="exited during $id"
        status=crashed
        server_pid=""
        break
      fi
    done < "$RUN/scenarios.txt"
  fi
  stop_server

  if [ "$status" = ok ]; then
    # A fresh instance, so memory grown by the load tests does not hide
    # what idle connections cost.
    idle_port=$((port + IDLE_PORT_OFFSET))
    idle_conf=-
    if [ "$conf_file" != - ]; then
      idle_conf="$conf_file.idle"
      write_config "$BENCH_DIR/peers/${confs[$i]}" "$idle_conf" "$idle_port" "$sdir"
    fi
    idle_cmd=$(fill "${cmds[$i]}" "$idle_port" "$sdir" "$idle_conf")
    log "   $name: $idle_conns idle connections (port $idle_port)"
    if start_server "$idle_cmd" "$idle_port" "$sdir/server-idle.log"; then
      sleep 1
      "${NICE[@]}" timeout -k 5 150 "$BIN/idle_conns" --port "$idle_port" --pid "$server_pid" --conns "$idle_conns" \
        --path /1k.bin --timeout 90 --stall 8 --settle 2 > "$RUN/idle/$name.txt" 2> "$RUN/idle/$name.err" ||
        echo "exit=$?" >> "$RUN/idle/$name.txt"
      stop_server
    else
      echo "error=$fail_note" > "$RUN/idle/$name.txt"
    fi
  fi
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$name" "$kind" "$port" "$status" "$note" "$cmd" >> "$RUN/servers.txt"
  [ "$status" = ok ] || log "   $name: $status: $note"
done
echo "load_after=$(cut -d' ' -f1-3 /proc/loadavg)" >> "$RUN/machine.txt"

"$REPORT_PY" "$BENCH_DIR/report/report.py" "$RUN"
log "results: $RUN/results.md"
[ -f "$RUN/chart.png" ] && log "chart:   $RUN/chart.png"
