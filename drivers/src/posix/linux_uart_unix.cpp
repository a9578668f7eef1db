// The Unix-domain socket transport: a client of a service on this machine that connects again by itself.
//
//   1. The module's mutex
//   2. Connections       getting one, ending one
//   3. Data
//   4. Opening
//
// fd holds the connection, or -1 while there is none. unix_mutex guards every change of fd, a reconnection
// from end to end included; no other lock is taken under it. Reads and sends run without it: they note which
// connection they use, and one that fails ends its own connection only, never one that has come since.
// Nothing is logged while a service is away.

#define KIV_MODULE "drivers/src/posix/linux_uart_unix"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "common/attempt.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/unix_socket.h"
#include "kiv/transports.h"

using kiv::current_fd;
using kiv::mutex_hold;
using kiv::not_tried;
using kiv::read_once;
using kiv::send_once;
using kiv::trace_errno;

namespace {

// 1. The module's mutex ---------------------------------------------------------------------------------

constinit sup_mutex_t unix_mutex{}; // one for all Unix ports, never destroyed
constinit uint32_t unix_mutex_initialized = 0;

// 2. Connections ----------------------------------------------------------------------------------------

constexpr useconds_t UNIX_RETRY_DELAY_US = 500000;

int allow_reuse(int fd) {
    const int opt = 1;
    return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &opt, sizeof opt);
}

// Returns 0 when it has made a connection, -1 when there is one already or none can be made.
KIV_COLD int unix_reconnect(UART_infos &port) {
    const mutex_hold hold(unix_mutex);
    if (port.fd >= 0)
        return -1;
    kiv::unique_fd fresh(kiv::unix_socket());
    if (fresh.get() == -1 || allow_reuse(fresh.get()) == -1 ||
        kiv::connect_unix(fresh.get(), *static_cast<const sockaddr_un *>(port.priv)) == -1 ||
        ::dup2(fresh.get(), port.fd_listen) == -1)
        return -1;
    const int number = port.fd_listen;
    kiv::clear_listener(port);
    kiv::begin_connection(port, number);
    return 0;
}

// Ends the connection on which a call has failed, unless that has been done already. Its number stays the
// port's, in fd_listen, until the next connection takes it over in one step: a thread that is late with it
// finds the end of the old connection or the new one, and never somebody else's descriptor.
KIV_COLD void lose(UART_infos &port, uint32_t failed) {
    const mutex_hold hold(unix_mutex);
    const int number = port.fd;
    if (number < 0 || kiv::connection_count(port) != failed)
        return;
    kiv::set_current_fd(port, -1);
    ::shutdown(number, SHUT_RDWR);
    kiv::set_listener(port, number);
}

// 3. Data -----------------------------------------------------------------------------------------------

// What a first attempt leaves to the one that goes on with it. It is kept in memory, since hardly any attempt
// needs it afterwards: a call's arguments then stay where they are.
template <typename Bytes>
struct attempt {
    UART_infos *port;
    Bytes *buffer;
    unsigned int length;
    uint32_t connection;
};

// Goes on with a read that found no connection or failed on the one that it found: on a connection of its own
// making, or on one that a writer has made meanwhile.
KIV_COLD int read_again(const attempt<void> &first, ssize_t count) {
    UART_infos &port = *first.port;
    uint32_t connection = first.connection;
    for (;;) {
        if (count != not_tried)
            lose(port, connection);
        while (unix_reconnect(port) != 0) {
            ::usleep(UNIX_RETRY_DELAY_US);
            if (current_fd(port) >= 0)
                break;
        }
        connection = kiv::connection_count(port);
        count = read_once(port, first.buffer, first.length);
        if (count > 0)
            return static_cast<int>(count);
    }
}

int pos_read_unix(UART_infos *port, void *buffer, unsigned int length) {
    const attempt<void> first = {port, buffer, length, kiv::connection_count(*port)};
    const ssize_t count = read_once(*port, buffer, length);
    if (count > 0) [[likely]]
        return static_cast<int>(count);
    return read_again(first, count);
}

// Goes on with a write that failed, or that found no connection: that one tries once more, on a new one.
KIV_COLD int write_again(const attempt<const void> &first, ssize_t count) {
    UART_infos &port = *first.port;
    uint32_t connection = first.connection;
    if (count == not_tried) {
        unix_reconnect(port);
        connection = kiv::connection_count(port);
        count = send_once(port, first.buffer, first.length);
        if (count > 0)
            return static_cast<int>(count);
    }
    if (count != not_tried)
        lose(port, connection);
    return kiv::dropped(first.length);
}

int pos_write_unix(UART_infos *port, const void *buffer, unsigned int length) {
    const attempt<const void> first = {port, buffer, length, kiv::connection_count(*port)};
    const ssize_t count = send_once(*port, buffer, length);
    if (count > 0) [[likely]]
        return static_cast<int>(count);
    return write_again(first, count);
}

} // namespace

// 4. Opening --------------------------------------------------------------------------------------------

int pos_open_unix(UART_infos *port, const char *device_name, unsigned int) {
    if (port == nullptr || device_name == nullptr) [[unlikely]]
        return kiv::refuse_opening(port, __func__, __LINE__);
    const char *name = kiv::after("unix:", device_name);
    if (name == nullptr)
        return EINVAL;
    sockaddr_un address{};
    kiv::name_socket(address, name);

    kiv::unique_fd connector(kiv::unix_socket());
    if (connector.get() == -1)
        return trace_errno(KIV_SITE("UART_infos->fd= socket(1, SOCK_STREAM, 0)"));
    if (allow_reuse(connector.get()) == -1)
        return trace_errno(KIV_SITE("ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))"));
    // Nobody may be listening yet: then the first read or write fails on this socket, and gets another.
    static_cast<void>(kiv::connect_unix(connector.get(), address));
    const int status = kiv::ensure_mutex(unix_mutex_initialized, unix_mutex);
    if (status != 0)
        return status;
    auto *kept = kiv::make_zeroed<sockaddr_un>();
    if (kept == nullptr)
        return ENOMEM;
    *kept = address;

    port->priv = kept;
    kiv::attach(*port, {.read = pos_read_unix, .write = pos_write_unix, .writev = nullptr, .close = nullptr});
    kiv::begin_connection(*port, connector.release());
    return 0;
}
