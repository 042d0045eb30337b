"""Feeds the example daemon and checks its summary: demo.py DAEMON"""

import os
import queue
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE_S = 20
SHOWN_COLUMNS = 100


def show(who, text):
    cut = text if len(text) <= SHOWN_COLUMNS else text[:SHOWN_COLUMNS] + "..."
    print(f"  {who:<8} {cut}", flush=True)


class Daemon:
    """The daemon under test, with everything that it printed."""

    def __init__(self, path, *options):
        self.process = subprocess.Popen(
            [path, *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.seen = []
        self.arriving = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # Only a run that failed has not waited for the daemon's end.
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def _read(self):
        for line in self.process.stdout:
            self.arriving.put(line.rstrip("\n"))
        self.arriving.put(None)

    def wait_for(self, pattern, times=1):
        """The match of the last of so many lines; what was seen before counts."""
        deadline = time.monotonic() + PATIENCE_S
        while True:
            found = [m for m in (re.search(pattern, line) for line in self.seen) if m]
            if len(found) >= times:
                return found[times - 1]
            try:
                line = self.arriving.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                line = None
            if line is None:
                sys.exit(f"demo: the daemon did not print {pattern!r} {times} times")
            show("daemon |", line)
            self.seen.append(line)

    def say(self, text):
        show("stdin  >", text)
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def signal(self, number):
        show("kill   >", signal.Signals(number).name)
        self.process.send_signal(number)


def send_datagram(port, text, answered=False):
    show("udp    >", text)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.settimeout(PATIENCE_S)
        sock.sendto(text.encode(), ("127.0.0.1", port))
        if answered:
            show("udp    <", sock.recv(65536).decode())


def echo(port, payload):
    """Sends the payload over one connection and insists on getting it back."""
    show("tcp    >", f"{len(payload)} bytes")
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE_S) as sock:
        sender = threading.Thread(
            target=lambda: (sock.sendall(payload), sock.shutdown(socket.SHUT_WR)))
        sender.start()
        back = b""
        while chunk := sock.recv(65536):
            back += chunk
        sender.join()
    if back != payload:
        sys.exit("demo: the echo differs from what was sent")
    show("tcp    <", f"{len(back)} bytes, the same")


def feed(daemon):
    """Feeds everything once; returns what the summary has to say."""
    ready = daemon.wait_for(r"^ready: udp (\d+) tcp (\d+)$")
    udp, tcp = int(ready[1]), int(ready[2])

    lines = ["hello camera", "", "a line with \u00e4\u00f6\u00fc", "run uname -s", "run rm -rf /"]
    for line in lines:
        daemon.say(line)
    daemon.wait_for(r"^tool: Linux$")
    daemon.wait_for(r"^tool: no such tool$")

    datagrams = ["first datagram", "second datagram", "x" * 2000]
    for text in datagrams:
        send_datagram(udp, text)
    send_datagram(udp, "run echo from a tool", answered=True)
    daemon.wait_for(r"^udp \d+: ", len(datagrams) + 1)

    payloads = [b"ping", os.urandom(100_000), os.urandom(3_000_000)]
    for payload in payloads:
        echo(tcp, payload)
    daemon.wait_for(r"^tcp \d+: closed", len(payloads))

    for count in (1, 2):
        daemon.signal(signal.SIGHUP)
        daemon.wait_for(r"^signal: SIGHUP$", count)
    daemon.wait_for(r"^timer: one-shot$")
    daemon.wait_for(r"^timer: tick", 3)
    return {
        "lines": len(lines), "datagrams": len(datagrams) + 1, "connections": len(payloads),
        "echoed": sum(map(len, payloads)), "tools": 3, "oneshots": 1, "hangups": 2,
    }


def check(daemon, expected):
    """Compares the summary of a daemon that was asked to end, and its exit status."""
    summary = daemon.wait_for(r"^summary: (.*)$")[1]
    counts = {k: int(v) for k, v in (item.split("=") for item in summary.split())}
    expected["ticks"] = sum(line.startswith("timer: tick") for line in daemon.seen)
    wrong = {k: (v, counts.get(k)) for k, v in expected.items() if counts.get(k) != v}
    status = daemon.process.wait(timeout=PATIENCE_S)
    if wrong or status != 0:
        sys.exit(f"demo: exit status {status}, counts (fed, handled) that differ: {wrong}")


def main():
    with tempfile.TemporaryDirectory() as folder:
        options = ("--tick-ms=300", "--one-shot-ms=200", f"--state={folder}/state")
        for run, end in ((1, signal.SIGTERM), (2, signal.SIGINT)):
            print(f"--- run {run}", flush=True)
            with Daemon(sys.argv[1], *options) as daemon:
                daemon.wait_for(rf"^state: start number {run}$")
                expected = feed(daemon)
                daemon.signal(end)
                check(daemon, expected)
    print("demo: every count is what was fed, exit status 0")


main()
