"""The stations that the daemon reaches with a controller alone."""

import os
import re
import shutil
import signal

from programs import Program, echo, expect, log, send_datagram, show
from station import station
from world import path, write

FIGURES = r"^camera 1: telemetry ticks=\d+ snapshots=\d+ uptime=\S+ (cpu=[\d.]+ .* lo=\d+/\d+)$"


@station("first start", "start number 1")
def first_start(world):
    world.start_controller()
    world.start_daemon()
    return world.daemon.wait_for(r"^state: (start number .*)$")[1]


@station("one daemon only", "it is running already, status 1")
def second_daemon(world):
    second = Program("second", world.example("camera_daemon"))
    reason = second.wait_for(r"^camera_daemon: (it is .*)$")[1]
    return f"{reason}, status {second.wait()}"


@station("telemetry over TLS", "cpu, memory, load, processes, lo")
def telemetry(world):
    figures = world.controller.wait_for(FIGURES, 3)[1]
    show("figures", figures)
    return ", ".join(figure.split("=")[0] for figure in figures.split())


@station("certificate pinned", "0 connections to another certificate")
def pinned(world):
    other = path("other.pem")
    maker = Program("maker", world.example("controller"), f"--tls={other}")
    maker.wait_for(r"^listening: ")
    maker.end()
    cautious = Program(
        "cautious", world.example("camera_daemon"), "--lock=demo_cautious", "--retry-ms=60000",
        f"--controller=wss://127.0.0.1:{world.port}/camera", f"--pin={other}")
    cautious.wait_for(r"^controller: failed")
    cautious.end()
    return f"{cautious.summary()['controllers']} connections to another certificate"


@station("lines", "5 lines, Linux, no such tool")
def lines(world):
    texts = ["hello camera", "", "a line with \u00e4\u00f6\u00fc"]
    for text in texts:
        world.daemon.say(text)
    answers = [world.daemon.ask(text, r"^answer: (.*)$")[1] for text in ("run uname -s", "run rm -rf /")]
    world.fed.update(lines=len(texts) + 2, tools=2)
    return ", ".join([f"{world.daemon.count('^line: ')} lines", *answers])


@station("datagrams", "4 datagrams, answered: from a tool")
def datagrams(world):
    texts = ["first datagram", "persist", "x" * 2000]
    for text in texts:
        send_datagram(world.udp, text)
    answer = send_datagram(world.udp, "run echo from a tool", answered=True)
    world.daemon.wait_for(r"^udp \d+: ", len(texts) + 1)
    world.fed.update(datagrams=len(texts) + 1, tools=1)
    return f"{world.daemon.count('^udp ')} datagrams, answered: {answer}"


@station("connections", "3 connections echoed")
def connections(world):
    for size in (4, 100_000, 3_000_000):
        echo(world.tcp, size)
        world.fed.update(connections=1, echoed=size)
    world.daemon.wait_for(r"^tcp \d+: closed after 3000000 bytes$")
    return f"{world.daemon.count('^tcp .*: closed')} connections echoed"


@station("signals and timers", "2 SIGHUP, 1 one-shot, ticks")
def signals(world):
    for count in (1, 2):
        world.daemon.signal(signal.SIGHUP)
        world.daemon.wait_for(r"^signal: SIGHUP$", count)
    world.daemon.wait_for(r"^timer: one-shot$")
    world.daemon.wait_for(r"^timer: tick", 3)
    world.fed.update(hangups=2, oneshots=1)
    seen = [world.daemon.count(pattern) for pattern in ("SIGHUP$", "one-shot$")]
    return f"{seen[0]} SIGHUP, {seen[1]} one-shot, ticks"


@station("command runs a tool", "Linux")
def command(world):
    return world.order("run uname -s", "Linux")


def take_snapshot(number):
    write(f"snapshots/snap-{number}.jpg", b"picture")


def snapshots_left():
    numbers = (re.fullmatch(r"snap-(\d+)\.jpg", name) for name in os.listdir(path("snapshots")))
    return " ".join(sorted(match[1] for match in numbers if match))


@station("snapshots rolled", "5 kept, left: 2 3 4")
def snapshots(world):
    for number in range(5):
        take_snapshot(number)
        world.daemon.wait_for(rf"^snapshot: kept .*/snap-{number}\.jpg$")
    world.daemon.wait_for(r"^snapshot: dropped ", 2)
    world.fed.update(snapshots=5, dropped=2)
    return f"{world.daemon.count('^snapshot: kept')} kept, left: {snapshots_left()}"


@station("too many events", "overflow, left: 3 4 5")
def overflow(world):
    """More events than the kernel keeps, while the daemon stands still."""
    with open("/proc/sys/fs/inotify/max_queued_events") as file:
        most = int(file.read())
    world.daemon.signal(signal.SIGSTOP)
    # Two names in turn: the kernel keeps equal events that follow each other once.
    for number in range(most + 2):
        open(path(f"snapshots/other-{number % 2}"), "w").close()
    take_snapshot(5)
    world.daemon.signal(signal.SIGCONT)
    what = world.daemon.wait_for(r"^snapshot: (overflow) ")[1]
    world.daemon.wait_for(r"^snapshot: dropped .*/snap-2\.jpg$")
    world.fed.update(snapshots=1, dropped=1)
    return f"{what}, left: {snapshots_left()}"


@station("snapshot folder lost", "gone, a snapshot in the new one kept")
def folder_lost(world):
    shutil.rmtree(path("snapshots"))
    what = world.daemon.wait_for(r"^snapshot: (gone) ")[1]
    os.mkdir(path("snapshots"))
    take_snapshot(6)
    how = world.daemon.wait_for(r"^snapshot: (\w+) .*/snap-6\.jpg$")[1]
    world.fed.update(snapshots=1, dropped=1)
    return f"{what}, a snapshot in the new one {how}"


@station("system log", "demo: a picture was taken")
def system_log(world):
    log("a picture was taken")
    return world.daemon.wait_for(r"^log: .*(demo: a .*)$")[1]
