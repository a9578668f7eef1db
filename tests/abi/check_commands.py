#!/usr/bin/env python3
"""Runs the command lines of the documents: check_commands.py SOURCES BUILD KIVCTL_ON_BOARD

It takes them out of the documents, so that a new one is run, too. A line passes in one of these ways:

  recipe    it stands in a section of README that `check_readme.py recipes` runs on a copy of the machine, or is one
            of those lines
  stage     a stage of scripts/test runs it, or more than it
  page      it stands in a console block of a page that tests/CMakeLists.txt gives to a test of its own
  foreign   it changes the machine and is no command of this project: named below
  run       everything else, in a folder of its own. What is meant for a device runs over the simulated board. What is
            shown below a command is what it has to say
"""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

from check_readme import RECIPES

LIMIT = 60  # seconds, for anything that is waited for
FOREIGN = (r"sudo (usermod|setcap|ldconfig|modprobe)\b.*", r"ss -\w*ltnp")
PROGRAMS = r"(kivctl|scripts/\w+|bench/report|man|sudo|ss|socat|cmake|ctest) \S"

sources, build, board = Path(sys.argv[1]), sys.argv[2], sys.argv[3]
stages_of_ci = (sources / "scripts/test").read_text()
pages = re.findall(r"docs/[\w-]+\.md", (sources / "tests/CMakeLists.txt").read_text())


def free_port():
    with socket.socket() as chosen:
        chosen.bind(("127.0.0.1", 0))
        return str(chosen.getsockname()[1])


# Ways to pass ----------------------------------------------------------------------------------------------------

def split(line):
    """A line's commands, without its comment."""
    return re.sub(r"\s+#\s.*", "", line).strip().split(" && ")


def recipe_lines():
    text = (sources / "README.md").read_text()
    sections = dict(section.split("\n", 1) for section in re.split("^## ", text, flags=re.M))
    blocks = (block for name in RECIPES for block in re.findall("^```sh\n(.*?)^```", sections[name], flags=re.S | re.M))
    return {command for block in blocks for line in block.splitlines() for command in split(line)}


def is_stage(command):
    """Whether CI runs this, or more than this: all stages instead of one, more options."""
    program, *rest = command.split()
    if program == "scripts/test":
        known = re.search(r"^STAGES=\((.*)\)", stages_of_ci, re.M)[1].split() + ["--all"]
        return 'scripts/test" --all' in (sources / ".ci/run").read_text() and set(rest) <= set(known)
    if program == "scripts/demo":
        known = [re.sub(r"\d+-", "", stage.stem) for stage in (sources / "scripts/demo.d").glob("*.sh")]
        return bool(re.search(r"check \w+ scripts/demo$", stages_of_ci, re.M)) and set(rest) <= set(known)
    if program == "bench/report":
        runs = [run.split() for run in re.findall(r"check \w+ bench/report(.*?)(?: #.*)?$", stages_of_ci, re.M)]
        return any(set(rest) <= set(run) if rest else not run for run in runs)
    return bool(re.fullmatch(r"cmake --build \S+ --target html", command)) and "--target kiv-man html" in stages_of_ci


def is_foreign(command):
    return any(re.fullmatch(pattern, command) for pattern in FOREIGN)


# Running ---------------------------------------------------------------------------------------------------------

# What a command needs before it, and what has to work after it.
AROUND = (
    (r"ABSTRACT-CONNECT:echo", "socat ABSTRACT-LISTEN:echo,fork EXEC:cat &", "unix_port unix:@echo hello | grep hello"),
    (r"dev bnep", "ip tuntap add dev bnep mode tap", "ip -br address show dev bnep | grep 10.0.0.1"),
    (r"nft add rule inet filter input", "nft add table inet filter && nft add chain inet filter input",
     "nft list ruleset | grep 'dport 5000'"),
    (r"KIV_SIM_CPUINFO=/tmp/cpuinfo", r"printf 'Hardware\t: Example Board\nRevision\t: 000e\n' >/tmp/cpuinfo", ""),
    (r"> eeprom", "", 'test "$(wc -c <eeprom)" = 256'),
)

# What is done to the network, in a network of its own; and how to find out whether that is possible here.
NETWORK = (("dev bnep", "ip tuntap add dev probe mode tap"), ("nft ", "nft add table inet probe"))

# For a device: what stands in for it.
ON_BOARD = (
    (r"kivctl serial bridge (\S+) tcp:(\d+)(.*)", r"""kivctl sim --tty 0=echo -- kivctl serial bridge \1 tcp:\2\3 &
bridge=$!
exec 3<>/dev/tcp/localhost/\2
echo hello >&3
grep -m 1 hello <&3
kill -TERM $bridge
wait $bridge"""),
    (r"kivctl serial term .*", r"echo hello | kivctl sim --tty 0=echo -- \g<0> | grep hello"),
    (r"kivctl gpio wait .*", "KIVCTL_BOARD=edges=4 $KIVCTL_ON_BOARD gpio wait 4"),
    (r"(scripts/\w+|bench/report) --help", r"$SOURCES/\g<0>"),
    (r"kivctl AREA VERB -h", "kivctl serial term -h"),
    (r"kivctl sim", "kivctl sim -h"),
    (r"kivctl doctor", r"kivctl doctor || test $? = 1"),
    (r"kivctl (serial|i2c|gpio|tap|bnep|product|fat) .*", r"kivctl sim --tty 0=echo -- \g<0>"),
)


def adapt(command):
    command = re.sub(r"/dev/tty(S|AMA|USB)\d", "/dev/ttyKIV0", command)
    for pattern, instead in ON_BOARD:
        if re.fullmatch(pattern, command):
            return re.sub(f"^{pattern}$", instead, command)
    return command


