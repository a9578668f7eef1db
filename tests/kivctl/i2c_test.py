"""i2c, on the simulated board: an EEPROM at 0x50, a clock at 0x68."""
import json

from kivctl import *

ROWS = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f"
ERASED = " ".join(["0xff"] * 4) + "\n"
FAIL = "KIV_SIM_FAIL"

# Arguments, status, what it says, more.
CASES = (
    ("transfer w1@0x50 0 r4", 0, ERASED, {}),
    ("transfer w1@0x50 0 r4 r1 -b /dev/i2c-0", 0, ERASED + "0xff\n", {}),
    ("transfer w4@0x68 8 0x41 2+ w1 8 r3", 0, "0x41 0x02 0x03\n", {}),
    ("transfer w5@0x68 8 7= w1 8 r4", 0, " ".join(["0x07"] * 3) + " .*\n", {}),
    ("transfer w3@0x68 8 1- w1 8 r2 --json", 0, r'\{"address":104,"hex":"0100","text":"\\u0001\\u0000"\}\n', {}),
    ("transfer w7@0x68 8 0x42p w1 8 r6", 0, "0x42 0xcc 0xc9 0xbf 0x63 0x0b\n", {}),  # as i2ctransfer has it
    ("transfer r?@0x68", 4, "this bus lets no chip tell a length, as r? wants", {}),
    ("transfer w1@0x68 8 r?", 0, "0x03 0x61 0x62 0x63\n", {"env": {"KIVCTL_BOARD": "blocks"}}),
    ("transfer r?@0x68 r2 --json", 0, r'\{"address":104,"hex":"03616263","text":".*\n.*\n', {"env": {"KIVCTL_BOARD": "blocks"}}),
    ("transfer w0@0x68", 0, "", {}),
    ("transfer r1@0x51", 1, "no answer from 0x51", {}),
    ("transfer r1@0x50", 1, "transfer: Connection timed out", {"env": {FAIL: "ioctl=ETIMEDOUT@3"}}),
    ("transfer w1@0x50 0 r1 -b 1", 4, "/dev/i2c-1: opening: No such file or directory", {}),
    ("get 0x68 7", 0, "0x[0-9a-f]{2}\n", {}),
    ("get 0x50 255 --json", 0, r'\{"address":80,"register":255,"value":255\}\n', {}),
    ("get 0x51 0", 1, "no answer from 0x51", {}),
    ("set 0x50 3 0x12", 0, "", {}),
    ("set 0x51 3 0x12", 1, "no answer from 0x51", {}),
    ("read 0x50 4 4", 0, ERASED, {}),
    ("read 0x50 4 2 --raw", 0, "\xff\xff", {}),
    ("get 0x68 0", 1, "a kernel driver holds 0x68; -f uses it all the same", {"env": {"KIVCTL_BOARD": "claim=0x68"}}),
    ("get 0x68 0 -f", 0, "0x..\n", {"env": {"KIVCTL_BOARD": "claim=0x68"}}),
    ("dump 0x50", 0, ROWS + "    0123456789abcdef\n" + "[0-9a-f]0:( ff){16}    \\.{16}\n" * 16, {}),
    ("dump 0x51", 1, "no answer from 0x51", {}),
    ("detect", 0, ROWS + "\n00:                         -- .*\n50: 50 --.*\n60: .* 68 .*\n70:( --){8}\n", {}),
    ("detect --json", 0, r'\{"address":80,"state":"present"\}\n\{"address":104,"state":"held"\}\n',
     {"env": {"KIVCTL_BOARD": "claim=0x68"}}),
    ("detect", 1, "transfer: Connection timed out", {"env": {FAIL: "ioctl=ETIMEDOUT@4"}}),
    ("detect -b 7", 4, "/dev/i2c-7: opening: No such file or directory", {}),
)


def look_at_writing():
    """What is in the EEPROM afterwards. It takes pages of 8 bytes, and is busy after each."""
    text = bytes(range(65, 65 + 26))
    image = FOLDER / "image"
    for arguments, data, offset, wanted in (("4 --page 8", text, 4, text), ("254 1 0x02", None, 254, b"\x01\x02"),
                                            ("5 9 --page 1", None, 5, b"\x09"), ("0 --page 8", b"", 0, b"")):
        run(f"i2c write 0x50 {arguments}", out="", data=data, on=BOARD, env={"KIVCTL_BOARD": f"eeprom={image}"})
        check(image.read_bytes() == b"\xff" * offset + wanted + b"\xff" * (256 - offset - len(wanted)), arguments)
    fails("i2c write 0x50 254", 2, "more than the chip has", data=b"abc", on=BOARD)
    # A register address of two bytes: the clock takes the second one for a value.
    run("i2c set 0x68 0x0833 0x44 --wide", on=BOARD, out="")
    run("i2c read 0x68 0x0833 2 --wide --json", on=BOARD, out=r'\{"address":104,"hex":"....","text":.*\}\n')


for arguments, status, said, more in CASES:
    if status:
        process = start("i2c " + arguments, on=BOARD, **more)
        finish(process, arguments, status, None, f"kivctl: i2c \\w+: [^\n]*{re.escape(said)}\n")
    else:
        run("i2c " + arguments, 0, said, on=BOARD, **more)
look_at_writing()
end()
