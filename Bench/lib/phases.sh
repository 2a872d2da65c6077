# shellcheck shell=bash
# The phases of a run, one phase_<name> function each (run_bench.sh's
# PHASES names them in order). Sourced by run_bench.sh.

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
