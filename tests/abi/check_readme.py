#!/usr/bin/env python3
"""Does what the README says.

check_readme.py program README PREFIX COMPILER   compiles its first C program, and talks to it over a pseudo-terminal
check_readme.py recipes README                   runs its recipes in the sources' folder, as root. Only for a machine
                                                 that may be changed (scripts/lib/on-copy)
"""
import os
import re
import subprocess
import sys
import tempfile
import tty
from pathlib import Path

RECIPES = ("A first program", "From a shell", "Installing it elsewhere, and packages", "Building it for the device")


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


def check_program(readme, prefix, compiler):
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


def recipes(readme):
    """The commands, one a line, so that the shell stops at the first that fails. A person takes longer to type
    the next one than a server to listen."""
    sections = dict(section.split("\n", 1) for section in re.split("^## ", Path(readme).read_text(), flags=re.M))
    blocks = "".join("".join(re.findall("^```sh\n(.*?)^```", sections[name], flags=re.S | re.M)) for name in RECIPES)
    commands = blocks.replace(" && ", "\n")
    for command, then in ((r"(\./first tcp:(\d+) &).*", r"until ss -Hltn | grep -q ':\2 '; do :; done"),
                          (r"(xargs rm .*)", r'test -z "$(find ~/kiv -type f)"')):
        commands, found = re.subn(f"^{command}", rf"\1\n{then}", commands, flags=re.M)
        assert found == 1, f"{found} lines of the recipes are {command}"
    return commands


def check_recipes(readme):
    Path("first.c").write_text(first_program(readme))
    output = subprocess.run(["bash", "-euxc", 'sudo() { "$@"; }\n' + recipes(readme)], text=True, check=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout
    print(output)
    for answer in ("\nhello\n", " 68 -- ", "as ordered: status 1"):  # over TCP, of the simulated board
        assert answer in output, f"{answer!r} is not in what the recipes printed"
    assert Path("/path/of/the/image/usr/lib/libkiv-drivers.so.1").exists(), "the image has no library"


if __name__ == "__main__":
    {"program": check_program, "recipes": check_recipes}[sys.argv[1]](*sys.argv[2:])
