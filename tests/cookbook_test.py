#!/usr/bin/env python3
"""Runs the commands of a page in a folder of their own, and compares what comes with what the page says.

cookbook_test.py PAGE HEADING   the lines before the first heading, and those below this one
cookbook_test.py PAGE           all of them; what the page quotes without a command has to stand in the sources
"""
import itertools
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

LIMIT = 60 # seconds, for anything that is waited for
TOOLS = r"\b(socat|mbpoll|sz|rz|gpsd|gpspipe)\b"


def commands(text):
    """The pairs of a command and what is said after it."""
    for block in re.findall("^```console\n(.*?)^```", text, flags=re.S | re.M):
        for part in re.split(r"^\$ ", block, flags=re.M)[1:]:
            more = re.match(r"[^\n]*\n(> [^\n]*\n)*", part).group()
            yield more.replace("\n> ", "\n"), part[len(more):]


def pattern(said):
    """A line that is only ... stands for any number of lines, and LINE for a number."""
    lines = (".*" if line == "...\n" else ".*?".join(map(re.escape, line.split("...")))
             for line in said.splitlines(True))
    return re.compile("".join(lines).replace(":LINE", r":\d+"), re.S)


def check_quotations(page):
    """Lines of the log, texts in tables up to what varies, and the texts of numbers."""
    root, text = Path(page).resolve().parent.parent, Path(page).read_text().split("\n## ", 1)[1]
    sources = "".join(file.read_text() for file in (root / "drivers/src").rglob("*.cpp")).replace("\\", "")
    blocks = "".join(block for kind, block in re.findall(r"^```(\w*)\n(.*?)^```\n", text, re.S | re.M) if not kind)
    quoted = re.findall(r"(?:assertion failed: (.*) \()?drivers/.*:LINE in (\w+)(?:, (.*) : [A-Z][a-z ]+$|\))",
                        blocks, re.M)
    quoted.append(re.findall(r"^\| `(?:pos_\w+: )?([^`\d]+)", text, re.M))
    for part in itertools.chain(*quoted):
        if part not in sources:
            sys.exit(f"no source says {part}")
    for number, meaning in re.findall(r"^\| (\d+) \| `(.*?)` ", text, re.M):
        if os.strerror(int(number)) != meaning:
            sys.exit(f"{number} is {os.strerror(int(number))}")


def own_names(text):
    """TCP ports and abstract names that nobody else on this machine has."""
    first = 12000 + os.getpid() % 1800 * 11
    text = re.sub(r"\b(?:500(\d)|2947)\b", lambda port: str(first + int(port.group(1) or 10)), text)
    return re.sub(r"((?:ABSTRACT-\w+:|(?<!\w)@)\w+)", rf"\1-{os.getpid()}", text)


def is_there(command):
    """Whether what a command in the background offers can be reached."""
    if not command.endswith("&\n"):
        return True
    tcp = Path("/proc/net/tcp").read_text()
    unix = {line.split()[-1] for line in Path("/proc/net/unix").read_text().splitlines() if " 00010000 " in line}
    width = 108 if "tightsocklen=0" in command else 0 # a padded name is another one
    return (all(os.path.exists(link) for link in re.findall(r"link=(\w+)", command)) and
            all(re.search(rf":{int(port):04X} 0+:0+ 0A ", tcp)
                for port in re.findall(r"(?:\btcp:|TCP-LISTEN:|-S )(\d+)", command)) and
            all(f"@{name}".ljust(width, "@") in unix for name in re.findall(r"ABSTRACT-LISTEN:([\w-]+)", command)))


class Shell:
    """bash, which gets a command when the one before has done its work."""

    def __init__(self):
        source, self.typed = os.pipe()
        self.bash = subprocess.Popen(["bash", f"/dev/fd/{source}"], pass_fds=[source], stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
                                     env={**os.environ, "LC_ALL": "C"})
        self.pieces, self.said = queue.Queue(), ""
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        while piece := os.read(self.bash.stdout.fileno(), 65536):
            self.pieces.put(piece.decode("latin-1").replace("\r", ""))

    def run(self, command, expected):
        os.write(self.typed, f"{command}printf '\\001%d\\002' $?\n".encode())
        end, status = time.monotonic() + LIMIT, None
        while True:
            if ended := re.search("\001(\\d+)\002", self.said):
                status = int(ended.group(1))
                self.said = self.said.replace(ended.group(), "")
            if (status == 0 or status and expected) and pattern(expected).fullmatch(self.said) and is_there(command):
                break
            if status and not expected or time.monotonic() > end:
                sys.exit(f"$ {command}said:\n{self.said}and not:\n{expected}with status {status}")
            try:
                self.said += self.pieces.get(timeout=0.02)
            except queue.Empty:
                pass
        self.said = ""

    def end(self):
        os.killpg(self.bash.pid, signal.SIGKILL)


def main(page, heading=None):
    if heading is None:
        check_quotations(page)
    beginning, *recipes = re.split("^## ", Path(page).read_text(), flags=re.M)
    recipe = "".join(recipe for recipe in recipes if heading is None or recipe.startswith(heading))
    assert recipe, f"{page} has no heading {heading}"
    if "KIV_NO_PRELOAD" in os.environ and "kivctl sim" in recipe:
        print("skipped: nothing can be preloaded into a sanitized program")
        return
    for tool in re.findall(TOOLS, beginning + recipe):
        if not shutil.which(tool):
            print(f"skipped: {tool} is not installed")
            return
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        shell = Shell()
        try:
            for command, expected in commands(own_names(beginning + recipe)):
                print("$", command, end="")
                shell.run(command, expected)
        finally:
            shell.end()


main(*sys.argv[1:])
