// Ports by the names that the command line takes, and the line settings of ttys.
#ifndef KIVCTL_PORT_H
#define KIVCTL_PORT_H

#include <cstddef>
#include <cstdint>

#include "cli.h"
#include "kiv/uart.h"

namespace kivctl {

struct line_settings {
    uint32_t rate;
    unsigned parity, stop_bits, flow; // as uart.h has them
    int rts;                          // UART_RTS_RAISE, UART_RTS_DROP, or unchanged
};
constexpr int unchanged = -1;

// Of the options -b, -p, -s, -f and --rts.
exit_code read_line_settings(const request &from, line_settings &settings);

enum class peer { any_time, needed };

// Opens and sets up. With peer::needed it waits for a client of a TCP port, and fails when nobody is at the
// other end of another stream: what is written before would be lost. Says what went wrong.
exit_code open_port(UART_infos &port, const char *name, const line_settings &settings, peer wanted);

// Whether a name is that of a tty, whatever is there.
bool names_tty(const char *name);

inline bool is_tty(const UART_infos &port) {
    return (port.flags & UART_FLAG_STREAM) == 0;
}

// Waits until all that was written has left: until the line has sent it, or the stream's other end has ended
// the connection in return, which tells that it was read. At most some seconds for the latter.
void finish_sending(UART_infos &port);

// What a tty runs at. Names are null where the text says nothing.
struct line_state {
    uint32_t output_rate, input_rate;
    unsigned data_bits, stop_bits;
    const char *parity; // none, odd, even
    bool hard_flow, soft_flow;
    bool has_modem_lines;
    unsigned modem;                  // TIOCM_ bits
    int input_queued, output_queued; // -1: not told
};

// Of a tty's descriptor. Returns 0 or an errno value.
int read_line_state(int fd, line_state &state);

// Whether a rate is further from the asked one than devices on a line put up with.
bool is_off(uint32_t asked, uint32_t actual);

// The text of an argument with its backslashes resolved.
exit_code read_text(char *argument, size_t &length);

// An option that is a duration, in microseconds, or a number; otherwise when it is not given.
exit_code read_duration(const request &from, char key, uint64_t otherwise, uint64_t &value);
exit_code read_count(const request &from, char key, uint32_t least, uint32_t otherwise, uint32_t &value);

} // namespace kivctl

#endif
