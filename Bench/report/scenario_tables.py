"""The per-scenario sections of results.md: one table per wrk scenario, and
the slow-reader, idle, upload, WebSocket and profile sections."""
from formatting import (fmt_bytes, fmt_cores, fmt_int, fmt_kib, fmt_latency, fmt_mbps, fmt_ratio, fmt_share,
                        label_of, plural)
from goals import NGINX
from rundir import HANDSHAKE_SCENARIOS, THROUGHPUT_SCENARIOS, to_num

# Cores used by other processes during a measurement above which its
# numbers are marked as disturbed.
DISTURBED_CORES = 0.2


def errors_note(scen_id, r):
    notes = [f"{k} errors {v:,}" for k, v in r["errors"].items()]
    if r.get("max_other_cpu", 0) > DISTURBED_CORES:
        notes.insert(0, f"⚠ disturbed: other processes used {r['max_other_cpu']:.2f} cores")
    if len(r.get("repeats", [])) > 1:
        fmt = fmt_mbps if scen_id in THROUGHPUT_SCENARIOS else fmt_int
        notes.append(f"{len(r['repeats'])} runs: {fmt(r['repeats'][0])}–{fmt(r['repeats'][-1])}")
    if r.get("failed_repeats"):
        notes.append(f"{r['failed_repeats']} runs failed")
    if scen_id == "404":
        if r.get("requests") and r["non2xx"] != r["requests"]:
            notes.append(f"only {r['non2xx']:,} of {r['requests']:,} answers were errors")
    elif r["non2xx"]:
        notes.append(f"{r['non2xx']:,} non-2xx answers")
    return "; ".join(notes)


def idle_notes(idle):
    notes = []
    if idle.get("error"):
        notes.append(idle["error"])
    if idle.get("stop_reason") and idle["stop_reason"] != "done":
        notes.append(f"opening {idle['stop_reason']}")
    if idle.get("unanswered"):
        notes.append(f"{idle['unanswered']:,} never answered")
    if idle.get("closed_by_server"):
        notes.append(f"{idle['closed_by_server']:,} closed by the server")
    if idle.get("connect_errors"):
        notes.append(f"{idle['connect_errors']:,} connect errors")
    return notes




def write_wrk_table(run, w, scen):
    m = run.machine
    sid = scen["id"]
    names = run.phase_servers(scen["phase"])
    if not any((n, sid) in run.results for n in names):
        return
    w("")
    w(f"### {scen['label']}")
    w("")
    extra = f" {scen['wrk']}" if scen["wrk"] else ""
    w(f"`wrk -t{m.get('wrk_threads', '2')} -c{scen['conns']} -d{m.get('duration', '?')}s --latency{extra} "
      f"{scen['scheme']}://127.0.0.1:PORT{scen['path']}`")
    w("")
    if scen["phase"] == "small":
        w(f"Measured in {plural(m.get('small_repeat', '1'), 'alternating round')} over every server.")
        w("")
    if sid in HANDSHAKE_SCENARIOS:
        w("Every request is a new TLS connection with a full handshake (session resumption is off on the peers; "
          "see the Servers table for ours), so requests/s is handshakes/s.")
        w("")
    values = run.scen_values(sid)
    best = run.fastest_peer(values)
    nginx_value = values.get(NGINX)
    floor_value = next((values.get(s["name"]) for s in run.running() if s["kind"] == "floor"), None)
    with_floor = floor_value is not None
    head = "Handshakes/s" if sid in HANDSHAKE_SCENARIOS else "Requests/s"
    w(f"| Server | {head} | MB/s | p99 latency | vs fastest peer | vs nginx |" + (" share of floor |" if with_floor else "")
      + " Server CPU | wrk CPU | Notes |")
    w("|---|---:|---:|---:|---:|---:|" + ("---:|" if with_floor else "") + "---:|---:|---|")
    for s in run.ordered(values, names):
        label = label_of(s)
        r = run.results.get((s["name"], sid))
        dashes = "– | " * (8 if with_floor else 7)
        if r is None:
            why = "; ".join(run.phase_notes.get(s["name"], [])) or "no result"
            w(f"| {label} | {dashes}{why} |")
            continue
        if "rps" not in r:
            w(f"| {label} | {dashes}wrk failed: {r['failed']} |")
            continue
        v = values.get(s["name"])
        vs_best = v / best[1] if best and v is not None and best[1] else None
        vs_nginx = v / nginx_value if nginx_value and v is not None else None
        share = v / floor_value if floor_value and v is not None else None
        w(f"| {label} | {fmt_int(r['rps'])} | {fmt_mbps(r.get('mbps'))} | {fmt_latency(r.get('p99'))} | "
          f"{fmt_ratio(vs_best)} | {fmt_ratio(vs_nginx)} | " + (f"{fmt_share(share)} | " if with_floor else "")
          + f"{fmt_cores(r.get('server_cpu'))} | {fmt_cores(r.get('wrk_cpu'))} | {errors_note(sid, r)} |")


