// One attempt to move bytes on a port's connection, for transports that outlive their peers.

#ifndef KIV_COMMON_ATTEMPT_H
#define KIV_COMMON_ATTEMPT_H

#include <algorithm>
#include <climits>
#include <sys/socket.h>
#include <unistd.h>

#include "common/hints.h"
#include "common/slots.h"

namespace kiv {

// The result of an attempt that found no connection. Such a one has nothing to end: the connection that
// stands by then, even under the count that was taken before, has not failed.
constexpr ssize_t not_tried = -2;

// Return the bytes moved, or a result that is not positive.
KIV_HOT ssize_t read_once(const UART_infos &port, void *buffer, unsigned int length) noexcept {
    const int fd = current_fd(port);
    return fd >= 0 ? ::read(fd, buffer, length) : not_tried;
}

KIV_HOT ssize_t send_once(const UART_infos &port, const void *buffer, unsigned int length) noexcept {
    const int fd = current_fd(port);
    return fd >= 0 ? ::send(fd, buffer, length, MSG_NOSIGNAL) : not_tried;
}

// Data that nobody takes is dropped and counts as sent.
inline int dropped(unsigned int length) noexcept {
    return static_cast<int>(std::min<unsigned int>(length, INT_MAX));
}

} // namespace kiv

#endif
