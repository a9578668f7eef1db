// TAP interfaces: an Ethernet interface of the kernel whose other end is a descriptor of the caller's.
//
// A transfer is one gathered system call for header and payload together. The module keeps no state.

#define KIV_MODULE "drivers/src/linux/tap"

#include <cerrno>
#include <sys/uio.h>
#include <unistd.h>

#include "common/fd.h"
#include "common/report.h"
#include "common/retry.h"
#include "kiv/network.h"
#include "linux/tun.h"

namespace {

// A TAP interface takes and gives whole frames: what was moved includes the header, or there was an error.
int payload_of(ssize_t moved) {
    return moved != -1 ? static_cast<int>(moved) - KIV_ETH_HEADER_SIZE : -errno;
}

} // namespace

int kiv_eth_open(int32_t *fd, const char *name, const uint8_t *address) {
    int opened = kiv::open_tun_device(kiv::tun_device_paths[0]);
    if (opened == -1)
        opened = kiv::open_tun_device(kiv::tun_device_paths[1]);
    kiv::unique_fd tap(opened);
    ifreq interface;
    if (tap.get() == -1 || !kiv::name_tap_interface(tap.get(), name, interface) ||
        !kiv::set_hardware_address(tap.get(), interface, address, kiv::byte_order::ethernet,
                                   "MAC address = "))
        return -ENODEV;
    *fd = tap.release();
    return 0;
}

int kiv_eth_close(const int32_t *fd) {
    return ::close(*fd);
}

int kiv_eth_read(const int32_t *fd, void *header, void *payload, unsigned int size) {
    const iovec pieces[] = {{header, KIV_ETH_HEADER_SIZE}, {payload, size}};
    return payload_of(kiv::retry([&] { return ::readv(*fd, pieces, 2); }));
}

int kiv_eth_write(const int32_t *fd, const void *header, const void *payload, unsigned int length) {
    const iovec pieces[] = {{const_cast<void *>(header), KIV_ETH_HEADER_SIZE},
                            {const_cast<void *>(payload), length}};
    return payload_of(kiv::retry([&] { return ::writev(*fd, pieces, 2); }));
}
