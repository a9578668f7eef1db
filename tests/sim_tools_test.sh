#!/bin/bash
# Programs that know nothing of the simulated board use its devices, and say what they say on real ones.
# usage: sim_tools_test.sh LIBRARY TOOL
set -u
library=$1
tool=$2
PATH=$PATH:/usr/sbin:/sbin
export LC_ALL=C KIV_SIM_TTY0=echo

skip() {
    echo "skipped: $1"
    exit 0
}

# expect STATUS COMMAND...: runs it over the board; what it says, on both streams, is compared with stdin.
expect() {
    local status=$1 said expected
    shift
    expected=$(cat)
    said=$(LD_PRELOAD=$library "$@" 2>&1 <"$typed")
    local ended=$?
    [[ $ended -eq $status ]] || { echo "$*: exit status $ended, expected $status"; failed=1; }
    diff -u --label expected --label said <(echo "$expected") <(echo "$said") || { echo "^ $*"; failed=1; }
}

failed=0
typed=$(mktemp)
trap 'rm -f "$typed"' EXIT
case $tool in
python3-serial) /usr/bin/python3 -c 'import serial' 2>/dev/null || skip "Python has no serial module" ;;
*) command -v "$tool" >/dev/null || skip "$tool is not installed" ;;
esac

case $tool in
stty)
    expect 0 stty -F /dev/ttyKIV0 -a <<'END'
speed 9600 baud; rows 0; columns 0; line = 0;
intr = ^C; quit = ^\; erase = ^?; kill = ^U; eof = ^D; eol = <undef>;
eol2 = <undef>; swtch = <undef>; start = ^Q; stop = ^S; susp = ^Z; rprnt = ^R;
werase = ^W; lnext = ^V; discard = ^O; min = 1; time = 0;
-parenb -parodd -cmspar cs8 hupcl -cstopb cread -clocal -crtscts
-ignbrk -brkint -ignpar -parmrk -inpck -istrip -inlcr -igncr icrnl ixon -ixoff
-iuclc -ixany -imaxbel -iutf8
opost -olcuc -ocrnl onlcr -onocr -onlret -ofill -ofdel nl0 cr0 tab0 bs0 vt0 ff0
isig icanon iexten echo echoe echok -echonl -noflsh -xcase -tostop -echoprt
echoctl echoke -flusho -extproc
END
    # It reads back what it has set, and complains of a difference.
    expect 0 stty -F /dev/ttyKIV0 115200 cs7 parenb cstopb raw -echo min 0 time 5 rows 24 </dev/null
    expect 1 stty -F /dev/ttyKIV4 <<<'stty: /dev/ttyKIV4: No such file or directory'
    # Nodes, and a program that is started by a program.
    expect 0 sh -c 'test -c /dev/ttyKIV0 && test -w /dev/i2c-0 && ls /dev/gpio && stty -F /dev/ttyKIV3 speed' <<'END'
/dev/gpio
9600
END
    KIV_SIM_FAIL=ioctl=ENODEV expect 1 stty -F /dev/ttyKIV0 <<<'stty: /dev/ttyKIV0: No such device'
    KIV_SIM_TTY0=ecko expect 0 stty -F /dev/ttyKIV0 speed <<'END'
kiv-sim: KIV_SIM_TTY0: "ecko" is ignored; it takes echo, silent, /path or @name
9600
END
    ;;
tio)
    echo 'hello, tio' >"$typed"
    expect 0 tio --response-wait --response-timeout 20000 /dev/ttyKIV0 <<<'hello, tio'
    ;;
picocom)
    printf 'hello, picocom' >"$typed"
    expect 0 picocom --quiet --baud 115200 --flow h --exit-after 300 /dev/ttyKIV0 <<'END'
hello, picocom
END
    ;;
python3-serial)
    cat >"$typed" <<'END'
import fcntl, os, serial, termios

port = serial.Serial('/dev/ttyKIV0', 250000, parity='E', timeout=20, exclusive=True)
print(os.isatty(port.fd), os.ttyname(port.fd))
print(port.write(b'hello, Python\n'), port.readline(), port.in_waiting, port.out_waiting)
port.rts = False
print(port.cts, port.dsr, port.ri, port.cd)
port.send_break(0)
port.write(b'flushed')
port.flush()
print(port.in_waiting)
port.reset_input_buffer()
port.reset_output_buffer()
print(port.in_waiting)
port.set_output_flow_control(False)
port.baudrate = 115200
print(termios.tcgetattr(port.fd)[5] == termios.B115200)
fcntl.lockf(port.fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
fcntl.ioctl(port.fd, termios.TIOCEXCL)
try:
    serial.Serial('/dev/ttyKIV0')
except serial.SerialException as error:
    print(error.errno)
port.close()
print(serial.Serial('/dev/ttyKIV1', timeout=0.01).read())
END
    expect 0 /usr/bin/python3 - <<'END'
True /dev/ttyKIV0
14 b'hello, Python\n' 0 0
True True False True
7
0
True
16
b''
END
    ;;
i2cdetect)
    expect 0 i2cdetect -y 0 <<'END'
     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f
00:                         -- -- -- -- -- -- -- -- 
10: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
20: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
30: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
40: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
50: 50 -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
60: -- -- -- -- -- -- -- -- 68 -- -- -- -- -- -- -- 
70: -- -- -- -- -- -- -- --                         
END
    ;;
i2cget)
    expect 0 i2cget -y 0 0x50 0x10 <<<0xff
    expect 0 i2cget -y 0 0x68 0x08 w <<<0x0000
    expect 2 i2cget -y 0 0x51 <<<'Error: Read failed'
    KIV_SIM_FAIL=fopen=EIO,ioctl=16@2+ expect 1 i2cget -y 0 0x50 <<'END'
Error: Could not set address to 0x50: Device or resource busy
END
    KIV_SIM_FAIL=ioctl=EBUSY@2,ioctl=5@0 expect 0 i2cget -y 0 0x50 0 <<'END'
kiv-sim: KIV_SIM_FAIL: "ioctl=EBUSY@2,ioctl=5@0" is ignored; it takes CALL=ERRNO[@N[+]],... with the calls of kiv/sim.h, as read=EIO@3
0xff
END
    ;;
i2cset)
    expect 0 i2cset -y -r 0 0x68 0x08 0x42 <<<'Value 0x42 written, readback matched'
    expect 0 i2cset -y -r 0 0x68 0x08 0x1234 w <<<'Value 0x1234 written, readback matched'
    expect 0 i2cset -y 0 0x50 0x10 1 2 3 i </dev/null
    ;;
i2cdump)
    expect 0 i2cdump -y -r 0x08-0x1f 0 0x50 i <<'END'
     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef
00:                         ff ff ff ff ff ff ff ff            ........
10: ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff    ................
END
    ;;
i2ctransfer)
    expect 0 i2ctransfer -y 0 w3@0x68 0x08 0xab 0xcd w1@0x68 0x08 r2 <<<'0xab 0xcd'
    expect 1 i2ctransfer -y 0 r1@0x51 <<<'Error: Sending messages failed: Remote I/O error'
    ;;
*)
    echo "sim_tools_test.sh: no test for $tool" >&2
    exit 2
    ;;
esac
exit $failed
