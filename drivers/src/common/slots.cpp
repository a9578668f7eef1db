#include "common/slots.h"

#include <cerrno>

namespace kiv {
namespace {

int read_closed(UART_infos *, void *, unsigned int) {
    errno = EBADF;
    return -1;
}

int write_closed(UART_infos *, const void *, unsigned int) {
    errno = EBADF;
    return -1;
}

} // namespace

void detach(UART_infos &port) noexcept {
    port.fd = -1;
    port.fd_listen = -1;
    port.flags = UART_FLAG_STREAM;
    port.read = read_closed;
    port.write = write_closed;
    port.writev = nullptr;
    port.priv = nullptr;
}

} // namespace kiv
