# Bluetooth networking: a ping through two BNEP bridges, with a Unix socket in the place of the radio link.
# shellcheck shell=bash

heading 'Bluetooth networking: a ping through a bridge'
cd "$DEMO_WORK" || exit

# Interfaces of the kernel's own need namespaces: as root, or as nobody special where the machine allows that.
namespace=''
for way in 'unshare --net' 'unshare --map-root-user --net'; do
    if $way ip tuntap add dev probe mode tap 2>/dev/null; then
        namespace=$way
        break
    fi
done

# side ROLE BLUETOOTH-ADDRESS IP-ADDRESS: one host with its bridge, in a namespace of its own. The one that
# connects pings the other as soon as that is up, and takes its bridge down afterwards, which ends the other's as
# well.
side() {
    # shellcheck disable=SC2016,SC2086
    exec timeout 20 $namespace bash -c '
        set -eu
        echo 1 2>/dev/null >/proc/sys/net/ipv6/conf/default/disable_ipv6 || true # only frames of the ping
        "$DEMO_BIN/bnep_bridge" "$1" radio "$2" >"$1.frames" 2>"$1.log" &
        until ip link show bnep; do sleep 0.02; done >/dev/null 2>&1
        ip address add "$3/24" dev bnep
        ip link set bnep up
        : >"$1.ready"
        if [ "$1" = connect ]; then
            until test -e listen.ready; do sleep 0.02; done
            ping -c 3 -i 0.2 -W 5 10.77.0.1
            kill $!
        fi
        wait || true
    ' side "$@"
}

show_frames() { # show_frames FILE [MOST]: direction, protocol, length
    printf '\n    %-9s %-8s %s\n' direction protocol 'payload bytes'
    head -n "${2:-8}" "$1" | while read -r direction protocol length; do
        case $protocol in
        0800) protocol=IPv4 ;;
        0806) protocol=ARP ;;
        86dd) protocol=IPv6 ;;
        esac
        printf '    %-9s %-8s %d\n' "$direction" "$protocol" "$length"
    done
}

answered() { [[ $(grep -c '^in 0800' connect.frames) -ge 3 ]]; }

export DEMO_BIN
if [[ -n $namespace ]]; then
    say "Two network namespaces of this machine (\"$namespace\"), each with the library's interface \"bnep\" and a bridge;
the kernel of one pings the other's.
"
    background side listen 02:00:00:00:00:01 10.77.0.1
    (side connect 02:00:00:00:00:02 10.77.0.2) >ping.log 2>&1 || die "no ping came through: $(cat ping.log)"
    sed -n 's/^/    /; /bytes from/p; /packets/p' ping.log
    show_frames connect.frames
else
    say 'This machine permits no network namespaces: two simulated hosts stand in for its kernel, and one pings the other.
'
    KIV_SIM_TUN=10.77.0.1 background timeout 20 "$DEMO_BIN/bnep_bridge_on_board" listen radio 02:00:00:00:00:01 \
        >listen.frames 2>listen.log
    KIV_SIM_TUN=10.77.0.2 KIV_SIM_TUN_PING=10.77.0.1 background timeout 20 "$DEMO_BIN/bnep_bridge_on_board" connect radio \
        02:00:00:00:00:02 >connect.frames 2>connect.log
    # An ARP request and its answer, three echo requests and their answers.
    wait_until 'the answers' answered
    show_frames connect.frames
fi
