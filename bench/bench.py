#!/usr/bin/env python3
"""Measures tessard against minimal floor programs doing the same job, alternating the two over
several rounds, and prints one table: tessard, floor, ratio (median, with min and max).

    bench.py [--quick] [--rounds N] BUILD_DIR

BUILD_DIR holds a Release build of tessard and tessctl; the floor programs are built into
BUILD_DIR/bench and the generated devices go to BUILD_DIR/bench-data. Runs as root in a private
mount namespace with a fresh /run, so the host's daemon and files are never touched.
"""
import os
import signal
import socket
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOCKET = "/run/tessard/tessardsocket"
FIRST = "root.Bench.F0000.S0_K0"


def sh(*cmd, **kw):
    return subprocess.run(cmd, check=True, stdout=subprocess.PIPE, text=True, **kw).stdout


def prepare(build):
    out = os.path.join(build, "bench")
    os.makedirs(out, exist_ok=True)
    for prog in ("oneshot", "client", "replace", "loader"):
        sh("cc", "-O2", "-Wall", "-Wextra", "-o", os.path.join(out, prog),
           os.path.join(HERE, prog + ".c"))
    for params, files in ((10000, 100), (100000, 1000)):
        top = device_dir(build, params)
        if not os.path.exists(os.path.join(top, "tessard.conf")):
            sh(sys.executable, os.path.join(HERE, "gendevice.py"), top, str(params), str(files))


def device_dir(build, params):
    return os.path.join(build, "bench-data", "d%dk" % (params // 1000))


class Daemon:
    """tessard on a generated device, timed from its start to its first answer."""

    def __init__(self, build, device):
        self.proc = subprocess.Popen(
            [os.path.join(build, "init", "tessard"), os.path.join(device, "tessard.conf"), "0"],
            stdout=subprocess.DEVNULL)
        start = time.perf_counter()
        request = get_request(FIRST)
        while True:
            if self.proc.poll() is not None:
                sys.exit("bench: tessard ended at start-up")
            try:
                with socket.socket(socket.AF_UNIX) as s:
                    s.connect(SOCKET)
                    s.sendall(request)
                    if s.recv(4):
                        break
            except OSError:
                time.sleep(0.0005)
        self.startup_us = (time.perf_counter() - start) * 1e6
        self.peak_rss = peak_rss(self.proc.pid)

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait()


def get_request(path):
    body = bytes([0, 0, 2, 0]) + os.getuid().to_bytes(2, "little") + \
        os.getgid().to_bytes(2, "little") + bytes([0]) + len(path).to_bytes(2, "little") + \
        path.encode()
    return (len(body) + 2).to_bytes(2, "little") + body


def peak_rss(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    return 0


def number(*cmd):
    return float(sh(*cmd).split()[0])


def one_round(build, quick, results):
    tool = os.path.join(build, "bench")
    n_set = 20 if quick else 100
    n_spawn = 50 if quick else 300
    big = device_dir(build, 100000)
    small = device_dir(build, 10000)

    d = Daemon(build, small)
    d.stop()
    t10 = d.startup_us
    floor10 = number(os.path.join(tool, "client"), "-", "spawn", "1",
                     os.path.join(tool, "loader"), os.path.join(small, "tessard.conf"))

    d = Daemon(build, big)
    loader = sh(os.path.join(tool, "loader"), os.path.join(big, "tessard.conf")).split()
    start = time.perf_counter()
    sh(os.path.join(tool, "loader"), os.path.join(big, "tessard.conf"))
    floor100 = (time.perf_counter() - start) * 1e6
    add(results, "start-up to first answer, 100k parameters in 1,000 files (ms)",
        d.startup_us / 1000, floor100 / 1000)
    add(results, "start-up scaling t(100k)/t(10k)", d.startup_us / t10, floor100 / floor10)
    add(results, "peak resident memory per parameter at 100k (B)", d.peak_rss / 100200,
        int(loader[1]) / 100200)
    for name, label in (("small", "1 KB"), ("large", "100 KB")):
        group = "Small" if name == "small" else "Large"
        t = number(os.path.join(tool, "client"), SOCKET, "set", "root.Write.%s.S0_K0" % group,
                   str(n_set), "8" if name == "small" else "1000")
        f = number(os.path.join(tool, "replace"), os.path.join(big, "data", name + ".conf"),
                   str(n_set))
        add(results, "SET with immediate durable write, %s file (us)" % label, t, f)
    t = number(os.path.join(tool, "client"), "-", "spawn", str(n_spawn),
               os.path.join(build, "tools", "tessctl"), "--socket", SOCKET, "get", FIRST)
    f = number(os.path.join(tool, "client"), "-", "spawn", str(n_spawn),
               os.path.join(tool, "oneshot"), SOCKET, FIRST)
    add(results, "one-shot `tessctl get` process (us)", t, f)
    d.stop()


def add(results, name, tessard, floor):
    results.setdefault(name, []).append((tessard, floor))


def spread(values):
    fmt = "%.0f" if max(values) >= 100 else "%.2f"
    return (fmt + " (" + fmt + "-" + fmt + ")") % (statistics.median(values), min(values),
                                                   max(values))


def table(results):
    lines = ["| measure | tessard | floor | ratio |", "|---|---|---|---|"]
    for name, rows in results.items():
        lines.append("| %s | %s | %s | %s |" % (
            name, spread([t for t, _ in rows]), spread([f for _, f in rows]),
            spread([t / f for t, f in rows])))
    return "\n".join(lines)


def inside(build, quick, rounds):
    subprocess.run(["mount", "-t", "tmpfs", "bench-run", "/run"], check=True)
    os.makedirs("/run/tessard")
    results = {}
    for r in range(rounds):
        one_round(build, quick, results)
        print("round %d of %d done" % (r + 1, rounds), file=sys.stderr)
    print(table(results))


def main():
    args = sys.argv[1:]
    quick = "--quick" in args
    rounds = 5
    if "--rounds" in args:
        rounds = int(args[args.index("--rounds") + 1])
    build = os.path.abspath(args[-1])
    if "--inside" in args:
        return inside(build, quick, rounds)
    prepare(build)
    cmd = ["unshare", "-m", "--propagation", "private", sys.executable, os.path.abspath(__file__),
           "--inside"] + args
    sys.exit(subprocess.run(cmd).returncode)


main()
