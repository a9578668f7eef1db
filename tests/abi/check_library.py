#!/usr/bin/env python3
"""Checks what is built against what the project promises of it: the library's names, linkage and size, and the
hardening of each library and program."""
import argparse
import os
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path


def run(*command, stdin=None):
    return subprocess.run(command, input=stdin, check=True, capture_output=True, text=True).stdout


def readelf(args, *options):
    return run(args.readelf, "-W", *options, args.elf)


def expect_equal(what, left, right, left_name, right_name):
    """Two sets of names; returns complaints."""
    complaints = [f"{what}: {name} is in {left_name}, not in {right_name}" for name in sorted(left - right)]
    complaints += [f"{what}: {name} is in {right_name}, not in {left_name}" for name in sorted(right - left)]
    return complaints


def dynamic_symbols(args):
    """(name, section index, binding) of every dynamic symbol."""
    for line in readelf(args, "--dyn-syms").splitlines():
        field = line.split()
        if len(field) >= 8 and field[0].rstrip(":").isdigit():
            yield field[7].split("@")[0], field[6], field[4]


def map_names(args):
    text = re.sub(r"/\*.*?\*/|#[^\n]*", "", Path(args.map).read_text(), flags=re.S)
    exported = re.search(r"global:(.*?)local:", text, flags=re.S).group(1)
    return set(re.findall(r"(\w+)\s*;", exported))


def declared_names(args):
    """What the public headers declare as exported, as the C compiler sees it."""
    headers = sorted((Path(args.include) / "kiv").glob("*.h"))
    source = "".join(f'#include "kiv/{header.name}"\n' for header in headers)
    text = run(*shlex.split(args.cc), "-std=c99", "-E", "-P", "-I", args.include, "-x", "c", "-", stdin=source)
    declarations = re.findall(r'visibility\("default"\)\)\)([^;(]*)[;(]', text)
    return {re.findall(r"\w+", declaration)[-1] for declaration in declarations}


def check_exports(args):
    in_map = map_names(args)
    exported = {name for name, section, binding in dynamic_symbols(args)
                if section not in ("UND", "ABS") and binding != "LOCAL"}
    return expect_equal("exports", exported, in_map, "the library", "the map") + expect_equal(
        "exports", declared_names(args), in_map, "the public headers", "the map")


def needed_complaints(args):
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", readelf(args, "-d"))
    return [] if sorted(needed) in (["libc.so.6", "libkiv-core.so.1"], ["libc.so", "libkiv-core.so.1"]) else [f"NEEDED is {needed}"]


def check_hardening(args):
    """A library binds its names when it is loaded; a program when it needs them, but for that it is guarded."""
    dynamic = readelf(args, "-d")
    segments = readelf(args, "-l")
    stack = re.search(r"GNU_STACK.*", segments)
    program = "INTERP" in segments
    guards = {name for name, section, _ in dynamic_symbols(args) if section == "UND" and name.endswith(("_chk", "_chk_fail"))}
    allowed = r"(?!\$ORIGIN(/[\w./-]+)?\])" if args.run_path else ""
    return [text for wrong, text in (
        ("TEXTREL" in dynamic, "there are text relocations"),
        ("GNU_RELRO" not in segments, "nothing is read-only after relocation"),
        (stack is None or "E" in stack.group().split()[6], "the stack is executable"),
        (re.search(r"LOAD.* RWE ", segments), "a segment is writable and executable"),
        (re.search(r"\(R(UN)?PATH\).*\[" + allowed, dynamic), "it carries a run path"),
        (os.stat(args.elf).st_mode & 0o6022, "it runs as somebody else, or others may write it"),
        (not program and "BIND_NOW" not in dynamic, "symbols are bound lazily"),
        (program and not re.search(r"FLAGS_1.*\bPIE\b", dynamic), "it is no position-independent program"),
        (program and args.guarded and "__stack_chk_fail" not in guards, "the stack is not protected"),
        (program and args.guarded and len(guards) < 2, "_FORTIFY_SOURCE is off"),
    ) if wrong]


def start_up_complaints(args):
    """One registration at load time, nothing at unload, nothing of the C++ run time."""
    sections = readelf(args, "-S")
    word = 8 if "ELF64" in readelf(args, "-h") else 4
    at_load = re.search(r"\.init_array\s+\S+\s+\S+\s+\S+\s+([0-9a-f]+)", sections)
    entries = int(at_load.group(1), 16) // word if at_load else 0
    complaints = [] if entries == 1 else [f".init_array has {entries} entries, not the registration alone"]
    complaints += [f"there is a section {name}" for name in (".fini_array", ".fini", ".dtors") if f"{name} " in sections]
    run_time = re.compile(r"_Z|__cxa_|__gxx_|_Unwind_|__gcc_|__emutls|(__aeabi_)?atexit$")
    complaints += [f"the library needs {name}" for name, section, _ in dynamic_symbols(args)
                   if section == "UND" and run_time.match(name)]
    return complaints


def relocation_complaints(args):
    relative = len(re.findall(r"_RELATIVE\b", readelf(args, "-r")))
    print(f"{relative} relative relocations")
    return [] if relative <= 12 else [f"{relative} relative relocations; 12 are allowed"]


def check_linkage(args):
    soname = re.search(r"\[libkiv-drivers\.so\.1\]", readelf(args, "-d"))
    return (needed_complaints(args) + ([] if soname else ["the soname is not libkiv-drivers.so.1"])
            + start_up_complaints(args) + relocation_complaints(args))


def check_size(args):
    with tempfile.TemporaryDirectory() as folder:
        stripped = os.path.join(folder, "stripped.so")
        run(args.strip, "--strip-unneeded", "-o", stripped, args.elf)
        size = os.path.getsize(stripped)
    for line in readelf(args, "-S").splitlines():
        field = re.search(r"\] (\.\S+)\s+\S+\s+\S+\s+\S+\s+([0-9a-f]+)\s+\S+\s+[A-Z]*A", line)
        if field:
            print(f"{field.group(1):20} {int(field.group(2), 16):7}")
    print(f"{'stripped file':20} {size:7} of {args.limit}")
    return [] if size <= args.limit else [f"the stripped file has {size} bytes; {args.limit} are allowed"]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("check", choices=("exports", "linkage", "size", "hardening"))
    parser.add_argument("elf", metavar="file")
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--strip", default="strip")
    parser.add_argument("--cc", default="cc", help="the C compiler and its options")
    parser.add_argument("--map")
    parser.add_argument("--include")
    parser.add_argument("--limit", type=int, help="bytes that the stripped file may have")
    parser.add_argument("--run-path", action="store_true", help="a run path may lead from the file's place")
    parser.add_argument("--guarded", action="store_true", help="a program has a stack protector and _FORTIFY_SOURCE")
    args = parser.parse_args()
    complaints = {"exports": check_exports, "linkage": check_linkage, "size": check_size,
                  "hardening": check_hardening}[args.check](args)
    print("\n".join(complaints) or "as promised")
    return 1 if complaints else 0


sys.exit(main())
