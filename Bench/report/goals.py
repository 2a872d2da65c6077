"""The goals our variants are judged by, and each goal's row (target, value,
verdict) for one variant in one run."""
from formatting import fmt_bytes, fmt_int, fmt_latency, fmt_mbps
from rundir import HANDSHAKE_SCENARIOS, THROUGHPUT_SCENARIOS, to_num

NGINX = "nginx"
# "A handful" of threads with 10,000 idle connections, made a number.
HANDFUL_THREADS = 8
# The default cap of our worker pool (SetMaxWorkers): with slow clients
# holding workers, the pool may grow to it and no further.
WORKER_POOL_CAP = 256
MAX_IDLE_BYTES = 2048
MAX_IDLE_TLS_BYTES = 16 * 1024
SLOW_P99_SECONDS = 0.050
MAX_BUFFERED_PER_UPLOAD = 1024 * 1024

# Goals of our plain-HTTP variants, per wrk scenario: (kind, factor) where
# kind is "peer" (at least factor x the fastest peer) or "nginx".
PLAIN_GOALS = {
    "1k": ("peer", 1.0),
    "404": ("peer", 1.0),
    "c1000": ("peer", 1.0),
    "100k": ("nginx", 0.6),
    "100kclose": ("peer", 1.0),
    "64m": ("peer", 1.0),
    # Like for like with our streamed answers, as "100kclose".
    "64mclose": ("peer", 1.0),
}
HTTPS_GOALS = {
    "tls1k": ("nginx", 1.0),
    "tlsclose": ("nginx", 0.9),
    "tls64m": ("nginx", 0.9),
}
UPLOAD_FACTOR = 0.9
# With web-ready file serving (kept connections after large files), 100 KiB
# keep-alive goes further than the reference's streamed answers.
WEB_GOALS = {"100k": ("nginx", 1.0)}
WS_FACTOR = 1.0
MAX_IDLE_WS_BYTES = 4 * 1024


def verdict(met):
    if met is None:
        return "no result"
    return "**met**" if met else "**missed**"


def ratio_goal(run, name, scen_id, kind, factor, label):
    unit = "MB/s" if scen_id in THROUGHPUT_SCENARIOS else ("handshakes/s" if scen_id in HANDSHAKE_SCENARIOS else "req/s")
    fmt = fmt_mbps if scen_id in THROUGHPUT_SCENARIOS else fmt_int
    if kind == "peer":
        ref = run.fastest_peer(run.scen_values(scen_id))
        goal = f"{label}: at least the fastest peer" if factor == 1 else f"{label}: at least {factor:g}× the fastest peer"
    else:
        v = run.metric(NGINX, scen_id)
        ref = (NGINX, v) if v is not None else None
        goal = f"{label}: at least {factor:g}× nginx"
    target = ref[1] * factor if ref else None
    target_text = f"≥ {fmt(target)} {unit} ({ref[0]})" if target else "–"
    value = run.metric(name, scen_id)
    value_text = f"{fmt(value)} {unit}" if value is not None else "–"
    met = None if value is None or target is None else value >= target
    return goal, target_text, value_text, met


def idle_goal(run, name, mode, limit, what):
    target_n = int(run.machine.get("idle_conns", "10000"))
    idle = run.idle.get((name, mode))
    value = idle.get("bytes_per_conn") if idle else None
    held_all = idle is not None and (idle.get("held_open") or 0) >= target_n
    met = None if value is None else (value <= limit and held_all)
    text = "–" if value is None else f"{value:,.0f} B" + ("" if held_all else f" (held {idle['held_open']:,} of {target_n:,})")
    return f"Memory per {what} ({target_n:,} held)", f"≤ {limit:,} B", text, met


