#!/usr/bin/env python3
"""Writes the seed corpus of the TLS record fuzz target: a read-size byte
(index into the table of TlsRecordFuzz.cpp), then what a client sends first:
real ClientHellos of TLS 1.3 and 1.2 made by Python's ssl module in memory,
cut short, followed by junk, and plain HTTP."""
import os
import ssl
import sys


def client_hello(maximum):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.maximum_version = maximum
    context.set_alpn_protocols(["h2", "http/1.1"])
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = context.wrap_bio(incoming, outgoing, server_hostname="localhost")
    try:
        client.do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus", "tls_records")
    os.makedirs(directory, exist_ok=True)
    hello13, hello12 = client_hello(ssl.TLSVersion.TLSv1_3), client_hello(ssl.TLSVersion.TLSv1_2)
    seeds = {
        "hello_tls13": b"\x04" + hello13,
        "hello_tls12_one_byte_reads": b"\x00" + hello12,
        "hello_cut_short": b"\x03" + hello13[:len(hello13) // 2],
        "hello_then_junk": b"\x05" + hello13 + b"\x16\x03\x03\x00\x05hello" + b"\x17" * 40,
        "application_data_first": b"\x03" + b"\x17\x03\x03\x00\x10" + b"z" * 16,
        "alert_first": b"\x02" + b"\x15\x03\x03\x00\x02\x02\x28",
        "plain_http": b"\x03GET / HTTP/1.1\r\nHost: x\r\n\r\n",
    }
    for name, data in seeds.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
