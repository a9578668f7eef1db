#!/usr/bin/env python3
"""Runs an example in every way in which it can end: examples_test.py FOLDER SPOILED_HCI_RESET NAME [EMULATOR...]

A silent other side is given one second; whatever else is waited for is an event."""
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

LIMIT = 60  # seconds, for anything that is waited for
folder, spoiled, name, *emulator = sys.argv[1:]
place = tempfile.TemporaryDirectory()
path = f"{place.name}/socket"


def listen(*actions):
    """Listens at the path, and does the actions with the one who comes: bytes are sent, a number of bytes is waited
    for, and "stay" keeps the connection. No action at all: it is accepted and closed. Nobody else can come."""
    service = socket.socket(socket.AF_UNIX)
    service.bind(path)
    service.listen()

    def serve():
        with service:
            client = service.accept()[0]
        with client:
            talk(client, actions)
    threading.Thread(target=serve, daemon=True).start()


def talk(client, actions):
    for action in actions:
        if action == "stay":
            while client.recv(4096):
                pass
        elif isinstance(action, int):
            assert client.recv(action, socket.MSG_WAITALL)
        else:
            client.sendall(action)


def connect(port, *actions):
    """Connects to the program's TCP port, as soon as it is there."""
    def client():
        while True:
            try:
                with socket.create_connection(("127.0.0.1", port), LIMIT) as connection:
                    return talk(connection, actions)
            except ConnectionRefusedError:
                threading.Event().wait(0.01)
    threading.Thread(target=client, daemon=True).start()


def free_port():
    with socket.socket() as chosen:
        chosen.bind(("127.0.0.1", 0))
        return chosen.getsockname()[1]


PORT = free_port()
LINE = b"$GPGLL,4717.11,N,00833.91,E*00\r\n"
SENTENCE = LINE.decode().strip() + "\n"
ADDRESS = "02:00:00:00:00:01"
BOARD, PLAIN = "_on_board", ""  # which of the two programs
WITHOUT = {"KIV_SIM_FAIL": "open=ENOENT@1+"}

