// The TCP transports: a server that serves one client at a time, and a client that connects again.
//
//   1. The module's mutex
//   2. Connections       what fd says, and how the two sides get a connection and end one
//   3. Data              one reader and one writer for both sides
//   4. Server opening
//   5. Client opening, closing
//
// fd holds the connection, or tells why there is none: nobody is connected, or a reader is waiting for a
// peer and writers must not try. tcp_mutex guards every change of fd; reads and sends run without it, and so
// do a reader's wait for a client and its attempts to connect. A call that fails ends its own connection
// only, never one that has come since.

#define KIV_MODULE "drivers/src/posix/linux_uart_tcp"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/attempt.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/wait.h"
#include "kiv/transports.h"

using kiv::mutex_hold;
using kiv::not_tried;
using kiv::read_once;
using kiv::send_once;
using kiv::trace_errno;

namespace {

// 1. The module's mutex ---------------------------------------------------------------------------------

constinit sup_mutex_t tcp_mutex{}; // one for all TCP ports, never destroyed
constinit uint32_t tcp_mutex_initialized = 0;

// 2. Connections ----------------------------------------------------------------------------------------

constexpr int nobody = -1;    // fd: no connection
constexpr int waiting = -2;   // fd: a reader is waiting for the peer
constexpr int unchanged = -3; // of an attempt: fd stays as it is

enum class patience { once, until_connected };

// Returns the accepted socket; nobody, when the accepting failed; or unchanged, when no client has come.
int pos_tcp_accept(const UART_infos &port, patience block) {
    timeval timeout{};
    const int ready =
        kiv::wait_readable(port.fd_listen, block == patience::until_connected ? nullptr : &timeout);
    if (ready == -1)
        trace_errno(KIV_SITE("ret = select(UART_infos->fd_listen+1, &readfds, ((void *)0), ((void *)0), "
                             "block?((void *)0):&timeout)"));
    if (ready <= 0)
        return unchanged;
    const int fd = ::accept(port.fd_listen, nullptr, nullptr);
    if (fd == -1)
        trace_errno(KIV_SITE("UART_infos->fd = accept(UART_infos->fd_listen, ((void *)0), 0)"));
    return fd;
}

// A socket that has been connected cannot be connected again. The fresh one takes over the number of the old
// one in one step, so that the number never becomes somebody else's while a late writer still has it.
bool renew_socket(const UART_infos &port, const char *function) {
    const kiv::unique_fd fresh(::socket(AF_INET, SOCK_STREAM, 0));
    if (fresh.get() == -1) {
        trace_errno(kiv::in(function, KIV_SITE("UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)")));
        return false;
    }
    if (::dup2(fresh.get(), port.fd_listen) == -1) {
        trace_errno(kiv::in(function, KIV_SITE("ret = dup2(fd, UART_infos->fd_listen)")));
        return false;
    }
    return true;
}

constexpr unsigned int client_retry_delay = 5000; // milliseconds

// Returns the connected socket, or unchanged with errno when one attempt was all and it failed.
int pos_connect_tcp_client(const UART_infos &port, patience retry) {
    const bool spent = (port.flags & kiv::socket_is_spent) != 0;
    for (;;) {
        if ((!spent || renew_socket(port, __func__)) &&
            ::connect(port.fd_listen, static_cast<const sockaddr *>(port.priv), sizeof(sockaddr_in)) == 0)
            return port.fd_listen;
        if (retry == patience::once)
            return unchanged;
        sup_thread_delay(client_retry_delay, 0);
    }
}

// The two kinds of port differ in how they get a connection and in what is left of one that has ended. Only a
// client port keeps an address.
bool is_client(const UART_infos &port) {
    return port.priv != nullptr;
}

int obtain(const UART_infos &port, patience how) {
    return is_client(port) ? pos_connect_tcp_client(port, how) : pos_tcp_accept(port, how);
}

// Takes what an attempt gave into the record.
void adopt(UART_infos &port, int obtained) {
    if (obtained >= 0 && port.fd < 0)
        kiv::begin_connection(port, obtained, is_client(port) ? kiv::socket_is_spent : 0);
    else if (obtained >= 0 && !is_client(port))
        ::close(obtained); // one too many: two threads read from this port, which they should not
    else if (obtained == nobody)
        kiv::set_current_fd(port, nobody);
}

// The reader's way to a connection: it waits for one without the lock, and writers see that it does. When the
// wait fails, the port is as before it.
KIV_COLD void await_peer(UART_infos &port, const char *function) {
    kiv::check(kiv::current_fd(port) != waiting, kiv::in(function, KIV_SITE("UART_infos->fd != -2")));
    const mutex_hold hold(tcp_mutex);
    if (port.fd == nobody) {
        kiv::set_current_fd(port, waiting);
        sup_mutex_unlock(&tcp_mutex);
        const int obtained = obtain(port, patience::until_connected);
        sup_mutex_lock(&tcp_mutex);
        adopt(port, obtained);
    }
    if (port.fd == waiting)
        kiv::set_current_fd(port, nobody);
}

// The writer's: it takes what is there at once.
KIV_COLD void try_peer(UART_infos &port) {
    const mutex_hold hold(tcp_mutex);
    if (port.fd == nobody)
        adopt(port, obtain(port, patience::once));
}

// Ends the connection on which a call has failed, unless that has been done already. The record loses the
// number first: nobody without the lock shall take it up when it is free again. Whoever is still blocked on
// it is woken, and the peer learns of the end even if somebody is. A client's socket stays open: the next
// attempt puts a fresh one under its number.
KIV_COLD void lose(UART_infos &port, uint32_t failed) {
    const mutex_hold hold(tcp_mutex);
    const int fd = port.fd;
    if (fd < 0 || kiv::connection_count(port) != failed)
        return;
    kiv::set_current_fd(port, nobody);
    ::shutdown(fd, SHUT_RDWR);
    if (!is_client(port))
        ::close(fd);
}

// 3. Data -----------------------------------------------------------------------------------------------

KIV_HOT uint32_t locked_count(const UART_infos &port) {
    sup_mutex_lock(&tcp_mutex);
    const uint32_t count = kiv::connection_count(port);
    sup_mutex_unlock(&tcp_mutex);
    return count;
}

// Goes on with a read that found no connection or failed on the one that it found.
KIV_COLD int read_again(UART_infos *port, void *buffer, unsigned int length, uint32_t connection,
                        const char *function) {
    for (;;) {
        if (kiv::current_fd(*port) >= 0)
            lose(*port, connection);
        if (kiv::current_fd(*port) < 0)
            await_peer(*port, function);
        connection = locked_count(*port);
        const ssize_t count = read_once(*port, buffer, length);
        if (count > 0)
            return static_cast<int>(count);
    }
}

KIV_HOT int read_stream(UART_infos *port, void *buffer, unsigned int length, const char *function) {
    const uint32_t connection = locked_count(*port);
    const ssize_t count = read_once(*port, buffer, length);
    if (count > 0) [[likely]]
        return static_cast<int>(count);
    return read_again(port, buffer, length, connection, function);
}

int pos_read_tcp(UART_infos *port, void *buffer, unsigned int length) {
    return read_stream(port, buffer, length, __func__);
}

int pos_read_tcp_client(UART_infos *port, void *buffer, unsigned int length) {
    return read_stream(port, buffer, length, __func__);
}

// Goes on with a write that failed, or that found nobody: that one tries once more, on a peer that is there
// at once.
KIV_COLD int write_again(UART_infos *port, const void *buffer, unsigned int length, uint32_t connection,
                         ssize_t count) {
    if (count == not_tried) {
        try_peer(*port);
        connection = locked_count(*port);
        count = send_once(*port, buffer, length);
        if (count > 0)
            return static_cast<int>(count);
    }
    if (count != not_tried)
        lose(*port, connection);
    return kiv::dropped(length);
}

// Both kinds of port.
int pos_write_tcp(UART_infos *port, const void *buffer, unsigned int length) {
    const uint32_t connection = locked_count(*port);
    const ssize_t count = send_once(*port, buffer, length);
    if (count > 0) [[likely]]
        return static_cast<int>(count);
    return write_again(port, buffer, length, connection, count);
}

// Completes a cleared address that has its host.
void set_port(sockaddr_in &address, long port_number) {
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_number)); // the low 16 bits
}

} // namespace

