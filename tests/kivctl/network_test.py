"""tap and bnep: the simulated board's host behind the interface pings; captures are read back."""
import json
import shutil
import struct

from kivctl import *

HOST = {"KIV_SIM_TUN": "10.0.0.1", "KIV_SIM_TUN_PING": "10.0.0.2"}
MAC = "--mac 02:00:00:00:00:01"


def read_pcap(path):
    """The frames, as the format's description has them."""
    data = path.read_bytes()
    check(struct.unpack_from(">IHHiIII", data) == (0xa1b2c3d4, 2, 4, 0, 0, 65535, 1), "head of", path)
    frames, at = [], 24
    while at < len(data):
        seconds, micro, length, whole = struct.unpack_from(">IIII", data, at)
        check(seconds > 1700000000 and micro < 1000000 and length == whole, "record", at)
        frames.append(data[at + 16:at + 16 + length])
        at += 16 + length
    return frames


def look_at_tap():
    path = FOLDER / "frames.pcap"
    run(f"tap open tap%d {MAC} -n 1 -w {path}", on=BOARD, env=HOST,
        out="tap0\n[0-9a-f:]{17} > ff:ff:ff:ff:ff:ff 0x0806 42 bytes\n")
    frames = read_pcap(path)
    check(len(frames) == 1 and frames[0][12:14] == b"\x08\x06", frames)
    if shutil.which("tshark"):
        said = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "arp.src.proto_ipv4"], capture_output=True,
                              text=True, timeout=LIMIT).stdout
        check(said == "10.0.0.1\n", said)
    said = run(f"tap open tap%d {MAC} -n 1 --json", on=BOARD, env=HOST)
    name, frame = map(json.loads, said.splitlines())
    check(name == {"interface": "tap0"} and frame["protocol"] == 0x806 and frame["length"] == 42, said)
    process = start(f"tap open here {MAC}", on=BOARD, env={"KIV_SIM_TUN": "10.0.0.1"})
    read_until(process.stdout.fileno(), b"here\n")
    process.send_signal(signal.SIGTERM)
    finish(process, "SIGTERM")
    fails(f"tap open tap0 {MAC} -w /nowhere/x", 1, "/nowhere/x: No such file or directory", on=BOARD, env=HOST)
    frame = frames[0].hex(":")
    run(f"tap send tap0 {MAC} {frame} -r {path} --json", on=BOARD, env=HOST, out=r'\{"interface":"tap0","frames":2\}\n')
    (FOLDER / "cut.pcap").write_bytes(path.read_bytes()[:-1])
    fails(f"tap send tap0 {MAC} -r {FOLDER}/cut.pcap", 1, "this is no pcap file", on=BOARD, env=HOST)
    fails(f"tap send tap0 {MAC} -r {__file__}", 1, "this is no pcap file", on=BOARD, env=HOST)


def look_at_real_interfaces():
    """In a network namespace of the test's own, if it may have one."""
    private = ["unshare", "-n"] + REAL
    if len(REAL) > 1 or not os.path.exists("/dev/net/tun") or subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL).returncode:
        return
    run(f"tap send kt%d {MAC} {'00' * 14}", 1, "", "kivctl: tap send: kt0: sending: the interface is down; .*\n", on=private)
    run(f"tap send kt%d {MAC} {'00' * 14} --up", on=private)
    run(f"tap open lo {MAC}", 1, "", "kivctl: tap open: lo: making the interface: (Device or r|R)esource busy\n", on=private)
    # The system greets a new interface by itself: neighbours and routers are asked for.
    run(f"tap open kt%d {MAC} --up -n 1", on=private, out="kt0\n02:00:00:00:00:01 > 33:33:.* 0x86dd [0-9]+ bytes\n")
    fails(f"tap open kt0 {MAC}", 1, "CAP_NET_ADMIN", on=["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"] + REAL)


def look_at_bnep():
    """Two boards, a link of TCP between them: the ping of one is answered by the other's host."""
    sides = []
    port = free_port()
    captures = FOLDER / "a.pcap", FOLDER / "b.pcap"
    for number, (link, env) in enumerate(((f"tcp:{port}", {"KIV_SIM_TUN": "10.0.0.2"}), (f"tcpout:127.0.0.1:{port}", HOST))):
        sides.append(start(f"bnep run --bdaddr 02:00:00:00:00:0{number + 1} --link {link} -w {captures[number]} --json",
                           on=BOARD, env=env))
        read_until(sides[-1].stdout.fileno(), b'{"interface":"bnep"}\n')
    replies = []
    while len(replies) < 3 and all(side.poll() is None for side in sides):
        select.select([], [], [], 0.01)
        replies = [frame for frame in read_whole(captures[1]) if frame[12:14] == b"\x08\x00" and frame[34] == 0]
    check(len(replies) == 3 and replies[0][:12] == bytes.fromhex("020000000002020000000001"), "replies", replies)
    for side in sides:
        side.send_signal(signal.SIGINT)
    for side, (out, into) in zip(sides, ((4, 4), (4, 4))):
        said = json.loads(finish(side, "bnep run"))
        check(said == {"out": out, "in": into, "dropped": 0}, said)
    fails("bnep run --bdaddr 02:00:00:00:00:01 --link /dev/nowhere", 4, "opening: No such file", on=BOARD, env=HOST)
    fails(f"bnep run --bdaddr 02:00:00:00:00:01 --link tcp:{free_port()}", 4, "opening /dev/net/tun: No such file", on=BOARD,
          env={"KIV_SIM_FAIL": "open=ENOENT@1+"})


def look_at_noise():
    """Noise is no packet, and does not hide the next one."""
    capture = FOLDER / "noise.pcap"
    line = Line()
    process = start(f"bnep run --bdaddr 02:00:00:00:00:01 --link {line.name} -w {capture}", on=BOARD,
                    env={"KIV_SIM_TUN": "10.0.0.1"})
    read_until(process.stdout.fileno(), b"bnep\n")
    os.write(line.far, b"noise\xc0\xff\xc0\x02\x08\x06\xdb\xdc\xdb\xdd\xc0")
    while process.poll() is None and not read_whole(capture):
        select.select([], [], [], 0.01)
    check(read_whole(capture)[0][12:] == b"\x08\x06\xc0\xdb", "escapes")
    line.hang_up()
    finish(process, "bnep on a line that goes away", 1,
           error="kivctl: bnep run: .*: receiving: .*\nkivctl: bnep run: .* frames out, 1 in, 2 dropped\n")


def read_whole(path):
    """A file that is being written holds whole records."""
    return read_pcap(path) if path.stat().st_size >= 24 else []


look_at_real_interfaces()
if BOARD:
    look_at_tap()
    look_at_bnep()
    if TTYS:
        look_at_noise()
end()
