#include "common/wait.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/select.h>

#include "common/hints.h"

namespace kiv {
namespace {

// For descriptors that a set cannot hold: the same answers as select gives.
KIV_COLD int wait_beyond_sets(int fd, const timeval *limit) noexcept {
    if (fd < 0)
        return 0;
    timespec limit_ns;
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

} // namespace

int wait_readable(int fd, timeval *limit) noexcept {
    if (static_cast<unsigned int>(fd) >= FD_SETSIZE)
        return wait_beyond_sets(fd, limit);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return ::select(fd + 1, &readable, nullptr, nullptr, limit);
}

} // namespace kiv
