"""serial term: at a real terminal, with a real line behind it; and in a pipe."""
from kivctl import *

PROMPT = rb"C-t q leaves"


class Terminal:
    """The program with a terminal of its own, whose other end the test types at."""

    def __init__(self, arguments, **more):
        self.user, self.own = pty.openpty()
        self.before = termios.tcgetattr(self.own)
        self.process = start(f"serial term {arguments}", stdin=self.own, stdout=self.own, stderr=self.own, **more)
        read_until(self.user, PROMPT)
        while termios.tcgetattr(self.own)[3] & termios.ICANON and self.process.poll() is None:
            select.select([], [], [], 0.01)

    def type(self, text):
        os.write(self.user, text)

    def sees(self, wanted):
        return read_until(self.user, wanted)

    def ends(self, what, status=0):
        finish(self.process, what, status, error="")
        check(termios.tcgetattr(self.own) == self.before, what, "the terminal is not restored")


def look_at_talk():
    line = Line()
    log = FOLDER / "log"
    terminal = Terminal(f"{line.name} -b 9600 -l {log}")
    terminal.type(b"typed\x03\r")  # C-c goes to the device, too
    check(read_until(line.far, b"\r") == b"typed\x03\r", "what was typed")
    os.write(line.far, b"answer\r\n")
    terminal.sees(rb"answer\r\r?\n")
    terminal.type(b"\x14?")
    terminal.sees(rb"keys after C-t: q leaves")
    terminal.type(b"\x14x")
    terminal.type(b"\x14\x14\x14s")  # one C-t goes out; the counts tell that all of it was seen
    terminal.sees(rb"8 bytes received, 8 sent")
    check(log.read_bytes() == b"answer\r\n", "log", log.read_bytes())
    check(read_until(line.far, b"\x14") == b"\x14", "C-t C-t")
    os.write(line.far, b"hex")
    terminal.sees(rb"68 65 78 +\|hex\|")
    terminal.type(b"\x14x\x14t\x14s")
    terminal.sees(rb"11 bytes received, 8 sent")
    os.write(line.far, b"timed")
    terminal.sees(rb"20\S+Z timed")
    terminal.type(b"\x14q")
    terminal.ends("C-t q")
    check(log.read_bytes().startswith(b"answer\r\n"), "log", log.read_bytes())


def look_at_endings():
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        terminal = Terminal(Line().name)
        terminal.process.send_signal(number)
        terminal.ends(number)
    line = Line()
    terminal = Terminal(line.name)
    line.hang_up()
    terminal.sees(rb"kivctl: serial term: /dev/pts/[0-9]+: receiving: ")
    terminal.ends("a line that goes away", 1)
    if not BOARD:
        return
    # A line that takes nothing does not keep the user.
    terminal = Terminal("/dev/ttyKIV0 -f hard", on=BOARD, env={"KIVCTL_BOARD": "hold"})
    terminal.type(b"x" * 1000 + b"\x14s")
    terminal.sees(rb"1000 sent")
    for _ in range(100):
        terminal.type(b"x" * 4000)  # more than waits anywhere
    terminal.sees(rb"the line takes nothing: [0-9]+ bytes dropped")
    terminal.type(b"\x14q")
    terminal.ends("a line that takes nothing")


def look_at_pipes():
    """What comes from a pipe goes out whole; the end comes when the line falls silent."""
    data = random.randbytes(300000)
    service = Service(echo)
    said = run(f"serial term tcpout:127.0.0.1:{service.port} --silence 500ms", data=data)
    check(said.encode("latin-1") == data, len(said), "of", len(data), "bytes came back")
    run("serial term /dev/ttyKIV0 --silence 500ms", on=BOARD, data=b"hello", out="hello", env={"KIV_SIM_TTY0": "echo"})
    run("serial term /dev/ttyKIV0 --silence 500ms -x", on=BOARD, data=b"hi", out=".* 68 69 .*",
        env={"KIV_SIM_TTY0": "echo"})
    fails("serial term /dev/nowhere", 4, "opening: No such file or directory")


if TTYS:
    look_at_talk()
    look_at_endings()
look_at_pipes()
end()
