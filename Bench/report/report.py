#!/usr/bin/env python3
"""Turns one benchmark run directory into results.md and chart.png.

Usage: report.py RUN_DIR

Reads what Bench/run_bench.sh leaves in RUN_DIR:
  machine.txt            key=value
  scenarios.txt          id | phase | scheme | path | connections | wrk options | label
  servers.txt            name, kind (ours/peer/floor), groups, status, note, command (tab-separated)
  phases.txt             name, phase, status, note, command of each instance started
  raw/NAME-ID.rN.txt     wrk --latency output of measurement N, with .cpu beside it (cores used by
                         the server, the client and everything else)
  slow/NAME.*            the slow-reader test: clients.txt, server.txt, wrk.txt
  idle/NAME[.tls|.ws].txt  idle_conns key=value output (plain, TLS, WebSocket)
  upload/NAME.rN.txt     upload_client output plus the server's memory figures
  ws/NAME-SIZE.rN.txt    ws_load output, with .cpu beside it
  profile/NAME-ID.*      perf stat and strace -c of the profiled server
With several measurements the one with the median result is reported.
Standard library only, plus matplotlib for the chart when it is installed.
"""
import glob
import os
import re
import sys

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
# Scenarios judged by bytes per second rather than requests per second.
THROUGHPUT_SCENARIOS = {"64m", "tls64m"}
# Scenarios whose requests are each a new TLS connection.
HANDSHAKE_SCENARIOS = {"tlsclose"}
# Cores used by other processes during a measurement above which its
# numbers are marked as disturbed.
DISTURBED_CORES = 0.2

UNIT_BYTES = {"B": 1, "KB": 1024, "MB": 1024**2, "GB": 1024**3, "TB": 1024**4}
UNIT_SECONDS = {"us": 1e-6, "ms": 1e-3, "s": 1.0, "m": 60.0, "h": 3600.0}


def read_kv(path):
    values = {}
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                key, sep, value = line.rstrip("\n").partition("=")
                if sep:
                    values[key.strip()] = value.strip()
    except FileNotFoundError:
        pass
    return values


