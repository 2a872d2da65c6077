#!/usr/bin/env python3
"""Turns one benchmark run directory into results.md and chart.png.

Usage: report.py RUN_DIR

Reads what Bench/run_bench.sh leaves in RUN_DIR: machine.txt (key=value),
scenarios.txt (id | path | connections | wrk options | label), servers.txt
(name, ours/peer, port, status, note, command; tab-separated),
raw/NAME-ID.rN.txt (wrk --latency output of repeat N) with raw/NAME-ID.rN.cpu
(cores used by the server, wrk and everything else during it), and
idle/NAME.txt (idle_conns key=value output). With several repeats the one
with the median result is reported.
Standard library only, plus matplotlib for the chart when it is installed.
"""
import glob
import os
import re
import sys

NGINX = "nginx"
# "A handful" of threads with 10,000 idle connections, made a number.
HANDFUL_THREADS = 8
MAX_IDLE_BYTES = 4096

# Goals for our server, per scenario: (kind, factor) where kind is "peer"
# (at least factor x the fastest peer) or "nginx" (at least factor x nginx).
GOALS = {
    "1k": ("peer", 1.0),
    "404": ("peer", 1.0),
    "100k": ("nginx", 0.6),
    "64m": ("nginx", 0.7),
}
# Scenarios judged by bytes per second rather than requests per second.
THROUGHPUT_SCENARIOS = {"64m"}
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


def parse_bytes(text):
    m = re.fullmatch(r"([\d.]+)([KMGT]?B)", text)
    return float(m.group(1)) * UNIT_BYTES[m.group(2)] if m else None


def parse_seconds(text):
    m = re.fullmatch(r"([\d.]+)(us|ms|s|m|h)", text)
    return float(m.group(1)) * UNIT_SECONDS[m.group(2)] if m else None


def parse_wrk(path):
    """Returns a dict with rps, mbps, p99 (seconds), requests, errors, or
    None when the file is missing or wrk produced no result."""
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            text = f.read()
    except FileNotFoundError:
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
    if m:
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


def fmt_cores(x):
    return f"{x:.2f}" if x is not None else "–"


def fmt_kib(kb):
    return f"{kb / 1024:,.1f} MiB" if kb is not None else "–"