def write_slow(run, w):
    m = run.machine
    names = run.phase_servers("slow")
    if not any(run.slow.get(x) for x in names):
        return
    n = int(m.get("slow_conns", "1000"))
    w("")
    w(f"### Slow readers: 1 KiB keep-alive beside {n:,} stalled downloads")
    w("")
    w(f"{n:,} clients each request `/64m.bin`, read 64 KiB to 1 MiB of it and stop reading, keeping the "
      f"connection open; meanwhile `wrk -t{m.get('wrk_threads', '2')} -c{m.get('slow_wrk_conns', '8')} "
      f"-d{m.get('duration', '?')}s --latency --timeout 5s http://127.0.0.1:PORT/1k.bin` runs once. Threads are "
      "summed over the server's processes at the end, with the slow clients still held.")
    w("")
    values = {}
    for name in names:
        wrk = (run.slow.get(name) or {}).get("wrk")
        values[name] = wrk.get("rps") if wrk and "rps" in wrk else None
    best = run.fastest_peer(values)
    w("| Server | Requests/s | p99 latency | vs fastest peer | Slow clients held | Threads | RSS | Server CPU | Notes |")
    w("|---|---:|---:|---:|---:|---:|---:|---:|---|")
    for s in run.ordered(values, names):
        slow = run.slow.get(s["name"])
        if not slow:
            why = "; ".join(run.phase_notes.get(s["name"], [])) or "no result"
            w(f"| {label_of(s)} | – | – | – | – | – | – | – | {why} |")
            continue
        c, srv, wrk = slow["clients"], slow["server"], slow["wrk"] or {}
        notes = []
        held = to_num(c.get("held"), int)
        if c.get("stop_reason") == "server_memory":
            notes.append(f"opening stopped: server RSS passed {int(m.get('slow_max_rss_mb', '0')):,} MiB")
        elif c.get("stop_reason") and c["stop_reason"] != "done":
            notes.append(f"opening {c['stop_reason']} after {int(c.get('started', '0')):,} clients")
        if to_num(c.get("still_reading"), int):
            notes.append(f"{int(c['still_reading']):,} still waiting for their share of the answer")
        if to_num(c.get("closed_by_server"), int):
            notes.append(f"{int(c['closed_by_server']):,} closed by the server")
        if to_num(c.get("connect_errors"), int):
            notes.append(f"{int(c['connect_errors']):,} connect errors")
        if "failed" in wrk:
            notes.append(f"wrk failed: {wrk['failed']}")
        elif wrk:
            notes.append(errors_note("slow", wrk))
        v = values.get(s["name"])
        vs_best = v / best[1] if best and v is not None and best[1] else None
        w(f"| {label_of(s)} | {fmt_int(v)} | {fmt_latency(wrk.get('p99'))} | {fmt_ratio(vs_best)} | "
          f"{fmt_int(held)} of {n:,} | {fmt_int(to_num(srv.get('threads'), int))} | "
          f"{fmt_kib(to_num(srv.get('rss_kb'), int))} | {fmt_cores(wrk.get('server_cpu'))} | "
          f"{'; '.join(x for x in notes if x)} |")


