# A tour of the board: every row is a real call of the library, on the simulated board. What is plugged in where
# is told to the board by its environment variables.
# shellcheck shell=bash

heading 'A tour of the board'
say 'Each row is a program of examples/, on the simulated board.
'
cd "$DEMO_WORK" || exit

# row AREA PROGRAM [ARGUMENT]...: what the program says, under its area's name.
row() {
    local area=$1 program=$2 text
    shift 2
    text=$(timeout 20 "$DEMO_BIN/${program}_on_board" "$@" 2>errors) || die "$program failed: $(cat errors)"
    while read -r line; do
        printf '%-12s %s\n' "$area" "$line"
        area=''
    done <<<"$text"
}

printf 'Hardware\t: Example Board\nRevision\t: 000e\n' >cpuinfo
touch secret.dat
export KIV_SIM_CPUINFO=$PWD/cpuinfo KIV_SIM_FAT=0x02:secret.dat
row 'identity' board_info secret.dat

row 'I2C' i2c_clock 5

export KIV_SIM_WIRES=3=4
row 'GPIO' gpio_button 4 10 3

# Whoever is at the far end of the USB link answers a line with a line.
export KIV_SIM_TTY0=$PWD/usb
# shellcheck disable=SC2016 # socat's shell expands it
background socat UNIX-LISTEN:usb SYSTEM:'read -r line && echo "the far end got \"$line\""'
wait_until 'the far end of the USB link' test -S usb
row 'USB link' usb_link /dev/ttyKIV0 'hello over USB'
