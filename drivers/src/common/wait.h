// Waiting for one descriptor to become readable.

#ifndef KIV_COMMON_WAIT_H
#define KIV_COMMON_WAIT_H

#include <sys/time.h>

namespace kiv {

// Waits until fd is readable (or at its end, or in error), without limit when limit is null. limit is the
// caller's to refresh: the kernel counts it down. Returns 1, 0 at the time-out, or -1 with errno. For a
// negative fd there is nothing to wait for: that is like a time-out, at once.
int wait_readable(int fd, timeval *limit) noexcept;

} // namespace kiv

#endif