def write_idle(run, w, mode, title):
    phase = {"plain": "idle", "tls": "tlsidle", "ws": "wsidle"}[mode]
    names = run.phase_servers(phase)
    if not any((n, mode) in run.idle for n in names):
        return
    w("")
    w(f"### {title}")
    w("")
    w("| Server | Held open | Answered | RSS before | RSS after | Bytes per connection | Threads (idle) | "
      "Processes | Notes |")
    w("|---|---:|---:|---:|---:|---:|---:|---:|---|")
    values = {n: (run.idle.get((n, mode)) or {}).get("bytes_per_conn") for n in names}
    for s in run.ordered(None, names):
        idle = run.idle.get((s["name"], mode))
        if idle is None:
            why = "; ".join(run.phase_notes.get(s["name"], [])) or "no result"
            w(f"| {label_of(s)} | – | – | – | – | – | – | – | {why} |")
            continue
        w(f"| {label_of(s)} | {fmt_int(idle.get('held_open'))} | {fmt_int(idle.get('answered'))} | "
          f"{fmt_kib(idle.get('rss_before_kb'))} | {fmt_kib(idle.get('rss_after_kb'))} | "
          f"{fmt_int(values.get(s['name']))} | {fmt_int(idle.get('threads_after'))} | "
          f"{fmt_int(idle.get('processes'))} | {'; '.join(idle_notes(idle))} |")


def write_upload(run, w):
    m = run.machine
    names = run.phase_servers("upload")
    if not any(run.upload.get(x) for x in names):
        return
    clients = int(m.get("upload_clients", "4"))
    size = int(m.get("upload_size", str(64 << 20)))
    w("")
    w(f"### Uploads: {clients} clients, each sending {plural(m.get('uploads', '?'), 'body', 'bodies')} of {fmt_bytes(size)} "
      "one after another")
    w("")
    w("Every body goes on a new connection with a Content-Length and is stored to a file by the server. MB/s "
      "counts request bodies (10^6 bytes per second) from the first connect to the last answer. Buffered per upload: "
      f"the server's peak resident memory (VmHWM, reset before the run) minus its resident memory at the start, "
      f"divided by {clients}. nginx stores with PUT through its WebDAV module (see peers/nginx.conf.in); "
      "the others take POST /upload.")
    w("")
    values = {n: (run.upload.get(n) or {}).get("mbps") for n in names}
    best = run.fastest_peer(values)
    w("| Server | MB/s | vs best peer | Peak RSS | Buffered per upload | Server CPU | Client CPU | Notes |")
    w("|---|---:|---:|---:|---:|---:|---:|---|")
    for s in run.ordered(values, names):
        up = run.upload.get(s["name"])
        if not up:
            why = "; ".join(run.phase_notes.get(s["name"], [])) or "no result"
            w(f"| {label_of(s)} | – | – | – | – | – | – | {why} |")
            continue
        notes = []
        if up.get("max_other_cpu", 0) > DISTURBED_CORES:
            notes.append(f"⚠ disturbed: other processes used {up['max_other_cpu']:.2f} cores")
        if len(up.get("repeats", [])) > 1:
            notes.append(f"{len(up['repeats'])} runs: {fmt_mbps(up['repeats'][0])}–{fmt_mbps(up['repeats'][-1])}")
        if up.get("failure"):
            notes.append(f"failed: {up['failure']}")
        v = values.get(s["name"])
        w(f"| {label_of(s)} | {fmt_mbps(v)} | {fmt_ratio(v / best[1] if best and v is not None else None)} | "
          f"{fmt_kib(up.get('peak_kb'))} | {fmt_bytes(up.get('buffered_per_upload'))} | "
          f"{fmt_cores(up.get('server_cpu'))} | {fmt_cores(up.get('wrk_cpu'))} | {'; '.join(notes)} |")


