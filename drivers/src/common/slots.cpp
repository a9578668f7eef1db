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

int close_closed(UART_infos *) {
    return 0;
}

} // namespace

void begin_stream(UART_infos &port) noexcept {
    port.flags = UART_FLAG_STREAM;
    port.kiv_linux_sfd = nullptr;
    port.fd_listen = 0;
    port.priv = nullptr;
}

void detach(UART_infos &port) noexcept {
    port.flags = UART_FLAG_STREAM; // nothing acts on a line that is not there
    port.read = read_closed;
    port.write = write_closed;
    port.writev = nullptr;
    port.close = close_closed;
    port.fd_listen = 0;
    port.priv = nullptr;
}

} // namespace kiv