# Arguments; status; what it prints, as a regular expression; the end of its last complaint; environment; the other
# side, which is begun before; the line at which the time is over, for a program that has set an alarm.
ROWS = {
    "hci_reset": (spoiled, [
        ("hci0 1", 1, "", "hci0: the controller has not answered in time", {}),
        ("", 1, "address .*\n", "hci0: the controller has refused a command", {"KIV_REFUSE": "0x1001"}),
        ("hci3", 1, "", "hci3: No such device", {}),
        ("", 1, "", "hci0: Input/output error", {"KIV_SIM_FAIL": "write=EIO@1+,writev=EIO@1+,send=EIO@1+"})]),
    "gpio_button": (BOARD, [
        ("4 1", 1, "", "pin 4: nobody has pressed it in time", {}),
        ("4 1 3", 1, "", "pin 4: nobody has pressed it in time", {}),  # an output without its wire
        ("4 30 3", 0, "pressed\npin 4 reads 1\n", "waiting for pin 4, 30 s at most", {"KIV_SIM_WIRES": "3=4"}),
        ("99", 1, "", "pin 99: Invalid argument", {}),
        ("4", 1, "", "pin 4: No such file or directory", WITHOUT)]),
    "gpio_blink": (BOARD, [
        ("99 1", 1, "", "pin 99: configuring: Invalid argument", {}),
        ("3 1", 1, "", "pin 3: reading: the log tells why", {"KIV_SIM_FAIL": "ioctl=EIO@3"}),
        ("3", 1, "", "pin 3: /dev/gpio: No such file or directory", WITHOUT)]),
    "i2c_clock": (BOARD, [
        ("", 1, "", "slave 0x68: No such file or directory", WITHOUT),
        ("5", 1, "clock .*\n", "slave 0x50: Input/output error", {"KIV_SIM_FAIL": "write=ENXIO@1"}),
        ("99", 2, "", "usage: i2c_clock [page 0 to 31]", {})]),
    "board_info": (BOARD, [
        ("/nowhere", 1, "product unknown: No such file or directory\n", "/nowhere: No such file or directory", {})]),
    "tap_arp": (BOARD, [
        ("bench0 192.0.2.9 1", 1, "", "192.0.2.9: nobody answers", {"KIV_SIM_TUN": "192.0.2.1"}),
        ("bench0 192.0.2.9 1", 1, "", "no TUN device, no right to it, or a name in use",
         {"KIV_SIM_TUN": "192.0.2.1", **WITHOUT}),
        ("bench0 here", 2, "", "usage: tap_arp INTERFACE ADDRESS [SECONDS]", {})]),
    "usb_link": (BOARD, [
        ("/dev/ttyKIV0 hello 60", 0, "hello\n", "", {"KIV_SIM_TTY0": "echo"}),
        ("/dev/ttyKIV0 hello 1", 1, "", "/dev/ttyKIV0: no line has come back in time", {}),
        ("/dev/ttyKIV0 hello 60", 1, "", "/dev/ttyKIV0: the link has ended",
         {"KIV_SIM_TTY0": "echo", "KIV_SIM_FAIL": "read=EIO@1+"}),
        ("/dev/nowhere hello", 1, "", "/dev/nowhere: No such file or directory", {})]),
    "unix_port": (PLAIN, [
        (f"unix:{path} hello 60", 0, "hello yourself\n", "", {}, lambda: listen(6, b"hello ", b"yourself\n", "stay")),
        (f"unix:{path} hello 1", 1, "(hal)?", f"unix:{path}: .*not answered with a line in time, or has left", {},
         lambda: listen(6, b"hal", "stay")),
        (f"unix:{path} hello 60", 1, "", f"unix:{path}: .*, or has left", {}, lambda: listen(6)),
        (f"unix:{path} hello", 1, "", f"unix:{path}: no service listens there", {}),
        ("/dev/nowhere hello", 1, "", "/dev/nowhere: No such file or directory", {})]),
    "gps_demux": (PLAIN, [
        (f"{path} 1", 0, f"connected\n{re.escape(SENTENCE)}", "", {}, lambda: listen(b"cut\r\n", LINE, "stay")),
        (f"{path} 1 1", 1, "", "no service has come in time", {}),
        (f"{path} 1", 1, "connected\n", "no sentence has come in time", {}, lambda: listen("stay"), "connected\n"),
        (f"{path} 2", 1, f"connected\n{re.escape(SENTENCE)}disconnected\n", "the service has not come back in time",
         {}, lambda: listen(LINE), "disconnected\n"),
        ("", 2, "", "usage: gps_demux PATH [COUNT [SECONDS]]", {})]),
    "port_echo": (PLAIN, [
        (f"tcp:{PORT} 5 {path}", 0, r"received 5 [\d.]+ \d+\nsent 5 [\d.]+ \d+\n", "", {},
         lambda: connect(PORT, b"hello", 5)),
        (f"tcp:{PORT} 5 {path} 1", 1, "", "port_echo: not all the bytes have come and gone in time", {}),
        (f"tcp:{PORT} 5 {path} 1", 1, "", "port_echo: not all the bytes have come and gone in time", {},
         lambda: connect(PORT, b"hell", "stay")),
        (f"tcp:{PORT} 5 /nowhere/file", 1, "received.*", "/nowhere/file: No such file or directory", {},
         lambda: connect(PORT, b"hello", "stay")),
        (f"/dev/nowhere 5 {path}", 1, "", "/dev/nowhere: No such file or directory", {}),
        ("tcp:1", 2, "", "usage: port_echo DEVICE BYTES FILE [SECONDS]", {})]),
    "bnep_bridge": (BOARD, [
        (f"listen {path} {ADDRESS} 1", 1, "", f"{path}: Connection timed out", {}),
        (f"connect {path} {ADDRESS} 1", 1, "", f"{path}: Connection timed out", {}, lambda: listen("stay")),
        (f"connect {path} {ADDRESS}", 0, "in 0806 28\n", "bnep device is .*", {"KIV_SIM_TUN": "192.0.2.1"},
         lambda: listen(bytes(6), 6, b"\0\x1c\x08\x06" + bytes(28))),
        (f"connect {path} {ADDRESS} 1", 1, "", f"{path}: No such file or directory", {}),
        (f"connect {path} 02:00", 2, "", "usage: bnep_bridge listen|connect SOCKET ADDRESS [SECONDS]", {})]),
}



def waits(process):
    """For somebody else, and is not in the middle of a line: what cleans up behind it would write that again. Or it
    has ended already."""
    return Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()[0] in "SZ"


failures = 0
program, rows = ROWS[name]
program = program if "/" in program else f"{folder}/{name}{program}"
for arguments, status, said, complained, environment, *more in rows:
    Path(path).unlink(missing_ok=True)
    if more:
        more[0]()
    process = subprocess.Popen([*emulator, program, *arguments.split()], env={**os.environ, **environment}, text=True,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    output = ""
    if len(more) > 1:
        while not output.endswith(more[1]) and (line := process.stdout.readline()):
            output += line
        while not waits(process):
            time.sleep(0.01)
        process.send_signal(signal.SIGALRM)
    rest, errors = process.communicate(timeout=LIMIT)
    output += rest
    last = (errors.splitlines() or [""])[-1]
    if complained.startswith("usage"):
        complained = re.escape(complained)
    if process.returncode != status or not re.fullmatch(said, output, re.S) or \
            not re.fullmatch(".*" + complained if complained else "", last):
        failures += 1
        print(f"FAILED: {name} {arguments} {environment}: status {process.returncode}, {output!r}, {errors!r}")
print(len(rows), "ways to end,", failures, "wrong")
sys.exit(1 if failures else 0)
