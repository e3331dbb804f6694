"""Runs every server against the same folder with wrk and prints one table.

Each cell (server x file x concurrent connections) starts the server afresh on a new port,
pinned to core 0, loads it with wrk pinned to core 1 for a fixed time, one request per
connection, and reads the server's CPU time and peak resident memory from /proc. Started
through bench/run, which builds the two reference loops first.
"""

import argparse
import os
import select
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TICKS = os.sysconf("SC_CLK_TCK")
LOOPBACK = "127.0.0.1"

# (label, request path, size in bytes; None for a path that does not exist)
FILES = [
    ("1 KiB .html", "/index.html", 1024),
    ("64 KiB .js", "/app.js", 64 * 1024),
    ("1 MiB .png", "/image.png", 1024 * 1024),
    ("404", "/missing.html", None),
]
CONNECTIONS = [1, 8]
DISTURBED = 0.10  # share of core 0 spent on other work above which a pass is run again
OURS, FLOOR, SAME_WORK = "varnok", "floor", "same-work"


def log(text):
    print(text, file=sys.stderr, flush=True)


# ---------------------------------------------------------------- the served folder

def prepare_site(work, binary):
    site = os.path.join(work, "site")
    os.makedirs(site)
    with open(os.path.join(site, "index.html"), "wb") as f:
        head = b"<!DOCTYPE html><html><head><title>bench</title></head><body>"
        tail = b"</body></html>\n"
        f.write(head + b"x" * (1024 - len(head) - len(tail)) + tail)
    with open(os.path.join(site, "app.js"), "wb") as f:
        line = b"var benchmark_value = 1234567890; // filler line for the bench\n"
        f.write((line * (65536 // len(line) + 1))[:65536])
    with open(os.path.join(site, "image.png"), "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + os.urandom(1024 * 1024 - 8))
    os.symlink(os.path.abspath(binary), os.path.join(site, "varnok-http-server"))
    return site


def write_settings(site, port):
    with open(os.path.join(site, "package.json"), "w") as f:
        f.write('{"varnok": {"port": %d, "buffer-size": 1000, "main-file": "index.html", '
                '"rootdir": "./"}}\n' % port)


# ---------------------------------------------------------------- ports and /proc

class Ports:
    """Hands out ports that nothing, not even a closing connection, holds."""

    def __init__(self):
        self.next = 20000 + os.getpid() % 5000

    def take(self):
        while True:
            port, self.next = self.next, self.next + 1
            probe = socket.socket()
            try:
                probe.bind(("0.0.0.0", port))
                return port
            except OSError:
                continue
            finally:
                probe.close()


def process_tree(root):
    parents = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open("/proc/%s/stat" % name) as f:
                    parents[int(name)] = int(f.read().rsplit(")", 1)[1].split()[1])
            except (OSError, IndexError, ValueError):
                pass
    tree, grew = {root}, True
    while grew:
        grew = False
        for pid, parent in parents.items():
            if parent in tree and pid not in tree:
                tree.add(pid)
                grew = True
    return tree


def cpu_and_faults(root):
    """User plus system seconds and minor page faults of the server's processes, with those of
    the children it has reaped."""
    ticks = faults = 0
    for pid in process_tree(root):
        try:
            with open("/proc/%d/stat" % pid) as f:
                fields = f.read().rsplit(")", 1)[1].split()
            faults += int(fields[7]) + int(fields[8])  # minflt cminflt
            ticks += sum(int(fields[i]) for i in (11, 12, 13, 14))  # utime stime cutime cstime
        except (OSError, IndexError, ValueError):
            pass
    return ticks / TICKS, faults


def peak_rss_kib(root):
    """VmHWM summed over the server's live processes."""
    total = 0
    for pid in process_tree(root):
        try:
            with open("/proc/%d/status" % pid) as f:
                for line in f:
                    if line.startswith("VmHWM:"):
                        total += int(line.split()[1])
        except (OSError, ValueError):
            pass
    return total


# ---------------------------------------------------------------- the servers

def pinned(command):
    return ["taskset", "-c", "0"] + command


def wait_for_line(path, text, process, seconds=10):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline and process.poll() is None:
        with open(path, "rb") as f:
            if text.encode() in f.read():
                return True
        time.sleep(0.002)
    return False


def wait_for_port(port, process, seconds=10):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline and process.poll() is None:
        try:
            socket.create_connection((LOOPBACK, port), timeout=1).close()
            return True
        except OSError:
            time.sleep(0.01)
    return False


class Server:
    """One server kind: how to start it on a port, and how to know it is ready."""

    def __init__(self, name, command, cwd=None, ready_line=None, prepare=None, peer=False,
                 fork_per_connection=False):
        self.name, self.command, self.cwd = name, command, cwd
        self.ready_line, self.prepare = ready_line, prepare
        self.peer, self.fork_per_connection = peer, fork_per_connection

    def start(self, port, work):
        if self.prepare:
            self.prepare(port)
        out = os.path.join(work, "%s.out" % self.name)
        with open(out, "wb") as sink:
            process = subprocess.Popen(pinned(self.command(port)), cwd=self.cwd, stdout=sink,
                                       stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                       start_new_session=True)
        ready = (wait_for_line(out, self.ready_line, process) if self.ready_line
                 else wait_for_port(port, process))
        if not ready:
            stop(process)
            with open(out, errors="replace") as f:
                log("%s did not start: %s" % (self.name, f.read()[-500:]))
            return None
        return process


def stop(process):
    """Ends the server and whatever it started: each server runs in a process group of its own,
    whose id is the server's."""
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(process.pid, sig)
        except ProcessLookupError:
            break
        try:
            process.wait(timeout=5)
            break
        except subprocess.TimeoutExpired:
            continue
    process.wait()


def nginx_config(work, site, port):
    user = ""
    if os.getuid() == 0:
        user = "user root root;"
    temp = os.path.join(work, "nginx-temp")
    os.makedirs(temp, exist_ok=True)
    path = os.path.join(work, "nginx.conf")
    with open(path, "w") as f:
        f.write("""daemon off;
master_process on;
worker_processes 1;
%(user)s
pid %(work)s/nginx.pid;
error_log %(work)s/nginx-error.log;
events { worker_connections 1024; }
http {
    include /etc/nginx/mime.types;
    default_type application/octet-stream;
    sendfile on;
    tcp_nopush on;
    access_log off;
    keepalive_timeout 0;
    client_body_temp_path %(temp)s/body;
    proxy_temp_path %(temp)s/proxy;
    fastcgi_temp_path %(temp)s/fastcgi;
    uwsgi_temp_path %(temp)s/uwsgi;
    scgi_temp_path %(temp)s/scgi;
    server {
        listen %(address)s:%(port)d;
        root %(site)s;
        index index.html;
    }
}
""" % dict(user=user, work=work, temp=temp, address=LOOPBACK, port=port, site=site))
    return path


def lighttpd_config(work, site, port):
    path = os.path.join(work, "lighttpd.conf")
    with open(path, "w") as f:
        f.write("""server.document-root = "%(site)s"
server.bind = "%(address)s"
server.port = %(port)d
server.max-keep-alive-requests = 0
server.errorlog = "%(work)s/lighttpd-error.log"
index-file.names = ( "index.html" )
mimetype.assign = ( ".html" => "text/html", ".js" => "text/javascript", ".png" => "image/png" )
""" % dict(site=site, address=LOOPBACK, port=port, work=work))
    return path


def our_server(name, site, program):
    """Our server, run the way a user runs it: through a link in the served folder."""
    link = os.path.join(site, program)
    return Server(name, lambda port: [link], cwd=site, ready_line="Listening on",
                  prepare=lambda port: write_settings(site, port))


def make_servers(site, work, loops, quick, variants):
    servers = [
        our_server(OURS, site, "varnok-http-server"),
    ]
    for index, (name, binary) in enumerate(variants):
        os.symlink(os.path.abspath(binary), os.path.join(site, "variant-%d" % index))
        servers.append(our_server(name, site, "variant-%d" % index))
    servers += [
        Server(FLOOR, lambda port: [os.path.join(loops, "floor"), str(port), site], ready_line="Listening on"),
        Server(SAME_WORK, lambda port: [os.path.join(loops, "same-work"), str(port), site],
               ready_line="Listening on"),
    ]
    if quick:
        return servers
    peers = [
        ("nginx", "nginx", lambda port: ["nginx", "-e", os.path.join(work, "nginx-error.log"),
                                         "-c", nginx_config(work, site, port)], False),
        ("lighttpd", "lighttpd", lambda port: ["lighttpd", "-D", "-f", lighttpd_config(work, site, port)], False),
        ("busybox httpd", "busybox", lambda port: ["busybox", "httpd", "-f", "-p", "%s:%d" % (LOOPBACK, port),
                                                   "-h", site], True),
        ("python http.server", "/usr/bin/python3",
         lambda port: ["/usr/bin/python3", "-m", "http.server", str(port), "--bind", LOOPBACK,
                       "--directory", site], False),
    ]
    for name, program, command, forks in peers:
        if shutil.which(program):
            servers.append(Server(name, command, peer=True, fork_per_connection=forks))
        else:
            log("%s is not installed (bench/run --install): left out" % name)
    return servers


# ---------------------------------------------------------------- one cell

def run_wrk(port, path, connections, seconds):
    command = ["taskset", "-c", "1", "wrk", "-t1", "-c%d" % connections, "-d%ds" % seconds,
               "--timeout", "2s", "-H", "Connection: close", "-s", os.path.join(HERE, "report.lua"),
               "http://%s:%d%s" % (LOOPBACK, port, path)]
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=seconds + 20)
    except subprocess.TimeoutExpired:
        return None
    for line in done.stdout.splitlines():
        if line.startswith("WRK "):
            return {key: int(value) for key, value in (pair.split("=") for pair in line.split()[1:])}
    log("wrk gave no result: %s" % (done.stdout + done.stderr)[-500:])
    return None


def cpu0_busy_seconds():
    with open("/proc/stat") as f:
        for line in f:
            if line.startswith("cpu0 "):
                values = [int(v) for v in line.split()[1:]]
                return (sum(values) - values[3] - values[4]) / TICKS  # all but idle and iowait
    return 0.0


def measure_cell(server, ports, work, path, size, connections, seconds):
    port = ports.take()
    process = server.start(port, work)
    if process is None:
        return None
    try:
        (cpu_before, faults_before), core_before = cpu_and_faults(process.pid), cpu0_busy_seconds()
        result = run_wrk(port, path, connections, seconds)
        (cpu_after, faults_after), core_after = cpu_and_faults(process.pid), cpu0_busy_seconds()
        rss = peak_rss_kib(process.pid)
        alive = process.poll() is None
    finally:
        stop(process)
    if result is None or result["requests"] == 0 or not alive:
        if not alive:
            log("%s ended during the load" % server.name)
        return None
    expected_status_errors = result["requests"] if size is None else 0
    if result["status"] != expected_status_errors:
        log("%s %s: %d of %d answers had the wrong status" % (server.name, path, result["status"],
                                                              result["requests"]))
        return None
    # A server that forks per connection and does not reap its children leaves their time out of
    # its own figures: count the whole of core 0 for it instead.
    cpu = core_after - core_before if server.fork_per_connection else cpu_after - cpu_before
    # Core 0 busy with anything but the server (builds, tests, other loads) disturbs the cell.
    other = max(0.0, (core_after - core_before) - cpu) / (result["duration_us"] / 1e6)
    return {
        "requests": result["requests"],
        "other": other,
        "rps": result["requests"] / (result["duration_us"] / 1e6),
        "p50": result["p50_us"],
        "p99": result["p99_us"],
        "cpu": cpu * 1e6 / result["requests"],
        "rss": rss,
        "faults": (faults_after - faults_before) / result["requests"],
        "errors": result["connect"] + result["read"] + result["write"] + result["timeout"],
    }


def best_pass(passes):
    """Other work on the machine only ever slows a pass down: keep the pass during which core 0
    did the least else, and among equals the fastest."""
    return min(passes, key=lambda cell: (round(cell["other"], 2), -cell["rps"]))


# ---------------------------------------------------------------- start-up time

def startup_times(site, ports, samples):
    """Milliseconds from starting our server to its "Listening" line, package.json complete."""
    times = []
    for _ in range(samples):
        write_settings(site, ports.take())
        began = time.perf_counter()
        process = subprocess.Popen([os.path.join(site, "varnok-http-server")], cwd=site,
                                   stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                                   start_new_session=True)
        try:
            seen, deadline = b"", began + 10
            while b"Listening on" not in seen and time.perf_counter() < deadline:
                if select.select([process.stdout], [], [], 0.5)[0]:
                    chunk = os.read(process.stdout.fileno(), 4096)
                    if not chunk:
                        break
                    seen += chunk
            if b"Listening on" in seen:
                times.append((time.perf_counter() - began) * 1000)
        finally:
            stop(process)
            process.stdout.close()
    return times


# ---------------------------------------------------------------- the table

def ratio(value, reference):
    return "%.2f" % (value / reference) if reference else "-"


def print_table(results, servers):
    print("| file | conns | server | req/s | x | p50 us | x | p99 us | x | CPU us/req | x "
          "| peak RSS KiB | x | faults/req | core 0 else |")
    print("|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
    for label, _, _ in FILES:
        for connections in CONNECTIONS:
            reference = results.get((SAME_WORK, label, connections))
            for server in servers:
                cell = results.get((server.name, label, connections))
                if cell is None:
                    print("| %s | %d | %s | no result |||||||||||| |" % (label, connections, server.name))
                    continue
                ref = reference or {}
                cpu_note = " (core 0)" if server.fork_per_connection else ""
                errors = " (%d socket errors)" % cell["errors"] if cell["errors"] else ""
                print("| %s | %d | %s%s | %.0f | %s | %d | %s | %d | %s | %.1f%s | %s | %d | %s | %.2f | %s |" % (
                    label, connections, server.name, errors,
                    cell["rps"], ratio(cell["rps"], ref.get("rps")),
                    cell["p50"], ratio(cell["p50"], ref.get("p50")),
                    cell["p99"], ratio(cell["p99"], ref.get("p99")),
                    cell["cpu"], cpu_note, ratio(cell["cpu"], ref.get("cpu")),
                    cell["rss"], ratio(cell["rss"], ref.get("rss")), cell["faults"],
                    "-" if server.fork_per_connection else "%.0f%%" % (100 * cell["other"])))


def print_targets(results, servers):
    """Reads the run against the targets; informative only, never the exit status."""
    lines = []

    def check(name, ok, detail):
        lines.append("- %s: %s (%s)" % ("met" if ok else "MISSED", name, detail))

    misses_rps, misses_cpu, misses_peer = [], [], []
    for label, _, size in FILES:
        for connections in CONNECTIONS:
            ours = results.get((OURS, label, connections))
            ref = results.get((SAME_WORK, label, connections))
            if not ours or not ref:
                continue
            if ours["rps"] < 0.95 * ref["rps"]:
                misses_rps.append("%s/%d: %.2f" % (label, connections, ours["rps"] / ref["rps"]))
            if ours["cpu"] > 1.10 * ref["cpu"]:
                misses_cpu.append("%s/%d: %.2f" % (label, connections, ours["cpu"] / ref["cpu"]))
            if size is None or size <= 64 * 1024:
                for server in servers:
                    if not server.peer:
                        continue
                    peer = results.get((server.name, label, connections))
                    if peer and peer["cpu"] <= ours["cpu"]:
                        misses_peer.append("%s/%d: %s %.1f us" % (label, connections, server.name, peer["cpu"]))
    check("requests/s >= 0.95 x same-work", not misses_rps, ", ".join(misses_rps) or "every cell")
    check("CPU/request <= 1.10 x same-work", not misses_cpu, ", ".join(misses_cpu) or "every cell")
    if any(server.peer for server in servers):
        check("CPU/request below every peer (1 KiB, 64 KiB, 404)", not misses_peer,
              ", ".join(misses_peer) or "every cell")
    small = results.get((OURS, FILES[0][0], 1))
    if small:
        check("p99 < 1 ms, 1 KiB at 1 connection", small["p99"] < 1000, "%d us" % small["p99"])
    limit = 4 * 1024 + max(size or 0 for _, _, size in FILES) // 1024
    # The server keeps some blocks of every answer on purpose, so its peak grows with the count
    # of requests: show how much each request kept over the 1 KiB cell's peak.
    base = results.get((OURS, FILES[0][0], 1), {}).get("rss", 0)
    over = []
    for label, _, _ in FILES:
        for connections in CONNECTIONS:
            cell = results.get((OURS, label, connections))
            if cell and cell["rss"] >= limit:
                over.append("%s/%d: %d KiB after %d requests, %.2f KiB kept per request" % (
                    label, connections, cell["rss"], cell["requests"],
                    (cell["rss"] - base) / cell["requests"]))
    check("peak RSS < %d KiB" % limit, not over, ", ".join(over) or "every cell")
    print("\n".join(lines))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", required=True)
    parser.add_argument("--loops", required=True, help="folder with the built floor and same-work")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--seconds", type=int)
    parser.add_argument("--repeat", type=int, default=1, help="passes per cell; the least disturbed is kept")
    parser.add_argument("--only", help="comma-separated server names (same-work is always run)")
    parser.add_argument("--variant", action="append", default=[], metavar="NAME=BINARY",
                        help="another build of our server to measure beside it")
    args = parser.parse_args()
    seconds = args.seconds or (1 if args.quick else 5)

    work = tempfile.mkdtemp(prefix="varnok-bench-")
    try:
        site = prepare_site(work, args.binary)
        ports = Ports()
        variants = [tuple(text.split("=", 1)) for text in args.variant]
        servers = make_servers(site, work, args.loops, args.quick, variants)
        if args.only:
            wanted = set(args.only.split(",")) | {SAME_WORK}
            servers = [server for server in servers if server.name in wanted]
        results, failed = {}, []
        # Cell by cell, every server in turn, so that a burst of other work on the machine
        # falls on neighbours that are compared with each other.
        for label, path, size in FILES:
            for connections in CONNECTIONS:
                for server in servers:
                    passes = []
                    # Up to as many passes again while every pass had core 0 busy with other work.
                    while len(passes) < args.repeat or (
                            args.repeat > 1 and len(passes) < 2 * args.repeat and None not in passes
                            and min(cell["other"] for cell in passes) > DISTURBED):
                        log("%-20s %-12s %d connection(s)" % (server.name, label, connections))
                        passes.append(measure_cell(server, ports, work, path, size, connections, seconds))
                    if None in passes:
                        failed.append("%s %s %d" % (server.name, label, connections))
                    else:
                        results[(server.name, label, connections)] = best_pass(passes)

        times = startup_times(site, ports, 5 if args.quick else 30)
        print("Connection per request, %d s per cell%s, server on core 0, wrk on core 1. "
              "x: ratio to same-work in the same run." % (
                  seconds, ", best of %d passes" % args.repeat if args.repeat > 1 else ""))
        print()
        print_table(results, servers)
        print()
        if times:
            print("Start-up to \"Listening\" (%d starts): median %.2f ms, max %.2f ms" % (
                len(times), statistics.median(times), max(times)))
        else:
            failed.append("start-up time")
        print()
        if args.quick:
            print("Quick run: %d cells measured; speed is not judged here." % len(results))
        else:
            print_targets(results, servers)
        if failed:
            print("\nno numbers for: " + "; ".join(failed))
            return 1
        return 0
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
