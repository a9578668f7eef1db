// The Unix-domain socket transport: a client of a service on this machine that connects again by itself.
//
//   1. The module's mutex
//   2. Connections       getting one, ending one
//   3. Data
//   4. Opening
//
// fd holds the connection, or -1 while there is none. unix_mutex guards every change of fd, a reconnection
// from end to end included; no other lock is taken under it. Reads and sends run without it. Nothing is
// logged while a service is away.

#define KIV_MODULE "drivers/src/posix/linux_uart_unix"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "common/connection.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/lock.h"
#include "common/memory.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/unix_socket.h"
#include "kiv/transports.h"

using kiv::connection;
using kiv::current_connection;
using kiv::mutex_hold;
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
    kiv::unique_fd fresh(kiv::next_descriptor(port, kiv::unix_socket));
    if (fresh.get() == -1 || allow_reuse(fresh.get()) == -1 ||
        kiv::connect_unix(fresh.get(), *static_cast<const sockaddr_un *>(port.priv)) == -1)
        return -1;
    kiv::begin_connection(port, fresh.release());
    return 0;
}

// 3. Data -----------------------------------------------------------------------------------------------

int pos_read_unix(UART_infos *port, void *buffer, unsigned int length) {
    for (bool failed_before = false;; failed_before = true) {
        const connection now = current_connection(*port);
        if (now.fd >= 0) {
            const ssize_t count = ::read(now.fd, buffer, length);
            if (count > 0)
                return static_cast<int>(count);
            kiv::lose_connection(*port, now.flags, unix_mutex);
            if (failed_before)
                ::usleep(UNIX_RETRY_DELAY_US);
        }
        if (unix_reconnect(*port) != 0)
            ::usleep(UNIX_RETRY_DELAY_US);
    }
}

int pos_write_unix(UART_infos *port, const void *buffer, unsigned int length) {
    connection now = current_connection(*port);
    if (now.fd < 0) {
        unix_reconnect(*port);
        now = current_connection(*port);
    }
    return kiv::send_or_drop(*port, now, buffer, length, unix_mutex);
}

} // namespace

// 4. Opening --------------------------------------------------------------------------------------------

int pos_open_unix(UART_infos *port, const char *device_name, unsigned int) {
    if (kiv::check_opening(port, device_name, __func__, __LINE__) != 0)
        return EINVAL;
    const char *name = kiv::skip_prefix("unix:", device_name);
    if (name == nullptr)
        return EINVAL;
    sockaddr_un address{};
    kiv::name_socket(address, name);

    kiv::unique_fd connector(kiv::unix_socket(*port));
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

    kiv::attach(*port, {.read = pos_read_unix, .write = pos_write_unix, .writev = nullptr, .close = nullptr});
    port->priv = kept;
    kiv::begin_connection(*port, connector.release());
    return 0;
}
