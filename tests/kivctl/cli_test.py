"""The command line: help at every level, wrong usage, closed output, completion."""
from kivctl import *

# What is wrong with a command line is said before any device is touched.
WRONG = (
    ("", "an area is missing"),
    ("serail", "no area 'serail'"),
    ("serial", "a verb is missing"),
    ("serial trem", "no verb 'trem'"),
    ("serial term", "it takes DEVICE"),
    ("serial list x", "it takes no arguments"),
    ("serial info x y", "and no more"),
    ("serial send x --colour", "no option --colour"),
    ("serial send x -Z", "no option -Z"),
    ("serial send x --baud", "--baud takes a value"),
    ("serial send x -b 300", "'300' is no rate"),
    ("serial send x -b 9600x", "'9600x' is no rate"),
    ("serial send x -p mark", "'mark'"),
    ("serial send x a\\\\q", "backslash"),
    ("serial send ''", "a device has a name"),
    ("serial send tcp:99999 x", "up to 65535"),
    ("serial send tcpout:127.0.0.1 x", "tcpout:ADDRESS:PORT"),
    ("serial send unix: x", "socket is missing"),
    ("serial send btsyspath:x y", "hci0"),
    ("serial ask x y --timeout 2h", "'2h'"),
    ("serial ask x y --timeout .", "'.'"),
    ("serial recv x -n -1", "'-1'"),
    ("gpio get 3 x", "'x' is no pin"),
    ("gpio get 0x80000000", "no pin"),
    ("gpio set 3=1 4", "'4' is not PIN=0"),
    ("gpio set 3=2", "'3=2' is not PIN=0"),
    ("gpio config 3 up", "'up' is not in, low or high"),
    ("i2c get 0x80 0", "'0x80' is no address"),
    ("i2c get 0x50 256", "--wide"),
    ("i2c get 0x50 0x10000 --wide", "'0x10000' is no register"),
    ("i2c get 0x50 0 -b x", "'x' is neither"),
    ("i2c set 0x50 0 256", "'256' is no byte"),
    ("i2c read 0x50 250 7", "'7' is no length from 1 to 6"),
    ("i2c write 0x50 255 1 2", "more than the chip has"),
    ("i2c write 0x50 0 1 --page 0", "'0'"),
    ("i2c write 0x50 0 1 --page 8191", "a page has"),
    ("gpio wait 4 -n 0", "from 1 on"),
    ("i2c transfer r1", "needs an address"),
    ("i2c transfer r8193@0x50", "up to 8192"),
    ("i2c transfer r0@0x50", "reads nothing"),
    ("i2c transfer w2@0x50 1", "has only 1"),
    ("i2c transfer w1@0x50 1 r1@0x51", "one chip"),
    ("i2c transfer w1@0x50 1q", "'1q' is no byte"),
    ("i2c transfer " + "r1@0x50 " * 21, "at most 20 messages"),
    ("tap open tap0", "needs --mac"),
    ("tap open tap0 --mac 02:00:00:00:00:0", "is no address"),
    ("tap open tap0 --mac 03:00:00:00:00:01", "address of a group"),
    ("tap open a-name-that-is-long --mac 02:00:00:00:00:01", "1 to 15 characters"),
    ("tap send tap0 --mac 02:00:00:00:00:01", "it takes frames"),
    ("tap send tap0 00:11 --mac 02:00:00:00:00:01", "at least 14 bytes"),
    ("tap send tap0 0 --mac 02:00:00:00:00:01", "hexadecimal"),
    ("bnep run --link tcp:1", "needs --bdaddr"),
    ("bnep run --bdaddr 00:11:22:33:44:55", "needs --link"),
    ("sim", "it takes -- COMMAND"),
)
WRONG_FOR_BOARD = (
    ("sim --fail read=EIO@0 true", "read=EIO@0"),
    ("sim --fail =EIO true", "read=EIO@2"),
    ("sim --tty 4=echo true", "'4=echo'"),
    ("sim --tty 0=ecko true", "'0=ecko'"),
)


def look_at_help():
    """Each area and verb that is named has a page with an example, and no page says more than fits a terminal."""
    areas = re.findall(r"^  ([a-z0-9]+) ", run("--help"), re.M)
    check(len(areas) == 10, areas)
    for area in areas:
        verbs = [""] if area in ("product", "doctor", "sim") else re.findall(r"^  ([a-z]+) ", run(f"{area} -h"), re.M)
        check(verbs, area)
        for verb in verbs:
            text = run(f"{area} {verb} --help", out=".*usage: kivctl.*--json.*example: .*\n")
            check(max(map(len, text.split("\n"))) <= 110, text)
            example = re.search("example: kivctl (.*?)( [<>].*)?\n", text)
            if example and area != "sim":  # it has no wrong option
                run(example[1] + " -h", out=re.escape(text))


def look_at_output():
    """What cannot be written is a failure, and a device does not get the number of a closed output."""
    for how in ("-", "/dev/full"):
        error = "kivctl: standard output: [^\n]*\n"
        run(["-c", f"exec {shlex.join(REAL)} --help >{'&-' if how == '-' else how}"], 1, "", error, on=["sh"])
    if not TTYS:
        return
    line = Line()
    run(["-c", f"exec {shlex.join(REAL)} serial info {line.name} >&-"], 1, "", "kivctl: serial info: standard output: [^\n]*\n", on=["sh"])
    check(not select.select([line.far], [], [], 0)[0], "the device got what was to be printed")


def look_at_completion():
    """bash itself is asked, with the words typed so far."""
    script = FOLDER / "completion"
    script.write_text(run("completion bash"))
    for typed, wanted in (("ser", "serial"), ("serial te", "term"), ("i2c dump --wi", ""), ("i2c get --wi", "--wide"),
                          ("doctor --js", "--json"), ("sim --fa", "--fail"), ("completion b", "bash")):
        ask = (f"source {script}; COMP_WORDS=(kivctl {typed}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); "
               "_kivctl; echo \"${COMPREPLY[*]}\"")
        run(["-c", ask], 0, re.escape(wanted) + "\n", on=["bash", "--norc"])


for arguments, text in WRONG + (WRONG_FOR_BOARD if BOARD else ()):
    fails(arguments, 2, text)
run("--version", out=r"kivctl [0-9]+\.[0-9]+\.[0-9]+\n")
look_at_help()
look_at_output()
look_at_completion()
end()
