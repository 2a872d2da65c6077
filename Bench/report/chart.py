"""Draws chart.png, one bar panel per scenario, when matplotlib is installed."""
import os
import sys

from formatting import fmt_bytes, label_of
from goals import MAX_IDLE_BYTES, MAX_IDLE_TLS_BYTES, NGINX
from rundir import HANDSHAKE_SCENARIOS, THROUGHPUT_SCENARIOS


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
