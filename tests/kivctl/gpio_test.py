"""gpio, on the simulated board: pins 3 and 4 are connected, somebody presses 5 whenever it is waited for."""
from kivctl import *

WIRED = {"KIV_SIM_WIRES": "3=4"}
PRESSED = {"KIVCTL_BOARD": "edges=5"}
STAMP = r"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z"

for arguments, status, said, env in (
        ("get 3 4 5", 0, "3=0\n4=0\n5=0\n", WIRED),
        ("get 63 --json", 0, r'\{"pin":63,"level":0\}\n', {}),
        ("get 3 64", 1, "reading pin 64: Invalid argument", {}),
        ("config 3 high", 0, "", {}),
        ("config 3 in", 0, "", {}),
        ("config 64 low", 1, "configuring pin 64: Invalid argument", {}),
        ("set 3=1", 1, "driving pin 3: it is no output", {}),
        ("set 64=1", 1, "driving pin 64: Invalid argument", {}),
        ("get 3", 4, "opening: No such device", {"KIV_SIM_FAIL": "open=ENODEV@1"}),
        ("get 3", 1, "opening: Permission denied", {"KIV_SIM_FAIL": "open=EACCES@1"}),
        ("get 3", 1, "reading pin 3: Input/output error", {"KIV_SIM_FAIL": "ioctl=EIO@1"}),
        ("wait 5 -n 3 --timeout 10s", 0, "".join(f"5 interrupt {n} {STAMP}\n" for n in (1, 2, 3)), PRESSED),
        ("wait 5 --mode 2 --json", 0, r'\{"pin":5,"interrupt":1,"time":"%s"\}\n' % STAMP, PRESSED),
        ("wait 5 --timeout 50ms", 3, "waiting: nothing within the time-out", {}),
        ("wait 5 --mode 9", 1, "interrupt of pin 5: Invalid argument", {}),
        ("wait 5", 1, "waiting for pin 5: Input/output error", {"KIV_SIM_FAIL": "ioctl=EIO@2"}),
        ("wait 5", 4, "opening: No such file or directory", {"KIV_SIM_FAIL": "open=ENOENT@1"})):
    error = f"kivctl: gpio \\w+: /dev/gpio: [^\n]*{re.escape(said)}[^\n]*\n" if status else ""
    run("gpio " + arguments, status, None if status else said, error, on=BOARD, env=env)

process = start("gpio wait 5 -n 1000000", on=BOARD, env=PRESSED)
read_until(process.stdout.fileno(), b"5 interrupt 3 ")
process.send_signal(signal.SIGINT)
finish(process, "SIGINT", 1, None, "kivctl: gpio wait: /dev/gpio: interrupted\n")
end()
