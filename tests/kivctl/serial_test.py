"""serial send, recv, ask, list, info: ttys are pseudo-terminals, streams have real services behind them."""
import json

from kivctl import *


def look_at_sending():
    line = Line()
    for arguments, data, wanted in ((f"send {line.name} 'a\\r\\n\\x00\\\\'", None, b"a\r\n\0\\"),
                                    (f"send {line.name}", b"from a pipe", b"from a pipe"),
                                    (f"send {line.name} - -b 9600 -s 2", b"-", b"-"),
                                    (f"send {line.name} -b 9600 -p odd x", None, b"x")):
        run("serial " + arguments, out="", data=data)
        check(read_until(line.far, re.escape(wanted)) == wanted, arguments)
    # The line has been odd, and does not stay so.
    check(termios.tcgetattr(line.near)[2] & termios.PARODD, "odd parity")
    run(f"serial send {line.name} -p even x")
    check(termios.tcgetattr(line.near)[2] & (termios.PARODD | termios.CSTOPB) == 0, "even parity, one stop bit")


def look_at_receiving():
    line = Line()
    for arguments, sent, status, wanted in (("-n 5", b"hello", 0, "hello"),
                                            ("-n 5 --timeout 300ms", b"hell", 3, "hell"),
                                            ("--timeout 300ms", b"hello\n", 0, "hello\n"),
                                            ("--timeout 50ms", b"", 3, ""),
                                            ("-n 3 -x", b"a\0c", 0, r"00000000  61 00 63 {40} \|a\.c\|\n"),
                                            ("-n 4 -t", b"a\nb\n", 0, r"20\S+Z a\n20\S+Z b\n"),
                                            ("-n 2 --json", b"\"\xff", 0, r'\{"time":"20\S+Z","hex":"22ff","text":"\\"\\u00ff"\}\n')):
        os.write(line.far, sent)  # before its time runs
        finish(start(f"serial recv {line.name} {arguments}"), arguments, status, wanted)
    log = FOLDER / "log"
    os.write(line.far, b"kept")
    run(f"serial recv {line.name} -n 4 -l {log}", out="kept")
    check(log.read_bytes() == b"kept", "log")
    fails(f"serial recv {line.name} -l /nowhere/log", 1, "/nowhere/log")
    for number, arguments, status in ((signal.SIGTERM, "recv", 0), (signal.SIGINT, "recv -n 9", 1)):
        process = start(f"serial {arguments} {line.name}")
        os.write(line.far, b"x")
        read_until(process.stdout.fileno(), b"x")
        process.send_signal(number)
        finish(process, arguments, status, "")
    process = start(f"serial recv {line.name}", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    os.write(line.far, b"x")
    read_until(process.stdout.fileno(), b"x")
    process.send_signal(signal.SIGHUP)  # as under nohup
    os.write(line.far, b"y")
    read_until(process.stdout.fileno(), b"y")
    line.hang_up()
    finish(process, "recv of a line that goes away", 1, "", "kivctl: serial recv: /dev/pts/[0-9]+: receiving: .*\n")


def look_at_streams():
    """The same over TCP and Unix sockets: an echo answers."""
    tcp = Service(echo)
    Service(echo, FOLDER / "service")
    names = (f"tcpout:127.0.0.1:{tcp.port}", f"unix:{FOLDER}/service", f"gpsdemux:{FOLDER}/service")
    for name in names:
        run(f"serial ask {name} hello --timeout 60s", out="hello")
    said = run(f"serial ask {names[0]} 'h\\xe9' --json --timeout 60s")
    check(json.loads(said) == {"hex": "68e9", "text": "h\u00e9"}, said)
    # What the peer has not read yet is not lost when the program is done and leaves an answer unread.
    slow = Service(lambda peer: (peer.sendall(b"x" * 100000), sum(len(data) for data in iter(lambda: peer.recv(65536), b"")))[1])
    run(f"serial send tcpout:127.0.0.1:{slow.port}", data=b"y" * 1000000)
    check(slow.result == 1000000, "a slow reader got", slow.result)
    # A server waits for somebody to send to.
    port = free_port()
    process = start(f"serial send tcp:{port} hello")
    with connect(port, process) as client:
        check(read_until(client.fileno(), b"hello") == b"hello", "tcp:")
    finish(process, "send to a client")
    silent = Service(lambda peer: peer.recv(65536) and peer.recv(1))
    fails(f"serial ask tcpout:127.0.0.1:{silent.port} x --timeout 100ms", 3, "an answer: nothing within the time-out")
    fails(f"serial send tcpout:127.0.0.1:{free_port()} x", 1, "opening: Connection refused")
    fails(f"serial send unix:{FOLDER}/nobody x", 1, "opening: Connection refused")
    fails(f"serial send tcp:{free_port()} x --timeout 50ms", 3, "sending: nothing within the time-out")


def look_at_info():
    run("serial list")
    run("serial list", on=BOARD, out=r"(/dev/\w+ \w+\n|hci\d bluetooth\n)*/dev/ttyKIV0 simulated\n.*")
    run("serial info /dev/ttyKIV1 -b 250000", on=BOARD, out=".*asked     250000 bit/s\nrate      250000 bit/s\n.*high      RTS CTS.*")
    run("serial info /dev/ttyKIV1 -b 5000000", on=BOARD, out=".*asked     5000000 bit/s\nrate      [0-9]+ bit/s\n.*",
        error="kivctl: serial info: /dev/ttyKIV1: warning: asked for 5000000 bit/s, it runs at [0-9]+\n")
    run("serial info /dev/ttyKIV1 -p even -s 2 -f hard --rts off", on=BOARD,
        out=".*frame     8 data bits, parity even, 2 stop bits\nflow      hard\nhigh      CTS.*")


def look_at_info_of_ttys():
    for name in "/dev/null", "tcp:5000", "hci0":
        fails(f"serial info {name}", 4, "it is no tty")
    line = Line()
    state = json.loads(run(f"serial info {line.name} --json"))
    check(state["parity"] == "none" and state["data_bits"] == 8 and "asked" not in state, state)
    attributes = termios.tcgetattr(line.near)
    termios.tcsetattr(line.near, termios.TCSANOW, attributes[:4] + [termios.B4800, termios.B4800, attributes[6]])
    run(f"serial info {line.name}", out="device    .*\nrate      4800 bit/s\nframe     8 data bits, parity none, 1 stop bits\n"
        "flow      none\nqueues    0 bytes in, 0 bytes out\n")


def look_at_failures():
    fails("serial send /dev/nowhere x", 4, "serial send: /dev/nowhere: opening: No such file or directory")
    fails("serial send hci7 x", 4, "opening: No such device", on=BOARD)
    fails("serial ask /dev/ttyKIV2 x --timeout 50ms", 3, "an answer", on=BOARD)
    fails("serial send /dev/ttyKIV0 x", 1, "sending: Input/output error", on=BOARD, env={"KIV_SIM_FAIL": "write=EIO@1"})
    run("serial send /dev/nowhere x -v", 4, "", r".*kiv_linux_sopen.*\nkivctl: serial send: .*\n")
    if TTYS and os.geteuid() == 0:
        line = Line()
        os.chmod(line.name, 0o600)
        fails(f"serial send {line.name} x", 1, "opening: Permission denied", preexec_fn=lambda: os.setuid(65534))


if TTYS:
    look_at_sending()
    look_at_receiving()
    look_at_info_of_ttys()
look_at_streams()
look_at_info()
look_at_failures()
end()
