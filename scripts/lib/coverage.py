#!/usr/bin/env python3
"""coverage.py [--check PAGE] FOLDER COUNTS BINARY...: what a run has reached of the sources in FOLDER.

Prints lines and branches of each file, after the export of llvm-cov. With --check it compares what was not reached
with the table of PAGE, each row of which names one thing and its reason, and fails when something has no row, when a
row names something that was reached (unless the row says "rarely"), or when less is reached than the page promises.
"""

import argparse
import collections
import json
import os
import re
import subprocess
import sys

LEAST = {"lines": 97.0, "branches": 90.0}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Source:
    """One file: how often its lines and the two ways of its conditions were reached, in any instance of a template."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            self.text = file.read().split("\n")
        self.spans = {}  # (first line, last line) of a function: its name
        self.lines = {}
        self.ways = collections.Counter()  # (condition's place, whether it holds)

    def add_lines(self, segments):
        """A segment is line, column, count, whether it has a count, whether a region begins, whether that is a gap."""
        count, counted = 0, False
        by_line = collections.defaultdict(list)
        for segment in segments:
            by_line[segment[0]].append(segment)
        for number in range(segments[0][0], segments[-1][0] + 1):
            here = by_line.get(number, [])
            begun = [each[2] for each in here if each[3] and each[4] and not each[5]]
            inherited = [count] if counted and not (here and here[0][1] == 1 and not here[0][3]) else []
            if inherited or begun:
                self.lines[number] = max(self.lines.get(number, 0), *begun, *inherited)
            if here:
                count, counted = here[-1][2], here[-1][3] and not here[-1][5]

    def add_function(self, name, function, own):
        region = function["regions"][0]
        self.spans[region[0], region[2]] = name
        for branch in function["branches"]:
            if branch[6] == own:
                self.ways[tuple(branch[:4]), True] += branch[4]
                self.ways[tuple(branch[:4]), False] += branch[5]

    def function_at(self, line):
        """A lambda belongs to the function around it."""
        around = [span for span in self.spans if span[0] <= line <= span[1]]
        return self.spans[min(around, key=lambda span: span[0] - span[1])] if around else "?"

    def condition(self, place):
        line, column, last, end = place
        parts = [row.strip() for row in self.text[line - 1 : last]]
        if line == last:
            return self.text[line - 1][column - 1 : end - 1]
        parts[0] = self.text[line - 1][column - 1 :].strip()
        parts[-1] = self.text[last - 1][: end - 1].strip()
        return " ".join(parts)

    def missed(self):
        """(function, what) of every way that was never taken, and the functions of lines that were not reached."""
        ways = {(self.function_at(place[0]), f"`{self.condition(place)}` {str(way).lower()}")
                for (place, way), count in self.ways.items() if count == 0}
        lines = {self.function_at(line) for line, count in self.lines.items() if count == 0}
        return ways, lines


def base_name(name):
    """write_all of `bool (anonymous namespace)::write_all(int, void const*)`."""
    name = name.replace("(anonymous namespace)::", "").replace("{lambda", "lambda")
    return re.split(r"::|\s", re.split(r"[(<]", name)[0])[-1].lstrip("*&")


def read_sources(binaries, counts, folder):
    others = [word for binary in binaries[1:] for word in ("-object", binary)]
    data = json.loads(run("llvm-cov-14", "export", binaries[0], *others, f"--instr-profile={counts}"))["data"][0]
    names = [each["name"].rsplit(":", 1)[-1] for each in data["functions"]]
    plain = run("llvm-cxxfilt-14", *names).splitlines()
    sources = {}
    for file in data["files"]:
        path = os.path.realpath(file["filename"])
        if path.startswith(folder) and file["segments"]:
            sources[path] = Source(path)
            sources[path].add_lines(file["segments"])
    for function, name in zip(data["functions"], plain):
        path = os.path.realpath(function["filenames"][0])
        if path in sources:
            sources[path].add_function(base_name(name), function, 0)
    return sources


def read_page(path):
    """{(file, function, what): rarely} of the rows `| file | function | `condition` never true | reason |`; what is
    "lines" where the third cell is "never reached", for lines that no condition of the function keeps from being reached.
    """
    rows = {}
    with open(path, encoding="utf-8") as page:
        for line in page:
            cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip())[1:-1]]
            found = re.fullmatch(r"(?:(`.*`) )?(never|rarely) (true|false|reached)", cells[2]) if len(cells) == 4 else None
            if found is not None:
                what = "lines" if found[3] == "reached" else f"{found[1]} {found[3]}".replace("\\|", "|")
                rows[cells[0].strip("`"), cells[1].strip("`"), what] = found[2] == "rarely"
    return rows


def compare(rows, sources, folder):
    missed = set()
    for path, source in sources.items():
        file = os.path.relpath(path, folder)
        ways, lines = source.missed()
        missed |= {(file, *each) for each in ways}
        explained = {row[1] for row in rows if row[0] == file and row[2] != "lines"}
        missed |= {(file, function, "lines") for function in lines - explained}
    return ["not reached, and has no row: " + " | ".join(each) for each in sorted(missed - rows.keys())] + [
        "reached, so its row has to go: " + " | ".join(each)
        for each in sorted(rows.keys() - missed) if not rows[each]]


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", metavar="PAGE")
    parser.add_argument("folder")
    parser.add_argument("counts")
    parser.add_argument("binaries", nargs="+")
    arguments = parser.parse_args()
    folder = os.path.realpath(arguments.folder)
    sources = read_sources(arguments.binaries, arguments.counts, folder)
    if not sources:
        sys.exit(f"these were not built to be counted, or hold nothing of {folder}")

    total = collections.Counter()
    print(f"{'':34}{'lines':>15}{'%':>8}{'branches':>15}{'%':>8}")
    rows = [(os.path.relpath(path, folder), source) for path, source in sorted(sources.items())]
    for name, source in [*rows, ("all", None)]:
        counts = total
        if source is not None:
            counts = collections.Counter(
                lines=len(source.lines), reached_lines=sum(count > 0 for count in source.lines.values()),
                branches=len(source.ways), reached_branches=sum(count > 0 for count in source.ways.values()))
            total += counts
        print(f"{name:34}" + "".join(
            f"{counts['reached_' + kind]:>7} of {counts[kind]:>4}{percent(counts['reached_' + kind], counts[kind]):8.2f}"
            for kind in LEAST))

    faults = []
    if arguments.check is not None:
        faults = compare(read_page(arguments.check), sources, folder)
        faults += [f"{kind}: less than {least} %" for kind, least in LEAST.items()
                   if percent(total["reached_" + kind], total[kind]) < least]
    for fault in faults:
        print(f"{arguments.check}: {fault}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
