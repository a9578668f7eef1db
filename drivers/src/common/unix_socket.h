// Connections to the services of this machine: stream sockets of the Unix domain.

#ifndef KIV_COMMON_UNIX_SOCKET_H
#define KIV_COMMON_UNIX_SOCKET_H

#include <sys/un.h>

#include "kiv/uart.h"

namespace kiv {

// A path, or "@" and a name of the abstract namespace; cut to what an address holds. The kernel needs no
// zero behind a path of full length. address must be cleared.
void name_socket(sockaddr_un &address, const char *name) noexcept;

// Returns a socket for a port, or -1 with errno.
int unix_socket(const UART_infos &port) noexcept;

int connect_unix(int fd, const sockaddr_un &address) noexcept;

} // namespace kiv

#endif
