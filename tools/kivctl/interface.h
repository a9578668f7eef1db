// Ethernet interfaces: what the library leaves to others.
#ifndef KIVCTL_INTERFACE_H
#define KIVCTL_INTERFACE_H

#include <cstdint>

#include "cli.h"

namespace kivctl {

// Capabilities, by their numbers in <linux/capability.h>: whether this process has one.
bool has_capability(unsigned number);

// Says why an interface could not be made: the library's log does not tell the errno.
exit_code fail_making(const char *name);

// The option with an address. It must be there and must not be that of a group.
exit_code read_hardware_address(const request &from, char key, uint8_t (&address)[6]);

exit_code set_up(const char *name);

} // namespace kivctl

#endif
