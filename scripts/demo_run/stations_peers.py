"""The stations that need the daemon's other peers, and its ends: a clean stop and a crash."""

import os
import re
import signal
import struct
import subprocess
import sys
import wave

import programs
from programs import expect, show
from station import station
from world import TOKEN, path, read, write


@station("good token", "token valid")
def good_token(world):
    return world.order(f"token {TOKEN}", "token .*")


@station("bad token", "token not valid")
def bad_token(world):
    return world.order(f"token not-{TOKEN}", "token .*")


@station("nobody knows tokens", "token unknown, status -9000")
def no_avclient(world):
    """The daemon waits 5 seconds for an answer, and does everything else meanwhile."""
    world.avclient.end()
    before = world.controller.count(": telemetry ")
    answer = world.order(f"token {TOKEN}", "token .*")
    came = world.controller.count(": telemetry ") - before
    show("telemetry", f"{came} messages meanwhile")
    expect(came >= 20, f"only {came} messages of telemetry meanwhile")
    return answer


@station("avclient is back", "token valid")
def avclient_back(world):
    world.start_avclient()
    return world.order(f"token {TOKEN}", "token .*")


@station("configuration saved", "SaveToFlash sync=true")
def persist(world):
    world.order("persist", "persist done")
    return read("asked").splitlines()[-1]


@station("reboot requested", "Reboot delayMs=500, no reboot here")
def reboot(world):
    world.order("reboot", "reboot on its way")
    here = "rebooted here" if read("rebooted") else "no reboot here"
    return f"{read('asked').splitlines()[-1]}, {here}"


@station("sound recorded", "16000 Hz, 1 channel, 1.0 s, peak 16383")
def sound(world):
    world.order("record", "recorded 16000 samples")
    with wave.open(path("sound.wav")) as file:
        rate, channels, count = file.getframerate(), file.getnchannels(), file.getnframes()
        frames = file.readframes(count)
    peak = max(int.from_bytes(frames[i:i + 2], "little", signed=True) for i in range(0, len(frames), 2))
    return f"{rate} Hz, {channels} channel, {count / rate} s, peak {peak}"


def image(magic, end):
    return magic + b"camera.7.v1.2.3".ljust(128, b"\0") + b"code " * 100 + end


@station("good firmware", "firmware good, version camera.v1.2.3")
def good_firmware(world):
    write("firmware.img", image(b"KEST", b"END"))
    return world.order("firmware", "firmware .*")


@station("bad firmware", "damaged, not the maker's, no version")
def bad_firmware(world):
    seen = []
    for content in (image(b"KEST", b"cut"), image(b"OPEN", b"END"), b"KEST"):
        write("firmware.img", content)
        seen.append(world.order("firmware", "firmware refused: .*").split(": ")[1])
    return ", ".join(seen)


@station("controller comes back", "2 connections, back again")
def comes_back(world):
    world.controller.signal(signal.SIGKILL)
    world.controller.wait()
    world.daemon.wait_for(r"^controller: closed")
    world.daemon.wait_for(r"^controller: next try in 200 ms")
    world.start_controller()
    world.controller.wait_for(r"^camera 1: telemetry ", 3)
    answer = world.order("run echo back again", "back.*")
    return f"{world.daemon.count('^controller: connected')} connections, {answer}"


@station("clean stop", "closes with 1000, status 0")
def clean_stop(world):
    world.daemon.end()
    how = world.controller.wait_for(r"^camera 1: (closes .*)$")[1]
    return f"{how}, status {world.daemon.process.returncode}"


@station("nothing lost", "all counts as fed, no telemetry missing")
def summary(world):
    counts = world.daemon.summary()
    world.fed.update(controllers=2, ticks=world.daemon.count("^timer: tick"),
                     logged=world.daemon.count("^log: "))
    wrong = [f"{name} {counts.get(name)} of {fed}"
             for name, fed in world.fed.items() if counts.get(name) != fed]
    ticks = [int(tick) for tick in re.findall(r"^telemetry ticks=(\d+)", read("telemetry"), re.M)]
    gaps = sum(b != a + 1 for a, b in zip(ticks, ticks[1:]))
    # What was under way when the controller was killed may be lost, nothing else.
    lost = counts["telemetry"] - len(ticks)
    missing = "no" if gaps <= 1 and 0 <= lost <= 2 else f"{lost} in {gaps} places of"
    return f"{', '.join(wrong) or 'all'} counts as fed, {missing} telemetry missing"


@station("second start", "start number 2")
def second_start(world):
    # As many samples as end in the middle of a block, and half a sample.
    write("samples", struct.pack("<4000h", *range(-2000, 2000)) + b"x")
    world.start_daemon(f"--sound-input={path('samples')}")
    world.daemon.wait_for(r"^controller: connected")
    return world.daemon.wait_for(r"^state: (start number .*)$")[1]


@station("sound from an input", "recorded 4000 samples, at half volume")
def sound_input(world):
    answer = world.order("record", "record.*")
    with wave.open(path("sound.wav")) as file:
        got = struct.unpack("<4000h", file.readframes(file.getnframes()))
    expect(got == tuple(int(sample / 2) for sample in range(-2000, 2000)), "other samples")
    return answer + ", at half volume"


def short(frame):
    """A frame of the report, place first, without folders and binary; other lines as they are."""
    match = re.match(r"(#\d+) +\w+ +(.*) at (?:.*/)?(\S+)( \(.*\))?$", frame)
    return f"{match[1]:<4}{match[3]:<28}{match[2]}" if match else frame


@station("ordered crash", "SIGSEGV, crashOnPurpose, collected")
def crash(world):
    world.controller.say("crash")
    status = world.daemon.wait()
    expect(status < 0, f"ended with status {status}, not by a signal")
    report = subprocess.run([sys.executable, "-B", world.symbolize, path("crash/stack")],
                            capture_output=True, text=True, timeout=programs.patience_s, check=True)
    for line in report.stdout.splitlines():
        show("report |", short(line))
    where = re.search(r"(crashOnPurpose).* at .*camera_daemon\.cpp:\d+", report.stdout)
    expect(where, "the report does not name the function")
    arguments = [str(world.daemon.process.pid), path("crash")]
    how = "collected" if read("collected").split() == arguments else "not collected"
    return f"{signal.Signals(-status).name}, {where[1]}, {how}"


@station("nothing left", "0 processes, 0 endpoints")
def nothing_left(world):
    for peer in (world.controller, world.avclient, world.ctlserver):
        peer.end()
    world.syslogd.signal(signal.SIGTERM)
    world.syslogd.wait()
    processes = [entry for entry in os.listdir("/proc") if entry.isdigit() and entry != "1"]
    return f"{len(processes)} processes, {len(os.listdir('/run/kest'))} endpoints"