IN_A_NETWORK = ["unshare", "--net", *(["--map-root-user"] if os.getuid() else [])]

# After a server has been started in the background, it is waited for.
SHELL = r"""
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
listens() { until grep -qE "$1" /proc/net/unix /proc/net/tcp; do sleep 0.01; done; }
"""


def wait_for_server(line):
    if not line.rstrip().endswith("&"):
        return line
    waits = [f'listens "00010000 .* {path}$"' for path in re.findall(r"UNIX-LISTEN:([^\s,]+)", line)]
    tail = "@" if "tightsocklen=0" in line else "$"  # a padded name is another one
    waits += [f'listens "00010000 .* @{name}{tail}"' for name in re.findall(r"ABSTRACT-LISTEN:([^\s,]+)", line)]
    waits += [f'listens ":{int(port):04X} 0+:0+ 0A"' for port in re.findall(r"\btcp:(\d+)", line)]
    return "\n".join([line, *waits])


def run(place, text, shown=""):
    """Runs a script; what it says, or None when it fails."""
    before = "\n".join(entry[1] for entry in AROUND if re.search(entry[0], text))
    after = "\n".join(entry[2] for entry in AROUND if re.search(entry[0], text))
    port = free_port()
    script = "\n".join((before, text, after)).replace("/tmp/", f"{place}/")
    script = re.sub(r"(tcp[:/](?:localhost[:/])?)5000\b", rf"\g<1>{port}", script)
    script = re.sub(r"((?:ABSTRACT-\w+:|unix:@)\w+)", rf"\1-{os.getpid()}", script)
    script = SHELL + "\n".join(map(wait_for_server, script.splitlines()))
    Path(place, "build").mkdir()
    Path(place, "build/release").symlink_to(build)
    shell = ["bash", "-euo", "pipefail", "-c", script]
    if any(word in text for word, _ in NETWORK):
        shell = [*IN_A_NETWORK, *shell]
    environment = {**os.environ, "PATH": f"{build}/tools:{build}/examples:{os.environ['PATH']}:/usr/sbin",
                   "MANPATH": f"{build}/docs/man", "MANPAGER": "cat", "HOME": place, "KIVCTL_ON_BOARD": board,
                   "SOURCES": str(sources)}
    process = subprocess.Popen(shell, cwd=place, env=environment, text=True, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        said = process.communicate(timeout=LIMIT)[0]
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        said = process.communicate()[0] + "\n(it does not end)"
    moment = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    wanted = moment.join(map(re.escape, re.split(moment, shown)))
    fine = re.fullmatch(wanted, said.replace(place, "/tmp")) if shown else process.returncode == 0
    if not fine:
        print(f"FAILED with status {process.returncode}:\n{script}\nsaid:\n{said[-2000:]}\ninstead of:\n{shown}")
    return bool(fine)


def lacks(text):
    """Why a script cannot run here, or None. CI has it all: scripts/lib/packages.sh."""
    if "man " in text and not (shutil.which("man") and Path(build, "docs/man/man1").exists()):
        return "no man, or the pages were not made"
    for word, probe in NETWORK:
        tried = [*IN_A_NETWORK, "sh", "-c", f"PATH=$PATH:/usr/sbin; {probe}"]
        if word in text and subprocess.run(tried, stderr=subprocess.DEVNULL, check=False).returncode:
            return f"it is not possible here: {probe}"
    return None


# Documents -------------------------------------------------------------------------------------------------------

def commands(path):
    """The scripts of a document, each with what is shown below it."""
    text = path.read_text()
    for language, block in re.findall(r"^ *```(\w*)\n(.*?)^ *```", text, flags=re.S | re.M):
        if language == "console" and str(path.relative_to(sources)) in pages:
            continue
        if language in ("", "console") and re.match(r"\$ ", block):
            yield from re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, flags=re.M)
        elif language == "sh" or (path.suffix == ".scd" and not language):
            yield block, ""
    if path.name == "README.md" and path.parent == sources:
        prose = re.sub(r"^ *```.*?^ *```", "", text, flags=re.S | re.M)
        for span in re.findall(r"`([^`]+)`", prose):
            if re.match(PROGRAMS, " ".join(span.split())):
                yield " ".join(span.split()), ""


def main():
    recipes = recipe_lines()
    counts = dict.fromkeys(("recipe", "stage", "foreign", "run", "left out", "wrong"), 0)
    documents = [sources / "README.md", sources / "contrib/README.md", *sorted(sources.glob("docs/*.md")),
                 *sorted(sources.glob("docs/man/*.scd"))]
    for path in documents:
        name = str(path.relative_to(sources))
        for text, shown in commands(path):
            kept = []
            for line in text.splitlines():
                ways = [("recipe" if command in recipes else "stage" if is_stage(command) else
                         "foreign" if is_foreign(command) else "run") for command in split(line) if command]
                for way in ways:
                    counts[way] += 1
                if "run" in ways:
                    kept.append(" && ".join(map(adapt, split(line))))
            reason = kept and lacks("\n".join(kept))
            if reason:
                counts["left out"] += len(kept)
                print("left out:", reason, kept)
            elif kept:
                with tempfile.TemporaryDirectory() as place:
                    fine = run(place, "\n".join(kept), shown)
                counts["wrong"] += 0 if fine else 1
                print(f"{'ok' if fine else 'WRONG'}: {name}: {' ; '.join(kept)}")
    print(", ".join(f"{number} {way}" for way, number in counts.items()))
    sys.exit(1 if counts["wrong"] else 0)


main()
