#!/usr/bin/python3
"""Bad-input campaign: thousands of malformed requests against the running server.

Each case is judged against a model of the server: the receive area that is never cleared (so a
missing token may be found in what earlier requests left there), the strtok split that writes zero
bytes over its delimiters, the 1024-byte path and full-path bounds that end the process with
SIGABRT, and the answer a well-split request gets (file, listing or not-found page). Anything else
(a crash, a hang, a wrong answer, an end where none is due, a sanitizer report) is a failure.

usage: campaign.py BINARY [--scale F] [--seed N]
"""
import argparse
import collections
import os
import random
import re
import signal
import socket
import struct
import sys
import time

from harness import Server, exchange, parse_answer, end_name

PATH_SIZE = 1024
ABORT, CLOSED, ANSWER = "abort", "closed", "answer"
TYPES = {b".html": b"text/html; charset=UTF-8", b".htm": b"text/html; charset=UTF-8",
         b".xhtml": b"application/xhtml+xml; charset=UTF-8", b".xht": b"application/xhtml+xml; charset=UTF-8",
         b".jpg": b"image/jpeg", b".jpeg": b"image/jpeg", b".gif": b"image/gif", b".png": b"image/png",
         b".css": b"text/css", b".js": b"text/javascript", b".xml": b"text/xml; charset=UTF-8",
         b".xsl": b"text/xml; charset=UTF-8", b".au": b"audio/basic", b".wav": b"audio/wav",
         b".avi": b"video/x-msvideo", b".mov": b"video/quicktime", b".qt": b"video/quicktime",
         b".mpeg": b"video/mpeg", b".mpe": b"video/mpeg", b".vrml": b"model/vrml", b".wrl": b"model/vrml",
         b".midi": b"audio/midi", b".mid": b"audio/midi", b".mp3": b"audio/mpeg", b".ogg": b"application/ogg",
         b".pac": b"application/x-ns-proxy-autoconfig", b".json": b"application/json"}
DEFAULT_TYPE = b"text/plain; charset=UTF-8"
HEX = b"0123456789abcdefABCDEF"


def content_type(name):
    dot = name.rfind(b".")
    return DEFAULT_TYPE if dot < 0 else TYPES.get(name[dot:], DEFAULT_TYPE)


def url_decode(path):
    out, i = bytearray(), 0
    while i < len(path):
        if path[i:i + 1] == b"%" and i + 2 < len(path) and path[i + 1] in HEX and path[i + 2] in HEX:
            out.append(int(path[i + 1:i + 3], 16))
            i += 3
        else:
            out.append(path[i])
            i += 1
    return bytes(out)


class Model:
    """What the server holds between requests, and what it does with the next one."""

    def __init__(self, server):
        self.server = server
        self.capacity = max(0, server.buffer_size)  # a negative buffer-size receives nothing
        self.area = bytearray(self.capacity + 1)  # never cleared; the last byte stays zero

    def _tokens(self):
        """strtok(" "), strtok(" "), strtok("\\n") over the area, in place, as the server splits."""
        end = self.area.index(0)
        position, tokens = 0, []
        for delimiters in (b" ", b" ", b"\n"):
            while position < end and self.area[position] in delimiters:
                position += 1
            if position >= end:
                return None
            start = position
            while position < end and self.area[position] not in delimiters:
                position += 1
            tokens.append(bytes(self.area[start:position]))
            if position < end:
                self.area[position] = 0
                position += 1
        return tokens

    def expect(self, payload):
        """(ABORT, why) | (CLOSED, None) | (ANSWER, (status, type, body or None))."""
        count = min(len(payload), self.capacity)
        if count == 0:
            return CLOSED, None
        self.area[:count] = payload[:count]
        tokens = self._tokens()
        if tokens is None:
            return ABORT, "token missing"
        path = tokens[1]
        if len(path) >= PATH_SIZE:
            return ABORT, "path"
        if path == b"/":
            path = b"/" + self.server.main_file.encode()  # not decoded
            if len(path) >= PATH_SIZE:
                return ABORT, "path"
            full = self.server.document_root + path
        else:
            full = self.server.document_root + url_decode(path).split(b"\0")[0]
        if len(full) >= PATH_SIZE:
            return ABORT, "full path"
        try:
            status = os.stat(full)
        except (OSError, ValueError):
            return ANSWER, (404, b"*.html", None)
        if path == b"/save":
            return ANSWER, (200, DEFAULT_TYPE, sorted(os.fsencode(n) for n in os.listdir(full)))
        if os.path.isdir(full):
            body = bytes(status.st_size)  # a folder opens but reads nothing: zero bytes are sent
        else:
            with open(full, "rb") as f:
                body = f.read()
        return ANSWER, (200, content_type(path), body)


