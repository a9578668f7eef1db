#!/bin/sh
# Builds and runs a consumer of an installed tree: check_consumer.sh HOW STAGE WORK
#   HOW     pkg-config, find_package, or external: the library built anew against the installed kiv-core
#   STAGE   the folder that DESTDIR named; everything lies in its opt/kiv
#   WORK    a folder of this check's own, emptied first
set -eu
how=$1 stage=$2 work=$3
here=$(cd "$(dirname "$0")" && pwd)
prefix=$stage/opt/kiv
unset DESTDIR LD_LIBRARY_PATH
rm -rf "$work"
mkdir -p "$work"

libdir() { dirname "$(find "$1" -name "$2")"; }

by_pkg_config() { # by_pkg_config FOLDER [OPTION]...: the library's folder, what pkg-config has to be told
    folder=$1
    shift
    # shellcheck disable=SC2046
    ${CC:-cc} "$here/consumer/consumer.c" $(pkg-config "$@" --cflags --libs 'kiv-drivers >= 1.0') \
        "-Wl,-rpath,$folder" -o "$work/consumer"
    "$work/consumer"
}

by_find_package() { # by_find_package PREFIX
    cmake -G Ninja -S "$here/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$1" -DCMAKE_C_COMPILER="${CC:-cc}"
    cmake --build "$work/build"
    "$work/build/consumer"
}

case $how in
pkg-config)
    libraries=$(libdir "$prefix" libkiv-drivers.so)
    export PKG_CONFIG_PATH="$libraries/pkgconfig"
    PKG_CONFIG_SYSROOT_DIR=$stage by_pkg_config "$libraries"
    by_pkg_config "$libraries" --define-variable=prefix="$prefix"
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

    cmake -G Ninja -S "$here/../.." -B "$work/library" -DKIV_CORE=external -DKIV_SIM=OFF -DKIV_EXAMPLES=OFF \
        -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER="${CC:-cc}" \
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
