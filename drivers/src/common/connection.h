// The connection of a port that outlives its peers: how one begins, how a call that fails ends it, and how no
// thread ever meets somebody else's descriptor under its number.
//
// fd holds the connection, or a negative number while there is none. Whoever changes it holds the lock of the
// port's transport; calls on the connection run without, so that another thread can still be on its way into
// one, or blocked in one, when the connection ends. Therefore a connection that has ended
//
//   - leaves fd first,
//   - is shut down, which brings back whoever is blocked on it and tells the peer,
//   - and keeps its number for the port's next connection, which takes it over in one step: a thread that is
//     late with it finds the end of the old connection, or the new one.
//
// Since a number says too little then, connections are counted. Both stand in the record's flags, above the
// bits that the serial port looks at: the kept number, 0 for none, in bits 2 to 21; the count from bit 22 on.

#ifndef KIV_COMMON_CONNECTION_H
#define KIV_COMMON_CONNECTION_H

#include <algorithm>
#include <climits>
#include <sys/socket.h>

#include "common/hints.h"
#include "common/lock.h"
#include "common/shared.h"
#include "kiv/uart.h"

namespace kiv {

// What a call works on: the descriptor, and the flags that told which connection that was.
struct connection {
    int fd;
    uint32_t flags;
};

// The flags come first. If the connection changes in between, they are the older ones: a failure then ends
// nothing, and the next call on that connection notices it.
KIV_HOT connection current_connection(const UART_infos &port) noexcept {
    const uint32_t flags = seen(port.flags);
    return {.fd = seen(port.fd), .flags = flags};
}

KIV_HOT connection current_connection(const UART_infos &port, sup_mutex_t &mutex) noexcept {
    const mutex_hold hold(mutex);
    return current_connection(port);
}

// Whether nobody has ended it yet.
inline bool stands(const UART_infos &port, connection which) noexcept {
    return seen(port.fd) == which.fd && seen(port.flags) == which.flags;
}

// The functions below change the record: with the lock held, or from an opening or closing.

// Whether the port has ever had a connection.
bool had_connection(const UART_infos &port) noexcept;

// Makes a fresh descriptor the port's connection, under the kept number if there is one.
void begin_connection(UART_infos &port, int fresh) noexcept;

// Ends the connection on which a call has failed, unless that has been done already: failed is its flags.
void end_connection(UART_infos &port, uint32_t failed) noexcept;

// The same for a transport whose lock is not held.
KIV_COLD void lose_connection(UART_infos &port, uint32_t failed, sup_mutex_t &mutex) noexcept;

// Closes the connection, or gives back the number of the last one, of a port that is being closed.
void release_connection(UART_infos &port) noexcept;

// Sends on a connection, if it is one, and loses it when that fails. What nobody takes is dropped and counts
// as sent. Returns the count.
inline int send_or_drop(UART_infos &port, connection now, const void *buffer, unsigned int length,
                        sup_mutex_t &mutex) noexcept {
    if (now.fd >= 0) {
        const ssize_t count = ::send(now.fd, buffer, length, MSG_NOSIGNAL);
        if (count > 0)
            return static_cast<int>(count);
        lose_connection(port, now.flags, mutex);
    }
    return static_cast<int>(std::min<unsigned int>(length, INT_MAX));
}

// Makes the descriptor of the port's next connection: what make returns, that or -1 with errno. If the
// process or the system has none to spare, the kept number is given up for it, and the attempt made again.
int next_descriptor(UART_infos &port, int (*make)(const UART_infos &port)) noexcept;

} // namespace kiv

#endif
