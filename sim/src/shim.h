// What the files of the shim share.

#ifndef KIV_SIM_SHIM_H
#define KIV_SIM_SHIM_H

#include "device.h"

#define KIV_SIM_LIBC extern "C" __attribute__((visibility("default")))

namespace kiv::sim {

// The device that answers for a path; null for one that is the machine's.
const device *find_device(const char *path);

// A request as the program's own ioctl makes it: counted, changed by a fault, answered by the device.
int make_request(int fd, unsigned request, void *argument);

} // namespace kiv::sim

#endif
