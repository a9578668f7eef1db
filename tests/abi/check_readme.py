#!/usr/bin/env python3
"""Compiles the first C program of the README and talks to it over a pseudo-terminal and over TCP."""
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import tty
from pathlib import Path

PATIENCE = 30  # seconds until a program that hangs is given up


def first_program(readme):
    program = re.search(r"^```c\n(.*?)^```", Path(readme).read_text(), flags=re.S | re.M).group(1)
    lines = len(program.splitlines())
    assert lines <= 25, f"the first program has {lines} lines; 25 are promised"
    return program


def build(program, folder, prefix, compiler):
    source, binary = Path(folder, "first.c"), str(Path(folder, "first"))
    source.write_text(program)
    libraries = str(next(Path(prefix).rglob("libkiv-drivers.so")).parent)
    subprocess.run([compiler, "-std=c99", "-Wall", "-Wextra", "-Wpedantic", "-Werror", str(source), "-I",
                    f"{prefix}/include", f"-L{libraries}", "-lkiv-drivers", f"-Wl,-rpath,{libraries}",
                    "-o", binary], check=True)
    return binary


def finish(process, what):
    output, _ = process.communicate(timeout=PATIENCE)
    assert process.returncode == 0, f"{what}: exit status {process.returncode}"
    assert "5 bytes" in output, f"{what}: it printed {output!r}"


def over_tty(binary):
    master, slave = os.openpty()
    tty.setraw(slave)
    with subprocess.Popen([binary, os.ttyname(slave)], stdout=subprocess.PIPE, text=True) as process:
        os.write(master, b"hello")
        answer = os.read(master, 64)
        finish(process, "tty")
    assert answer == b"hello", f"tty: {answer!r} came back"


def connect(port, process):
    end = time.monotonic() + PATIENCE
    while process.poll() is None and time.monotonic() < end:
        try:
            return socket.create_connection(("127.0.0.1", port), timeout=PATIENCE)
        except ConnectionRefusedError:  # it has not come to listening yet
            time.sleep(0.01)
    raise AssertionError("tcp: nobody listens")


def over_tcp(binary):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    with subprocess.Popen([binary, f"tcp:{port}"], stdout=subprocess.PIPE, text=True) as process:
        with connect(port, process) as client:
            client.sendall(b"hello")
            answer = client.recv(64)
            finish(process, "tcp")
    assert answer == b"hello", f"tcp: {answer!r} came back"


def main(readme, prefix, compiler):
    with tempfile.TemporaryDirectory() as folder:
        binary = build(first_program(readme), folder, prefix, compiler)
        over_tty(binary)
        over_tcp(binary)


main(*sys.argv[1:])
