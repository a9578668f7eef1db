#!/usr/bin/env python3
"""Reads every #include of the tree and complains of those that go against the direction of the house:
check_arrows.py ROOT. As for the C++ run time, the linkage check watches the result."""
import re
import shutil
import subprocess
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
    ("tools/", ("tools/", PUBLIC)),
    ("examples/", ("examples/", PUBLIC, SIM)),
    ("bench/", ("bench/", PUBLIC, CORE, SIM)),
    ("fuzz/", ("",)),
    ("tests/", ("",)),
)
TRANSPORTS = ("linux_uart_tcp", "linux_uart_unix", "linux_uart_btgpsdemux", "linux_uart_bt")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)
SOURCES = (".h", ".c", ".cpp", ".cc")


def tree(root):
    """Every source file: those that git knows or would add, or all where there is no git."""
    listed = []
    if shutil.which("git"):
        listed = subprocess.run(["git", "-C", root, "ls-files", "-co", "--exclude-standard"],
                                capture_output=True, text=True, check=False).stdout.splitlines()
    files = listed or [str(path.relative_to(root)) for path in Path(root).rglob("*")]
    return {file for file in files
            if file.endswith(SOURCES) and not file.startswith("build/") and Path(root, file).is_file()}


def resolve(files, source, mark, name):
    """The file of ours that an include means, or None for one of the system's."""
    if mark == '"' and f"{Path(source).parent}/{name}" in files:
        return f"{Path(source).parent}/{name}"
    if mark == "<" and not name.startswith("kiv/"):
        return None
    return min((file for file in files if file.endswith("/" + name)), key=len, default=None)


def complaint(files, source, mark, name):
    allowed = next((doors for room, doors in ROOMS if source.startswith(room)), None)
    if allowed is None:
        return "lies in no room"
    target = resolve(files, source, mark, name)
    if target is None:
        return f'includes "{name}", which is not here' if mark == '"' or name.startswith("kiv/") else None
    if not target.startswith(allowed):
        return f"includes {target}"
    ends = (Path(source).stem, Path(target).stem)
    if source.startswith("drivers/src/") and ends[0] != ends[1] and set(ends) <= set(TRANSPORTS):
        return f"is a transport and includes another, {target}"
    return None


def main(root):
    files = tree(root)
    wrong = [f"{source} {text}" for source in sorted(files)
             for mark, name in INCLUDE.findall(Path(root, source).read_text())
             if (text := complaint(files, source, mark, name))]
    print("\n".join(wrong))
    print(f"{len(files)} files, {len(wrong)} wrong arrows")
    return 1 if wrong or not files else 0


sys.exit(main(sys.argv[1]))
