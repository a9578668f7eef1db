"""sim: any program over the simulated board."""
from kivctl import *

if "KIVCTL_NO_PRELOAD" in os.environ:
    print("skipped: nothing can be preloaded into this build's programs")
    sys.exit(0)

K = shlex.join(REAL)
run(f"sim --tty 0=echo -- {K} serial ask /dev/ttyKIV0 hello --timeout 60s", out="hello")
run(f"sim --tty 0=echo --tty 1=silent -- {K} serial ask /dev/ttyKIV1 hello --timeout 50ms", 3)
Service(echo, FOLDER / "far")
run(f"sim --tty 2={FOLDER}/far -- {K} serial ask /dev/ttyKIV2 hello --timeout 60s", out="hello")
run(f"sim --fail ioctl=EIO@2 --fail read=EIO@1 -- {K} i2c get 0x50 0", 1, "", ".*Input/output error\n")
run(f"sim -- {K} i2c transfer w1@0x50 0 r2", out="0xff 0xff\n")
run(f"sim --tun 10.0.0.1 -- {K} tap send t {'00' * 14} --mac 02:00:00:00:00:01")
(FOLDER / "cpuinfo").write_text("Hardware\t: Bench\n")
run(f"sim --cpuinfo {FOLDER}/cpuinfo -- {K} product", out="name      Bench\n.*")


def look_at_programs_of_this_machine():
    run(f"sim --wire 3=4 --pin led=3 -- sh -c 'cat /sys/class/gpio/led/value'", out="0\n")
    # The program's own options, status and signals are its own.
    run("sim sh -c 'exit 7' --help", 7, "", "")
    run("sim -- sh -c 'kill -PIPE $$'", -signal.SIGPIPE, "", "")


if len(REAL) == 1:  # an emulator's board is none of theirs
    look_at_programs_of_this_machine()
fails("sim -- /nowhere/program", 4, "running it: No such file or directory")
end()
