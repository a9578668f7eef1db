// The cancellable descriptor, for the serial port that reads through it.

#ifndef KIV_LINUX_LINUX_SFD_H
#define KIV_LINUX_LINUX_SFD_H

#include <poll.h>
#include <unistd.h>

#include "kiv/uart.h"

struct kiv_linux_sfd {
    pollfd waits[2]; // the device, then the pipe's read end
    int cancel_write;

    [[nodiscard]] int device() const { return waits[0].fd; }
    [[nodiscard]] int cancel_read() const { return waits[1].fd; }
    [[nodiscard]] bool has_data() const { return (waits[0].revents & POLLIN) != 0; }
    [[nodiscard]] bool is_cancelled() const { return (waits[1].revents & POLLIN) != 0; }
};

namespace kiv {

// No data on the device: a cancellation, which is used up, or an event such as a hang-up.
ssize_t sread_without_data(const kiv_linux_sfd &s) noexcept;

inline ssize_t sread(kiv_linux_sfd &s, void *buffer, size_t length) noexcept {
    if (::poll(s.waits, 2, -1) < 1)
        return -1;
    if (s.has_data())
        return ::read(s.device(), buffer, length);
    return sread_without_data(s);
}

} // namespace kiv

#endif
