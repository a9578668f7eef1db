// The TCP transports: a server that serves one client at a time, and a client that connects again.
//
//   1. The module's mutex
//   2. Connections       how the two sides get one
//   3. Data              one loop for reads and one way for writes, whichever side
//   4. Server opening
//   5. Client opening, closing
//
// fd holds the connection, or tells why there is none: nobody is connected, or a reader is waiting for a
// peer and writers must not try. tcp_mutex guards every change of fd; reads and sends run without it, and so
// do a reader's wait for a client and its attempts to connect. Nothing is reported while it is held.

#define KIV_MODULE "drivers/src/posix/linux_uart_tcp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/connection.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/shared.h"
#include "common/slots.h"
#include "common/wait.h"
#include "kiv/transports.h"

using kiv::connection;
using kiv::current_connection;
using kiv::late_trace;
using kiv::mutex_hold;
using kiv::seen;
using kiv::set;
using kiv::trace_errno;

namespace {

// 1. The module's mutex ---------------------------------------------------------------------------------

constinit sup_mutex_t tcp_mutex{}; // one for all TCP ports, never destroyed
constinit uint32_t tcp_mutex_initialized = 0;

// 2. Connections ----------------------------------------------------------------------------------------

constexpr int nobody = -1;  // fd: no connection
constexpr int waiting = -2; // fd: a reader is waiting for the peer

enum class side { server, client };
enum class patience { once, until_connected };

int tcp_socket(const UART_infos &) {
    return kiv::above_standard(::socket(AF_INET, SOCK_STREAM, 0));
}

int accept_client(const UART_infos &port) {
    return kiv::above_standard(::accept(port.fd_listen, nullptr, nullptr));
}

// Returns the accepted socket, or -1.
int pos_tcp_accept(UART_infos &port, patience block, late_trace &failure) {
    timeval timeout{};
    const int ready =
        kiv::wait_readable(port.fd_listen, block == patience::until_connected ? nullptr : &timeout);
    if (ready == -1)
        failure.note(KIV_SITE("ret = select(UART_infos->fd_listen+1, &readfds, ((void *)0), ((void *)0), "
                              "block?((void *)0):&timeout)"));
    if (ready <= 0)
        return -1;
    const int fd = kiv::next_descriptor(port, accept_client);
    if (fd == -1)
        failure.note(KIV_SITE("UART_infos->fd = accept(UART_infos->fd_listen, ((void *)0), 0)"));
    return fd;
}

constexpr unsigned int client_retry_delay = 5000; // milliseconds

// The opening's socket serves until it has been connected. Connected once, a socket cannot be connected
// again: from then on each attempt takes a fresh one. Returns the connected socket, or -1 with errno.
int pos_connect_tcp_client(UART_infos &port, patience retry, late_trace &failure) {
    for (;;) {
        const bool unused = !kiv::had_connection(port);
        kiv::unique_fd fresh(unused ? -1 : kiv::next_descriptor(port, tcp_socket));
        const int fd = unused ? port.fd_listen : fresh.get();
        if (fd == -1)
            failure.note(KIV_SITE("UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"));
        else if (::connect(fd, static_cast<const sockaddr *>(port.priv), sizeof(sockaddr_in)) == 0) {
            static_cast<void>(fresh.release());
            return fd;
        }
        if (retry == patience::once)
            return -1;
        failure.write();
        sup_thread_delay(client_retry_delay, 0);
    }
}

int obtain(UART_infos &port, side which, patience how, late_trace &failure) {
    return which == side::client ? pos_connect_tcp_client(port, how, failure)
                                 : pos_tcp_accept(port, how, failure);
}

// Takes what an attempt gave into the record. With the lock held, or from an opening.
void adopt(UART_infos &port, side which, int obtained) {
    if (obtained == -1)
        return;
    if (port.fd >= 0) {
        ::close(obtained); // one too many: two threads read from this port, which they should not
        return;
    }
    kiv::begin_connection(port, obtained);
    if (which == side::client)
        port.fd_listen = port.fd;
}

// Tells writers that a reader waits for a peer. Returns false if there is nothing to wait for.
bool begin_wait(UART_infos &port) {
    const mutex_hold hold(tcp_mutex);
    if (port.fd != nobody)
        return false;
    set(port.fd, waiting);
    return true;
}

// The reader's way to a connection. When the wait fails, the port is as before it.
KIV_COLD void await_peer(UART_infos &port, side which) {
    late_trace failure;
    const int obtained = begin_wait(port) ? obtain(port, which, patience::until_connected, failure) : -1;
    const mutex_hold hold(tcp_mutex);
    adopt(port, which, obtained);
    if (port.fd == waiting)
        set(port.fd, nobody);
}

// The writer's: it takes what is there at once.
KIV_COLD void try_peer(UART_infos &port, side which) {
    late_trace failure;
    const mutex_hold hold(tcp_mutex);
    if (port.fd == nobody)
        adopt(port, which, obtain(port, which, patience::once, failure));
}

// 3. Data -----------------------------------------------------------------------------------------------

constexpr useconds_t server_retry_delay_us = 500000;

// Between two attempts of which neither brought a byte, so that no port spins.
void pause_before_retry(side which) {
    if (which == side::client)
        sup_thread_delay(client_retry_delay, 0);
    else
        ::usleep(server_retry_delay_us);
}

inline int read_stream(UART_infos *port, void *buffer, unsigned int length, side which,
                       const char *function) {
    for (bool failed_before = false;; failed_before = true) {
        kiv::check(seen(port->fd) != waiting, KIV_ON_BEHALF_OF(function, "UART_infos->fd != -2"));
        connection now = current_connection(*port, tcp_mutex);
        if (now.fd < 0) {
            await_peer(*port, which);
            now = current_connection(*port);
        }
        const ssize_t count = now.fd >= 0 ? ::read(now.fd, buffer, length) : 0;
        if (count > 0)
            return static_cast<int>(count);
        kiv::lose_connection(*port, now.flags, tcp_mutex);
        if (failed_before)
            pause_before_retry(which);
    }
}

int pos_read_tcp(UART_infos *port, void *buffer, unsigned int length) {
    return read_stream(port, buffer, length, side::server, __func__);
}

int pos_read_tcp_client(UART_infos *port, void *buffer, unsigned int length) {
    return read_stream(port, buffer, length, side::client, __func__);
}

inline int write_stream(UART_infos *port, const void *buffer, unsigned int length, side which) {
    connection now = current_connection(*port, tcp_mutex);
    if (now.fd < 0) {
        try_peer(*port, which);
        now = current_connection(*port);
    }
    return kiv::send_or_drop(*port, now, buffer, length, tcp_mutex);
}

int pos_write_tcp(UART_infos *port, const void *buffer, unsigned int length) {
    return write_stream(port, buffer, length, side::server);
}

int pos_write_tcp_client(UART_infos *port, const void *buffer, unsigned int length) {
    return write_stream(port, buffer, length, side::client);
}

// Completes a cleared address that has its host.
void set_port(sockaddr_in &address, long port_number) {
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_number)); // the low 16 bits
}

} // namespace

