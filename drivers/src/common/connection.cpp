#include "common/connection.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace kiv {
namespace {

constexpr unsigned int kept_shift = 2;
constexpr uint32_t kept_mask = 0xFFFFF << kept_shift; // of the number plus one
constexpr uint32_t one_connection = 1 << 22;          // of the count
static_assert(one_connection == kept_mask + (1 << kept_shift));

// The kept number, or -1.
int kept_number(const UART_infos &port) noexcept {
    return static_cast<int>((seen(port.flags) & kept_mask) >> kept_shift) - 1;
}

void keep_number(UART_infos &port, int number) noexcept {
    const auto kept = (static_cast<uint32_t>(number) + 1) << kept_shift;
    set(port.flags, (port.flags & ~kept_mask) | kept);
}

// Gives the kept number back. Returns whether there was one.
bool give_up_number(UART_infos &port) noexcept {
    const int number = kept_number(port);
    if (number == -1)
        return false;
    keep_number(port, -1);
    ::close(number);
    return true;
}

} // namespace

bool had_connection(const UART_infos &port) noexcept {
    return seen(port.flags) >= one_connection;
}

int next_descriptor(UART_infos &port, int (*make)(const UART_infos &port)) noexcept {
    const int fd = make(port);
    if (fd == -1 && (errno == EMFILE || errno == ENFILE) && give_up_number(port))
        return make(port);
    return fd;
}

void begin_connection(UART_infos &port, int fresh) noexcept {
    const int number = kept_number(port);
    int fd = fresh;
    if (number != -1 && ::dup2(fresh, number) != -1) {
        keep_number(port, -1);
        ::close(fresh);
        fd = number;
    }
    give_up_number(port); // if it could not be taken over
    const uint32_t flags = port.flags + one_connection;
    set(port.flags, flags >= one_connection ? flags : flags + one_connection); // the count is 0 only at first
    set(port.fd, fd);
}

void end_connection(UART_infos &port, uint32_t failed) noexcept {
    const int fd = port.fd;
    if (fd < 0 || port.flags != failed)
        return;
    set(port.fd, -1);
    if (::shutdown(fd, SHUT_RDWR) == -1 && errno == EBADF)
        return; // closed by mistake: the number is anybody's
    if (static_cast<uint32_t>(fd) + 1 <= kept_mask >> kept_shift)
        keep_number(port, fd);
    else
        ::close(fd); // a number as large as that has no place
}

void lose_connection(UART_infos &port, uint32_t failed, sup_mutex_t &mutex) noexcept {
    const mutex_hold hold(mutex);
    end_connection(port, failed);
}

void release_connection(UART_infos &port) noexcept {
    give_up_number(port);
    if (port.fd >= 0)
        ::close(port.fd);
    port.fd = -1;
}

} // namespace kiv
