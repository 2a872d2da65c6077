#!/usr/bin/env python3
"""Writes the seed corpus of the connection point fuzz target: scripts of
arrivals, data notifications, read limits, a peer that stops and goes on
reading, and closes, in both modes (format at the target's entry point in
ConnectionPointFuzz.cpp)."""
import os
import sys

NO_BREAK, BROKEN_WRITE, CLOSE_DURING_WRITE = 0, 1, 2
STRICT = 3  # added to the break mode


def arrive(data):
    out = b""
    for i in range(0, len(data), 256):
        piece = data[i:i + 256]
        out += bytes([0, len(piece) - 1]) + piece
    return out


DELIVER = bytes([1])
CLOSE = bytes([3])
DRAIN = bytes([5])


def read_limit(n):
    return bytes([(n << 3) | 2])


def stall(n):
    return bytes([(n << 3) | 4])


def script(ops, mode=NO_BREAK, at_write=0):
    return bytes([mode, at_write]) + b"".join(ops)


def get(path, extra=b""):
    return b"GET " + path + b" HTTP/1.1\r\nHost: device\r\n" + extra + b"\r\n"


SEEDS = {
    "index": script([arrive(get(b"/index.html")), DELIVER]),
    "directory_index": script([arrive(get(b"/sub/")), DELIVER]),
    "big_file_small_reads": script([read_limit(7), arrive(get(b"/big.bin")), DELIVER]),
    "keep_alive_then_log": script([arrive(get(b"/index.html")), DELIVER, arrive(get(b"/nothing")), DELIVER,
                                   arrive(get(b"/proxy/log?")), DELIVER]),
    "log_page": script([arrive(get(b"/proxy/log?log_level=8")), DELIVER]),
    "not_found_traversal": script([arrive(get(b"/../etc/passwd")), DELIVER, arrive(get(b"/%2e%2e/x")), DELIVER]),
    "fifo_and_empty": script([arrive(get(b"/fifo")), DELIVER, arrive(get(b"/empty")), DELIVER]),
    "bad_request": script([arrive(b"GET\x01 / HTTP/1.1\r\n\r\n"), DELIVER]),
    "post_body": script([arrive(b"POST /index.html?a=1 HTTP/1.1\r\nContent-Length: 5\r\n\r\nb=2&c"), DELIVER]),
    "one_byte_arrivals": script([arrive(bytes([c])) + DELIVER for c in get(b"/index.html")]),
    "pipelined": script([arrive(get(b"/index.html") + get(b"/big.bin")), DELIVER, DELIVER]),
    "peer_leaves_mid_request": script([arrive(b"GET /index.html HTTP/1.1\r\nHo"), DELIVER, CLOSE,
                                       arrive(b"st: x\r\n\r\n"), DELIVER]),
    "broken_write_in_stream": script([arrive(get(b"/big.bin")), DELIVER], BROKEN_WRITE, 9),
    "close_during_header": script([arrive(get(b"/index.html")), DELIVER], CLOSE_DURING_WRITE, 3),
    "close_during_log_page": script([arrive(get(b"/nothing")), DELIVER, arrive(get(b"/proxy/log")), DELIVER],
                                    CLOSE_DURING_WRITE, 16),
    "slow_peer_big_file": script([stall(1), arrive(get(b"/big.bin")), DELIVER, DRAIN, DRAIN, DRAIN]),
    "slow_peer_leaves": script([stall(2), arrive(get(b"/big.bin")), DELIVER, DRAIN, CLOSE]),
    "strict_pipelined": script([arrive(get(b"/index.html") + get(b"/big.bin") + get(b"/sub/")), DELIVER],
                               STRICT),
    "strict_chunked": script([arrive(b"POST /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
                                     b"3;e=1\r\nabc\r\n0\r\nT: t\r\n\r\n" + get(b"/index.html")), DELIVER],
                             STRICT),
    "strict_expect": script([arrive(b"POST /index.html HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n"
                                    b"Expect: 100-continue\r\n\r\n"), DELIVER, arrive(b"abc"), DELIVER], STRICT),
    "strict_head_close": script([arrive(b"HEAD /big.bin HTTP/1.1\r\nHost: a\r\n\r\n" +
                                        get(b"/index.html", b"Connection: close\r\n")), DELIVER], STRICT),
    "strict_slow_pipelined": script([stall(1), arrive(get(b"/big.bin") + get(b"/proxy/log")), DELIVER, DRAIN,
                                     DRAIN, DRAIN], STRICT),
    "strict_refused": script([arrive(b"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n"
                                     b"Transfer-Encoding: chunked\r\n\r\n"), DELIVER], STRICT + BROKEN_WRITE, 2),
    "body_taken": script([arrive(b"POST /up/take HTTP/1.1\r\nContent-Length: 600\r\n\r\n" + b"u" * 300), DELIVER,
                          arrive(b"u" * 300 + get(b"/index.html")), DELIVER]),
    "body_over_limit": script([arrive(b"POST /up/limit HTTP/1.1\r\nContent-Length: 101\r\n\r\n"), DELIVER]),
    "body_answered_at_once": script([arrive(b"POST /up/answer HTTP/1.1\r\nContent-Length: 9\r\n"
                                            b"Expect: 100-continue\r\n\r\n"), DELIVER]),
    "body_stopped": script([arrive(b"PUT /up/stop HTTP/1.1\r\nContent-Length: 40\r\n\r\n" + b"s" * 40), DELIVER]),
    "body_cut": script([arrive(b"POST /up/take HTTP/1.1\r\nContent-Length: 40\r\n\r\nab"), DELIVER, CLOSE]),
    "strict_body_chunked": script([read_limit(5), arrive(b"POST /up/limit HTTP/1.1\r\nHost: a\r\n"
                                                         b"Transfer-Encoding: chunked\r\nExpect: 100-continue\r\n\r\n"),
                                   DELIVER, arrive(b"20;x\r\n" + b"c" * 32 + b"\r\n50\r\n" + b"d" * 80 +
                                                   b"\r\n0\r\n\r\n"), DELIVER, DELIVER], STRICT),
    "strict_body_buffered": script([arrive(b"POST /up/buffer HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\n\r\n"
                                           b"abcd" + get(b"/up/take")), DELIVER], STRICT),
}


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus",
                                                                    "connection_point")
    os.makedirs(directory, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