// 4. Server opening -------------------------------------------------------------------------------------

int pos_open_tcp(UART_infos *port, const char *device_name, unsigned int options) {
    if (kiv::check_opening(port, device_name, __func__, __LINE__) != 0)
        return EINVAL;
    const char *number = kiv::skip_prefix("tcp:", device_name);
    if (number == nullptr)
        return EINVAL;
    const long port_number = ::strtol(number, nullptr, 10);
    sockaddr_in address{}; // the host that stands for all of this machine's addresses is zero
    static_assert(INADDR_ANY == 0);
    set_port(address, port_number);

    kiv::unique_fd listener(tcp_socket(*port));
    if (listener.get() == -1)
        return trace_errno(KIV_SITE("UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"));
    const int opt = 1;
    if (::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &opt, sizeof opt) == -1)
        return trace_errno(KIV_SITE("ret = setsockopt(UART_infos->fd_listen, 1, 2, &opt, sizeof(opt))"));
    if (::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1)
        return trace_errno(
            KIV_SITE("ret = bind(UART_infos->fd_listen, (struct sockaddr *)&addr, sizeof(addr))"));
    if (::listen(listener.get(), 1) == -1)
        return trace_errno(KIV_SITE("ret = listen(UART_infos->fd_listen, 1)"));
    const int status = kiv::ensure_mutex(tcp_mutex_initialized, tcp_mutex);
    if (status != 0)
        return status;

    kiv::attach(*port, {.read = pos_read_tcp, .write = pos_write_tcp, .writev = nullptr, .close = nullptr});
    port->fd = nobody;
    port->fd_listen = listener.release();
    if ((options & UART_OPTION_WAIT_PEER) != 0) {
        sup_system_diag("Waiting connection on tcp port %d\n", static_cast<int>(port_number));
        late_trace failure;
        adopt(*port, side::server, pos_tcp_accept(*port, patience::until_connected, failure));
    }
    return 0;
}