def write_ws(run, w):
    m = run.machine
    names = run.phase_servers("ws")
    if not any(k[0] in names for k in run.ws):
        return
    for size in run.ws_sizes():
        w("")
        w(f"### WebSocket echo, {fmt_bytes(size)} messages, {m.get('ws_conns', '32')} connections")
        w("")
        w(f"`ws_load --conns {m.get('ws_conns', '32')} --size {size} --duration {m.get('duration', '?')} "
          f"--threads {m.get('wrk_threads', '2')}`: each connection sends a masked binary message, waits for its "
          "echo and sends the next. Client CPU is the load client's own, to show it is not the bottleneck.")
        w("")
        values = {n: (run.ws.get((n, size)) or {}).get("mps") for n in names}
        best = run.fastest_peer(values)
        w("| Server | Messages/s | p99 round trip | vs fastest peer | Server CPU | Client CPU | Notes |")
        w("|---|---:|---:|---:|---:|---:|---|")
        for s in run.ordered(values, names):
            r = run.ws.get((s["name"], size))
            if not r:
                why = "; ".join(run.phase_notes.get(s["name"], [])) or "no result"
                w(f"| {label_of(s)} | – | – | – | – | – | {why} |")
                continue
            notes = []
            if r.get("max_other_cpu", 0) > DISTURBED_CORES:
                notes.append(f"⚠ disturbed: other processes used {r['max_other_cpu']:.2f} cores")
            if len(r.get("repeats", [])) > 1:
                notes.append(f"{len(r['repeats'])} runs: {fmt_int(r['repeats'][0])}–{fmt_int(r['repeats'][-1])}")
            if r.get("errors"):
                notes.append(f"{r['errors']} errors ({r.get('first_error')})")
            if r.get("timeouts"):
                notes.append(f"{r['timeouts']} timeouts")
            v = values.get(s["name"])
            w(f"| {label_of(s)} | {fmt_int(v)} | {fmt_latency(r.get('p99'))} | "
              f"{fmt_ratio(v / best[1] if best and v is not None else None)} | {fmt_cores(r.get('server_cpu'))} | "
              f"{fmt_cores(r.get('client_cpu'))} | {'; '.join(notes)} |")


def write_profiles(run, w):
    if not run.profiles:
        return
    w("")
    w(f"## Profile of {run.machine.get('profile', '?')}")
    w("")
    w("Short separate runs of each small-request scenario: one under `perf stat -e task-clock,context-switches`, "
      "one under `strace -c -f` (which slows the server down a lot; only its counts per request matter). "
      "Per request: divided by the requests wrk completed in that run.")
    w("")
    w("| Scenario | CPU per request | Context switches per request | Syscalls per request | Most frequent (per request) |")
    w("|---|---:|---:|---:|---|")
    labels = {s["id"]: s["label"] for s in run.scenarios}
    for (name, sid), p in sorted(run.profiles.items()):
        cpu = p["task_ms"] * 1000 / p["perf_requests"] if p.get("task_ms") and p.get("perf_requests") else None
        ctx = p["ctx"] / p["perf_requests"] if p.get("ctx") is not None and p.get("perf_requests") else None
        sys_per = p["syscalls"] / p["strace_requests"] if p.get("syscalls") and p.get("strace_requests") else None
        top = ""
        if p.get("strace_requests"):
            top = ", ".join(f"{k} {v / p['strace_requests']:.2f}" for k, v in
                            sorted(p["calls"].items(), key=lambda kv: -kv[1])[:6])
        w(f"| {labels.get(sid, sid)} | {'–' if cpu is None else f'{cpu:.1f} µs'} | "
          f"{'–' if ctx is None else f'{ctx:.2f}'} | {'–' if sys_per is None else f'{sys_per:.2f}'} | {top} |")
    w("")
    w("Raw output: `profile/`.")