class Campaign:
    def __init__(self, binary):
        self.binary = binary
        self.table = collections.OrderedDict()
        self.failures, self.servers, self.not_found_page = [], [], None

    def phase(self, buffer_size, main_file="index.html"):
        """A new server with these settings; False when it does not come up."""
        if self.servers:
            self.servers[-1].stop()
        self.server = Server(self.binary, buffer_size=buffer_size, main_file=main_file)
        self.servers.append(self.server)
        try:
            self.server.start()
        except RuntimeError as error:
            self.record("start with buffer-size %d" % buffer_size, "no server", str(error))
            return False
        self.model = Model(self.server)
        return True

    def restart(self):
        self.server.stop()
        self.server.start()  # a server that no longer starts ends the campaign
        self.model = Model(self.server)

    def record(self, kind, outcome, failure=None, payload=b""):
        counts = self.table.setdefault(kind, collections.Counter())
        counts["FAILED: " + failure if failure else outcome] += 1
        if failure:
            self.failures.append("%s: %s (%s) payload %r" % (kind, failure, outcome, payload[:120]))

    def check_answer(self, data, expected):
        """Empty when the answer is the expected one, else what is wrong with it."""
        status, ctype, body = expected
        parsed = parse_answer(data)
        if parsed is None:
            return "no complete header"
        line, headers, got = parsed
        want_line = b"HTTP/1.1 200 OK" if status == 200 else b"HTTP/1.1 404 Not Found"
        if line != want_line:
            return "status line %r" % line
        if headers.get("Content-Type") != ctype:
            return "Content-Type %r" % headers.get("Content-Type")
        if headers.get("Content-Length") != str(len(got)).encode() or headers.get("Connection") != b"close":
            return "Content-Length or Connection line"
        if status == 404:
            link = re.search(rb'href="([^"]*)" target', got)
            if link is None or len(got) != 523 + len(link.group(1)) or not got.startswith(b"<!DOCTYPE html>"):
                return "not-found page"
            self.not_found_page = self.not_found_page or got
            return "" if got == self.not_found_page else "not-found page differs"
        if isinstance(body, list):
            names = sorted(got.split(b"\n")[:-1]) if got.endswith(b"\n") else None
            return "" if names == body or (got == b"" and body == []) else "listing %r" % got[:200]
        return "" if got == body else "body of %d bytes, %d expected" % (len(got), len(body))

    def run(self, kind, payload, client="normal"):
        if self.model is None:
            self.restart()
        expected, detail = self.model.expect(payload) if client != "nothing" else (CLOSED, None)
        port = self.server.port
        if client in ("normal", "nothing"):
            try:
                data, how = exchange(port, payload if client == "normal" else b"")
            except OSError as error:
                self.model = None
                return self.record(kind, "connect failed", "server gone before the case: %s" % error, payload)
            if how == "timeout":
                self.record(kind, "hang", "no answer and no close within 10 s", payload)
                return self.restart()
            if expected == ANSWER:
                wrong = self.check_answer(data, detail)
                if wrong:
                    self.record(kind, how, wrong, payload)
                    self.model = None  # start afresh, so one fault is not counted again and again
                elif not self.server.alive():
                    self.record(kind, end_name(self.server.wait_end()), "ended after answering", payload)
                    return self.restart()
                else:
                    self.record(kind, "%d %s" % (detail[0], "listing" if isinstance(detail[2], list)
                                                 else "file" if detail[0] == 200 else "page"))
                return
            if data:
                self.record(kind, "answered", "answer where none is due (%s)" % (detail or "empty"), payload)
                self.model = None
                return
        else:
            self.send_and_drop(payload, reset=client != "early_close", queued=client == "reset_queued")
        self.judge_unseen(kind, expected, detail, payload, client)

    def send_and_drop(self, payload, reset, queued=False):
        """Sends the request and closes without reading, with a reset (linger 0) or a plain close.
        `queued`: another client holds the server meanwhile, so the reset is there before the
        server takes the connection, and its answer goes to a connection already reset."""
        holder = socket.create_connection(("127.0.0.1", self.server.port), timeout=10) if queued else None
        conn = socket.create_connection(("127.0.0.1", self.server.port), timeout=10)
        if reset:
            conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        try:
            conn.sendall(payload)
        except OSError:
            pass
        conn.close()
        if holder:
            time.sleep(0.05)
            holder.close()  # the server's receive on it returns 0; then it takes the reset one

    def judge_unseen(self, kind, expected, detail, payload, client):
        """Outcome of a case whose answer the client did not read."""
        if expected == ABORT or client == "reset_queued":
            due = signal.SIGABRT if expected == ABORT else signal.SIGPIPE
            end = self.server.wait_end()
            outcome = end_name(end) + (": %s" % detail if end == due and expected == ABORT else "")
            self.record(kind, outcome, None if end == due else "expected %s (%s)" % (due.name, detail), payload)
            self.model = None
            return
        if client in ("normal", "nothing"):  # the client saw the close: the case is over
            if self.server.alive():
                return self.record(kind, "closed, no answer")
            self.record(kind, end_name(self.server.wait_end()), "ended without cause", payload)
            self.model = None
            return
        # A request whose three tokens are its own tells whether the server got past the case.
        sync = request(b"/index.html")
        _, sync_detail = self.model.expect(sync)
        try:
            data, _ = exchange(self.server.port, sync)
        except OSError:
            data = b""
        if data and not self.check_answer(data, sync_detail):
            self.record(kind, "closed, no answer" if expected == CLOSED else "answered unseen")
        else:
            end = self.server.wait_end()
            # A client gone before the answer can leave the server a reset connection to send to.
            self.record(kind, end_name(end), None if end == signal.SIGPIPE else "unexpected end", payload)
            self.model = None
        if client == "reset":
            self.model = None  # whether the bytes reached the area is up to the kernel

    def print_table(self):
        outcomes = sorted({o for counts in self.table.values() for o in counts})
        width = max(len(k) for k in self.table) + 2
        print("kind".ljust(width) + "  ".join(outcomes))
        for kind, counts in self.table.items():
            print(kind.ljust(width) + "  ".join(str(counts.get(o, 0)).rjust(len(o)) for o in outcomes))


