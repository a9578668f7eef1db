SUMMARY = "Serial ports, buses, pins and Bluetooth networking for an embedded Linux device"
SECTION = "libs"
LICENSE = "CLOSED"

SRC_URI = "file://${BP}.tar.gz"

inherit cmake pkgconfig useradd

EXTRA_OECMAKE = "\
    -DBUILD_TESTING=OFF \
    -DKIV_SIM=OFF \
    -DKIV_EXAMPLES=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

PACKAGECONFIG ??= ""
PACKAGECONFIG[external-core] = "-DKIV_CORE=external,-DKIV_CORE=bundled,kiv-core"

# The stand-in apart from the library, and the tools apart from both, as in the Debian packages.
PACKAGES =+ "${PN}-core ${PN}-tools"
FILES:${PN}-core = "${libdir}/libkiv-core${SOLIBS}"
FILES:${PN}-tools = "\
    ${bindir}/kivctl \
    ${datadir}/bash-completion \
    ${nonarch_libdir}/systemd/system \
    ${nonarch_libdir}/udev/rules.d \
"

USERADD_PACKAGES = "${PN}-tools"
GROUPADD_PARAM:${PN}-tools = "--system gpio; --system i2c"
