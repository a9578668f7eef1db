// The cancellable descriptor: a device and a pipe under one poll. A byte in the pipe ends one read.

#include "linux/linux_sfd.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>

#include "common/fd.h"
#include "common/memory.h"

namespace kiv {

ssize_t sread_without_data(const kiv_linux_sfd &s) noexcept {
    if (s.is_cancelled()) {
        char byte;
        // There is at least one byte, and nothing to be done should the read fail.
        [[maybe_unused]] const ssize_t ignored = ::read(s.cancel_read(), &byte, 1);
        return 0;
    }
    // A hang-up or an error. Left as it was, errno could say EINTR and make the caller try for ever.
    errno = EIO;
    return -1;
}

} // namespace kiv

kiv_linux_sfd_t *kiv_linux_sopen(const char *path, int oflag) {
    kiv::unique_fd device(kiv::above_standard(::open(path, oflag)));
    if (device.get() < 0)
        return nullptr;
    auto *s = kiv::make_zeroed<kiv_linux_sfd>();
    if (s == nullptr)
        return nullptr;
    int ends[2] = {-1, -1};
    const int made = ::pipe(ends);
    kiv::unique_fd cancel_read(kiv::above_standard(ends[0]));
    kiv::unique_fd cancel_write(kiv::above_standard(ends[1]));
    if (made == -1 || cancel_read.get() == -1 || cancel_write.get() == -1) {
        const kiv::errno_guard keep;
        ::free(s);
        return nullptr;
    }
    s->waits[0] = {.fd = device.release(), .events = POLLIN, .revents = 0};
    s->waits[1] = {.fd = cancel_read.release(), .events = POLLIN, .revents = 0};
    s->cancel_write = cancel_write.release();
    return s;
}

int kiv_linux_sfdno(kiv_linux_sfd_t *s) {
    return s->device();
}

ssize_t kiv_linux_sread(kiv_linux_sfd_t *s, void *buffer, size_t length) {
    return kiv::sread(*s, buffer, length);
}

ssize_t kiv_linux_sclose_cancel(kiv_linux_sfd_t *s) {
    return ::write(s->cancel_write, "", 1);
}

int kiv_linux_sclose(kiv_linux_sfd_t *s) {
    ::close(s->cancel_write);
    ::close(s->cancel_read());
    const int result = ::close(s->device());
    const kiv::errno_guard keep;
    ::free(s);
    return result;
}
