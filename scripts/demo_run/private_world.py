"""Namespaces of its own for the demonstration: processes, mounts, System V memory and network.

The daemons use fixed paths (/bin/kest_ipc_cli, /run/kest, /etc/kest, /dev/log), one ring of log
messages, and a program that reboots. In here all of that is private, and gone with the last process.
"""

import ctypes
import fcntl
import os
import shutil
import signal
import socket
import struct
import sys
import traceback

NEWNS, NEWIPC, NEWUSER, NEWPID, NEWNET = 0x20000, 0x8000000, 0x10000000, 0x20000000, 0x40000000
BIND, REC, PRIVATE = 0x1000, 0x4000, 0x40000
PR_SET_PDEATHSIG = 1
SIOCSIFFLAGS, IFF_UP = 0x8914, 1
PATIENCE_S = 5  # for process 1 to end when it is asked to

libc = ctypes.CDLL(None, use_errno=True)


class Refused(Exception):
    """What the machine does not allow."""


def system_call(what, result):
    if result != 0:
        raise Refused(f"{what}: {os.strerror(ctypes.get_errno())}")


def mount(source, target, kind="", flags=0, options=""):
    arguments = (source, target, kind)
    system_call(f"mount of {target}", libc.mount(
        *(a.encode() for a in arguments), ctypes.c_ulong(flags), options.encode()))


def enter():
    spaces = NEWNS | NEWPID | NEWIPC | NEWNET
    if libc.unshare(spaces) == 0:
        return
    user, group = os.geteuid(), os.getegid()
    system_call("unshare", libc.unshare(NEWUSER))
    for name, text in (("uid_map", f"0 {user} 1"), ("setgroups", "deny"), ("gid_map", f"0 {group} 1")):
        with open(f"/proc/self/{name}", "w") as file:
            file.write(text)
    system_call("unshare", libc.unshare(spaces))


def raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        fcntl.ioctl(sock, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", IFF_UP))


def make_private(folder):
    """A copy on write, which keeps from the machine what is written to it."""
    mode = os.stat(folder).st_mode & 0o7777
    original = os.open(folder, os.O_PATH)
    mount("tmpfs", folder, "tmpfs")
    upper, work = os.path.join(folder, "upper"), os.path.join(folder, "work")
    os.mkdir(upper)
    os.mkdir(work)
    os.chmod(upper, mode)
    # The overlay hides the tmpfs that its upper layer lies in.
    mount("overlay", folder, "overlay", 0,
          f"lowerdir=/proc/self/fd/{original},upperdir={upper},workdir={work}")
    os.close(original)


def make_empty(folder):
    mount("tmpfs", folder, "tmpfs", 0, "mode=0755")


def make_devices():
    original = os.open("/dev", os.O_PATH)
    make_empty("/dev")
    for name in ("null", "zero", "full", "random", "urandom"):
        open(f"/dev/{name}", "w").close()
        mount(f"/proc/self/fd/{original}/{name}", f"/dev/{name}", "", BIND)
    os.close(original)


def furnish():
    mount("", "/", "", REC | PRIVATE)
    mount("proc", "/proc", "proc")
    raise_loopback()
    for folder in {os.path.realpath(path) for path in ("/bin", "/usr/bin", "/etc")}:
        make_private(folder)
    make_devices()
    locks = os.path.realpath("/var/lock")
    make_empty("/run")
    if not locks.startswith("/run/"):
        make_empty(locks)
    os.makedirs(locks, exist_ok=True)


def install(path, program):
    """A program at a fixed path: a file to copy, or the lines of a shell script."""
    if os.path.lexists(path):
        os.unlink(path)
    if isinstance(program, str):
        shutil.copyfile(program, path)
    else:
        with open(path, "w") as file:
            file.write("#!/bin/sh\n" + "\n".join(program) + "\n")
    os.chmod(path, 0o755)


def end_on(number, _frame):
    for each in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(each, signal.SIG_IGN)
    print(f"demo: ended by {signal.Signals(number).name}", file=sys.stderr, flush=True)
    sys.exit(128 + number)


def first_process(inside):
    """Process 1: when it ends, the kernel ends all others in here."""
    status = 1
    try:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, end_on)
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        try:
            furnish()
        except (Refused, OSError) as error:
            refuse(error)
        else:
            status = inside()
    except SystemExit as end:
        status = end.code
    except Exception:
        traceback.print_exc()
    finally:
        sys.stdout.flush()
        os._exit(status)


def refuse(error):
    print(f"demo: this machine refuses private namespaces ({error}); run it as root, or where namespaces "
          "and overlayfs are allowed", file=sys.stderr, flush=True)


def run(inside):
    """Runs a function in a world of its own; the exit status that it returned."""
    try:
        enter()
    except (Refused, OSError) as error:
        refuse(error)
        return 1
    child = os.fork()
    if child == 0:
        first_process(inside)

    def pass_on(number, _frame):
        os.kill(child, signal.SIGKILL if number == signal.SIGALRM else number)
        signal.alarm(PATIENCE_S)

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGALRM):
        signal.signal(number, pass_on)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    return status if status >= 0 else 128 - status
