#!/usr/bin/env python3
"""Runs event_loop between a pseudo-terminal and two clients, one after the other: check_event_loop.py PROGRAM"""
import os
import signal
import socket
import subprocess
import sys
import tty


def receive(connection, text):
    got = b""
    while len(got) < len(text):
        piece = connection.recv(len(text) - len(got))
        assert piece, f"the connection ended after {got!r}"
        got += piece
    assert got == text, f"{got!r} came, not {text!r}"


master, slave = os.openpty()
tty.setraw(slave)
with socket.socket() as chosen:
    chosen.bind(("127.0.0.1", 0))
    address = chosen.getsockname()
program = subprocess.Popen([sys.argv[1], os.ttyname(slave), f"tcp:{address[1]}"], stdout=subprocess.PIPE)
try:
    assert program.stdout.readline() == b"ready\n"
    for client in b"first", b"second": # the second is served only if the end of the first was seen
        with socket.create_connection(address) as connection:
            receive(connection, b"connected\r\n")
            connection.sendall(client)
            assert os.read(master, 64) == client
            os.write(master, client.upper())
            receive(connection, client.upper())
    program.send_signal(signal.SIGTERM)
    assert program.wait() == 0, "SIGTERM is its regular end"
finally:
    program.kill()
