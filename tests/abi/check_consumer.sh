#!/bin/sh
# Builds and runs consumers of an installed tree: check_consumer.sh HOW STAGE PREFIX WORK
#   HOW     pkg-config, find_package, or external: the library built anew against the installed kiv-core;
#           system: by both, from the directories that they know, with the simulated board and static libraries
#   STAGE   the folder that DESTDIR named; everything lies in its PREFIX
#   WORK    a folder of this check's own, emptied first
# CC and CXX are the compilers; for another processor, TOOLCHAIN is CMake's tool chain file and EMULATOR runs programs.
# Where static libraries or the simulated board are installed, programs are built with those, too.
set -eu
how=$1 stage=$2 prefix=$2/$3 work=$4
here=$(cd "$(dirname "$0")" && pwd)
unset DESTDIR LD_LIBRARY_PATH
rm -rf "$work"
mkdir -p "$work"

libdir() { dirname "$(find "$1" -name "$2")"; }
run() { echo "+ $*" && ${EMULATOR:-} "$@"; }

by_pkg_config() { # by_pkg_config PROGRAM PACKAGE [COMPILER'S OPTION]...
    program=$1 package=$2
    shift 2
    # shellcheck disable=SC2046,SC2086
    ${CC:-cc} "$@" "$here/consumer/$program.c" $(pkg-config ${options:-} --cflags --libs "$package >= 1.0") \
        ${libraries:+"-Wl,-rpath,$libraries"} -o "$work/$program"
    run "$work/$program"
}

by_find_package() { # by_find_package PREFIX
    if [ -n "${TOOLCHAIN:-}" ]; then
        set -- "-DCMAKE_TOOLCHAIN_FILE=$TOOLCHAIN" "-DCMAKE_FIND_ROOT_PATH=$1"
    else
        set -- "-DCMAKE_PREFIX_PATH=$1" "-DCMAKE_C_COMPILER=${CC:-cc}"
    fi
    cmake -G Ninja -S "$here/consumer" -B "$work/build" "$@"
    cmake --build "$work/build"
    for program in "$work"/build/consumer*; do
        run "$program"
    done
}

case $how in
pkg-config)
    libraries=$(libdir "$prefix" libkiv-drivers.so)
    export PKG_CONFIG_LIBDIR="$libraries/pkgconfig"
    PKG_CONFIG_SYSROOT_DIR=$stage by_pkg_config consumer kiv-drivers
    options=--define-variable=prefix=$prefix by_pkg_config consumer kiv-drivers
    if [ -e "$libraries/libkiv-sim.so" ]; then
        PKG_CONFIG_SYSROOT_DIR=$stage by_pkg_config consumer_on_board kiv-sim -Wl,--as-needed
    fi
    if [ -e "$libraries/libkiv-drivers.a" ]; then
        PKG_CONFIG_SYSROOT_DIR=$stage options=--static by_pkg_config consumer kiv-drivers -static
    fi
    ;;
system)
    by_pkg_config consumer kiv-drivers
    by_pkg_config consumer_on_board kiv-sim -Wl,--as-needed
    options=--static by_pkg_config consumer kiv-drivers -static
    by_find_package /
    for program in consumer consumer_static consumer_on_board; do
        test -x "$work/build/$program"
    done
    ;;
find_package)
    cp -a "$prefix" "$work/moved"
    by_find_package "$work/moved"
    ;;
external)
    # kiv-core alone, as the device's own would be there.
    mkdir -p "$work/core/lib/pkgconfig" "$work/core/include/kiv"
    libraries=$(libdir "$prefix" libkiv-core.so)
    cp -a "$libraries"/libkiv-core.so* "$work/core/lib"
    cp "$prefix/include/kiv/core.h" "$work/core/include/kiv"
    sed "s,^prefix=.*,prefix=$work/core,; s,^libdir=.*,libdir=\${prefix}/lib," \
        "$libraries/pkgconfig/kiv-core.pc" >"$work/core/lib/pkgconfig/kiv-core.pc"
    export PKG_CONFIG_PATH="$work/core/lib/pkgconfig"

    cmake -G Ninja -S "$here/../.." -B "$work/library" -DKIV_CORE=external -DKIV_STATIC=ON -DKIV_SIM=OFF \
        -DKIV_EXAMPLES=OFF -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER="${CC:-cc}" \
        -DCMAKE_CXX_COMPILER="${CXX:-c++}" -DCMAKE_INSTALL_PREFIX="$work/installed"
    cmake --build "$work/library"
    cmake --install "$work/library"
    if find "$work/installed" -name '*kiv-core*' -o -name core.h | grep .; then
        echo "an outside kiv-core was installed anew"
        exit 1
    fi
    LD_LIBRARY_PATH="$work/core/lib" by_find_package "$work/installed"
    ;;
esac
