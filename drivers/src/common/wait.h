// Waiting for one descriptor to become readable.

#ifndef KIV_COMMON_WAIT_H
#define KIV_COMMON_WAIT_H

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/select.h>

#include "common/hints.h"

namespace kiv {

// For descriptors that a set cannot hold: the same answers as select gives.
KIV_COLD inline int wait_readable_beyond_sets(int fd, const timeval *limit) noexcept {
    if (fd < 0)
        return 0;
    timespec limit_ns{};
    if (limit != nullptr)
        limit_ns = {.tv_sec = limit->tv_sec, .tv_nsec = static_cast<long>(limit->tv_usec) * 1000};
    pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    const int ready = ::ppoll(&entry, 1, limit != nullptr ? &limit_ns : nullptr, nullptr);
    if (ready == 1 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

// Waits until fd is readable (or at its end, or in error), without limit when limit is null. limit is the
// caller's to refresh: the kernel counts it down. Returns 1, 0 at the time-out, or -1 with errno. For a
// negative fd there is nothing to wait for: that is like a time-out, at once.
KIV_SHARED int wait_readable(int fd, timeval *limit) noexcept {
    if (static_cast<unsigned int>(fd) >= FD_SETSIZE) [[unlikely]]
        return wait_readable_beyond_sets(fd, limit);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return ::select(fd + 1, &readable, nullptr, nullptr, limit);
}

} // namespace kiv

#endif
