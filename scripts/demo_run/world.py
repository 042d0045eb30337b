"""What the stations work with: files, stand-ins at fixed paths, and the programs."""

import os
import shutil
from collections import Counter

from private_world import install
from programs import Missing, Program, log, wait_until

FOLDER = "/run/demo"
TOKEN = "correct-horse-battery-staple"


def path(name):
    return os.path.join(FOLDER, name)


def read(name):
    """A file's text; empty while there is none."""
    try:
        with open(path(name), encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def write(name, content):
    with open(path(name), "wb") as file:
        file.write(content)


class Absent:
    """In place of a program that is to be missing."""

    present = False

    def __init__(self, name):
        self.name = name

    def __getattr__(self, _):
        raise Missing(f"{self.name} is not there")


class World:
    def __init__(self, build, source, without):
        self.build = build
        self.symbolize = os.path.join(source, "tools/kest_symbolize")
        self.without = without
        self.certificate = path("controller.pem")
        self.fed = Counter()  # what the daemon's summary has to say
        self.daemon = self.controller = self.avclient = self.ctlserver = self.syslogd = None
        self.port = self.udp = self.tcp = None

    def example(self, name):
        return os.path.join(self.build, "examples", name)

    def prepare(self):
        os.makedirs(FOLDER)
        os.mkdir(path("crash"))
        os.mkdir(path("snapshots"))
        # In the copy of /etc: a machine with daemons of its own keeps its store.
        shutil.rmtree("/etc/kest", ignore_errors=True)
        os.mkdir("/etc/kest", 0o700)
        install("/bin/kest_ipc_cli", os.path.join(self.build, "platform/kest_ipc_cli"))
        install("/usr/bin/reboot", [f"echo called >>{path('rebooted')}"])
        install("/usr/bin/collect", [f'echo "$@" >>{path("collected")}'])
        # Knows by itself where the image is. Good is what begins and ends as it should.
        install("/usr/bin/fwupdate", [
            f'case "$1" in -h) test "$(head -c 4 {path("firmware.img")})" = KEST ;;',
            f'-c) test "$(tail -c 3 {path("firmware.img")})" = END ;; esac'])

    def start(self, name, *command):
        """Starts a program, unless it is to be missing."""
        return Absent(name) if name in self.without else Program(name, *command)

    def start_peers(self):
        tokens = Program("avclient", self.example("avclient"), "--add")
        tokens.say(TOKEN)
        tokens.process.stdin.close()
        tokens.wait()
        self.start_avclient()
        self.ctlserver = self.start("ctlserver", self.example("ctlserver"), path("asked"))
        self.syslogd = self.start("syslogd", "busybox", "syslogd", "-n", "-C16")
        if self.syslogd.present:
            wait_until(lambda: os.path.exists("/dev/log"), "no /dev/log")
            for number in range(3):
                log(f"message {number} before the daemon")

    def start_avclient(self):
        self.avclient = self.start("avclient", self.example("avclient"))
        if self.avclient.present:
            self.avclient.wait_for(r"^answering: ")

    def start_controller(self):
        options = [f"--tls={self.certificate}", f"--record={path('telemetry')}"]
        if self.port:
            options.append(f"--port={self.port}")
        self.controller = Program("controller", self.example("controller"), *options)
        self.port = self.controller.wait_for(r"^listening: (\d+)$")[1]

    def start_daemon(self, *more):
        self.daemon = Program(
            "daemon", self.example("camera_daemon"), "--tick-ms=100", "--one-shot-ms=200",
            f"--state={path('state')}", f"--controller=wss://127.0.0.1:{self.port}/camera",
            f"--pin={self.certificate}", "--retry-ms=100", f"--snapshots={path('snapshots')}",
            "--keep=3", f"--record={path('sound.wav')}", f"--firmware={path('firmware.img')}",
            "--control", "--syslog", f"--crash-dumps={path('crash')}", *more)
        ready = self.daemon.wait_for(r"^ready: udp (\d+) tcp (\d+)$")
        self.udp, self.tcp = int(ready[1]), int(ready[2])

    def order(self, text, answer):
        """Has the controller order the daemon to do something; what the daemon answers."""
        self.fed["tools" if text.startswith("run ") else "requests"] += 1
        self.fed["commands"] += 1
        return self.controller.ask(text, rf"^camera \d+: answer ({answer})$")[1]
