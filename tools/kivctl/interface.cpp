// Ethernet interfaces.

#include "interface.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "numbers.h"
#include "output.h"

namespace kivctl {

bool has_capability(unsigned number) {
    char line[256];
    unsigned long long effective = 0;
    FILE *status = fopen("/proc/self/status", "re");
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr)
        if (strncmp(line, "CapEff:", 7) == 0)
            effective = strtoull(line + 7, nullptr, 16);
    if (status != nullptr)
        fclose(status);
    return (effective >> number & 1) != 0;
}

exit_code fail_making(const char *name) {
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd == -1)
        return fail("opening /dev/net/tun", errno);
    close(fd);
    if (!has_capability(CAP_NET_ADMIN))
        return fail(failed, "making the interface", "it takes the capability CAP_NET_ADMIN");
    if (if_nametoindex(name) != 0)
        return fail(failed, "making the interface", "%s", strerror(EBUSY));
    return fail(failed, "making the interface", "the system refuses the name or the address");
}

exit_code read_hardware_address(const request &from, char key, uint8_t (&address)[6]) {
    const option_row &row = *find_option(key);
    const char *text = from.value(key);
    if (text == nullptr)
        return misuse("it needs --%s %s", row.name, row.argument);
    if (!parse_address(text, address))
        return misuse("'%s' is no address such as 02:00:00:00:00:01", text);
    return (address[0] & 1) == 0 ? done : misuse("'%s' is the address of a group", text);
}

exit_code set_up(const char *name) {
    ifreq request{};
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return fail("setting the interface up", errno);
    int status = ioctl(fd, SIOCGIFFLAGS, &request);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (status == 0)
        status = ioctl(fd, SIOCSIFFLAGS, &request);
    const int error = errno;
    close(fd);
    return status == 0 ? done : fail("setting the interface up", error);
}

} // namespace kivctl
