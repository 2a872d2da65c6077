# shellcheck shell=bash
# The servers of this run, chosen from run_bench.sh's tables (ours, the
# floor and the peers), and which of them take part in each phase, on
# which port. Sourced by run_bench.sh.

# ---------------------------------------------------------------------------
# The list of servers for this run: ours (the variants that exist), the
# floor and the peers.
# ---------------------------------------------------------------------------
want() { [ -z "$only" ] || [[ ",$only," == *",$1,"* ]]; }
row_note() { # name kind groups status note command
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$@" >> "$RUN/servers.txt"
}
add_row() { # name kind groups conf cmd
  names+=("$1") kinds+=("$2") groups+=("$3") confs+=("$4") cmds+=("$5")
  row_note "$1" "$2" "$3" ok "" "$5"
}
list_servers() {
  names=() kinds=() groups=() confs=() cmds=()
  : > "$RUN/servers.txt"
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
}

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
phase_note() { printf '%s\t%s\t%s\t%s\t%s\n' "$@" >> "$RUN/phases.txt"; }

rows_in() { # phase -> row indices
  local i out=()
  for i in "${!names[@]}"; do in_phase "$i" "$1" && out+=("$i"); done
  echo "${out[@]}"
}
scenarios_of() { grep -E "^[^|]*\|[[:space:]]*$1[[:space:]]*\|" "$RUN/scenarios.txt" || true; }
