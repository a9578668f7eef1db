# GPS: a service that is killed and restarted while a reader waits.
# shellcheck shell=bash

heading 'GPS: a service that goes and comes back'
say 'A program reads sentences from a GPS service on an abstract socket. The service is killed while the reader waits,
and started again: the library connects by itself and tells the program.
'
cd "$DEMO_WORK" || exit
NAME=kiv-demo-gps-$$

# nmea TEXT: the sentence with its checksum.
nmea() {
    local sum=0 code i
    for ((i = 0; i < ${#1}; i++)); do
        printf -v code %d "'${1:i:1}"
        sum=$((sum ^ code))
    done
    printf '$%s*%02X\r\n' "$1" "$sum"
}

# The service: sends the sentences of a file and stays.
service() {
    exec socat -u OPEN:"$1",rdonly,ignoreeof ABSTRACT-LISTEN:"$NAME",unix-tightsocklen=0 2>service.log
}

shown=0
# expect LINE: shows what the program has said up to this line.
expect() {
    wait_until "the program to say: $1" grep -qF "$1" said
    while read -r line; do
        printf '    program: %s\n' "$line"
        shown=$((shown + 1))
        [[ $line != *"$1"* ]] || break
    done < <(tail -n +$((shown + 1)) said)
}

nmea 'GPGLL,4717.11,N,00833.91,E,100000,A' >before
nmea 'GPGLL,4717.13,N,00833.94,E,100005,A' >after

say 'the service starts'
background service before
first=$!
background timeout 20 stdbuf -oL "$DEMO_BIN/gps_demux" "@$NAME" 2 >said
reader=$!
expect '100000,A'
say 'the service is killed'
kill "$first"
expect disconnected
say 'the service starts again'
background service after
expect '100005,A'
wait "$reader" || die 'the reader ended with a failure'
