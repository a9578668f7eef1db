// serial send, recv, ask.

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "areas.h"
#include "output.h"
#include "port.h"
#include "view.h"
#include "watch.h"

namespace kivctl {

namespace {

UART_infos port; // outlives the verb: another thread ends the program
uint8_t buffer[65536];

exit_code send_piece(const void *data, size_t size) {
    const int status = size > 0 ? sup_uart_Send(&port, data, static_cast<unsigned>(size)) : 0;
    return status == 0 ? done : fail("sending", status);
}

exit_code send_standard_input() {
    uint64_t sent = 0;
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count == -1)
            return fail(failed, "standard input", "%s", strerror(errno));
        if (count == 0)
            return done;
        const exit_code code = send_piece(buffer, static_cast<size_t>(count));
        if (code != done)
            return code;
        sent += static_cast<uint64_t>(count);
        show_progress("%llu bytes sent", static_cast<unsigned long long>(sent));
    }
}

} // namespace

exit_code serial_send(const request &from) {
    line_settings settings{};
    uint64_t limit = 0;
    size_t length = 0;
    const bool text = from.count > 1 && strcmp(from.arguments[1], "-") != 0;
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = read_duration(from, 'T', 0, limit);
    if (code == done && text)
        code = read_text(from.arguments[1], length);
    if (code == done)
        code = start_watch(ending::is_failure);
    if (code != done)
        return code;
    if (from.has('T'))
        set_limit(limit, timed_out, "sending");
    code = open_port(port, from.arguments[0], settings, peer::needed);
    if (code == done)
        code = text ? send_piece(from.arguments[1], length) : send_standard_input();
    if (code == done)
        finish_sending(port);
    return code;
}

exit_code serial_recv(const request &from) {
    line_settings settings{};
    uint64_t limit = 0;
    uint32_t wanted = 0; // 0: whatever comes
    view shown;
    const bool on_terminal = isatty(STDOUT_FILENO) == 1; // where the data itself is seen
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = read_duration(from, 'T', 0, limit);
    if (code == done)
        code = read_count(from, 'n', 1, 0, wanted);
    if (code == done)
        code = start_watch(wanted == 0 ? ending::is_done : ending::is_failure);
    if (code == done)
        code = shown.open(from);
    if (code == done)
        code = open_port(port, from.arguments[0], settings, peer::any_time);
    for (uint32_t got = 0; code == done && (wanted == 0 || got < wanted);) {
        unsigned length = sizeof buffer;
        if (wanted != 0 && wanted - got < length)
            length = wanted - got;
        if (from.has('T')) // the end of what comes, unless something is missing
            set_limit(limit, got == 0 || wanted != 0 ? timed_out : done, "receiving");
        const int status = sup_uart_Read_partial(&port, buffer, &length);
        clear_limit();
        code = status == 0 ? shown.show(buffer, length) : fail("receiving", status);
        got += length;
        if (!on_terminal)
            show_progress("%u bytes received", got);
    }
    return code;
}

exit_code serial_ask(const request &from) {
    line_settings settings{};
    uint64_t limit = 0;
    uint64_t silence = 0; // the library's longest is an hour and more
    size_t length = 0;
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = read_duration(from, 'T', 1000000, limit);
    if (code == done)
        code = read_duration(from, 'S', 200000, silence);
    if (code == done)
        code = read_text(from.arguments[1], length);
    if (code == done)
        code = start_watch(ending::is_failure);
    if (code != done)
        return code;
    set_limit(limit, timed_out, "an answer");
    code = open_port(port, from.arguments[0], settings, peer::needed);
    if (code == done) {
        sup_uart_Flush(&port, UART_FLUSH_INPUT); // older words are no answer
        code = send_piece(from.arguments[1], length);
    }
    if (code != done)
        return code;
    set_limit(limit, timed_out, "an answer");
    unsigned got = sizeof buffer;
    const int status = sup_uart_Read_partial_timeout(
        &port, buffer, &got, silence < UINT32_MAX ? static_cast<uint32_t>(silence) : UINT32_MAX);
    clear_limit();
    if (status != 0)
        return fail("an answer", status);
    if (from.json)
        json_line().bytes(buffer, got);
    else if (!write_all(STDOUT_FILENO, buffer, got))
        return fail(failed, "standard output", "%s", strerror(errno));
    else if (isatty(STDOUT_FILENO) == 1 && buffer[got - 1] != '\n')
        write_all(STDOUT_FILENO, "\n", 1);
    return done;
}

} // namespace kivctl
