#!/usr/bin/env python3
"""Creates the directory every server in the benchmark serves.

Usage: make_www.py DIR

Files: 1k.bin (1 KiB), 100k.bin (100 KiB), 64m.bin (64 MiB). The content is
a SHAKE-256 stream seeded by the file name, so every run and every machine
serves the same bytes (incompressible, so no server gains from compression
or sparse pages), and files already in place with the right content are
left alone to keep reruns fast.
"""
import hashlib
import os
import sys

FILES = {"1k.bin": 1024, "100k.bin": 100 * 1024, "64m.bin": 64 * 1024 * 1024}


def content(name, size):
    return hashlib.shake_256(("nvq-bench:" + name).encode()).digest(size)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = sys.argv[1]
    os.makedirs(root, exist_ok=True)
    for name, size in FILES.items():
        path = os.path.join(root, name)
        data = content(name, size)
        try:
            with open(path, "rb") as f:
                if f.read() == data:
                    continue
        except FileNotFoundError:
            pass
        tmp = path + ".tmp"
        with open(tmp, "wb") as f:
            f.write(data)
        os.replace(tmp, path)
        print(f"wrote {path} ({size} bytes)", file=sys.stderr)


if __name__ == "__main__":
    main()
