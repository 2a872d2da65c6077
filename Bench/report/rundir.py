"""Reads one benchmark run directory (see report.py for what it holds) into a
Run: the servers, scenarios and every measurement, the median of repeats."""
import glob
import os
import re


# Scenarios judged by bytes per second rather than requests per second.
THROUGHPUT_SCENARIOS = {"64m", "64mclose", "tls64m"}
# Scenarios whose requests are each a new TLS connection.
HANDSHAKE_SCENARIOS = {"tlsclose"}

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
