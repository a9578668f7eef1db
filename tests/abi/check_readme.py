#!/usr/bin/env python3
"""Compiles the first C program of the README and talks to it over a pseudo-terminal."""
import os
import re
import subprocess
import sys
import tempfile
import tty
from pathlib import Path


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


def main(readme, prefix, compiler):
    master, slave = os.openpty()
    tty.setraw(slave)
    with tempfile.TemporaryDirectory() as folder:
        binary = build(first_program(readme), folder, prefix, compiler)
        os.write(master, b"hello")
        output = subprocess.run([binary, os.ttyname(slave)], check=True, capture_output=True, text=True,
                                timeout=30).stdout
    assert "5 bytes" in output, f"it printed {output!r}"
    answer = os.read(master, 64)
    assert answer == b"hello", f"{answer!r} came back"


main(*sys.argv[1:])
