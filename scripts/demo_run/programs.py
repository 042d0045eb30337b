"""The programs of the demonstration, and what they say."""

import os
import re
import signal
import socket
import subprocess
import threading
import time

SHOWN_COLUMNS = 100
# What comes again and again is shown so many times.
REPEATED = re.compile(r"^timer: tick|^camera \d+: telemetry ")
SHOWN_TIMES = 3

patience_s = 20
_output = threading.Lock()


class Missing(Exception):
    """Something that did not come, or came wrong."""


def lose_patience():
    """After one thing is missing, others will be, too."""
    global patience_s
    patience_s = 8


def show(who, text):
    cut = text if len(text) <= SHOWN_COLUMNS else text[:SHOWN_COLUMNS] + "..."
    with _output:
        print(f"  {who:<13} {cut}", flush=True)


def expect(condition, otherwise):
    if not condition:
        raise Missing(otherwise)


def wait_until(condition, otherwise):
    deadline = time.monotonic() + patience_s
    while not condition():
        expect(time.monotonic() < deadline, otherwise)
        time.sleep(0.01)


class Program:
    """A program with everything that it printed, log lines included."""

    present = True

    def __init__(self, name, *command):
        self.name = name
        self.lines = []
        self.ended = False
        self.changed = threading.Condition()
        self.repeated = 0
        # As configured by default, whatever the caller's settings are, and in a session of its own:
        # Ctrl-C is for the demonstration, which ends it in order.
        environment = {k: v for k, v in os.environ.items() if not k.startswith("KEST_")}
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, errors="replace", start_new_session=True,
            env=environment)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            line = line.rstrip("\n")
            self._show(line)
            with self.changed:
                self.lines.append(line)
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def _show(self, line):
        if REPEATED.search(line):
            self.repeated += 1
            if self.repeated == SHOWN_TIMES + 1:
                show(f"{self.name} |", "(more of these come and are not shown)")
            if self.repeated > SHOWN_TIMES:
                return
        show(f"{self.name} |", line)

    def count(self, pattern):
        return sum(bool(re.search(pattern, line)) for line in list(self.lines))

    def wait_for(self, pattern, times=1, after=0):
        """The match of the last of so many lines; lines up to number `after` do not count."""
        deadline = time.monotonic() + patience_s
        with self.changed:
            while True:
                found = [m for m in (re.search(pattern, line) for line in self.lines[after:]) if m]
                if len(found) >= times:
                    return found[times - 1]
                left = deadline - time.monotonic()
                if self.ended or left <= 0:
                    raise Missing(f"{self.name} did not say {pattern} {times} times")
                self.changed.wait(left)

    def say(self, text):
        show(f"{self.name} <", text)
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def ask(self, text, answer):
        """Says something; the match of the line that answers it."""
        after = len(self.lines)
        self.say(text)
        return self.wait_for(answer, after=after)

    def signal(self, number):
        show(f"{self.name} !", signal.Signals(number).name)
        self.process.send_signal(number)

    def wait(self):
        try:
            return self.process.wait(timeout=patience_s)
        except subprocess.TimeoutExpired as error:
            raise Missing(f"{self.name} does not end") from error

    def end(self):
        """Asks it to end, which it must do with status 0."""
        self.signal(signal.SIGTERM)
        status = self.wait()
        expect(status == 0, f"{self.name} ended with status {status}")
        self.process.stdin.close()

    def summary(self):
        """The counts of the summary that it prints at its end."""
        summary = self.wait_for(r"^summary: (.*)$")[1]
        return {k: int(v) for k, v in (item.split("=") for item in summary.split())}


def send_datagram(port, text, answered=False):
    """Sends it; the answer, if one is due."""
    show("udp >", text)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.settimeout(patience_s)
        sock.sendto(text.encode(), ("127.0.0.1", port))
        if not answered:
            return ""
        answer = sock.recv(65536).decode().strip()
        show("udp <", answer)
        return answer


def echo(port, size):
    """Sends random bytes over one connection and insists on getting them back."""
    payload = os.urandom(size)
    show("tcp >", f"{size} bytes")
    with socket.create_connection(("127.0.0.1", port), timeout=patience_s) as sock:
        sender = threading.Thread(
            target=lambda: (sock.sendall(payload), sock.shutdown(socket.SHUT_WR)), daemon=True)
        sender.start()
        back = b""
        while chunk := sock.recv(65536):
            back += chunk
        sender.join()
    expect(back == payload, "the echo differs from what was sent")
    show("tcp <", f"{len(back)} bytes, the same")


def log(text):
    """Sends a message to the system log, as syslog(3) does."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sock:
        try:
            sock.connect("/dev/log")
            sock.send(f"<14>demo: {text}".encode())
        except OSError as error:
            raise Missing(f"no system log: {error.strerror}") from error
