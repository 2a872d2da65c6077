# shellcheck shell=bash
# Measuring: CPU and memory accounting of a server's process group, the
# wait for a quiet machine, the wrk runs, profiling and the idle-connection
# test. Sourced by run_bench.sh.

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

# Short waits before each measurement too, unless the machine just stayed
# busy for the whole long wait: then they would only add time.
scenario_wait=$((quiet_wait < 10 ? quiet_wait : 10))
quiet_before_server() {
  wait_quiet "$quiet_wait" && scenario_wait=$((quiet_wait < 10 ? quiet_wait : 10)) || scenario_wait=0
}
