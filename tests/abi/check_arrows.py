#!/usr/bin/env python3
"""Reads every #include of the tree and complains of those that go against the direction of the house:
check_arrows.py ROOT. As for the C++ run time, the linkage check watches the result."""
import re
import sys
from pathlib import Path

PUBLIC = "drivers/include/kiv/"
CORE = "core/include/kiv/"
SIM = "sim/include/kiv/"

# A room, and what of ours its files may include. The first room that fits a file counts.
ROOMS = (
    (PUBLIC, (PUBLIC,)),
    ("drivers/src/common/", ("drivers/src/common/", PUBLIC, CORE)),
    ("drivers/src/", ("drivers/src/", PUBLIC, CORE)),
    ("core/", ("core/",)),
    ("sim/", ("sim/",)),
    ("tools/", ("tools/", PUBLIC, CORE)),
    ("examples/", ("examples/", PUBLIC, SIM)),
    ("bench/", ("bench/", PUBLIC, CORE, SIM)),
    ("fuzz/", ("",)),
    ("tests/", ("",)),
)
TRANSPORTS = {"linux_uart_tcp", "linux_uart_unix", "linux_uart_btgpsdemux", "linux_uart_bt"}
INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"|<(?=kiv/))([^>"]+)', re.M)  # of the system's none


def tree(root):
    files = {str(path.relative_to(root)) for path in Path(root).rglob("*.*")
             if path.suffix in (".h", ".c", ".cpp", ".cc")}
    return {file for file in files if not file.startswith((".", "build/"))}


def resolve(files, source, name):
    """The file that an include means."""
    beside = f"{Path(source).parent}/{name}"
    others = (file for file in files if file.endswith("/" + name))
    return beside if beside in files else min(others, key=len, default=f"{name}, which is not here")


def complaint(files, source, name):
    allowed = next((doors for room, doors in ROOMS if source.startswith(room)), None)
    if allowed is None:
        return "lies in no room"
    target = resolve(files, source, name)
    if not target.startswith(allowed):
        return f"includes {target}"
    ends = (Path(source).stem, Path(target).stem)
    if source.startswith("drivers/src/") and ends[0] != ends[1] and set(ends) <= TRANSPORTS:
        return f"is a transport and includes another, {target}"
    return None


def main(root):
    files = tree(root)
    wrong = [f"{source} {text}" for source in sorted(files)
             for name in INCLUDE.findall(Path(root, source).read_text())
             if (text := complaint(files, source, name))]
    print("\n".join(wrong))
    print(f"{len(files)} files, {len(wrong)} wrong arrows")
    return 1 if wrong or not files else 0


sys.exit(main(sys.argv[1]))
