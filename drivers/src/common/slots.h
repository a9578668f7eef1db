// How a transport takes a port over: a constant table of the operations that it fills, the others empty.

#ifndef KIV_COMMON_SLOTS_H
#define KIV_COMMON_SLOTS_H

#include "common/hints.h"
#include "kiv/uart.h"

namespace kiv {

struct transport_slots {
    decltype(UART_infos::read) read;
    decltype(UART_infos::write) write;
    decltype(UART_infos::writev) writev;
    decltype(UART_infos::close) close;
};

// Makes the record a stream's that owns nothing yet. What it held before was not this port's: closing must
// not release that.
void begin_stream(UART_infos &port) noexcept;

// An opening does this when nothing can fail any more, so that a failed one leaves no operation behind.
KIV_HOT void attach(UART_infos &port, const transport_slots &slots) noexcept {
    begin_stream(port);
    port.read = slots.read;
    port.write = slots.write;
    port.writev = slots.writev;
    port.close = slots.close;
}

// Leaves in a record whose port has been closed operations that fail with EBADF, and nothing to release.
// Using or closing it again by mistake then hits nobody who has the numbers next.
void detach(UART_infos &port) noexcept;

} // namespace kiv

#endif
