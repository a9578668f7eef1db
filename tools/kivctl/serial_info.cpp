// serial list, serial info.

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/tty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "areas.h"
#include "devices.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

// List ---------------------------------------------------------------------------------------------------

exit_code serial_list(const request &from) {
    const bool json = from.json;
    for_each_serial_device(
        [](void *context, const char *name, const char *driver) {
            if (*static_cast<const bool *>(context))
                json_line().text("device", name).text("driver", driver);
            else
                printf("%s %s\n", name, driver);
        },
        const_cast<bool *>(&json));
    return done;
}

// Info ---------------------------------------------------------------------------------------------------

namespace {

struct modem_line {
    const char *name;
    unsigned bit;
};
constexpr modem_line modem_lines[] = {{"RTS", TIOCM_RTS}, {"CTS", TIOCM_CTS}, {"DTR", TIOCM_DTR},
                                      {"DSR", TIOCM_DSR}, {"DCD", TIOCM_CD},  {"RI", TIOCM_RI}};

const char *flow_of(const line_state &state) {
    return state.hard_flow ? "hard" : state.soft_flow ? "soft" : "none";
}

void print_text(const char *name, uint32_t asked, const line_state &state) {
    printf("device    %s\n", name);
    if (asked != 0)
        printf("asked     %u bit/s\n", asked);
    printf("rate      %u bit/s\nframe     %u data bits, parity %s, %u stop bits\nflow      %s\n",
           state.output_rate, state.data_bits, state.parity, state.stop_bits, flow_of(state));
    if (state.has_modem_lines) {
        printf("high     ");
        for (const modem_line &line : modem_lines)
            if ((state.modem & line.bit) != 0)
                printf(" %s", line.name);
        printf("\n");
    }
    if (state.input_queued >= 0 && state.output_queued >= 0)
        printf("queues    %d bytes in, %d bytes out\n", state.input_queued, state.output_queued);
}

void print_json(const char *name, uint32_t asked, const line_state &state) {
    json_line line;
    line.text("device", name);
    if (asked != 0)
        line.number("asked", asked);
    line.number("rate", state.output_rate)
        .number("data_bits", state.data_bits)
        .text("parity", state.parity)
        .number("stop_bits", state.stop_bits)
        .text("flow", flow_of(state));
    if (state.has_modem_lines)
        for (const modem_line &each : modem_lines)
            line.truth(each.name, (state.modem & each.bit) != 0);
    if (state.input_queued >= 0 && state.output_queued >= 0)
        line.number("input_queued", state.input_queued).number("output_queued", state.output_queued);
}

UART_infos port;

// Without settings the line is looked at and left as it is.
exit_code open_for_info(const request &from, uint32_t &asked, int &fd) {
    const char *name = from.arguments[0];
    if (!from.has('b') && !from.has('p') && !from.has('s') && !from.has('f') && !from.has('r')) {
        name_device(name);
        if (!names_tty(name))
            return done; // and nothing to look at
        fd = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        return fd != -1 ? done : fail("opening", errno);
    }
    line_settings settings{};
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = start_watch(ending::is_failure);
    if (code == done)
        code = open_port(port, name, settings, peer::any_time);
    asked = settings.rate;
    fd = port.fd;
    return code;
}

} // namespace

exit_code serial_info(const request &from) {
    uint32_t asked = 0;
    int fd = -1;
    line_state state{};
    const exit_code code = open_for_info(from, asked, fd);
    if (code != done)
        return code;
    const int error = read_line_state(fd, state);
    if (error == ENOTTY || fd < 0)
        return fail(unavailable, nullptr, "it is no tty, and has no line settings");
    if (error != 0)
        return fail("reading the settings", error);
    if (from.json)
        print_json(from.arguments[0], asked, state);
    else
        print_text(from.arguments[0], asked, state);
    return done;
}

} // namespace kivctl
