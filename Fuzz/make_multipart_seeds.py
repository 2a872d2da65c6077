#!/usr/bin/env python3
"""Writes the seed corpus of the multipart fuzz target: a limits byte (bit 0:
small limits), a slicing seed byte, then a body with boundary "b"."""
import os
import sys

D = b'Content-Disposition: form-data; name="%s"'


def part(name, content, extra=b""):
    return b"--b\r\n" + D % name + extra + b"\r\n\r\n" + content + b"\r\n"


SEEDS = {
    "field_and_file": part(b"a", b"1") + part(b"f", b"\r\n--\r\n-b\x00\xff", b'; filename="x.bin"\r\nContent-Type: a/b')
    + b"--b--\r\n",
    "preamble_padding_epilogue": b"pre\r\n--b \t\r\n" + D % b"a" + b"\r\n\r\nv\r\n--b--\r\nepilogue",
    "filename_star": part(b"a", b"x", b"; filename*=UTF-8''%e2%82%ac") + b"--b--",
    "too_many_parts": part(b"a", b"") * 3 + b"--b--",
    "lf_only": b"--b\n" + D % b"a" + b"\n\nx\n--b--\n",
    "cut": part(b"a", b"abc") + b"--",
}

out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus", "multipart")
os.makedirs(out, exist_ok=True)
for i, (name, body) in enumerate(sorted(SEEDS.items())):
    with open(os.path.join(out, name), "wb") as f:
        f.write(bytes([i & 1, 0x5B + i]) + body)
