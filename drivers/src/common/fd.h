// Descriptors that close themselves, and errno kept over a clean-up.

#ifndef KIV_COMMON_FD_H
#define KIV_COMMON_FD_H

#include <cerrno>
#include <unistd.h>

namespace kiv {

class errno_guard {
  public:
    errno_guard() noexcept : saved_(errno) {}
    ~errno_guard() { errno = saved_; }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;

  private:
    const int saved_;
};

// Owns a descriptor until it is released; the closing of an abandoned one leaves errno alone. It is not
// repeated on EINTR: the descriptor is gone then, and its number may be somebody else's already.
class unique_fd {
  public:
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    ~unique_fd() {
        if (fd_ >= 0) {
            const errno_guard keep;
            ::close(fd_);
        }
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

// Moves a descriptor that has just been made, or the -1 of a failure, out of the numbers of standard input,
// output and error. A program may have closed those, and what it writes to them, its log to begin with, must
// not end up in a device, a pipe or a connection. Returns the descriptor, or -1 with errno.
int above_standard(int fd) noexcept;

} // namespace kiv

#endif
