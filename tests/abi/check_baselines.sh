#!/bin/bash
# Compares the binary interface of both libraries with the recorded one: check_baselines.sh [--renew]
# With --renew it records it anew. Which version number a difference asks for stands in CMakeLists.txt.
# The headers have to mean the same to programs with 32-bit and with 64-bit off_t and time_t, too.
set -euo pipefail
cd "$(dirname "$0")/../.."
renew=${1-}
status=0

build() { # build TREE PRESET: the libraries with what a debugger knows of their types
    CFLAGS=-g CXXFLAGS=-g cmake --preset "$2" -B "$1" -DKIV_SIM=OFF -DKIV_EXAMPLES=OFF -DBUILD_TESTING=OFF
    cmake --build "$1" --target kiv-drivers
}

record() { # record ROOM TREE FILE: what the headers and the exported names show, without places and names of arguments
    abidw --exported-interfaces-only --drop-undefined-syms --headers-dir "$1/include" --drop-private-types \
        --no-show-locs --no-parameter-names --no-comp-dir-path --no-corpus-path --type-id-style hash \
        --out-file "$3" "$2/$1/libkiv-$1.so"
}

compare() { # compare ROOM ARCHITECTURE TREE
    local recorded=$1/abi/libkiv-$1.$2.abi built=$3/libkiv-$1.abi
    record "$1" "$3" "$built"
    grep -q '<function-decl' "$built" # without types everything would look the same
    if [[ $renew == --renew ]]; then
        mkdir -p "$1/abi"
        cp "$built" "$recorded"
    else
        abidiff "$recorded" "$built" || {
            echo "libkiv-$1.so, $2: the interface is not the recorded one. If it is to be so, see to the version" \
                "in CMakeLists.txt, then: tests/abi/check_baselines.sh --renew"
            status=1
        }
    fi
}

show_headers() { # show_headers ROOM TREE COMPILER FILE OPTION...: what a program sees that takes every exported name's address
    local room=$1 tree=$2 compiler=$3 file=$4
    shift 4
    {
        for header in "$room"/include/kiv/*.h; do
            echo "#include <kiv/${header##*/}>"
        done
        nm -D --defined-only "$tree/$room/libkiv-$room.so" |
            awk '$2 != "A" { sub(/@.*/, "", $3); print "__typeof__(&" $3 ") of_" $3 ";" }'
    } | "$compiler" -std=gnu99 -g -fPIC -shared -nostdlib -I "$room/include" "$@" -x c - -o "$file.so"
    abidw --no-show-locs --no-comp-dir-path --no-corpus-path --type-id-style hash --out-file "$file" "$file.so"
    grep -q '<function-type' "$file"
}

compare_widths() { # compare_widths ROOM TREE COMPILER; 64-bit time_t with 32-bit off_t is refused by the C library itself
    local shown=$2/headers-$1.abi
    show_headers "$1" "$2" "$3" "$shown" -U_FILE_OFFSET_BITS
    show_headers "$1" "$2" "$3" "$shown.file" -D_FILE_OFFSET_BITS=64
    show_headers "$1" "$2" "$3" "$shown.both" -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64
    for other in file both; do
        diff "$shown" "$shown.$other" >&2 || {
            echo "$1/include: with another width of off_t or time_t a program sees another interface"
            status=1
        }
    done
}

for pair in amd64=release armel=arm; do
    tree=build/abi-${pair%=*}
    build "$tree" "${pair#*=}"
    compare drivers "${pair%=*}" "$tree"
    compare core "${pair%=*}" "$tree"
    compiler=gcc
    [[ $pair != armel=* ]] || compiler=arm-linux-gnueabi-gcc
    for room in drivers core; do
        compare_widths "$room" "$tree" "$compiler"
    done
done
exit "$status"
