"""serial bridge: bulk data through socat, clients that come and go, counters, a capture."""
import json
import shutil
import struct

from kivctl import *


def sockets_of(process):
    """How many sockets a process has open."""
    folder = Path(f"/proc/{process.pid}/fd")
    return sum(os.readlink(link).startswith("socket:") for link in folder.iterdir())


def bridge(arguments, count):
    """Starts a bridge on TCP ports, and a client of each: others are tried while somebody has one of them. What
    comes for a client that has not been accepted yet would be dropped."""
    for _ in range(20):
        ports = [free_port() for _ in range(count)]
        process = start("serial bridge --json " + arguments.format(*ports))
        clients = [connect(port, process) for port in ports]
        if all(clients):
            while sockets_of(process) < 2 * count:
                select.select([], [], [], 0.01)
            return process, ports, clients
    raise RuntimeError("no ports")


def stop(process, seen, **more):
    process.send_signal(signal.SIGTERM)
    counts = json.loads(finish(process, "bridge", **{"error": "", **more}) or "{}")
    counts = [counts.get("a_to_b_bytes"), counts.get("b_to_a_bytes")]
    check(counts == seen, counts, "and not", seen)


def look_at_bulk():
    """Both ways, socat at both ends, a checksum of what came out."""
    size = 4 << 20
    data = FOLDER / "data"
    data.write_bytes(random.randbytes(size))
    process, _, clients = bridge("tcp:{} tcp:{}", 2)
    for into, out in clients, clients[::-1]:
        descriptors = {"pass_fds": [into.fileno(), out.fileno()]}
        receiver = subprocess.Popen(["socat", "-u", f"FD:{out.fileno()},readbytes={size}", "-"],
                                    stdout=subprocess.PIPE, **descriptors)
        sender = subprocess.Popen(["socat", "-u", f"OPEN:{data}", f"FD:{into.fileno()},shut-none"], **descriptors)
        got = receiver.communicate(timeout=LIMIT)[0]
        check(sender.wait(LIMIT) == 0, "the sender")
        check(hashlib.sha256(got).digest() == hashlib.sha256(data.read_bytes()).digest(), len(got), "bytes of", size)
    stop(process, [size, size])


def look_at_clients():
    """Five hundred clients, one after the other, each of which says one thing and leaves."""
    count = 500
    line = Line()
    process, ports, clients = bridge("tcp:{} " + line.name, 1)
    got = b""
    for number in range(count):
        with clients.pop() if clients else connect(ports[0], process) as client:
            client.sendall(b"%04d." % number)
            got = read_until(line.far, b"%04d\\." % number, got)
    check(got == b"".join(b"%04d." % number for number in range(count)), "clients", got)
    # The last one gets what the line says.
    with connect(ports[0], process) as client:
        client.sendall(b"x")
        read_until(line.far, b"x")
        os.write(line.far, b"answer")
        read_until(client.fileno(), b"answer")
    stop(process, [5 * count + 1, 6])


# A command, its event, data both ways, a byte that is lost, in pieces.
HOST = [bytes.fromhex("01030c00"), bytes.fromhex("020100050001020304") + b"\x05"]
CONTROLLER = [bytes.fromhex("040e0401030c00"), bytes.fromhex("0201200300aabbcc")]


def read_btsnoop(path):
    """Direction and bytes of each packet, as the format's description has them."""
    data = path.read_bytes()
    head, version, kind = struct.unpack_from(">8sII", data)
    check((head, version, kind) == (b"btsnoop\0", 1, 1002), "btsnoop", head, version, kind)
    packets, at = [], 16
    while at < len(data):
        length, included, flags, drops, time = struct.unpack_from(">IIIIq", data, at)
        packet = data[at + 24:at + 24 + included]
        check(length == included == len(packet) and drops == 0, "record", at)
        check(flags >> 1 == (packet[0] in (1, 4)) and time > 0x00dcddb30f2f8000 + 1700000000000000, "flags, time")
        packets.append((flags & 1, packet))
        at += 24 + included
    return packets


def look_at_capture():
    path = FOLDER / "capture.btsnoop"
    process, _, (host, controller) = bridge(f"tcp:{{}} tcp:{{}} --capture {path}", 2)
    for sender, receiver, packets, stray in (host, controller, HOST, b"\x77"), (controller, host, CONTROLLER, b""):
        stream = stray + b"".join(packets)
        for piece in stream[:2], stream[2:6], stream[6:]:
            sender.sendall(piece)
            check(receiver.recv(len(piece), socket.MSG_WAITALL) == piece, "through the bridge", piece)
    stop(process, [1 + sum(map(len, HOST)), sum(map(len, CONTROLLER))], error="kivctl: .* 1 bytes were no Bluetooth packets\n")
    packets = read_btsnoop(path)
    check(packets == [(0, packet) for packet in HOST] + [(1, packet) for packet in CONTROLLER], packets)
    if shutil.which("tshark"):
        said = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "hci_h4.direction", "-e", "hci_h4.type"],
                              capture_output=True, text=True, timeout=LIMIT).stdout
        check(said.split() == ["0x00", "0x01", "0x00", "0x02", "0x01", "0x04", "0x01", "0x02"], said)


def look_at_endings():
    line = Line()
    process, _, _ = bridge("tcp:{} " + line.name, 1)
    line.hang_up()
    finish(process, "a line that goes away", 1, error="kivctl: serial bridge: /dev/pts/[0-9]+: receiving: .*\n")
    fails(f"serial bridge {Line().name} /dev/nowhere", 4, "/dev/nowhere: opening: No such file or directory")
    fails(f"serial bridge {Line().name} {Line().name} --capture /nowhere/x", 1, "/nowhere/x: No such file")


look_at_bulk()
look_at_capture()
if TTYS:
    look_at_clients()
    look_at_endings()
end()