class Run:
    def __init__(self, run_dir):
        self.dir = run_dir
        self.machine = read_kv(os.path.join(run_dir, "machine.txt"))
        self.scenarios = []
        with open(os.path.join(run_dir, "scenarios.txt"), encoding="utf-8") as f:
            for line in f:
                parts = [p.strip() for p in line.split("|")]
                if len(parts) >= 5 and parts[0]:
                    self.scenarios.append(
                        {"id": parts[0], "path": parts[1], "conns": parts[2], "wrk": parts[3], "label": parts[4]}
                    )
        self.servers = []
        with open(os.path.join(run_dir, "servers.txt"), encoding="utf-8") as f:
            for line in f:
                parts = line.rstrip("\n").split("\t")
                if len(parts) >= 6:
                    self.servers.append(
                        {"name": parts[0], "ours": parts[1] == "ours", "port": parts[2], "status": parts[3],
                         "note": parts[4], "cmd": parts[5]}
                    )
        self.results = {}
        for server in self.servers:
            for scen in self.scenarios:
                r = self.load_repeats(server["name"], scen["id"])
                if r is not None:
                    self.results[(server["name"], scen["id"])] = r
        self.idle = {s["name"]: self.parse_idle(s["name"]) for s in self.servers}

    def load_repeats(self, name, scen_id):
        """The median repeat (by the scenario's metric), with the spread of
        all repeats, or a failed one when none produced a number."""
        key = "mbps" if scen_id in THROUGHPUT_SCENARIOS else "rps"
        runs = []
        pattern = os.path.join(self.dir, "raw", f"{glob.escape(name)}-{glob.escape(scen_id)}.r*.txt")
        for path in sorted(glob.glob(pattern)):
            r = parse_wrk(path)
            if r is None:
                continue
            cpu = read_kv(path[: -len(".txt")] + ".cpu")
            for k in ("server_cpu", "wrk_cpu", "other_cpu"):
                try:
                    r[k] = float(cpu[k])
                except (KeyError, ValueError):
                    r[k] = None
            runs.append(r)
        if not runs:
            return None
        good = sorted((r for r in runs if r.get(key) is not None), key=lambda r: r[key])
        if not good:
            return runs[0]
        median = dict(good[(len(good) - 1) // 2])
        median["repeats"] = [r[key] for r in good]
        median["failed_repeats"] = len(runs) - len(good)
        median["max_other_cpu"] = max((r["other_cpu"] or 0) for r in runs)
        return median

    def parse_idle(self, name):
        kv = read_kv(os.path.join(self.dir, "idle", f"{name}.txt"))
        if not kv:
            return None

        def num(key):
            try:
                return int(kv[key])
            except (KeyError, ValueError):
                return None

        idle = {key: num(key) for key in ("target", "answered", "held_open", "rss_before_kb", "rss_after_kb",
                                          "threads_before", "threads_after", "processes", "unanswered",
                                          "closed_by_server", "connect_errors")}
        idle["stop_reason"] = kv.get("stop_reason")
        idle["error"] = kv.get("error") or (f"client exit {kv['exit']}" if "exit" in kv else None)
        held = idle["held_open"]
        if held and idle["rss_before_kb"] is not None and idle["rss_after_kb"] is not None:
            idle["bytes_per_conn"] = (idle["rss_after_kb"] - idle["rss_before_kb"]) * 1024 / held
        else:
            idle["bytes_per_conn"] = None
        return idle

    @property
    def ours(self):
        return next((s for s in self.servers if s["ours"]), None)

    def metric(self, name, scen_id):
        r = self.results.get((name, scen_id))
        if not r or "rps" not in r:
            return None
        return r.get("mbps") if scen_id in THROUGHPUT_SCENARIOS else r["rps"]

    def fastest_peer(self, scen_id):
        best = None
        for s in self.servers:
            if s["ours"]:
                continue
            m = self.metric(s["name"], scen_id)
            if m is not None and (best is None or m > best[1]):
                best = (s["name"], m)
        return best

    def ordered(self, scen_id=None):
        """Ours first, then peers from best to worst in the scenario."""
        ours = [s for s in self.servers if s["ours"]]
        peers = [s for s in self.servers if not s["ours"]]
        if scen_id is not None:
            peers.sort(key=lambda s: -(self.metric(s["name"], scen_id) or -1))
        return ours + peers


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


def goal_rows(run):
    """One row per goal: (goal, target in this run, our value, verdict)."""
    ours = run.ours
    rows = []
    labels = {s["id"]: s["label"] for s in run.scenarios}
    for scen_id, (kind, factor) in GOALS.items():
        if scen_id not in labels:
            continue
        unit = "MB/s" if scen_id in THROUGHPUT_SCENARIOS else "req/s"
        if kind == "peer":
            ref = run.fastest_peer(scen_id)
            goal = f"{labels[scen_id]}: at least the fastest peer"
            ref_name, ref_value = ref if ref else (None, None)
        else:
            ref_value = run.metric(NGINX, scen_id)
            ref_name = NGINX
            goal = f"{labels[scen_id]}: at least {factor:g}× nginx"
        target = ref_value * factor if ref_value is not None else None
        target_text = f"≥ {fmt_int(target) if unit == 'req/s' else fmt_mbps(target)} {unit} ({ref_name})" if target else "–"
        value = run.metric(ours["name"], scen_id) if ours else None
        value_text = (fmt_int(value) if unit == "req/s" else fmt_mbps(value)) + f" {unit}" if value is not None else "–"
        rows.append((goal, target_text, value_text, verdict(value, target, ours)))
    idle = run.idle.get(ours["name"]) if ours else None
    target_n = int(run.machine.get("idle_conns", "10000"))
    value = idle.get("bytes_per_conn") if idle else None
    held_all = idle is not None and (idle.get("held_open") or 0) >= target_n
    met = None if value is None else (value <= MAX_IDLE_BYTES and held_all)
    value_text = "–" if value is None else f"{value:,.0f} B" + ("" if held_all else f" (held {idle['held_open']:,} of {target_n:,})")
    rows.append((f"Memory per idle connection ({target_n:,} held)", f"≤ {MAX_IDLE_BYTES:,} B", value_text,
                 verdict_bool(met, ours)))
    threads = idle.get("threads_after") if idle else None
    met = None if threads is None else (threads <= HANDFUL_THREADS and held_all)
    rows.append((f"Threads with {target_n:,} idle connections", f"≤ {HANDFUL_THREADS}",
                 "–" if threads is None else str(threads), verdict_bool(met, ours)))
    return rows


def verdict(value, target, ours):
    if not ours:
        return "not measured (our server not in this run)"
    if value is None or target is None:
        return "no result"
    return "**met**" if value >= target else "**missed**"


def verdict_bool(met, ours):
    if not ours:
        return "not measured (our server not in this run)"
    if met is None:
        return "no result"
    return "**met**" if met else "**missed**"


def write_markdown(run, chart_ok):
    m = run.machine
    ours = run.ours
    out = []
    w = out.append
    w(f"# HTTP server benchmark, {m.get('date', '?')}")
    w("")
    w(f"Machine: {m.get('host_cpu', '?')}, {m.get('cores', '?')} cores, {m.get('memory', '?')} RAM; "
      f"{m.get('os', '?')}, kernel {m.get('kernel', '?')}. "
      f"Load average before the run: {m.get('load_before', '?')}; after: {m.get('load_after', '?')}.")
    w("")
    w(f"Load: wrk {m.get('wrk', '?')} on the same machine, -t{m.get('wrk_threads', '?')}, "
      f"{m.get('duration', '?')} s per scenario after a 1 s warm-up, one server at a time on 127.0.0.1. "
      f"Open-file limit: {m.get('nofile', '?')}."
      + (f" Servers, wrk and the idle client ran at niceness {m['nice']}." if m.get("nice", "0") != "0" else "")
      + (f" Each scenario was measured {m['repeat']} times; the median is shown." if m.get("repeat", "1") != "1" else ""))
    w("")
    versions = ", ".join(f"{k[len('version_'):]} {v}" for k, v in m.items() if k.startswith("version_"))
    w(f"Package versions: {versions}.")
    w("")
    disturbed = max((r.get("max_other_cpu", 0) for r in run.results.values()), default=0)
    if disturbed > DISTURBED_CORES:
        count = sum(1 for r in run.results.values() if r.get("max_other_cpu", 0) > DISTURBED_CORES)
        w(f"**Warning:** other processes on the machine used up to {disturbed:.2f} of the "
          f"{m.get('cores', '?')} cores during {count} of the measurements (marked ⚠ below); those numbers "
          "understate the server. Rerun on a quiet machine, or with `--nice -10` as root.")
        w("")
    if "ours_missing" in m:
        w(f"Our server was asked for but `{m['ours_missing']}` does not exist, so only the peers ran.")
        w("")
    elif not ours:
        w("Our server was not part of this run (no `--nvq`); the goals below show the bar it has to clear.")
        w("")

    w("## Servers")
    w("")
    w("| Server | Port | Status | Command |")
    w("|---|---|---|---|")
    for s in run.servers:
        status = s["status"] + (f": {s['note']}" if s["note"] else "")
        label = s["name"] + (" (ours)" if s["ours"] else "")
        w(f"| {label} | {s['port']} | {status} | `{s['cmd']}` |")
    w("")

    w("## Goals")
    w("")
    w("| Goal | Target in this run | Ours | Verdict |")
    w("|---|---|---|---|")
    for row in goal_rows(run):
        w("| " + " | ".join(row) + " |")
    w("")

    w("## Summary")
    w("")
    w("Requests per second (MB/s for the 64 MiB scenario); the best peer per column is in bold.")
    w("")
    head = "| Server | " + " | ".join(s["label"] for s in run.scenarios) + " |"
    w(head)
    w("|---|" + "---:|" * len(run.scenarios))
    for s in run.ordered():
        cells = []
        for scen in run.scenarios:
            v = run.metric(s["name"], scen["id"])
            text = (fmt_mbps(v) if scen["id"] in THROUGHPUT_SCENARIOS else fmt_int(v)) if v is not None else "–"
            best = run.fastest_peer(scen["id"])
            if best and best[0] == s["name"]:
                text = f"**{text}**"
            cells.append(text)
        label = s["name"] + (" (ours)" if s["ours"] else "")
        w(f"| {label} | " + " | ".join(cells) + " |")
    w("")

    w("## Scenarios")
    for scen in run.scenarios:
        w("")
        w(f"### {scen['label']}")
        w("")
        extra = f" {scen['wrk']}" if scen["wrk"] else ""
        w(f"`wrk -t{m.get('wrk_threads', '2')} -c{scen['conns']} -d{m.get('duration', '?')}s --latency{extra} "
          f"http://127.0.0.1:PORT{scen['path']}`")
        w("")
        best = run.fastest_peer(scen["id"])
        nginx_value = run.metric(NGINX, scen["id"])
        w("| Server | Requests/s | MB/s | p99 latency | vs fastest peer | vs nginx | Server CPU | wrk CPU | Notes |")
        w("|---|---:|---:|---:|---:|---:|---:|---:|---|")
        for s in run.ordered(scen["id"]):
            label = s["name"] + (" (ours)" if s["ours"] else "")
            r = run.results.get((s["name"], scen["id"]))
            if r is None:
                w(f"| {label} | – | – | – | – | – | – | – | {s['status']} {s['note']}".rstrip() + " |")
                continue
            if "rps" not in r:
                w(f"| {label} | – | – | – | – | – | – | – | wrk failed: {r['failed']} |")
                continue
            v = run.metric(s["name"], scen["id"])
            vs_best = v / best[1] if best and v is not None and best[1] else None
            vs_nginx = v / nginx_value if nginx_value and v is not None else None
            w(f"| {label} | {fmt_int(r['rps'])} | {fmt_mbps(r.get('mbps'))} | {fmt_latency(r.get('p99'))} | "
              f"{fmt_ratio(vs_best)} | {fmt_ratio(vs_nginx)} | {fmt_cores(r.get('server_cpu'))} | "
              f"{fmt_cores(r.get('wrk_cpu'))} | {errors_note(scen['id'], r)} |")
    w("")

    target_n = m.get("idle_conns", "10000")
    w(f"## Idle connections ({int(target_n):,} keep-alive connections, one answered request each)")
    w("")
    w("| Server | Held open | Answered | RSS before | RSS after | Bytes per idle connection | Threads (idle) | "
      "Processes | Notes |")
    w("|---|---:|---:|---:|---:|---:|---:|---:|---|")
    for s in run.ordered():
        label = s["name"] + (" (ours)" if s["ours"] else "")
        idle = run.idle.get(s["name"])
        if idle is None:
            w(f"| {label} | – | – | – | – | – | – | – | not run ({s['status']}) |")
            continue
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
        per = idle.get("bytes_per_conn")
        w(f"| {label} | {fmt_int(idle.get('held_open'))} | {fmt_int(idle.get('answered'))} | "
          f"{fmt_kib(idle.get('rss_before_kb'))} | {fmt_kib(idle.get('rss_after_kb'))} | "
          f"{fmt_int(per)} | {fmt_int(idle.get('threads_after'))} | {fmt_int(idle.get('processes'))} | "
          f"{'; '.join(notes)} |")
    w("")

    w("## How to read this")
    w("")
    w("- Requests/s and p99 latency come from wrk's own summary. MB/s is everything wrk read (headers and "
      "bodies) per second, in 10^6 bytes.")
    w("- \"vs fastest peer\" divides by the best peer in that scenario (requests/s; MB/s for 64 MiB); "
      "\"vs nginx\" divides by nginx.")
    w("- Non-2xx answers are expected only in the 404 scenario; socket errors or timeouts in any other "
      "row mean that server was not keeping up or was closing connections.")
    w("- Idle memory: the server's resident memory (VmRSS summed over its process and all its children) "
      "after opening the connections minus before, divided by the number still held open; a fresh server "
      "instance is used for this test. Kernel socket buffers are not part of any process's RSS, and "
      "memory a server allocates up front (for example nginx's connection table) counts in \"before\".")
    w("- Server CPU and wrk CPU are the cores each used on average during the measurement (the machine "
      f"has {m.get('cores', '?')}; wrk shares them with the server). A row marked ⚠ had other processes "
      f"using more than {DISTURBED_CORES} cores at the same time.")
    w("- Threads: the Threads: line of /proc/PID/status summed over the server's processes while the "
      "connections are held.")
    if chart_ok:
        w("")
        w("![chart](chart.png)")
    w("")
    with open(os.path.join(run.dir, "results.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(out))


def write_chart(run):
    try:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("report.py: matplotlib is not installed; no chart", file=sys.stderr)
        return False
    panels = [(s["id"], s["label"], "MB/s" if s["id"] in THROUGHPUT_SCENARIOS else "requests/s")
              for s in run.scenarios]
    panels.append(("idle", f"Memory per idle connection ({int(run.machine.get('idle_conns', '10000')):,})",
                   "bytes (lower is better)"))
    cols = 3
    rows = (len(panels) + cols - 1) // cols
    fig, axes = plt.subplots(rows, cols, figsize=(5.2 * cols, 3.8 * rows), squeeze=False)
    servers = run.ordered()
    names = [s["name"] + (" (ours)" if s["ours"] else "") for s in servers]
    colors = ["#d62728" if s["ours"] else ("#1f77b4" if s["name"] == NGINX else "#7f7f7f") for s in servers]
    for ax, (pid, title, unit) in zip(axes.flat, panels):
        if pid == "idle":
            values = [(run.idle.get(s["name"]) or {}).get("bytes_per_conn") for s in servers]
        else:
            values = [run.metric(s["name"], pid) for s in servers]
        heights = [v if v is not None else 0 for v in values]
        # Whiskers span the slowest to the fastest repeat.
        spread = [[0] * len(servers), [0] * len(servers)]
        if pid != "idle":
            for i, srv in enumerate(servers):
                reps = (run.results.get((srv["name"], pid)) or {}).get("repeats") or []
                if len(reps) > 1 and values[i] is not None:
                    spread[0][i] = max(0, values[i] - reps[0])
                    spread[1][i] = max(0, reps[-1] - values[i])
        bars = ax.bar(range(len(servers)), heights, color=colors,
                      yerr=spread if any(spread[0]) or any(spread[1]) else None, capsize=3,
                      error_kw={"elinewidth": 0.8, "ecolor": "#333333"})
        target_n = int(run.machine.get("idle_conns", "10000"))
        for s, bar, v, above in zip(servers, bars, values, spread[1]):
            label = "n/a" if v is None else (f"{v:,.0f}" if v >= 100 else f"{v:,.1f}")
            held = (run.idle.get(s["name"]) or {}).get("held_open")
            if pid == "idle" and v is not None and held is not None and held < target_n:
                label += f"\n(held {held:,})"
            ax.annotate(label, (bar.get_x() + bar.get_width() / 2, bar.get_height() + above), ha="center", va="bottom",
                        fontsize=7, xytext=(0, 2), textcoords="offset points")
        if pid == "idle":
            ax.axhline(MAX_IDLE_BYTES, color="#d62728", linestyle="--", linewidth=0.8)
        ax.set_title(title, fontsize=10)
        ax.set_ylabel(unit, fontsize=8)
        ax.set_xticks(range(len(servers)))
        ax.set_xticklabels(names, rotation=30, ha="right", fontsize=8)
        ax.tick_params(axis="y", labelsize=7)
        ax.margins(y=0.15)
    for ax in list(axes.flat)[len(panels):]:
        ax.axis("off")
    fig.suptitle(f"HTTP servers on {run.machine.get('cores', '?')} cores, wrk -t{run.machine.get('wrk_threads', 2)}, "
                 f"{run.machine.get('duration', '?')} s per scenario"
                 + (f", median of {run.machine['repeat']} runs (whiskers: slowest to fastest)"
                    if run.machine.get("repeat", "1") != "1" else ""), fontsize=11)
    fig.tight_layout()
    fig.savefig(os.path.join(run.dir, "chart.png"), dpi=120)
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
