#!/usr/bin/python3
"""The tasks of ports.c on a pseudo-terminal through Python's serial module:

port_pyserial.py HELPER TASK ROUNDS

HELPER is one of the programs of ports.c, which is the other end of the timed tasks. What is counted stands between
two calls of getppid.
"""
import fcntl
import os
import struct
import subprocess
import sys
import termios
import time

import serial

WARM_UP, SMALL, LARGE, BLOCK = 3, 64, 4000, 4096


class Line:
    def __init__(self):
        self.peer, self.near = os.openpty()
        self.path = os.ttyname(self.near)

    def open(self, **options):
        self.port = serial.Serial(self.path, 115200, **options)

    def feed(self, length):
        termios.tcflush(self.near, termios.TCIFLUSH)
        os.write(self.peer, bytes(length))
        while struct.unpack("i", fcntl.ioctl(self.near, termios.FIONREAD, b"0000"))[0] < length:
            pass


def count(rounds, operation, before=lambda: None, after=lambda: None):
    for index in range(-WARM_UP, rounds):
        before()
        if index >= 0:
            os.getppid()
        operation()
        if index >= 0:
            os.getppid()
        after()


def measure(helper, task, line, rounds, operation):
    line.open()
    with subprocess.Popen([helper, "helper", task, str(line.peer)], pass_fds=[line.peer]) as other:
        operation()
        begun, used = time.monotonic_ns(), time.process_time_ns()
        for _ in range(rounds):
            operation()
        print((time.monotonic_ns() - begun) / rounds, (time.process_time_ns() - used) / rounds)
        other.kill()


def main(helper, task, rounds):
    line = Line()
    if task == "open-close":
        count(rounds, lambda: serial.Serial(line.path, 115200).close())
    elif task in ("read-1", "read-4000"):
        line.open()
        length = 1 if task == "read-1" else LARGE
        count(rounds, lambda: line.port.read(length), before=lambda: line.feed(length))
    elif task == "read-some":
        line.open()
        count(rounds, lambda: line.port.read(line.port.in_waiting or 1), before=lambda: line.feed(SMALL))
    elif task == "read-timed":
        line.open(timeout=0.001)
        count(rounds, lambda: line.port.read(BLOCK), before=lambda: line.feed(SMALL))
    elif task == "write-64":
        line.open()
        count(rounds, lambda: line.port.write(bytes(SMALL)), after=lambda: os.read(line.peer, SMALL))
    elif task == "round-trip":
        measure(helper, task, line, rounds, lambda: line.port.write(bytes(SMALL)) and line.port.read(SMALL))
    elif task == "bulk-read":
        measure(helper, task, line, rounds, lambda: line.port.read(BLOCK))
    elif task == "bulk-write":
        measure(helper, task, line, rounds, lambda: line.port.write(bytes(BLOCK)))
    else:
        sys.exit(f"no such task: {task}")


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]))
