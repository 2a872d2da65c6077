#!/usr/bin/env python3
"""Writes the seed corpus of the WebSocket frame fuzz target: a limits byte
(frame limit index in bits 0-2, message limit index in bits 3-5, tables at the
target's entry point in WebSocketFrameFuzz.cpp), a slicing seed byte, then
client frames."""
import os
import struct
import sys

KEY = b"\x37\xfa\x21\x3d"
# Limits byte: frame limit 65536 (6) and message limit 65536 (5); small: 16 and 64.
ROOMY, SMALL = 6 | 5 << 3, 3 | 3 << 3


def frame(b0, payload=b"", masked=True):
    n = len(payload)
    if n < 126:
        head = bytes([b0, n | (0x80 if masked else 0)])
    elif n <= 0xFFFF:
        head = bytes([b0, 126 | (0x80 if masked else 0)]) + struct.pack(">H", n)
    else:
        head = bytes([b0, 127 | (0x80 if masked else 0)]) + struct.pack(">Q", n)
    if not masked:
        return head + payload
    return head + KEY + bytes(c ^ KEY[i % 4] for i, c in enumerate(payload))


def close(code, reason=b""):
    return frame(0x88, struct.pack(">H", code) + reason)


def seed(frames, limits=ROOMY, slicing=7):
    return bytes([limits, slicing]) + b"".join(frames)


SEEDS = {
    "text": seed([frame(0x81, b"Hello")]),
    "fragments_with_ping": seed([frame(0x01, b"Hel"), frame(0x89, b"x"), frame(0x00), frame(0x80, b"lo")]),
    "utf8_across_fragments": seed([frame(0x01, "κό".encode()[:3]), frame(0x80, "κό".encode()[3:] + b"!")]),
    # Sliced so that the buffer is released between pieces of the message.
    "binary_256": seed([frame(0x82, bytes(range(256)))], slicing=13),
    # A 64-bit length; only the start of the payload, to keep the seed small.
    "binary_64k_start": seed([frame(0x82, bytes(i * 7 & 0xFF for i in range(65536)))[:200]], 7 | 7 << 3),
    "pong_and_close": seed([frame(0x8A, b"p"), close(1000, b"bye"), frame(0x81, b"after")]),
    "empty_close": seed([frame(0x88)]),
    "close_bad_code": seed([close(1005)]),
    "close_bad_reason": seed([close(4000, b"\xff")]),
    "unmasked": seed([frame(0x89, b"Hello", masked=False)]),
    "rsv_and_opcode": seed([frame(0xC1, b"a"), frame(0x83)]),
    "continuation_first": seed([frame(0x80, b"a")]),
    "fragmented_ping": seed([frame(0x01, b"a"), frame(0x09, b"p")]),
    "text_inside_text": seed([frame(0x01, b"a"), frame(0x81, b"b")]),
    "frame_limit": seed([frame(0x82, b"x" * 17)], SMALL),
    "message_limit": seed([frame(0x02, b"x" * 16), frame(0x00, b"x" * 16), frame(0x00, b"x" * 16),
                           frame(0x00, b"x" * 16), frame(0x80, b"x")], SMALL),
    "length_top_bit": seed([b"\x82\xff\x80" + bytes(7) + KEY]),
    "bad_utf8": seed([frame(0x01, b"a\xed\xa0\x80"), frame(0x80, b"b")]),
    "ends_inside_character": seed([frame(0x81, b"\xe2\x82")]),
    "one_byte_close": seed([frame(0x88, b"\x03")]),
}


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus",
                                                                    "websocket_frames")
    os.makedirs(directory, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
