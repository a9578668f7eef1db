# Serial ports: a file through a pseudo-terminal and through a TCP port, in both directions.
# shellcheck shell=bash

heading 'Serial ports: a tty and a TCP port, with real clients'
say 'A client (socat, a process of its own) sends a file of 8 MB to each port. The library receives it in pieces
of up to 4096 bytes and sends it back; all copies must be equal. The time counts from the first byte to the last,
or until the system has taken the last one.
'

SIZE=8388608
cd "$DEMO_WORK" || exit
head -c $SIZE /dev/urandom >original
checksum() { sha256sum <"$1" | cut -c1-16; }

# The client sends the original and keeps what comes back. Addresses: the pair of files, then the port.
client() { exec socat -t 30 'OPEN:original,rdonly!!OPEN:returned,creat,wronly,trunc' "$1" 2>client.log; }

all_is_back() { [[ $(stat -c %s returned 2>/dev/null) == "$SIZE" ]]; }

# exchange KIND [TRACER...]: one run of the client against the library's program, in whose place the tracer
# runs it. Leaves the program's two lines in the file report.
exchange() {
    local kind=$1 device=$1 address=TCP:127.0.0.1:${1#tcp:},retry=200,interval=0.05 client
    shift
    if [[ $kind == tty ]]; then
        device=$PWD/device address=PTY,link=$PWD/device,raw,echo=0
    fi
    rm -f device received returned report
    background client "$address"
    client=$!
    [[ $kind != tty ]] || wait_until 'the pseudo-terminal' test -e device
    timeout 20 "$@" "$DEMO_BIN/port_echo" "$device" $SIZE received >report || return
    wait_until "the client to get everything back from $kind" all_is_back
    kill "$client" 2>/dev/null || true # it may have left by itself
}

# calls_per_operation DIRECTION LOG: every system call that the program made while the data moved.
calls_per_operation() {
    local operations
    operations=$(awk -v direction="$1" '$1 == direction { print $4 }' report)
    awk -v direction="$1" -v operations="$operations" '
        /TCSETS2|^listen\(/ { phase = "received"; next }
        /^write\(1.*"(received|sent) / { phase = "" }
        /^close\(.*\/received>/ { phase = "sent"; next }
        phase == direction { total++; split($0, part, "("); count[part[1]]++ }
        END {
            printf "%.2f", total / operations
            separator = " ("
            for (name in count)
                if (count[name] >= operations / 2) {
                    printf "%s%s", separator, name
                    separator = ", "
                }
            print separator == ", " ? ")" : ""
        }' "$2"
}

# measure KIND: a run for the time, a second one under strace for the system calls, a line a direction.
measure() {
    local kind=$1 direction bytes seconds operations counted arrow
    exchange "$kind" || die "$kind: the library's program failed, or took too long"
    [[ $(checksum received) == "$sum" ]] || die "$kind: what the library received is not what the client sent"
    [[ $(checksum returned) == "$sum" ]] || die "$kind: what the client got back is not what it sent"
    cp report timed
    local traced=yes
    exchange "$kind" strace -y -s 64 -o trace 2>/dev/null || traced=no
    while read -r direction bytes seconds operations; do
        counted='not counted: tracing is not permitted here'
        [[ $traced == no ]] || counted=$(calls_per_operation "$direction" trace)
        [[ $direction == received ]] && arrow='in ' || arrow='out'
        printf '%-10s %s  %8d  %6.3f s  %8.1f   %s\n' "$kind" "$arrow" "$bytes" "$seconds" \
            "$(awk -v b="$bytes" -v s="$seconds" 'BEGIN { print b / s / 1e6 }')" "$counted"
    done <timed
}

sum=$(checksum original)
printf '%-10s %s  %8s  %8s  %8s   %s\n' port dir bytes time MB/s 'system calls per call of the library'
measure tty
measure "tcp:$(free_tcp_port)"
say "
The checksums of all copies are equal: $sum..."
