"""product, fat, doctor."""
import json

from kivctl import *

cpuinfo = FOLDER / "cpuinfo"
cpuinfo.write_text("Processor\t: x\nHardware\t: Exam\"ple Board\nRevision\t: 000e\n")
board = {"KIV_SIM_CPUINFO": str(cpuinfo)}
run("product", on=BOARD, env=board, out="name      Exam\"ple\nrevision  0xe\n")
run("product --json", on=BOARD, env=board, out=r'\{"name":"Exam\\"ple","revision":14\}\n')
cpuinfo.write_text("processor\t: 0\n")
fails("product", 4, "does not tell", on=BOARD, env=board)

file = FOLDER / "a file"
file.touch()
marked = {"KIV_SIM_FAT": f"0x02:{file}"}
run(["fat", "attr", str(file), "/dev/null"], on=BOARD, env=marked, out=f"h- {file}\n-- /dev/null\n")
run(["fat", "attr", str(file), "--json"], on=BOARD, env=marked, out=r'\{"file":"%s","hidden":true,"system":false\}' % file + "\n")
# One that fails does not keep the others from being looked at.
run(["fat", "attr", "/nowhere", str(file)], 4, f"h- {file}\n", "kivctl: fat attr: /nowhere: .*: No such file or directory\n",
    on=BOARD, env=marked)


def diagnose():
    """What it finds, by what it looks at; each problem but an error text comes with the line that repairs it."""
    process = start("doctor --json", on=BOARD)
    said, complained = process.communicate(timeout=LIMIT)
    findings = [json.loads(line) for line in said.splitlines()]
    bad = [finding for finding in findings if finding["state"] == "problem"]
    check(process.returncode == (1 if bad else 0), "doctor", process.returncode, complained)
    check(complained.decode() == (f"kivctl: doctor: {len(bad)} problem{'s' if len(bad) > 1 else ''}\n" if bad else ""), complained)
    check(all(finding.get("repair") for finding in bad), "a problem without a repair", bad)
    return {finding["what"]: finding for finding in findings}


found = diagnose()
check(found["/dev/ttyKIV0"]["state"] == found["/dev/i2c-0"]["state"] == found["/dev/gpio"]["state"] == "ok", found)
run("doctor", (1 if any(finding["state"] == "problem" for finding in found.values()) else 0), r"((ok|absent|problem) +\S+: .*\n)+",
    ".*", on=BOARD)
end()
