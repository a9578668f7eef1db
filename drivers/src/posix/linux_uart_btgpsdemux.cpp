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

#include "common/connection.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/unix_socket.h"
#include "kiv/transports.h"

using kiv::connection;
using kiv::current_connection;
using kiv::late_trace;
using kiv::mutex_hold;
using kiv::trace_errno;

namespace {

// 1. The port's state -----------------------------------------------------------------------------------

struct btgpsdemux_state {
    sup_mutex_t mutex;
    sockaddr_un server_address;
    uint32_t never_connected;
};

btgpsdemux_state &state_of(const UART_infos &port) {
    return *static_cast<btgpsdemux_state *>(port.priv);
}

// Returns 0, or the status of the step that failed, with nothing made.
int make_state(btgpsdemux_state *&state, const char *socket_path) {
    state = kiv::make_zeroed<btgpsdemux_state>();
    if (state == nullptr)
        return ENOMEM;
    const int status = sup_mutex_init(&state->mutex, 0);
    if (status != 0) {
        ::free(state);
        return status;
    }
    state->never_connected = 1;
    kiv::name_socket(state->server_address, socket_path);
    return 0;
}

void release_state(btgpsdemux_state &state) {
    sup_mutex_destroy(&state.mutex);
    ::free(&state);
}

// 2. Connections ----------------------------------------------------------------------------------------

constexpr useconds_t retry_interval_us = 500000;

void tell(UART_infos &port, void (*callback)(UART_infos *, void *)) {
    if (callback != nullptr)
        callback(&port, port.status_cb.context);
}

void begin(UART_infos &port, int fd) {
    kiv::begin_connection(port, fd);
    state_of(port).never_connected = 0;
    tell(port, port.status_cb.connected);
}

// With the mutex held. Returns 0 when connected, or the error of a socket that could not be made.
int btgpsdemux_reconnect(UART_infos &port, late_trace &failure) {
    kiv::end_connection(port, port.flags);
    if (state_of(port).never_connected == 0)
        tell(port, port.status_cb.disconnected);
    kiv::unique_fd fresh(kiv::next_descriptor(port, kiv::unix_socket));
    if (fresh.get() == -1) {
        failure.note(KIV_SITE("fd = socket(1, SOCK_STREAM, 0)"));
        return errno;
    }
    while (kiv::connect_unix(fresh.get(), state_of(port).server_address) == -1)
        ::usleep(retry_interval_us);
    begin(port, fresh.release());
    return 0;
}

// After a call has failed on a connection, or has found none. One that failed by itself makes the next
// connection, even if the other thread has just made one, since both have seen the link fail. One that has
// only been cut off by the other thread's reconnection goes on with the connection that stands. Returns as
// btgpsdemux_reconnect does; the late trace leaves that error in errno, whatever the unlocking did to it.
KIV_COLD int renew(UART_infos &port, bool failed_by_itself) {
    late_trace failure;
    const mutex_hold hold(state_of(port).mutex);
    return failed_by_itself || port.fd == -1 ? btgpsdemux_reconnect(port, failure) : 0;
}

// 3. Data -----------------------------------------------------------------------------------------------

enum class direction { out, in };

// One loop for both ways. The buffer is only read from when bytes go out.
inline int transfer(UART_infos &port, direction way, void *buffer, unsigned int length) {
    connection now = current_connection(port, state_of(port).mutex);
    for (bool failed_before = false;; failed_before = true) {
        bool failed_by_itself = false;
        if (now.fd >= 0) {
            const ssize_t count =
                way == direction::out ? ::write(now.fd, buffer, length) : ::read(now.fd, buffer, length);
            if (count > 0)
                return static_cast<int>(count);
            // Asked at once: whoever cuts this call off takes the connection out of the record before.
            failed_by_itself = kiv::stands(port, now);
            if (failed_before && failed_by_itself)
                ::usleep(retry_interval_us);
        }
        if (renew(port, failed_by_itself) != 0)
            return -1;
        now = current_connection(port);
    }
}

int pos_btgpsdemux_read(UART_infos *port, void *buffer, unsigned int length) {
    return transfer(*port, direction::in, buffer, length);
}

int pos_btgpsdemux_write(UART_infos *port, const void *buffer, unsigned int length) {
    return transfer(*port, direction::out, const_cast<void *>(buffer), length);
}

// 4. Opening, closing -----------------------------------------------------------------------------------

int pos_btgpsdemux_close(UART_infos *port) {
    release_state(state_of(*port));
    kiv::release_connection(*port);
    kiv::detach(*port);
    return 0;
}

// Two sockets: one to try, and one to have in fd if the service is not there yet, so that fd is a descriptor
// from the beginning. The first read or write fails on that one and connects. Returns 0 or the errno of the
// socket that could not be made.
int connect_first(UART_infos &port, btgpsdemux_state &state, const char *function) {
    kiv::unique_fd idle(kiv::unix_socket(port));
    if (idle.get() == -1)
        return trace_errno(KIV_ON_BEHALF_OF(function, "UART_infos->fd = socket(1, SOCK_STREAM, 0)"));
    kiv::unique_fd fresh(kiv::unix_socket(port));
    if (fresh.get() == -1)
        return trace_errno(KIV_ON_BEHALF_OF(function, "fd = socket(1, SOCK_STREAM, 0)"));

    kiv::attach(port, {.read = pos_btgpsdemux_read,
                       .write = pos_btgpsdemux_write,
                       .writev = nullptr,
                       .close = pos_btgpsdemux_close});
    port.priv = &state;
    if (kiv::connect_unix(fresh.get(), state.server_address) == -1) {
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
    // What a record that was not prepared holds is not this port's: a failure must not release it.
    port->fd = -1;
    port->priv = nullptr;
    btgpsdemux_state *state;
    int status = make_state(state, socket_path);
    if (status != 0)
        return status;
    status = connect_first(*port, *state, __func__);
    if (status != 0)
        release_state(*state);
    return status;
}
