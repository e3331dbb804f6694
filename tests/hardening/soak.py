#!/usr/bin/python3
"""Soak: one server process answers 100 000 requests over 127.0.0.1; its resident memory may grow
only by the blocks it keeps on purpose.

Kept per request: the decoded path of every request other than "/" (a malloc of strlen(path)+1),
and for every not-found answer the 1000-byte page and the 4096-byte header. Each block costs
glibc's chunk (size plus 8 bytes of header, rounded up to 16, at least 32).

usage: soak.py BINARY [--requests N]
"""
import argparse
import socket
import sys
import time

from harness import SITE_FILES, Server, parse_answer

WARM_UP = 2000
MARGIN_KIB = 1024  # plus 1 % of the explained growth: heap top steps and page rounding

# (request path, status, body or None for the listing): files, listing, not found, escaped names.
MIX = [(b"/", 200, SITE_FILES["index.html"]), (b"/index.html", 200, SITE_FILES["index.html"]),
       (b"/game.js", 200, SITE_FILES["game.js"]), (b"/data.json", 200, SITE_FILES["data.json"]),
       (b"/save", 200, None), (b"/missing.html", 404, None), (b"/no/such/folder/x.png", 404, None),
       (b"/a%20b.html", 200, SITE_FILES["a b.html"]), (b"/caf%C3%A9.txt", 200, SITE_FILES["café.txt"]),
       (b"/sub/inner.html", 200, SITE_FILES["sub/inner.html"])]


def chunk(request_size):
    return max(32, (request_size + 8 + 15) & ~15)


def kept_bytes(path, status):
    kept = 0 if path == b"/" else chunk(len(path) + 1)
    return kept + (chunk(1000) + chunk(4096) if status == 404 else 0)


def ask(port, path):
    request = b"GET " + path + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
    with socket.create_connection(("127.0.0.1", port), timeout=10) as conn:
        conn.sendall(request)
        data = bytearray()
        while True:
            chunk_ = conn.recv(65536)
            if not chunk_:
                return bytes(data)
            data += chunk_


def check(data, status, body):
    parsed = parse_answer(data)
    if parsed is None or not parsed[0].startswith(b"HTTP/1.1 %d " % status):
        return False
    got = parsed[2]
    if parsed[1].get("Content-Length") != str(len(got)).encode():
        return False
    if status == 200 and body is None:
        return sorted(got.split(b"\n")) == [b"", b".hidden", b"backups", b"slot1.json", b"slot2.json"]
    return body is None or got == body


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("binary")
    parser.add_argument("--requests", type=int, default=100000)
    args = parser.parse_args()

    server = Server(args.binary)
    server.start()
    failures, explained = 0, 0
    try:
        for i in range(WARM_UP):
            path, status, body = MIX[i % len(MIX)]
            failures += not check(ask(server.port, path), status, body)
        before = server.rss_kib()
        started = time.monotonic()
        for i in range(args.requests):
            path, status, body = MIX[i % len(MIX)]
            try:
                ok = check(ask(server.port, path), status, body)
            except OSError:
                ok = False
            failures += not ok
            explained += kept_bytes(path, status)
            if not ok and server.process.poll() is not None:
                print("soak: server ended with %s after %d requests" % (server.process.returncode, i))
                return 1
        elapsed = time.monotonic() - started
        after = server.rss_kib()
    finally:
        server.remove()

    explained_kib = explained / 1024
    allowed_kib = explained_kib * 1.01 + MARGIN_KIB
    grown = after - before
    print("soak: %d requests in %.1f s (%.0f/s), %d failed" % (args.requests, elapsed, args.requests / elapsed,
                                                               failures))
    print("soak: resident memory %d KiB -> %d KiB, grown %d KiB; kept blocks explain %.0f KiB, allowed %.0f KiB"
          % (before, after, grown, explained_kib, allowed_kib))
    ok = failures == 0 and grown <= allowed_kib
    print("soak: %s" % ("ok" if ok else "FAILED"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