// 4. Server opening -------------------------------------------------------------------------------------

int pos_open_tcp(UART_infos *port, const char *device_name, unsigned int options) {
    if (port == nullptr || device_name == nullptr) [[unlikely]]
        return kiv::refuse_opening(port, __func__, __LINE__);
    const char *number = kiv::after("tcp:", device_name);
    if (number == nullptr)
        return EINVAL;
    const long port_number = ::strtol(number, nullptr, 10);
    sockaddr_in address{}; // the host that stands for all of this machine's addresses is zero
    static_assert(INADDR_ANY == 0);
    set_port(address, port_number);

    kiv::unique_fd listener(::socket(AF_INET, SOCK_STREAM, 0));
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

    kiv::set_listener(*port, listener.release());
    port->fd = nobody;
    kiv::attach(*port, {.read = pos_read_tcp, .write = pos_write_tcp, .writev = nullptr, .close = nullptr});
    if ((options & UART_OPTION_WAIT_PEER) != 0) {
        sup_system_diag("Waiting connection on tcp port %d\n", static_cast<int>(port_number));
        adopt(*port, pos_tcp_accept(*port, patience::until_connected));
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
    const char *at = kiv::after("tcpout:", device_name);
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
    if (port == nullptr || device_name == nullptr) [[unlikely]]
        return kiv::refuse_opening(port, __func__, __LINE__);
    peer_name peer;
    if (!parse(device_name, peer))
        return EINVAL;
    kiv::unique_fd connector(::socket(AF_INET, SOCK_STREAM, 0));
    if (connector.get() == -1)
        return trace_errno(KIV_SITE("UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"));
    int status = kiv::ensure_mutex(tcp_mutex_initialized, tcp_mutex);
    if (status != 0)
        return status;
    auto *address = kiv::make_zeroed<sockaddr_in>();
    if (address == nullptr)
        return ENOMEM;
    *address = peer.address;

    port->fd = nobody;
    port->priv = address;
    port->fd_listen = connector.get();
    kiv::attach(*port, {.read = pos_read_tcp_client,
                        .write = pos_write_tcp,
                        .writev = nullptr,
                        .close = pos_close_tcp_client});
    sup_system_diag("Try to connect to %s:%d\n", peer.host, static_cast<int>(peer.port_number));
    const bool wait = (options & UART_OPTION_WAIT_PEER) != 0;
    adopt(*port, pos_connect_tcp_client(*port, wait ? patience::until_connected : patience::once));
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
    // The address tells that the opening came as far as the socket.
    if (port->priv != nullptr && port->fd_listen >= 0)
        ::close(port->fd_listen);
    ::free(port->priv);
    kiv::detach(*port);
    return 0;
}
