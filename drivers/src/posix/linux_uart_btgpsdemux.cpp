// The Bluetooth GPS demultiplexer transport: a client of a service that hands the bytes of one GPS receiver
// to several programs. It connects again by itself, and tells the application when it has lost the service
// and when it has it back.
//
//   1. The port's state
//   2. Connections       getting one, and what a failed call does about its own
//   3. Data              one frame for reads and writes
//   4. Opening, closing
//
// fd holds the socket, or -1 after a reconnection that could not make one. The port's mutex guards every
// change of it and is held for a whole reconnection, however long that takes, with both callbacks. The
// library takes no other lock under it; a callback may use other ports, whose locks then come second, and
// never this one. The reads and writes themselves run without it.

#define KIV_MODULE "drivers/src/posix/linux_uart_btgpsdemux"

#include <cerrno>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/unix_socket.h"
#include "kiv/transports.h"

using kiv::mutex_hold;
using kiv::trace_errno;

namespace {

// 1. The port's state -----------------------------------------------------------------------------------

struct btgpsdemux_state {
    sup_mutex_t mutex;
    sockaddr_un server_address;
    uint32_t never_connected;
    uint32_t replaced; // the count of the connection that was ended for another one's failure, or 0
    int32_t lost;      // the number of an ended connection, kept until the next one takes it over, or -1
};

// What a transfer works on.
struct connection {
    int fd;
    uint32_t count;
};

btgpsdemux_state &state_of(const UART_infos &port) {
    return *static_cast<btgpsdemux_state *>(port.priv);
}

// Returns 0, or the status of the step that failed, with nothing made.
int make_state(UART_infos &port, const char *socket_path) {
    auto *state = kiv::make_zeroed<btgpsdemux_state>();
    if (state == nullptr)
        return ENOMEM;
    const int status = sup_mutex_init(&state->mutex, 0);
    if (status != 0) {
        ::free(state);
        return status;
    }
    state->never_connected = 1;
    state->lost = -1;
    kiv::name_socket(state->server_address, socket_path);
    port.priv = state;
    return 0;
}

// Everything that an opening made, as far as it came. Harmless a second time.
void release(UART_infos &port) {
    if (port.priv != nullptr) {
        const kiv::unique_fd lost(state_of(port).lost);
        sup_mutex_destroy(&state_of(port).mutex);
        ::free(port.priv);
        port.priv = nullptr;
    }
    if (port.fd != -1) {
        ::close(port.fd);
        port.fd = -1;
    }
}

// 2. Connections ----------------------------------------------------------------------------------------

void tell(UART_infos &port, void (*callback)(UART_infos *, void *)) {
    if (callback != nullptr)
        callback(&port, port.status_cb.context);
}

void begin(UART_infos &port, int fd) {
    kiv::begin_connection(port, fd);
    state_of(port).never_connected = 0;
    tell(port, port.status_cb.connected);
}

// Shuts the connection down, which brings back whoever is blocked on it and tells the service. Its number
// stays the port's: a thread that is late with it finds the end of the old connection or the new one, and
// never somebody else's descriptor.
void end_connection(UART_infos &port) {
    const int number = port.fd;
    kiv::set_current_fd(port, -1);
    ::shutdown(number, SHUT_RDWR);
    state_of(port).lost = number;
}

// The number of the next connection, whose socket is given: the lost one's, if it can be had.
int take_number(btgpsdemux_state &state, kiv::unique_fd &connected) {
    kiv::unique_fd lost(state.lost);
    state.lost = -1;
    return lost.get() != -1 && ::dup2(connected.get(), lost.get()) != -1 ? lost.release()
                                                                         : connected.release();
}

// With the mutex held. Returns 0 when connected, or the error of a socket that could not be made.
KIV_COLD int btgpsdemux_reconnect(UART_infos &port) {
    if (port.fd != -1)
        end_connection(port);
    if (state_of(port).never_connected == 0)
        tell(port, port.status_cb.disconnected);
    kiv::unique_fd fresh(kiv::unix_socket());
    if (fresh.get() == -1)
        return trace_errno(KIV_SITE("fd = socket(1, SOCK_STREAM, 0)"));
    constexpr useconds_t retry_interval_us = 500000;
    while (kiv::connect_unix(fresh.get(), state_of(port).server_address) == -1)
        ::usleep(retry_interval_us);
    begin(port, take_number(state_of(port), fresh));
    return 0;
}

connection standing_connection(const UART_infos &port) {
    return {port.fd, kiv::connection_count(port)};
}

// After a call has failed on one connection: makes the next, even if the other thread has just made one,
// since both have seen the link fail. But a thread that has only been cut off by that does not do the same to
// the other again, or the two would take turns for ever: it goes on with the connection that stands. now
// becomes that connection. Returns as btgpsdemux_reconnect does.
KIV_COLD int renew(UART_infos &port, connection &now) {
    btgpsdemux_state &state = state_of(port);
    const mutex_hold hold(state.mutex);
    int status = 0;
    if (port.fd == -1 || now.count != state.replaced) {
        const uint32_t standing = kiv::connection_count(port);
        if (port.fd != -1 && now.count != standing)
            state.replaced = standing;
        status = btgpsdemux_reconnect(port);
    }
    now = standing_connection(port);
    return status;
}

// 3. Data -----------------------------------------------------------------------------------------------

KIV_COLD int failed_with(int error) {
    errno = error; // not before the mutex is free: kiv-core's unlocking may set it
    return -1;
}

enum class direction { out, in };

// One frame for both ways. The buffer is only read from when bytes go out.
KIV_HOT int transfer(UART_infos &port, direction way, void *buffer, unsigned int length) {
    btgpsdemux_state &state = state_of(port);
    sup_mutex_lock(&state.mutex);
    int status = 0;
    if (port.fd == -1) [[unlikely]]
        status = btgpsdemux_reconnect(port);
    connection now = standing_connection(port);
    sup_mutex_unlock(&state.mutex);
    while (status == 0) {
        const ssize_t count =
            way == direction::out ? ::write(now.fd, buffer, length) : ::read(now.fd, buffer, length);
        if (count > 0) [[likely]]
            return static_cast<int>(count);
        status = renew(port, now);
    }
    return failed_with(status);
}

int pos_btgpsdemux_read(UART_infos *port, void *buffer, unsigned int length) {
    return transfer(*port, direction::in, buffer, length);
}

int pos_btgpsdemux_write(UART_infos *port, const void *buffer, unsigned int length) {
    return transfer(*port, direction::out, const_cast<void *>(buffer), length);
}

// 4. Opening, closing -----------------------------------------------------------------------------------

int pos_btgpsdemux_close(UART_infos *port) {
    release(*port);
    kiv::detach(*port);
    return 0;
}

// Two sockets: one to try, and one to have in fd if the service is not there yet, so that fd is a descriptor
// from the beginning. The first read or write fails on that one and connects. Returns 0 or the errno of the
// socket that could not be made.
int connect_first(UART_infos &port, const char *function) {
    kiv::unique_fd idle(kiv::unix_socket());
    if (idle.get() == -1)
        return trace_errno(kiv::in(function, KIV_SITE("UART_infos->fd = socket(1, SOCK_STREAM, 0)")));
    kiv::unique_fd fresh(kiv::unix_socket());
    if (fresh.get() == -1)
        return trace_errno(kiv::in(function, KIV_SITE("fd = socket(1, SOCK_STREAM, 0)")));

    kiv::attach(port, {.read = pos_btgpsdemux_read,
                       .write = pos_btgpsdemux_write,
                       .writev = nullptr,
                       .close = pos_btgpsdemux_close});
    if (kiv::connect_unix(fresh.get(), state_of(port).server_address) == -1) {
        kiv::begin_connection(port, idle.release());
        return 0;
    }
    ::close(idle.release());
    begin(port, fresh.release());
    return 0;
}

} // namespace

int pos_btgpsdemux_open(UART_infos *port, const char *socket_path) {
    if (port == nullptr || socket_path == nullptr)
        return -EINVAL;
    int status = make_state(*port, socket_path);
    if (status == 0)
        status = connect_first(*port, __func__);
    if (status != 0)
        release(*port);
    return status;
}
