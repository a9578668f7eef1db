#define KIV_MODULE "drivers/src/linux/tun"

#include "linux/tun.h"

#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include "common/fd.h"
#include "common/hints.h"
#include "common/report.h"

static_assert(TUNSETIFF == 0x400454ca && SIOCSIFHWADDR == 0x8924);
static_assert((IFF_TAP | IFF_NO_PI) == 0x1002 && IFNAMSIZ == 16);

namespace kiv {
namespace {

// In pieces, of which each asks for the level: somebody may turn it down in between.
KIV_COLD void log_refused_address(const char *label, const uint8_t *address) noexcept {
    log_failure("TAP: failed to set MAC address\n");
    log_failure(label);
    for (unsigned int i = 0; i < address_size; ++i)
        log_failure("%02X ", address[i]);
    log_failure("\n");
}

} // namespace

int open_tun_device(const char *path) noexcept {
    const int fd = above_standard(::open(path, O_RDWR));
    if (fd != -1 && pos_wants(3))
        sup_log_msg_nocolor_raw(pos_category_name, 3, "bnep device is %s\n", path);
    return fd;
}

bool name_tap_interface(int fd, const char *name, ifreq &interface) noexcept {
    interface = ifreq{};
    ::memccpy(interface.ifr_name, name, '\0', IFNAMSIZ - 1);
    interface.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (::ioctl(fd, TUNSETIFF, &interface) != -1)
        return true;
    log_failure("TAP: failed to set BNEP name\n");
    return false;
}

bool set_hardware_address(int fd, ifreq &interface, const uint8_t *address, byte_order stored,
                          const char *label) noexcept {
    sockaddr &hardware = interface.ifr_hwaddr;
    hardware = sockaddr{};
    hardware.sa_family = ARPHRD_ETHER;
    for (unsigned int i = 0; i < address_size; ++i) {
        const unsigned int from = stored == byte_order::ethernet ? i : address_size - 1 - i;
        hardware.sa_data[i] = static_cast<char>(address[from]);
    }
    if (::ioctl(fd, SIOCSIFHWADDR, &interface) != -1)
        return true;
    log_refused_address(label, address);
    return false;
}

} // namespace kiv