def read_text(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return None


def to_num(text, cast=float):
    try:
        return cast(text)
    except (TypeError, ValueError):
        return None


def parse_bytes(text):
    m = re.fullmatch(r"([\d.]+)([KMGT]?B)", text)
    return float(m.group(1)) * UNIT_BYTES[m.group(2)] if m else None


def parse_seconds(text):
    m = re.fullmatch(r"([\d.]+)(us|ms|s|m|h)", text)
    return float(m.group(1)) * UNIT_SECONDS[m.group(2)] if m else None


def parse_wrk(path):
    """Returns a dict with rps, mbps, p99 (seconds), requests, errors, or
    None when the file is missing or wrk produced no result."""
    text = read_text(path)
    if text is None:
        return None
    if "SERVER EXITED" in text:
        return {"failed": "the server exited during this measurement"}
    m = re.search(r"^Requests/sec:\s+([\d.]+)", text, re.M)
    if not m:
        return {"failed": text.strip().splitlines()[-1] if text.strip() else "no output"}
    result = {"rps": float(m.group(1)), "errors": {}, "non2xx": 0}
    m = re.search(r"^\s*(\d+) requests in ([\d.]+\w+), ([\d.]+[KMGT]?B) read", text, re.M)
    if m:
        result["requests"] = int(m.group(1))
        seconds = parse_seconds(m.group(2))
        read = parse_bytes(m.group(3))
        if seconds and read is not None:
            result["mbps"] = read / seconds / 1e6
    m = re.search(r"^\s*99%\s+([\d.]+\w+)", text, re.M)
    # wrk prints a p99 of 0 when nothing was answered: that is no latency.
    if m and result.get("requests"):
        result["p99"] = parse_seconds(m.group(1))
    m = re.search(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", text)
    if m:
        for key, value in zip(("connect", "read", "write", "timeout"), m.groups()):
            if int(value):
                result["errors"][key] = int(value)
    m = re.search(r"Non-2xx or 3xx responses: (\d+)", text)
    if m:
        result["non2xx"] = int(m.group(1))
    return result


def read_cpu(path_txt, result):
    cpu = read_kv(path_txt[: -len(".txt")] + ".cpu")
    for k in ("server_cpu", "wrk_cpu", "other_cpu"):
        result[k] = to_num(cpu.get(k))
    return result


def median_of(runs, key):
    """The median run by key with the spread of all runs, or the first
    failed one when none has the key."""
    if not runs:
        return None
    good = sorted((r for r in runs if r.get(key) is not None), key=lambda r: r[key])
    if not good:
        return runs[0]
    median = dict(good[(len(good) - 1) // 2])
    median["repeats"] = [r[key] for r in good]
    median["failed_repeats"] = len(runs) - len(good)
    median["max_other_cpu"] = max((r.get("other_cpu") or 0) for r in runs)
    return median


def fmt_int(x):
    return f"{x:,.0f}" if x is not None else "–"


def fmt_mbps(x):
    if x is None:
        return "–"
    return f"{x:,.0f}" if x >= 100 else f"{x:,.1f}"


def fmt_latency(s):
    if s is None:
        return "–"
    if s < 1e-3:
        return f"{s * 1e6:.0f} µs"
    if s < 1:
        return f"{s * 1e3:.2f} ms"
    return f"{s:.2f} s"


def fmt_ratio(x):
    return f"{x:.2f}×" if x is not None else "–"


def fmt_share(x):
    return f"{x * 100:.0f}%" if x is not None else "–"


def fmt_cores(x):
    return f"{x:.2f}" if x is not None else "–"


def fmt_kib(kb):
    return f"{kb / 1024:,.1f} MiB" if kb is not None else "–"


def fmt_bytes(b):
    if b is None:
        return "–"
    if abs(b) >= 1024 * 1024:
        return f"{b / 1048576:,.1f} MiB"
    if abs(b) >= 10 * 1024:
        return f"{b / 1024:,.0f} KiB"
    return f"{b:,.0f} B"


class Run:
    def __init__(self, run_dir):
        self.dir = run_dir
        self.machine = read_kv(os.path.join(run_dir, "machine.txt"))
        self.scenarios = []
        with open(os.path.join(run_dir, "scenarios.txt"), encoding="utf-8") as f:
            for line in f:
                parts = [p.strip() for p in line.split("|")]
                if len(parts) >= 7 and parts[0]:
                    self.scenarios.append({"id": parts[0], "phase": parts[1], "scheme": parts[2], "path": parts[3],
                                           "conns": parts[4], "wrk": parts[5], "label": parts[6]})
        self.servers = []
        with open(os.path.join(run_dir, "servers.txt"), encoding="utf-8") as f:
            for line in f:
                parts = line.rstrip("\n").split("\t")
                if len(parts) >= 6:
                    self.servers.append({"name": parts[0], "kind": parts[1], "ours": parts[1] == "ours",
                                         "groups": parts[2].split(), "status": parts[3], "note": parts[4],
                                         "cmd": parts[5]})
        self.phase_notes = {}
        text = read_text(os.path.join(run_dir, "phases.txt")) or ""
        for line in text.splitlines():
            parts = line.split("\t")
            if len(parts) >= 4 and parts[2] != "ok":
                self.phase_notes.setdefault(parts[0], []).append(f"{parts[1]}: {parts[2]}" +
                                                                 (f" ({parts[3]})" if parts[3] else ""))
        self.results = {}
        for server in self.running():
            for scen in self.scenarios:
                r = self.load_wrk(server["name"], scen["id"])
                if r is not None:
                    self.results[(server["name"], scen["id"])] = r
        self.idle = {}
        for mode, suffix in (("plain", ""), ("tls", ".tls"), ("ws", ".ws")):
            for s in self.running():
                idle = self.parse_idle(os.path.join(run_dir, "idle", f"{s['name']}{suffix}.txt"))
                if idle is not None:
                    self.idle[(s["name"], mode)] = idle
        self.slow = {s["name"]: self.parse_slow(s["name"]) for s in self.running()}
        self.upload = {s["name"]: self.parse_upload(s["name"]) for s in self.running()}
        self.ws = {}
        for s in self.running():
            for size in self.ws_sizes():
                r = self.parse_ws(s["name"], size)
                if r is not None:
                    self.ws[(s["name"], size)] = r
        self.profiles = self.parse_profiles()

    # --- loading ---------------------------------------------------------

    def running(self):
        return [s for s in self.servers if s["status"] != "skipped"]

    def ws_sizes(self):
        return [int(x) for x in self.machine.get("ws_sizes", "64 16384").split()]

    def load_wrk(self, name, scen_id):
        key = "mbps" if scen_id in THROUGHPUT_SCENARIOS else "rps"
        runs = []
        pattern = os.path.join(self.dir, "raw", f"{glob.escape(name)}-{glob.escape(scen_id)}.r*.txt")
        for path in sorted(glob.glob(pattern)):
            r = parse_wrk(path)
            if r is not None:
                runs.append(read_cpu(path, r))
        return median_of(runs, key)

    @staticmethod
    def parse_idle(path):
        kv = read_kv(path)
        if not kv:
            return None
        idle = {key: to_num(kv.get(key), int) for key in (
            "target", "answered", "answered_200", "held_open", "rss_before_kb", "rss_after_kb", "threads_before",
            "threads_after", "processes", "unanswered", "closed_by_server", "connect_errors")}
        idle["stop_reason"] = kv.get("stop_reason")
        idle["error"] = kv.get("error") or (f"client exit {kv['exit']}" if "exit" in kv else None)
        held = idle["held_open"]
        if held and idle["rss_before_kb"] is not None and idle["rss_after_kb"] is not None:
            idle["bytes_per_conn"] = (idle["rss_after_kb"] - idle["rss_before_kb"]) * 1024 / held
        else:
            idle["bytes_per_conn"] = None
        return idle

    def parse_slow(self, name):
        base = os.path.join(self.dir, "slow", name)
        clients = read_kv(base + ".clients.txt")
        server = read_kv(base + ".server.txt")
        wrk_path = base + ".wrk.txt"
        wrk = parse_wrk(wrk_path)
        if not clients and not server and wrk is None:
            return None
        if wrk is not None:
            read_cpu(wrk_path, wrk)
        return {"clients": clients, "server": server, "wrk": wrk}

    def parse_upload(self, name):
        runs = []
        for path in sorted(glob.glob(os.path.join(self.dir, "upload", f"{glob.escape(name)}.r*.txt"))):
            kv = read_kv(path)
            r = {"mbps": to_num(kv.get("mbps")) if to_num(kv.get("uploads_ok"), int) else None,
                 "ok": to_num(kv.get("uploads_ok"), int), "failed": to_num(kv.get("uploads_failed"), int),
                 "failure": kv.get("failure")}
            rss0, hwm1 = to_num(kv.get("rss_start_kb"), int), to_num(kv.get("hwm_end_kb"), int)
            clients = int(self.machine.get("upload_clients", "4"))
            r["peak_kb"] = hwm1
            r["start_kb"] = rss0
            r["buffered_per_upload"] = (hwm1 - rss0) * 1024 / clients if rss0 is not None and hwm1 else None
            text = read_text(path) or ""
            if "SERVER EXITED" in text:
                r["failure"] = "the server exited during the upload"
            elif "client exited" in text and not r["failure"]:
                r["failure"] = text.strip().splitlines()[-1]
            runs.append(read_cpu(path, r))
        return median_of(runs, "mbps")

    def parse_ws(self, name, size):
        runs = []
        for path in sorted(glob.glob(os.path.join(self.dir, "ws", f"{glob.escape(name)}-{size}.r*.txt"))):
            kv = read_kv(path)
            r = {"mps": to_num(kv.get("msgs_per_sec")) if to_num(kv.get("messages"), int) else None,
                 "p99": (to_num(kv.get("p99_us")) or 0) / 1e6 or None, "ready": to_num(kv.get("ready"), int),
                 "errors": to_num(kv.get("errors"), int), "timeouts": to_num(kv.get("timeouts"), int),
                 "client_cpu": to_num(kv.get("client_cpu")), "first_error": kv.get("first_error")}
            if "SERVER EXITED" in (read_text(path) or ""):
                r["first_error"] = "the server exited"
            runs.append(read_cpu(path, r))
        return median_of(runs, "mps")

    def parse_profiles(self):
        profiles = {}
        for perf_path in sorted(glob.glob(os.path.join(self.dir, "profile", "*.perf.txt"))):
            stem = perf_path[: -len(".perf.txt")]
            name, _, scen_id = os.path.basename(stem).rpartition("-")
            p = {}
            text = read_text(perf_path) or ""
            m = re.search(r"([\d.,]+)\s+msec\s+task-clock", text)
            p["task_ms"] = to_num(m.group(1).replace(",", "")) if m else None
            m = re.search(r"([\d,]+)\s+context-switches", text)
            p["ctx"] = to_num(m.group(1).replace(",", ""), int) if m else None
            w = parse_wrk(stem + ".perf-wrk.txt")
            p["perf_requests"] = w.get("requests") if w else None
            text = read_text(stem + ".strace.txt") or ""
            calls = {}
            total = None
            for line in text.splitlines():
                f = line.split()
                # % time, seconds, usecs/call, calls, [errors], syscall
                if len(f) >= 4 and f[-1] == "total" and f[3].isdigit():
                    total = int(f[3])
                elif len(f) >= 5 and re.fullmatch(r"[\d.]+", f[0]) and f[3].isdigit():
                    calls[f[-1]] = int(f[3])
            p["syscalls"] = total if total is not None else (sum(calls.values()) if calls else None)
            p["calls"] = calls
            w = parse_wrk(stem + ".strace-wrk.txt")
            p["strace_requests"] = w.get("requests") if w else None
            profiles[(name, scen_id)] = p
        return profiles

    # --- figures ---------------------------------------------------------

    def kind(self, name):
        return next((s["kind"] for s in self.servers if s["name"] == name), "peer")

    def metric(self, name, scen_id):
        r = self.results.get((name, scen_id))
        if not r or "rps" not in r:
            return None
        return r.get("mbps") if scen_id in THROUGHPUT_SCENARIOS else r["rps"]

    def fastest_peer(self, values):
        """(name, value) of the best peer in a {name: value} map; ours and the floor are not peers."""
        best = None
        for name, v in values.items():
            if self.kind(name) == "peer" and v is not None and (best is None or v > best[1]):
                best = (name, v)
        return best

    def scen_values(self, scen_id):
        return {s["name"]: self.metric(s["name"], scen_id) for s in self.running()}

    def ordered(self, values=None, names=None):
        """Ours first, then peers from best to worst, then the floor."""
        pool = [s for s in self.running() if names is None or s["name"] in names]
        ours = [s for s in pool if s["ours"]]
        peers = [s for s in pool if s["kind"] == "peer"]
        floor = [s for s in pool if s["kind"] == "floor"]
        if values is not None:
            peers.sort(key=lambda s: -(values.get(s["name"]) or -1))
        return ours + peers + floor

    def takes_part(self, server, phase):
        g = server["groups"]
        return {"small": "plain" in g or "floor" in g,
                "large": "plain" in g, "slow": "plain" in g, "idle": "plain" in g,
                "https": "https" in g, "tlsidle": "https" in g,
                "upload": "upload" in g, "ws": "ws" in g, "wsidle": "ws" in g}.get(phase, False)

    def phase_servers(self, phase):
        return {s["name"] for s in self.running() if self.takes_part(s, phase)}


def plural(count, word, many=None):
    return f"{count} " + (word if str(count) == "1" else (many or word + "s"))


def label_of(s):
    if s["ours"]:
        return f"{s['name']} (ours)"
    if s["kind"] == "floor":
        return "floor (bench's own)"
    return s["name"]


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


# --- goals -------------------------------------------------------------------

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

def write_markdown(run, chart_ok):
    m = run.machine
    out = []
    w = out.append
    w(f"# HTTP server benchmark, {m.get('date', '?')}")
    w("")
    w(f"Machine: {m.get('host_cpu', '?')}, {m.get('cores', '?')} cores, {m.get('memory', '?')} RAM; "
      f"{m.get('os', '?')}, kernel {m.get('kernel', '?')}. "
      f"Load average before the run: {m.get('load_before', '?')}; after: {m.get('load_after', '?')}."
      + (f" Measuring took {int(m['run_seconds']) // 60} min {int(m['run_seconds']) % 60} s." if "run_seconds" in m else ""))
    w("")
    w(f"Load: wrk {m.get('wrk', '?')} on the same machine, -t{m.get('wrk_threads', '?')}, "
      f"{m.get('duration', '?')} s per measurement after a 1 s warm-up, on 127.0.0.1. "
      f"Small-request scenarios: {plural(m.get('small_repeat', '1'), 'alternating round')} (every server once "
      f"per round), median shown; the others: {plural(m.get('repeat', '1'), 'run')} per server, median shown. "
      f"Open-file limit: {m.get('nofile', '?')}."
      + (f" Servers and clients ran at niceness {m['nice']}." if m.get("nice", "0") != "0" else ""))
    w("")
    versions = ", ".join(f"{k[len('version_'):]} {v}" for k, v in m.items() if k.startswith("version_"))
    w(f"Package versions: {versions}; OpenSSL {m.get('openssl', '?')}, node {m.get('node', '?')}. "
      f"TLS key: {m.get('tls_key', '?')}.")
    w("")
    all_results = list(run.results.values()) + [r for r in run.ws.values() if r] + \
        [r for r in run.upload.values() if r]
    disturbed = max((r.get("max_other_cpu", 0) for r in all_results), default=0)
    if disturbed > DISTURBED_CORES:
        count = sum(1 for r in all_results if r.get("max_other_cpu", 0) > DISTURBED_CORES)
        w(f"**Warning:** other processes on the machine used up to {disturbed:.2f} of the "
          f"{m.get('cores', '?')} cores during {count} of the measurements (marked ⚠ below); those numbers "
          "understate the server. Rerun on a quiet machine, or with `--nice -10` as root.")
        w("")
    if "ours_missing" in m:
        w(f"Our server was asked for but `{m['ours_missing']}` does not exist, so only the peers ran.")
        w("")

    w("## Servers")
    w("")
    w("| Server | Takes part in | Status | Command |")
    w("|---|---|---|---|")
    for s in run.servers:
        status = s["status"] + (f": {s['note']}" if s["note"] else "")
        extra = run.phase_notes.get(s["name"])
        if extra:
            status += "; " + "; ".join(extra)
        resumes = read_text(os.path.join(run.dir, "servers", s["name"], "tls-resumes.txt"))
        if resumes and resumes.strip() == "yes":
            status += "; ⚠ resumes TLS sessions (the HTTPS rows assume full handshakes)"
        w(f"| {label_of(s)} | {', '.join(s['groups'])} | {status} | `{s['cmd']}` |")
    w("")

    write_goals(run, w)
    write_summary(run, w)

    w("## Scenarios")
    for scen in run.scenarios:
        write_wrk_table(run, w, scen)
    write_slow(run, w)
    write_idle(run, w, "plain", f"Idle connections ({int(m.get('idle_conns', '10000')):,} keep-alive connections, "
                                "one answered request each)")
    write_idle(run, w, "tls", f"Idle TLS connections ({int(m.get('idle_conns', '10000')):,}, handshake and one "
                              "answered request each)")
    write_upload(run, w)
    write_ws(run, w)
    write_idle(run, w, "ws", f"Idle WebSockets ({int(m.get('idle_conns', '10000')):,} upgraded connections)")
    write_profiles(run, w)
    write_reading_notes(run, w, chart_ok)
    with open(os.path.join(run.dir, "results.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(out))


def write_goals(run, w):
    w("## Goals")
    w("")
    ours = [s for s in run.servers if s["ours"]]
    if not ours:
        w("No variant of ours was asked for in this run.")
        w("")
        return
    for s in ours:
        w(f"### {s['name']}")
        w("")
        if s["status"] == "skipped":
            w(f"Not run: {s['note']}. Its goals: ")
            w("")
        w("| Goal | Target in this run | Ours | Verdict |")
        w("|---|---|---|---|")
        for goal, target, value, met in goals_for(run, s):
            if met == "info":
                v = "–"
            elif s["status"] == "skipped":
                v = "not run"
            else:
                v = verdict(met)
            w(f"| {goal} | {target} | {value} | {v} |")
        w("")


def write_summary(run, w):
    scenarios = [sc for sc in run.scenarios if any(k[1] == sc["id"] for k in run.results)]
    w("## Summary")
    w("")
    w("Requests per second (MB/s for 64 MiB, handshakes per second for the HTTPS new-connection scenario); "
      "the best peer per column is in bold. A dash: the server does not take part in that scenario.")
    w("")
    w("| Server | " + " | ".join(s["label"] for s in scenarios) + " |")
    w("|---|" + "---:|" * len(scenarios))
    bests = {scen["id"]: run.fastest_peer(run.scen_values(scen["id"])) for scen in scenarios}
    in_table = {n for scen in scenarios for n in run.phase_servers(scen["phase"])}
    for s in run.ordered(None, in_table):
        cells = []
        for scen in scenarios:
            v = run.metric(s["name"], scen["id"])
            text = (fmt_mbps(v) if scen["id"] in THROUGHPUT_SCENARIOS else fmt_int(v)) if v is not None else "–"
            best = bests[scen["id"]]
            if best and best[0] == s["name"]:
                text = f"**{text}**"
            cells.append(text)
        w(f"| {label_of(s)} | " + " | ".join(cells) + " |")
    w("")


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


def write_reading_notes(run, w, chart_ok):
    m = run.machine
    w("")
    w("## How to read this")
    w("")
    w("- Requests/s and p99 latency come from wrk's own summary. MB/s is everything wrk read (headers and "
      "bodies) per second, in 10^6 bytes.")
    w("- \"vs fastest peer\" divides by the best peer in that scenario (requests/s; MB/s for 64 MiB); "
      "\"vs nginx\" divides by nginx. The floor and our own variants are never the \"fastest peer\".")
    w("- \"share of floor\" divides by the floor server's result: a minimal epoll loop per core that answers "
      "each request with one read and one write of a canned answer (`floor/floor_server.c`). It shows how much of "
      "what the machine allows a server gets, not a goal.")
    w("- Non-2xx answers are expected only in the 404 scenario; socket errors or timeouts in any other "
      "row mean that server was not keeping up or was closing connections (in the \"every answer closes\" "
      "scenarios, closing is the point, and wrk counts no error for it).")
    w("- Idle memory: the server's resident memory (VmRSS summed over its process and all its children) "
      "after opening the connections minus before, divided by the number still held open; a fresh server "
      "instance is used for each idle test. Kernel socket buffers are not part of any process's RSS, and "
      "memory a server allocates up front (for example nginx's connection table) counts in \"before\".")
    w("- Server CPU and wrk/client CPU are the cores each used on average during the measurement (the machine "
      f"has {m.get('cores', '?')}; the client shares them with the server). A row marked ⚠ had other processes "
      f"using more than {DISTURBED_CORES} cores at the same time.")
    w("- Threads: the Threads: line of /proc/PID/status summed over the server's processes.")
    if chart_ok:
        w("")
        w("![chart](chart.png)")
    w("")


# --- chart -------------------------------------------------------------------

def write_chart(run):
    try:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("report.py: matplotlib is not installed; no chart", file=sys.stderr)
        return False
    target_n = int(run.machine.get("idle_conns", "10000"))
    panels = []  # (title, unit, {name: value}, {name: (low, high)}, line, {name: extra label})
    for scen in run.scenarios:
        names = run.phase_servers(scen["phase"])
        if not names:
            continue
        vals = {n: run.metric(n, scen["id"]) for n in names}
        spread = {}
        for n in names:
            reps = (run.results.get((n, scen["id"])) or {}).get("repeats") or []
            if len(reps) > 1:
                spread[n] = (reps[0], reps[-1])
        unit = "MB/s" if scen["id"] in THROUGHPUT_SCENARIOS else (
            "handshakes/s" if scen["id"] in HANDSHAKE_SCENARIOS else "requests/s")
        panels.append((scen["label"], unit, vals, spread, None, {}))
    names = run.phase_servers("slow")
    if names:
        vals = {n: ((run.slow.get(n) or {}).get("wrk") or {}).get("rps") for n in names}
        panels.append((f"1 KiB beside {int(run.machine.get('slow_conns', '1000')):,} slow readers", "requests/s",
                       vals, {}, None, {}))
    for mode, phase, title, line in (("plain", "idle", "Memory per idle connection", MAX_IDLE_BYTES),
                                     ("tls", "tlsidle", "Memory per idle TLS connection", MAX_IDLE_TLS_BYTES),
                                     ("ws", "wsidle", "Memory per idle WebSocket", None)):
        names = run.phase_servers(phase)
        if not names:
            continue
        vals, extra = {}, {}
        for n in names:
            idle = run.idle.get((n, mode)) or {}
            vals[n] = idle.get("bytes_per_conn")
            held = idle.get("held_open")
            if vals[n] is not None and held is not None and held < target_n:
                extra[n] = f"(held {held:,})"
        panels.append((f"{title} ({target_n:,})", "bytes (lower is better)", vals, {}, line, extra))
    names = run.phase_servers("upload")
    if names:
        vals = {n: (run.upload.get(n) or {}).get("mbps") for n in names}
        panels.append(("Upload, 64 MiB bodies", "MB/s", vals, {}, None, {}))
    for size in run.ws_sizes():
        names = run.phase_servers("ws")
        if names:
            vals = {n: (run.ws.get((n, size)) or {}).get("mps") for n in names}
            panels.append((f"WebSocket echo, {fmt_bytes(size)}", "messages/s", vals, {}, None, {}))
    # A phase left out of this run (--phases) has nothing to draw.
    panels = [p for p in panels if any(v is not None for v in p[2].values())]
    if not panels:
        return False
    cols = 3
    rows = (len(panels) + cols - 1) // cols
    fig, axes = plt.subplots(rows, cols, figsize=(5.2 * cols, 3.8 * rows), squeeze=False)
    for ax, (title, unit, vals, spread, line, extra) in zip(axes.flat, panels):
        servers = run.ordered(None, set(vals))
        labels = [label_of(s) for s in servers]
        colors = ["#d62728" if s["ours"] else ("#1f77b4" if s["name"] == NGINX else
                  ("#2ca02c" if s["kind"] == "floor" else "#7f7f7f")) for s in servers]
        values = [vals.get(s["name"]) for s in servers]
        heights = [v if v is not None else 0 for v in values]
        err = [[0] * len(servers), [0] * len(servers)]
        for i, s in enumerate(servers):
            if s["name"] in spread and values[i] is not None:
                lo, hi = spread[s["name"]]
                err[0][i] = max(0, values[i] - lo)
                err[1][i] = max(0, hi - values[i])
        bars = ax.bar(range(len(servers)), heights, color=colors,
                      yerr=err if any(err[0]) or any(err[1]) else None, capsize=3,
                      error_kw={"elinewidth": 0.8, "ecolor": "#333333"})
        for s, bar, v, above in zip(servers, bars, values, err[1]):
            text = "n/a" if v is None else (f"{v:,.0f}" if v >= 100 else f"{v:,.1f}")
            if s["name"] in extra:
                text += "\n" + extra[s["name"]]
            ax.annotate(text, (bar.get_x() + bar.get_width() / 2, bar.get_height() + above), ha="center",
                        va="bottom", fontsize=7, xytext=(0, 2), textcoords="offset points")
        if line:
            ax.axhline(line, color="#d62728", linestyle="--", linewidth=0.8)
        ax.set_title(title, fontsize=10)
        ax.set_ylabel(unit, fontsize=8)
        # Panels with few servers keep the bars as narrow as in the others.
        ax.set_xlim(-0.6, max(len(servers), 4) - 0.4)
        ax.set_xticks(range(len(servers)))
        ax.set_xticklabels(labels, rotation=30, ha="right", fontsize=8)
        ax.tick_params(axis="y", labelsize=7)
        ax.margins(y=0.15)
    for ax in list(axes.flat)[len(panels):]:
        ax.axis("off")
    fig.suptitle(f"HTTP servers on {run.machine.get('cores', '?')} cores, wrk -t{run.machine.get('wrk_threads', 2)}, "
                 f"{run.machine.get('duration', '?')} s per measurement, medians (whiskers: slowest to fastest run)",
                 fontsize=11)
    fig.tight_layout(rect=(0, 0, 1, 1 - 0.4 / (3.8 * rows)))
    fig.savefig(os.path.join(run.dir, "chart.png"), dpi=110)
    plt.close(fig)
    return True


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    run = Run(sys.argv[1])
    chart_ok = write_chart(run)
    write_markdown(run, chart_ok)


if __name__ == "__main__":
    main()
