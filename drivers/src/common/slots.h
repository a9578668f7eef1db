// How a transport takes a port over: a constant table of the operations that it fills, the others empty.

#ifndef KIV_COMMON_SLOTS_H
#define KIV_COMMON_SLOTS_H

#include "kiv/uart.h"

namespace kiv {

// The bits of flags above the two that the serial port looks at are the transports' own.
constexpr uint32_t listener_is_zero = 4; // fd_listen holds descriptor 0, not the zero of a cleared record
constexpr uint32_t socket_is_spent = 8;  // the client's socket has been connected and cannot be again
constexpr uint32_t one_connection = 16;  // the bits from here on count the port's connections

struct transport_slots {
    decltype(UART_infos::read) read;
    decltype(UART_infos::write) write;
    decltype(UART_infos::writev) writev;
    decltype(UART_infos::close) close;
};

// An opening does this when nothing can fail any more, so that a failed one leaves no operation behind.
inline void attach(UART_infos &port, const transport_slots &slots) noexcept {
    port.read = slots.read;
    port.write = slots.write;
    port.writev = slots.writev;
    port.close = slots.close;
    port.flags |= UART_FLAG_STREAM;
}

// Puts a listening socket into a record, and tells whether there is one.
inline void set_listener(UART_infos &port, int fd) noexcept {
    port.fd_listen = fd;
    if (fd == 0)
        __atomic_store_n(&port.flags, port.flags | listener_is_zero, __ATOMIC_RELAXED);
}
inline void clear_listener(UART_infos &port) noexcept {
    port.fd_listen = 0;
    __atomic_store_n(&port.flags, port.flags & ~listener_is_zero, __ATOMIC_RELAXED);
}
inline bool owns_listener(const UART_infos &port) noexcept {
    return port.fd_listen > 0 || (port.flags & listener_is_zero) != 0;
}

// Connections of a port are counted, in the record's flags. A descriptor's number says too little: by the
// time a reader or a writer notices that its connection has failed, another thread may have ended that one
// and made the next, under the same number. Whoever takes the count before the descriptor, and compares it
// before ending anything, can at worst miss a failure, and then the next call on that connection notices it.
inline uint32_t connection_count(const UART_infos &port) noexcept {
    return __atomic_load_n(&port.flags, __ATOMIC_RELAXED);
}

inline int current_fd(const UART_infos &port) noexcept {
    return __atomic_load_n(&port.fd, __ATOMIC_RELAXED);
}

// Both with the transport's mutex held.
inline void set_current_fd(UART_infos &port, int fd) noexcept {
    __atomic_store_n(&port.fd, fd, __ATOMIC_RELAXED);
}

inline void begin_connection(UART_infos &port, int fd, uint32_t mark = 0) noexcept {
    __atomic_store_n(&port.flags, (port.flags | mark) + one_connection, __ATOMIC_RELAXED);
    set_current_fd(port, fd);
}

// Leaves in a record whose port has been closed operations that fail with EBADF, and nothing to release.
// Using or closing it again by mistake then hits nobody who has the numbers next.
void detach(UART_infos &port) noexcept;

} // namespace kiv

#endif
