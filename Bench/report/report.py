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
import sys

from chart import write_chart
from results_md import write_markdown
from rundir import Run


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    run = Run(sys.argv[1])
    chart_ok = write_chart(run)
    write_markdown(run, chart_ok)


if __name__ == "__main__":
    main()