def goals_for(run, server):
    """Rows (goal, target, value, met) of one variant of ours."""
    labels = {s["id"]: s["label"] for s in run.scenarios}
    name = server["name"]
    rows = []
    if "plain" in server["groups"]:
        goals = dict(PLAIN_GOALS, **(WEB_GOALS if name == "nvq-web" else {}))
        for scen_id, (kind, factor) in goals.items():
            if scen_id in labels:
                rows.append(ratio_goal(run, name, scen_id, kind, factor, labels[scen_id]))
        rows.append(idle_goal(run, name, "plain", MAX_IDLE_BYTES, "idle connection"))
        target_n = int(run.machine.get("idle_conns", "10000"))
        idle = run.idle.get((name, "plain"))
        threads = idle.get("threads_after") if idle else None
        held_all = idle is not None and (idle.get("held_open") or 0) >= target_n
        rows.append((f"Threads with {target_n:,} idle connections", f"≤ {HANDFUL_THREADS}",
                     "–" if threads is None else str(threads),
                     None if threads is None else (threads <= HANDFUL_THREADS and held_all)))
        slow = run.slow.get(name)
        n = run.machine.get("slow_conns", "1000")
        wrk = slow.get("wrk") if slow else None
        p99 = wrk.get("p99") if wrk else None
        answered = bool(wrk and wrk.get("requests"))
        rows.append((f"1 KiB p99 latency beside {int(n):,} slow readers", f"< {SLOW_P99_SECONDS * 1000:.0f} ms",
                     (fmt_latency(p99) if answered else "no request answered") if wrk and "rps" in wrk else "–",
                     None if not wrk or "rps" not in wrk else (p99 is not None and p99 < SLOW_P99_SECONDS)))
        threads = to_num(slow["server"].get("threads"), int) if slow else None
        cap = HANDFUL_THREADS + WORKER_POOL_CAP
        rows.append((f"Threads beside {int(n):,} slow readers", f"≤ {cap} ({HANDFUL_THREADS} + worker cap {WORKER_POOL_CAP})",
                     "–" if threads is None else str(threads), None if threads is None else threads <= cap))
    if "https" in server["groups"]:
        for scen_id, (kind, factor) in HTTPS_GOALS.items():
            if scen_id in labels:
                rows.append(ratio_goal(run, name, scen_id, kind, factor, labels[scen_id]))
        rows.append(idle_goal(run, name, "tls", MAX_IDLE_TLS_BYTES, "idle TLS connection"))
    if "upload" in server["groups"]:
        nginx_mbps = (run.upload.get(NGINX) or {}).get("mbps")
        ref = (NGINX, nginx_mbps) if nginx_mbps else None
        target = ref[1] * UPLOAD_FACTOR if ref else None
        up = run.upload.get(name) or {}
        value = up.get("mbps")
        rows.append((f"Upload of 64 MiB bodies: at least {UPLOAD_FACTOR:g}× nginx",
                     f"≥ {fmt_mbps(target)} MB/s ({ref[0]})" if ref else "–",
                     f"{fmt_mbps(value)} MB/s" if value is not None else "–",
                     None if value is None or target is None else value >= target))
        buffered = up.get("buffered_per_upload")
        rows.append(("Body buffered per upload (peak RSS − RSS at start, ÷ clients)",
                     f"< {fmt_bytes(MAX_BUFFERED_PER_UPLOAD)}", fmt_bytes(buffered),
                     None if buffered is None else buffered < MAX_BUFFERED_PER_UPLOAD))
    if "ws" in server["groups"]:
        names = run.phase_servers("ws")
        for size in run.ws_sizes():
            values = {n: (run.ws.get((n, size)) or {}).get("mps") for n in names}
            ref = run.fastest_peer(values)
            value = values.get(name)
            target = ref[1] * WS_FACTOR if ref else None
            rows.append((f"WebSocket echo, {fmt_bytes(size)} messages: at least the fastest peer",
                         f"≥ {target:,.0f} msg/s ({ref[0]})" if ref else "–",
                         f"{value:,.0f} msg/s" if value is not None else "–",
                         None if value is None or target is None else value >= target))
        rows.append(idle_goal(run, name, "ws", MAX_IDLE_WS_BYTES, "idle WebSocket"))
    return rows


# --- markdown ----------------------------------------------------------------
