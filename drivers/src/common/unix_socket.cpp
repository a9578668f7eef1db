#include "common/unix_socket.h"

#include <cstring>
#include <sys/socket.h>

#include "common/fd.h"

namespace kiv {

// An address is always given to the kernel whole. An abstract name is as long as the address says, so the
// service must have bound all of it too, trailing zeros included.
static_assert(sizeof(sockaddr_un) == 2 + 108 && AF_UNIX == 1 && SOCK_STREAM == 1);

void name_socket(sockaddr_un &address, const char *name) noexcept {
    address.sun_family = AF_UNIX;
    ::memccpy(address.sun_path, name, '\0', sizeof address.sun_path);
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
}

int unix_socket(const UART_infos &) noexcept {
    return above_standard(::socket(AF_UNIX, SOCK_STREAM, 0));
}

int connect_unix(int fd, const sockaddr_un &address) noexcept {
    return ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

} // namespace kiv