# Generators of bad input. Each yields payloads for one kind; `r` is the campaign's random source.
WELL_FORMED_PATHS = [b"/", b"/index.html", b"/game.js", b"/style.css", b"/data.json", b"/a%20b.html",
                     b"/a+b.html", b"/a%2Bb.html", b"/caf%C3%A9.txt", b"/notes", b"/sub/inner.html", b"/sub",
                     b"/sub/", b"/save", b"/save/", b"/%73ave", b"/missing.html", b"/index.html?v=2",
                     b"/x/../index.html", b"/index.html%00.png", b"//index.html", b"/save/slot1.json"]


def request(path, method=b"GET", version=b"HTTP/1.1", tail=b"\r\nHost: 127.0.0.1\r\n\r\n"):
    return method + b" " + path + b" " + version + tail


def well_formed(r, n):
    for _ in range(n):
        yield request(r.choice(WELL_FORMED_PATHS), r.choice([b"GET", b"HEAD", b"POST", b"X"]),
                      tail=r.choice([b"\r\n\r\n", b"\r\nHost: x\r\nUser-Agent: y\r\n\r\n", b"\n"]))


def missing_tokens(r, n):
    shapes = [b"GET", b"GET /index.html", b"GET /index.html\r\n", b"GET\r\n", b"/", b"\r\n", b"\n\n",
              b" GET  /x", b"GET /a\n", b"x", b"GET  \r\n", b"\t"]
    for _ in range(n):
        if r.random() < 0.3:  # a long request first, so the stale area can supply what is missing
            yield request(b"/index.html", tail=b"\r\n" + b"X-Pad: " + b"p" * r.randrange(0, 800) + b"\r\n\r\n")
        yield r.choice(shapes)


def huge_tokens(r, n):
    for _ in range(n):
        which = r.randrange(3)
        big = lambda: bytes(r.choice(b"abc/._-%") for _ in range(r.randrange(10, 990)))
        yield (request(b"/index.html", method=big()) if which == 0 else
               request(b"/" + big(), tail=b"\r\n") if which == 1 else
               request(b"/index.html", version=big(), tail=b"\r\n"))[:r.choice([1000, 4000])]


def nul_bytes(r, n):
    for _ in range(n):
        data = bytearray(request(r.choice(WELL_FORMED_PATHS)))
        for _ in range(r.randrange(1, 4)):
            data.insert(r.randrange(len(data) + 1), 0)
        yield bytes(data)


def no_line_end(r, n):
    for _ in range(n):
        yield r.choice([b"GET %s HTTP/1.1", b"GET %s HTTP/1.1 extra words", b"GET %s x\r",
                        b"GET %s " + b"v" * r.randrange(1, 900)]) % r.choice(WELL_FORMED_PATHS)


def only_spaces(r, n):
    for _ in range(n):
        yield bytes(r.choice(b"  \t\r\n") if r.random() < 0.2 else 32 for _ in range(r.randrange(1, 1200)))


