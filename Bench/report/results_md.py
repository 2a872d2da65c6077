"""Writes results.md: the machine and load, the servers, the goals, the
summary table, the scenario sections and how to read them."""
import os

from formatting import fmt_int, fmt_mbps, label_of, plural
from goals import goals_for, verdict
from rundir import THROUGHPUT_SCENARIOS, read_text
from scenario_tables import (DISTURBED_CORES, write_idle, write_profiles, write_slow, write_upload, write_ws,
                             write_wrk_table)


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
