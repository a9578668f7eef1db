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
run(["fat", "attr", "/nowhere", str(file)], 1, f"h- {file}\n", "kivctl: fat attr: /nowhere: .*: No such file or directory\n",
    on=BOARD, env=marked)


def diagnose(on=BOARD, **more):
    """What it finds, by what it looks at. Each problem comes with the line that repairs it."""
    process = start("doctor --json", on=on, **more)
    said, complained = process.communicate(timeout=LIMIT)
    findings = [json.loads(line) for line in said.splitlines()]
    bad = [finding for finding in findings if finding["state"] == "problem"]
    check(process.returncode == (1 if bad else 0), "doctor", process.returncode, complained)
    check(complained.decode() == (f"kivctl: doctor: {len(bad)} problem{'s' if len(bad) > 1 else ''}\n" if bad else ""), complained)
    check(all(finding.get("repair") for finding in bad), "a problem without a repair", bad)
    return {finding["what"]: finding for finding in findings}


found = diagnose()
check(all(found[name]["state"] == "ok" for name in ("/dev/ttyKIV0", "/dev/i2c-0", "/dev/gpio", "hci0", "hci1")), found)
found = diagnose(env={"KIV_SIM_FAIL": "ioctl=EOPNOTSUPP@1+"})
check(found["hci0"]["detail"] == "this kernel refuses raw mode", found)
# No right helps where the kernel refuses, and only that is said.
refuses = int(os.uname().release.split(".")[0]) >= 4
found = diagnose(env={"KIV_SIM_FAIL": "ioctl=EPERM@1+"})
check(("refuses" if refuses else "CAP_NET_ADMIN") in found["hci0"]["detail"], found)
# This machine's own kernel, with a controller or without.
found = diagnose(on=REAL)
told = [finding["detail"] for what, finding in found.items() if what == "raw HCI" or what.startswith("hci")]
check(any("refuses raw mode" in detail for detail in told) == refuses, found)
found = diagnose(env={"KIV_SIM_FAIL": "socket=EAFNOSUPPORT@1+"})
check(found["bluetooth"]["state"] == "absent" and "modprobe" in found["bluetooth"]["repair"], found)
said = start("doctor", on=BOARD).communicate(timeout=LIMIT)[0].decode()
check(re.fullmatch(r"((ok|absent|problem) +\S+: .*\n(  .*\n)?)+", said), said)
end()
