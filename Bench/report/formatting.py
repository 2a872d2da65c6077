"""How numbers and server names are written in the report and on the chart."""


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



def plural(count, word, many=None):
    return f"{count} " + (word if str(count) == "1" else (many or word + "s"))


def label_of(s):
    if s["ours"]:
        return f"{s['name']} (ours)"
    if s["kind"] == "floor":
        return "floor (bench's own)"
    return s["name"]
