"""Feeds the example daemon and checks what it handled.

demo.py FOLDER_OF_THE_EXAMPLES            everything but the crash
demo.py FOLDER_OF_THE_EXAMPLES SYMBOLIZE  the crash, its report turned into source lines
"""

import atexit
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
    print(f"  {who:<12} {cut}", flush=True)


class Program:
    """A program of the demonstration, with everything that it printed."""

    def __init__(self, name, path, *options):
        self.name = name
        self.process = subprocess.Popen(
            [path, *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        atexit.register(self._kill)
        self.seen = []
        self.arriving = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _kill(self):
        # Only a demonstration that failed has not waited for the end.
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
                sys.exit(f"demo: {self.name} did not print {pattern!r} {times} times")
            show(f"{self.name} |", line)
            self.seen.append(line)

    def say(self, text):
        show(f"{self.name} <", text)
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def signal(self, number):
        show(f"{self.name} !", signal.Signals(number).name)
        self.process.send_signal(number)

    def end(self, number, status=0):
        """Ends the program; the counts of its summary."""
        self.signal(number)
        summary = self.wait_for(r"^summary: (.*)$")[1]
        if self.process.wait(timeout=PATIENCE_S) != status:
            sys.exit(f"demo: {self.name} ended with status {self.process.returncode}")
        return {k: int(v) for k, v in (item.split("=") for item in summary.split())}


def send_datagram(port, text, answered=False):
    show("udp >", text)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.settimeout(PATIENCE_S)
        sock.sendto(text.encode(), ("127.0.0.1", port))
        if answered:
            show("udp <", sock.recv(65536).decode())


def echo(port, payload):
    """Sends the payload over one connection and insists on getting it back."""
    show("tcp >", f"{len(payload)} bytes")
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
    show("tcp <", f"{len(back)} bytes, the same")


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


def talk(folder, examples):
    """The daemon with its controller, which goes away once and comes back."""
    snapshots = os.path.join(folder, "snapshots")
    os.mkdir(snapshots)
    certificate = os.path.join(folder, "controller.pem")
    record = os.path.join(folder, "telemetry")
    serve = (os.path.join(examples, "controller"), f"--tls={certificate}", f"--record={record}")
    controller = Program("controller", *serve)
    port = controller.wait_for(r"^listening: (\d+)$")[1]
    options = (f"--controller=wss://127.0.0.1:{port}/camera", f"--pin={certificate}",
               "--retry-ms=100", "--tick-ms=100", f"--snapshots={snapshots}", "--keep=3")
    daemon = Program("daemon", os.path.join(examples, "camera_daemon"), *options)
    controller.wait_for(r"^camera 1: telemetry ", 3)
    controller.say("run uname -s")
    controller.wait_for(r"^camera 1: answer Linux$")

    refused = subprocess.run([daemon.process.args[0]], stdin=subprocess.DEVNULL,
                             capture_output=True, text=True, timeout=PATIENCE_S)
    show("second |", refused.stderr.splitlines()[0])
    if refused.returncode != 1:
        sys.exit("demo: a second daemon was not refused")

    for number in range(5):
        with open(os.path.join(snapshots, f"snap-{number}.jpg"), "w") as snapshot:
            snapshot.write("picture")
        daemon.wait_for(r"^snapshot: kept ", number + 1)
    daemon.wait_for(r"^snapshot: dropped ", 2)
    kept = sorted(os.listdir(snapshots))
    if kept != ["snap-2.jpg", "snap-3.jpg", "snap-4.jpg"]:
        sys.exit(f"demo: snapshots kept are {kept}")

    controller.signal(signal.SIGKILL)
    daemon.wait_for(r"^controller: closed")
    daemon.wait_for(r"^controller: next try in 200 ms")
    controller = Program("controller", *serve, f"--port={port}")
    controller.wait_for(r"^camera 1: telemetry ", 3)
    controller.say("run echo back again")
    controller.wait_for(r"^camera 1: answer back again$")

    counts = daemon.end(signal.SIGTERM)
    controller.wait_for(r"^camera 1: closes with 1000$")
    controller.end(signal.SIGTERM)
    with open(record) as lines:
        ticks = [int(line.split()[1].split("=")[1]) for line in lines]
    gaps = [(a, b) for a, b in zip(ticks, ticks[1:]) if b != a + 1]
    # What was under way when the controller was killed may be lost, nothing else.
    if len(gaps) > 1 or counts["telemetry"] - len(ticks) > 2:
        sys.exit(f"demo: telemetry is missing: sent {counts['telemetry']}, recorded {ticks}")
    check(counts, {"controllers": 2, "commands": 2, "tools": 2, "snapshots": 5, "dropped": 2})


def crash(folder, examples, symbolize):
    """The controller orders the daemon to crash; the report names the function that did."""
    controller = Program("controller", os.path.join(examples, "controller"))
    port = controller.wait_for(r"^listening: (\d+)$")[1]
    daemon = Program("daemon", os.path.join(examples, "camera_daemon"),
                     f"--controller=ws://127.0.0.1:{port}/camera", f"--crash-dumps={folder}")
    daemon.wait_for(r"^controller: connected")
    controller.say("crash")
    daemon.wait_for(r"^controller: crash$")
    status = daemon.process.wait(timeout=PATIENCE_S)
    controller.wait_for(r"^camera 1: gone$")
    controller.end(signal.SIGTERM)
    if status != -signal.SIGSEGV:
        sys.exit(f"demo: the daemon ended with status {status}, not by SIGSEGV")
    report = subprocess.run([symbolize, os.path.join(folder, "stack")], capture_output=True,
                            text=True, timeout=PATIENCE_S, check=True).stdout
    for line in report.splitlines():
        show("report |", line)
    if not re.search(r"crashOnPurpose.*camera_daemon\.cpp:\d+", report):
        sys.exit("demo: the report does not name the function that crashed")


def check(counts, expected):
    wrong = {k: (v, counts.get(k)) for k, v in expected.items() if counts.get(k) != v}
    if wrong:
        sys.exit(f"demo: counts (fed, handled) that differ: {wrong}")


def main():
    examples = sys.argv[1]
    with tempfile.TemporaryDirectory() as folder:
        if len(sys.argv) > 2:
            crash(folder, examples, sys.argv[2])
            print("demo: the crash is told with its source line, exit status 0")
            return
        options = ("--tick-ms=300", "--one-shot-ms=200", f"--state={folder}/state")
        for run, end in ((1, signal.SIGTERM), (2, signal.SIGINT)):
            print(f"--- lines, datagrams, connections, signals, timers: run {run}", flush=True)
            daemon = Program("daemon", os.path.join(examples, "camera_daemon"), *options)
            daemon.wait_for(rf"^state: start number {run}$")
            expected = feed(daemon)
            counts = daemon.end(end)
            expected["ticks"] = sum(line.startswith("timer: tick") for line in daemon.seen)
            check(counts, expected)
        print("--- controller and snapshots", flush=True)
        talk(folder, examples)
    print("demo: every count is what was fed, exit status 0")


main()
