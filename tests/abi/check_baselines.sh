#!/bin/bash
# Compares the binary interface of both libraries with the recorded one: check_baselines.sh [--renew]
# With --renew it records it anew. Which version number a difference asks for stands in CMakeLists.txt.
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

for pair in amd64=release armel=arm; do
    tree=build/abi-${pair%=*}
    build "$tree" "${pair#*=}"
    compare drivers "${pair%=*}" "$tree"
    compare core "${pair%=*}" "$tree"
done
exit "$status"
