# Installs what is missing. Sourced, not run.
# shellcheck shell=bash disable=SC2034

# What each purpose needs: "a command or a file that shows it is there:the Debian package that brings it".
KIV_FOR_BUILD='cmake:cmake ninja:ninja-build g++:g++ gcc:gcc pkg-config:pkg-config'
KIV_FOR_TESTS='python3:python3 valgrind:valgrind /usr/include/gtest/gtest.h:libgtest-dev socat:socat tio:tio picocom:picocom
    /usr/sbin/i2cdetect:i2c-tools /usr/lib/python3/dist-packages/serial:python3-serial mbpoll:mbpoll sz:lrzsz
    man:man-db scdoc:scdoc ip:iproute2 /usr/sbin/nft:nftables'
# Where systemd runs, its package would begin to take USB adapters. Without it the test that needs it is skipped.
[[ -d /run/systemd/system ]] || KIV_FOR_TESTS+=' /usr/sbin/gpsd:gpsd gpspipe:gpsd-clients'
KIV_FOR_DEMO='socat:socat strace:strace ip:iproute2 ping:iputils-ping'
KIV_FOR_ARM='arm-linux-gnueabi-g++:g++-arm-linux-gnueabi qemu-arm-static:qemu-user-static
    /usr/src/googletest/CMakeLists.txt:googletest'
KIV_FOR_AARCH64='aarch64-linux-gnu-g++:g++-aarch64-linux-gnu qemu-aarch64-static:qemu-user-static
    /usr/src/googletest/CMakeLists.txt:googletest'
KIV_FOR_MUSL='musl-gcc:musl-tools clang++-14:clang-14 /usr/lib/llvm-14/include/c++/v1/cstdint:libc++-14-dev'
KIV_FOR_CLANG='clang++-14:clang-14 /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux:libclang-rt-14-dev'
KIV_FOR_COVERAGE='llvm-cov-14:llvm-14'
KIV_FOR_LINT='clang-tidy-14:clang-tidy-14 clang-format-14:clang-format-14 cppcheck:cppcheck git:git'
KIV_FOR_DOCS='scdoc:scdoc mandoc:mandoc doxygen:doxygen'
KIV_FOR_PACKAGES='scdoc:scdoc unshare:util-linux ip:iproute2 socat:socat systemd-analyze:systemd file:file
    make:make'
KIV_FOR_ABI='abidw:abigail-tools'
KIV_FOR_BENCH='/usr/include/benchmark/benchmark.h:libbenchmark-dev valgrind:valgrind strace:strace'
KIV_FOR_PEERS='/usr/include/libserialport.h:libserialport-dev /usr/include/boost/asio.hpp:libboost-dev
    /usr/lib/python3/dist-packages/serial:python3-serial /usr/include/i2c/smbus.h:libi2c-dev
    /usr/include/gpiod.h:libgpiod-dev socat:socat /usr/sbin/ser2net:ser2net'

# missing_packages NEEDS...: the packages that are not there, one a line.
missing_packages() {
    local need sign
    # shellcheck disable=SC2048 # the words count, not the arguments
    for need in $*; do
        sign=${need%%:*}
        if [[ $sign == /* ]]; then
            [[ -e $sign ]] || printf '%s\n' "${need#*:}"
        else
            command -v "$sign" >/dev/null || printf '%s\n' "${need#*:}"
        fi
    done | sort -u
}

# need NEEDS...: installs what is missing of it; when nothing is, it asks nobody.
need() {
    local missing as_root=''
    mapfile -t missing < <(missing_packages "$*")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    command -v apt-get >/dev/null || die "install these, by their Debian names, and try again: ${missing[*]}"
    if [[ $(id -u) -ne 0 ]]; then
        command -v sudo >/dev/null || die "run this as root, or install: apt-get install ${missing[*]}"
        as_root=sudo
    fi
    say "installing ${missing[*]}"
    if [[ -z ${KIV_APT_UPDATED:-} ]]; then
        logged apt-update $as_root apt-get -q update
        KIV_APT_UPDATED=1
    fi
    logged apt-install $as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends \
        -o Dpkg::Use-Pty=0 install "${missing[@]}"
    mapfile -t missing < <(missing_packages "$*")
    [[ ${#missing[@]} -eq 0 ]] || die "still missing after the installation: ${missing[*]}"
}