// 5. Client opening, closing ----------------------------------------------------------------------------

namespace {

struct peer_name {
    char host[20];
    long port_number;
    sockaddr_in address;
};

// "tcpout:", a dotted IPv4 address, ":" and a number.
bool parse(const char *device_name, peer_name &peer) {
    const char *at = kiv::skip_prefix("tcpout:", device_name);
    if (at == nullptr)
        return false;
    size_t length = 0;
    for (; *at != ':'; ++at, ++length) {
        if (*at == '\0' || length == sizeof peer.host - 1)
            return false;
        peer.host[length] = *at;
    }
    peer.host[length] = '\0';
    const char *number = at + 1;
    char *end = nullptr;
    peer.port_number = ::strtol(number, &end, 10);
    peer.address = {};
    set_port(peer.address, peer.port_number);
    return end != number && ::inet_pton(AF_INET, peer.host, &peer.address.sin_addr) == 1;
}

} // namespace

int pos_open_tcp_client(UART_infos *port, const char *device_name, unsigned int options) {
    if (kiv::check_opening(port, device_name, __func__, __LINE__) != 0)
        return EINVAL;
    peer_name peer;
    if (!parse(device_name, peer))
        return EINVAL;
    kiv::unique_fd connector(tcp_socket(*port));
    if (connector.get() == -1)
        return trace_errno(KIV_SITE("UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"));
    int status = kiv::ensure_mutex(tcp_mutex_initialized, tcp_mutex);
    if (status != 0)
        return status;
    auto *address = kiv::make_zeroed<sockaddr_in>();
    if (address == nullptr)
        return ENOMEM;
    *address = peer.address;

    kiv::attach(*port, {.read = pos_read_tcp_client,
                        .write = pos_write_tcp_client,
                        .writev = nullptr,
                        .close = pos_close_tcp_client});
    port->fd = nobody;
    port->priv = address;
    port->fd_listen = connector.get();
    sup_system_diag("Try to connect to %s:%d\n", peer.host, static_cast<int>(peer.port_number));
    const bool wait = (options & UART_OPTION_WAIT_PEER) != 0;
    late_trace failure;
    adopt(*port, side::client,
          pos_connect_tcp_client(*port, wait ? patience::until_connected : patience::once, failure));
    if (port->fd == nobody) {
        status = errno;
        port->fd_listen = -1; // closed with this scope; the address stays, for pos_close_tcp_client
        return status;
    }
    [[maybe_unused]] const int owned = connector.release();
    return 0;
}

int pos_close_tcp_client(UART_infos *port) {
    if (port == nullptr)
        return kiv::refuse_null(KIV_SITE("(UART_infos) != ((void *)0)"));
    if (port->priv != nullptr) // the opening came as far as the address, so fd is the port's
        kiv::release_connection(*port);
    ::free(port->priv);
    kiv::detach(*port);
    return 0;
}