def percent_everywhere(r, n):
    bases = [b"/index.html", b"/a%20b.html", b"/save", b"/sub/inner.html"]
    out = []
    for base in bases:
        for i in range(len(base) + 1):
            for insert in (b"%", b"%4", b"%41", b"%00", b"%zz", b"%%", b"%2e%2e/"):
                out.append(request(base[:i] + insert + base[i:]))
    r.shuffle(out)
    yield from out[:n]


def binary_garbage(r, n, longest):
    for _ in range(n):
        data = bytes(r.randrange(256) for _ in range(r.randrange(1, longest)))
        yield (b"GET /" + data) if r.random() < 0.3 else data


def long_paths(r, n, document_root_length):
    edge = PATH_SIZE - document_root_length  # the first decoded length that no longer fits
    for _ in range(n):
        length = r.choice([r.randrange(edge - 4, edge + 4), r.randrange(PATH_SIZE - 3, PATH_SIZE + 3),
                           r.randrange(900, 3900)])
        path = b"/" + (b"a/" * length)[:length - 1]
        if r.random() < 0.3:  # escapes: long on the wire, shorter once decoded
            path = b"/" + b"%61" * ((length - 1) // 3)
        yield request(path, tail=b"\r\n")


def run_phases(campaign, r, n):
    """Default buffer first, then a 4096-byte buffer so paths can reach the 1024-byte bounds."""
    campaign.phase(buffer_size=1000)
    plan = [("well-formed", well_formed(r, n(150))), ("missing tokens", missing_tokens(r, n(200))),
            ("huge tokens", huge_tokens(r, n(150))), ("NUL bytes", nul_bytes(r, n(200))),
            ("no line end", no_line_end(r, n(150))), ("only spaces", only_spaces(r, n(100))),
            ("% at every position", percent_everywhere(r, n(300))),
            ("binary garbage", binary_garbage(r, n(500), 1500))]
    for kind, payloads in plan:
        for payload in payloads:
            campaign.run(kind, payload)
    for payload in [b""] * n(50):
        campaign.run("sends nothing", payload, client="nothing")
    for payload in list(well_formed(r, n(100))) + list(missing_tokens(r, n(30))):
        campaign.run("closes early", payload, client="early_close")
    for payload in well_formed(r, n(20)):
        campaign.run("resets early", payload, client="reset")
    for payload in [request(b"/index.html"), request(b"/missing"), request(b"/save")]:
        campaign.run("reset before the answer", payload, client="reset_queued")

    # Sizes no request fits: 0 and -1 receive nothing, 1 receives one byte (never three tokens).
    for size in (0, -1, 1):
        if campaign.phase(buffer_size=size):
            for payload in list(well_formed(r, 3)) + [b"", b""]:
                campaign.run("buffer-size %d" % size, payload, client="nothing" if not payload else "normal")

    # A long main-file: "/" plus its name is bounded like any request path, and so is the full path.
    for length in (1030, 1010, 980):
        if campaign.phase(buffer_size=1000, main_file="m" * length):
            for path in (b"/", b"/index.html", b"/"):
                campaign.run("main-file of %d bytes" % length, request(path))

    campaign.phase(buffer_size=4096)
    root_length = len(campaign.server.document_root)
    for kind, payloads in [("long paths (buffer 4096)", long_paths(r, n(300), root_length)),
                           ("huge tokens (buffer 4096)", huge_tokens(r, n(100))),
                           ("missing tokens (buffer 4096)", missing_tokens(r, n(100))),
                           ("binary garbage (buffer 4096)", binary_garbage(r, n(150), 5000))]:
        for payload in payloads:
            campaign.run(kind, payload)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("binary")
    parser.add_argument("--scale", type=float, default=1.0, help="multiplies the number of cases")
    parser.add_argument("--seed", type=int, default=1010)
    args = parser.parse_args()
    r = random.Random(args.seed)
    n = lambda count: max(1, int(count * args.scale))
    campaign = Campaign(args.binary)
    started = time.monotonic()

    try:
        run_phases(campaign, r, n)
    except RuntimeError as error:  # the server no longer starts
        campaign.failures.append(str(error))
    finally:
        for server in campaign.servers:
            server.stop()
            reports = server.sanitizer_reports()[:20]
            campaign.failures += ["sanitizer: %s" % line.decode("latin-1") for line in reports]
            server.remove()
    total = sum(sum(c.values()) for c in campaign.table.values())
    print("campaign against %s: %d cases, %d server starts, %.1f s" % (
        args.binary, total, sum(s.starts for s in campaign.servers), time.monotonic() - started))
    campaign.print_table()
    for failure in campaign.failures[:30]:
        print("FAIL", failure)
    print("campaign: %s" % ("FAILED (%d)" % len(campaign.failures) if campaign.failures else "ok"))
    return 1 if campaign.failures else 0


if __name__ == "__main__":
    sys.exit(main())
