# shellcheck shell=bash
# Starting, checking and stopping one server instance: its config and
# command line, its process group, whether it answers and answers right.
# Sourced by run_bench.sh.

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
