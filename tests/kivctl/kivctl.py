"""Runs kivctl and compares what it says. KIVCTL and KIVCTL_ON_BOARD in the environment are its commands."""
import hashlib
import os
import pty
import random
import re
import select
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import threading
import tty
from pathlib import Path

REAL = shlex.split(os.environ["KIVCTL"])
BOARD = shlex.split(os.environ["KIVCTL_ON_BOARD"])  # empty where there is no board: run leaves such commands out
TTYS = "KIVCTL_NO_TTYS" not in os.environ  # a user-mode emulator has no real ones
LIMIT = 60  # seconds, for anything that is waited for
TEMPORARY = tempfile.TemporaryDirectory()
FOLDER = Path(TEMPORARY.name)
failures = []


def check(fine, *what):
    if not fine:
        failures.append(what)
        print("FAILED:", *what)


def words(arguments):
    return shlex.split(arguments) if isinstance(arguments, str) else arguments


def environment(more):
    return {**{name: value for name, value in os.environ.items() if not name.startswith("KIV_SIM")}, **(more or {})}


def start(arguments, on=REAL, env=None, **more):
    """Starts it with pipes at both ends."""
    pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **more}
    return subprocess.Popen(on + words(arguments), env=environment(env), **pipes)


def finish(process, what, status=0, out=None, error=None, data=None):
    """Waits for its end. out and error are regular expressions for the whole of what was said; without error
    there is one line exactly when it failed."""
    try:
        said, complained = process.communicate(data, timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        said, complained = process.communicate()
        check(False, what, "does not end")
    said, complained = (said or b"").decode("latin-1"), (complained or b"").decode()
    check(process.returncode == status, what, f"ended with {process.returncode}, not {status}:", complained)
    if out is not None:
        check(re.fullmatch(out, said, re.S), what, f"said {said!r}, not {out!r}")
    lines = "kivctl: [^\n]*\n" if status else ""
    check(re.fullmatch(lines if error is None else error, complained, re.S), what, f"complained {complained!r}")
    return said


def run(arguments, status=0, out=None, error=None, data=None, **more):
    if not more.get("on", REAL):
        return ""
    if data is not None:
        more["stdin"] = subprocess.PIPE
    return finish(start(arguments, **more), arguments, status, out, error, data)


def fails(arguments, status, text, **more):
    """It ends with this status, prints nothing, and its one line holds the text."""
    run(arguments, status, "", f"kivctl: [^\n]*{re.escape(text)}[^\n]*\n", **more)


def read_until(descriptor, wanted, gathered=b""):
    """Reads a descriptor until what came matches."""
    while not re.search(wanted, gathered, re.S):
        ready, _, _ = select.select([descriptor], [], [], LIMIT)
        try:
            more = os.read(descriptor, 65536) if ready else b""
        except OSError:
            more = b""
        if not more:
            check(False, f"waited for {wanted!r}, got {gathered!r}")
            break
        gathered += more
    return gathered


class Line:
    """A pseudo-terminal in place of a serial line: the far end, and the name of the near one."""

    def __init__(self):
        self.far, near = pty.openpty()
        self.name = os.ttyname(near)
        tty.setraw(near)
        self.near = near  # kept open, so that the far end is not at its end when the program leaves

    def hang_up(self):
        os.close(self.near)
        os.close(self.far)


class Service:
    """A service on a Unix socket or a TCP port, that does something with each connection."""

    def __init__(self, serve, path=None):
        self.socket = socket.socket(socket.AF_UNIX if path else socket.AF_INET)
        self.socket.bind(str(path) if path else ("127.0.0.1", 0))
        self.socket.listen()
        self.port = None if path else self.socket.getsockname()[1]
        self.result = None
        threading.Thread(target=self.loop, args=(serve,), daemon=True).start()

    def loop(self, serve):
        while True:
            connection, _ = self.socket.accept()
            with connection:
                self.result = serve(connection)


def echo(connection):
    while data := connection.recv(65536):
        connection.sendall(data)


def free_port():
    """Out of the way of the ports that the system gives out by itself."""
    return random.randrange(12000, 32000)


def connect(port, process):
    """Connects to a port that the program is about to open."""
    while process.poll() is None:
        try:
            return socket.create_connection(("127.0.0.1", port), LIMIT)
        except ConnectionRefusedError:
            select.select([], [], [], 0.01)
    return None


def end():
    print(len(failures), "failures")
    sys.exit(1 if failures else 0)
