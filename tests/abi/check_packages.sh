#!/bin/bash
# Builds the Debian packages, installs, uses and removes them. In the sources' folder, as root, and only for a machine
# that may be changed (scripts/lib/on-copy).
set -euo pipefail
work=$(mktemp -d)

fail() {
    echo "$*"
    exit 1
}

# As if the C library of another processor were installed; the cross compiler has one of its own.
pretend() { # pretend PACKAGE ARCHITECTURE
    # shellcheck disable=SC2016
    dpkg-query -f '\nPackage: ${Package}\nStatus: ${Status}\nVersion: ${Version}\nMulti-Arch: same\n' -W "$1:amd64"
    printf 'Architecture: %s\nMaintainer: nobody\nDescription: pretended\n' "$2"
}

ours() { find /etc /usr -xdev -name 'libkiv-*' -o -name 'kiv-*' -o -name 'kivctl*' -o -path '*/include/kiv'; }

# The device's own kiv-core takes the stand-in's place, and the library stays.
replace_core() { # replace_core FOLDER OF THE PACKAGES
    dpkg-deb -R "$1"/libkiv-core1_*.deb "$work/core"
    sed -i 's/^Package: .*/Package: own-kiv-core\nProvides: libkiv-core1\nConflicts: libkiv-core1\nReplaces: libkiv-core1/' \
        "$work/core/DEBIAN/control"
    dpkg-deb -b "$work/core" "$work/own-kiv-core.deb"
    dpkg -i --auto-deconfigure "$work/own-kiv-core.deb"
    rm -r "$work/core"
}

check_architecture() { # check_architecture NAME PRESET
    echo "== $1"
    cmake --preset "$2"
    cmake --build --preset "$2"
    dpkg -i "build/$2"/*.deb
    # A unit's program has to be there; it is not while the packages are built without it.
    if dpkg-query -S /usr/bin/kivctl; then
        ${EMULATOR:-} /usr/bin/kivctl --help
    else
        install -m 755 /dev/null /usr/bin/kivctl
    fi
    local file
    for file in $(dpkg -L libkiv-core1 libkiv-drivers1 kiv-tools kiv-sim | grep -E '/bin/|\.so[.0-9]*$'); do
        [[ -L $file ]] || python3 tests/abi/check_library.py hardening "$file" --guarded || fail "$file"
    done
    systemd-analyze verify --man=no kivctl-bridge@x.service
    systemd-analyze security --offline=true --threshold=20 kivctl-bridge@x.service | tail -n 1
    dpkg-query -S /usr/bin/kivctl || rm /usr/bin/kivctl
    getent group gpio i2c
    sh tests/abi/check_consumer.sh system "" "" "$work/consumer"
    replace_core "build/$2"
    ${EMULATOR:-} "$work/consumer/build/consumer"
    dpkg -P own-kiv-core libkiv-core1 libkiv-drivers1 libkiv-drivers-dev kiv-sim kiv-tools
    left=$(ours)
    [[ -z $left ]] || fail "left behind: $left"
}

# With what the recipes of image builders ask for, as far as those are not here themselves.
check_recipes() {
    local recipe=contrib/yocto/recipes-kiv/kiv-drivers/kiv-drivers_${PWD##*-}.bb options
    # shellcheck disable=SC2016
    read -ra options < <(make -sf - <<<'
        include contrib/buildroot/package/kiv-drivers/kiv-drivers.mk
        all:; @echo $(KIV_DRIVERS_CONF_OPTS)')
    mapfile -t -O "${#options[@]}" options < <(grep -oE -- '-DKIV_[A-Z]+=(OFF|ON|bundled)' "$recipe")
    cmake -G Ninja -B build/recipe -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" "${options[@]}" |&
        tee "$work/configured"
    ! grep 'not used by the project' "$work/configured" || fail "a recipe names an option that is none"
    cmake --build build/recipe
    DESTDIR=$work/image cmake --install build/recipe
    [[ -e $work/image/usr/lib/libkiv-drivers.so.1 ]] || fail "no library lies in the image"
}

[[ -z $(ours) ]] || fail "something of the project is installed on this machine: $(ours)"
check_architecture amd64 deb

dpkg --add-architecture armel
for package in libc6 libc6-dev; do
    pretend "$package" armel >>/var/lib/dpkg/status
done
export CC=arm-linux-gnueabi-gcc TOOLCHAIN=$PWD/cmake/arm-linux-gnueabi.cmake
export PKG_CONFIG_LIBDIR=/usr/lib/arm-linux-gnueabi/pkgconfig
export EMULATOR='qemu-arm-static -L /usr/arm-linux-gnueabi -E LD_LIBRARY_PATH=/usr/lib/arm-linux-gnueabi'
check_architecture armel deb-armel
check_recipes
