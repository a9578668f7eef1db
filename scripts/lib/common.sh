# Common parts of the scripts: where things are, how they talk, how a step is run. Sourced, not run.
# shellcheck shell=bash

KIV_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
KIV_BUILD=$KIV_ROOT/build
KIV_LOGS=$KIV_BUILD/logs
cd "$KIV_ROOT" || exit
mkdir -p "$KIV_LOGS"

# Colour for people only.
if [[ -t 1 && -z ${NO_COLOR:-} ]]; then
    KIV_BOLD=$'\e[1m' KIV_RED=$'\e[31m' KIV_PLAIN=$'\e[0m'
else
    KIV_BOLD='' KIV_RED='' KIV_PLAIN=''
fi

heading() { printf '\n%s%s%s\n' "$KIV_BOLD" "$*" "$KIV_PLAIN"; }
say() { printf '%s\n' "$*"; }
die() {
    printf '%s%s%s\n' "$KIV_RED" "$*" "$KIV_PLAIN" >&2
    exit 1
}

# logged NAME COMMAND...: runs the command with its output in build/logs/NAME.log; when it fails, shows the
# end of that and returns its status.
logged() {
    local log=$KIV_LOGS/$1.log status=0
    shift
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [[ $status -ne 0 ]]; then
        printf '%sfailed (status %d): %s%s\n' "$KIV_RED" "$status" "$*" "$KIV_PLAIN"
        tail -n "${KIV_TAIL:-40}" "$log" | sed 's/^/    /'
        printf '    all of it: %s\n' "${log#"$KIV_ROOT"/}"
    fi
    return "$status"
}

# configure_and_build NAME PRESET [OPTION]...: builds one tree, build/PRESET.
configure_and_build() {
    local name=$1 preset=$2
    shift 2
    logged "$name-configure" cmake --preset "$preset" "$@" &&
        logged "$name-build" cmake --build --preset "$preset" --parallel "$(nproc)"
}
