"""The real server in a private folder, and raw clients over 127.0.0.1, for the hardening runs."""
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

# Files of the served folder: name -> content. "big.bin" is larger than the socket buffers.
SITE_FILES = {
    "index.html": b"<!DOCTYPE html><title>game</title>\n",
    "game.js": b"let score = 0;\n",
    "style.css": b"body { margin: 0 }\n",
    "data.json": b'{"level": 3}\n',
    "a b.html": b"space in the name\n",
    "café.txt": b"utf-8 name\n",
    "a+b.html": b"plus in the name\n",
    "notes": b"no extension\n",
    "sub/inner.html": b"one level down\n",
    "save/slot1.json": b'{"hp": 10}\n',
    "save/slot2.json": b'{"hp": 7}\n',
    "save/.hidden": b"dot file\n",
}
BIG_FILE_SIZE = 16 << 20
SANITIZER_REPORT = re.compile(rb"AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|runtime error:")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def make_site(parent):
    """The served folder: a few files, a subfolder, a save folder with a subfolder of its own."""
    site = os.path.join(parent, "site")
    for name, content in SITE_FILES.items():
        path = os.path.join(site, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(content)
    os.makedirs(os.path.join(site, "save", "backups"), exist_ok=True)
    with open(os.path.join(site, "big.bin"), "wb") as out:
        out.truncate(BIG_FILE_SIZE)
    return site


class Server:
    """One server process: a link to the binary in the served folder, started there."""

    def __init__(self, binary, buffer_size=1000, main_file="index.html"):
        self.parent = tempfile.mkdtemp(prefix="varnok-hardening-")
        self.site = make_site(self.parent)
        self.program = os.path.join(self.site, "varnok-http-server")
        os.symlink(os.path.abspath(binary), self.program)
        self.buffer_size, self.main_file = buffer_size, main_file
        # The program's folder followed by rootdir "./", without the one trailing "/".
        self.document_root = (self.site + "/.").encode()
        self.process, self.starts, self.stderr_name = None, 0, None

    def start(self):
        self.port = free_port()
        with open(os.path.join(self.site, "package.json"), "w") as settings:
            settings.write('{"varnok": {"port": %d, "buffer-size": %d, "main-file": "%s", "rootdir": "./"}}'
                           % (self.port, self.buffer_size, self.main_file))
        self.starts += 1
        self.stderr_name = os.path.join(self.parent, "stderr-%d.txt" % self.starts)
        with open(self.stderr_name, "wb") as err:
            self.process = subprocess.Popen([self.program], cwd=self.site, stdin=subprocess.DEVNULL,
                                            stdout=subprocess.DEVNULL, stderr=err)
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("server ended at start-up with %s" % self.process.returncode)
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return  # the server sees an empty connection and closes it
            except OSError:
                time.sleep(0.01)
        raise RuntimeError("server did not listen within 20 s")

    def alive(self):
        """True when the process runs and its listening socket takes a connection."""
        if self.process.poll() is not None:
            return False
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=2).close()
        except OSError:
            return False
        return True

    def wait_end(self, timeout=10):
        """The signal that ended the process (None when it still runs after `timeout` s)."""
        try:
            code = self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        return -code if code < 0 else "exit %d" % code

    def sanitizer_reports(self):
        """Sanitizer lines in the stderr of every start so far."""
        found = []
        for n in range(1, self.starts + 1):
            with open(os.path.join(self.parent, "stderr-%d.txt" % n), "rb") as err:
                found += [line for line in err.read().splitlines() if SANITIZER_REPORT.search(line)]
        return found

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def remove(self):
        """Stops the process and removes its folder."""
        self.stop()
        shutil.rmtree(self.parent, ignore_errors=True)

    def rss_kib(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0


def exchange(port, payload, timeout=10):
    """Sends `payload` in one piece and reads until the server closes.
    Returns (bytes received, "eof" | "reset" | "timeout")."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as conn:
        try:
            if payload:
                conn.sendall(payload)
            else:
                conn.shutdown(socket.SHUT_WR)  # sends nothing and says so: the receive returns 0
        except OSError:
            pass  # the server may close before taking bytes past its buffer
        received = bytearray()
        while True:
            try:
                chunk = conn.recv(1 << 16)
            except socket.timeout:
                return bytes(received), "timeout"
            except ConnectionResetError:
                return bytes(received), "reset"
            if not chunk:
                return bytes(received), "eof"
            received += chunk


def parse_answer(data):
    """(status line, {header: value}, body) of one answer, or None when there is no full header."""
    head, sep, body = data.partition(b"\r\n\r\n")
    if not sep:
        return None
    lines = head.split(b"\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(b": ")
        headers[name.decode("latin-1")] = value
    return lines[0], headers, body


def end_name(end):
    if isinstance(end, int):
        return signal.Signals(end).name
    return "still running" if end is None else end
