// serial term: a port and this terminal, or a port and a pipe.
//
//   Streams     a port behind a descriptor, since only a descriptor can be waited for together with others
//   Terminal    raw while the program runs
//   Keys        what C-t and a key do
//   Talk        the loop

#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "areas.h"
#include "output.h"
#include "port.h"
#include "view.h"
#include "watch.h"

namespace kivctl {

// Streams ------------------------------------------------------------------------------------------------

namespace {

UART_infos port;
int near_end = -1; // the program's
int far_end = -1;  // the two threads'
int port_status = 0;
int sending_status = 0;
bool all_sent = false;

void *carry_in(void *) {
    uint8_t data[4096];
    for (;;) {
        unsigned length = sizeof data;
        const int status = sup_uart_Read_partial(&port, data, &length);
        if (status == 0 && write_all(far_end, data, length))
            continue;
        __atomic_store_n(&port_status, status, __ATOMIC_RELEASE);
        shutdown(far_end, SHUT_WR);
        return nullptr;
    }
}

void *carry_out(void *) {
    uint8_t data[4096];
    for (;;) {
        const ssize_t count = read(far_end, data, sizeof data);
        if (count <= 0)
            break;
        const int status = sup_uart_Send(&port, data, static_cast<unsigned>(count));
        if (status != 0) {
            __atomic_store_n(&sending_status, status, __ATOMIC_RELEASE);
            shutdown(far_end, SHUT_RDWR);
            return nullptr;
        }
    }
    if (is_tty(port))
        finish_sending(port);
    __atomic_store_n(&all_sent, true, __ATOMIC_RELEASE);
    return nullptr;
}

exit_code start_streams() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
        return fail("making a pipe", errno);
    near_end = ends[0];
    far_end = ends[1];
    const exit_code code = start_thread(carry_in, nullptr);
    return code == done ? start_thread(carry_out, nullptr) : code;
}

// Terminal -----------------------------------------------------------------------------------------------

termios saved_terminal;

void restore_terminal() {
    tcsetattr(STDIN_FILENO, TCSANOW, &saved_terminal);
}

// Keys go out one by one, unchanged; what is printed is treated as before.
exit_code take_terminal() {
    if (tcgetattr(STDIN_FILENO, &saved_terminal) == -1)
        return fail(failed, "terminal", "%s", strerror(errno));
    termios raw = saved_terminal;
    raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INLCR | IGNCR | ISTRIP | IXON);
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    at_end(restore_terminal);
    return tcsetattr(STDIN_FILENO, TCSADRAIN, &raw) == -1 ? fail(failed, "terminal", "%s", strerror(errno))
                                                          : done;
}

// Keys ---------------------------------------------------------------------------------------------------

constexpr char command_key = 0x14; // C-t

struct session {
    view shown;
    bool after_command_key = false;
    bool leaving = false;
    bool rts_raised = true;
    uint64_t in = 0;
    uint64_t out = 0;
};

void toggle_rts(session &talk) {
    talk.rts_raised = !talk.rts_raised;
    sup_uart_RTS_Manage(&port, talk.rts_raised ? UART_RTS_RAISE : UART_RTS_DROP);
    note("RTS %s", talk.rts_raised ? "raised" : "dropped");
}

void do_command(session &talk, char key) {
    switch (key) {
    case 'q':
        talk.leaving = true;
        break;
    case 'x':
        talk.shown.hex = !talk.shown.hex;
        break;
    case 't':
        talk.shown.time = !talk.shown.time;
        break;
    case 'r':
        toggle_rts(talk);
        break;
    case 's':
        note("%llu bytes received, %llu sent", static_cast<unsigned long long>(talk.in),
             static_cast<unsigned long long>(talk.out));
        break;
    default:
        note("keys after C-t: q leaves, x hexadecimal digits, t times, r RTS, s counts, C-t sends C-t");
    }
}

// Takes the commands out of what was typed. Returns how many bytes remain.
size_t take_commands(session &talk, char *keys, size_t count) {
    size_t kept = 0;
    for (size_t i = 0; i < count && !talk.leaving; ++i) {
        const char key = keys[i];
        if (talk.after_command_key && key != command_key) {
            do_command(talk, key);
        } else if (key != command_key || talk.after_command_key) {
            keys[kept++] = key;
            ++talk.out;
        }
        talk.after_command_key = key == command_key && !talk.after_command_key;
    }
    return kept;
}

// Talk ---------------------------------------------------------------------------------------------------

enum { from_user, from_port, from_watch, sources };

// The keys must not wait for the line, or nobody could leave while flow control holds it.
exit_code pass_on(bool terminal, const char *data, size_t size) {
    if (!terminal)
        return write_all(near_end, data, size)
                   ? done
                   : fail("sending", __atomic_load_n(&sending_status, __ATOMIC_ACQUIRE));
    if (size > 0 && send(near_end, data, size, MSG_DONTWAIT) == -1 && errno == EAGAIN)
        note("the line takes nothing: %zu bytes dropped", size);
    return done; // if the port has failed, the other direction tells
}

exit_code take_input(session &talk, bool terminal, bool &ended) {
    char data[4096];
    const ssize_t count = read(STDIN_FILENO, data, sizeof data);
    if (count == -1)
        return fail(failed, "standard input", "%s", strerror(errno));
    if (count == 0) {
        ended = true;
        shutdown(near_end, SHUT_WR);
        return done;
    }
    const size_t kept =
        terminal ? take_commands(talk, data, static_cast<size_t>(count)) : static_cast<size_t>(count);
    return pass_on(terminal, data, kept);
}

exit_code take_data(session &talk) {
    uint8_t data[4096];
    const ssize_t count = read(near_end, data, sizeof data);
    if (count > 0) {
        talk.in += static_cast<uint64_t>(count);
        return talk.shown.show(data, static_cast<size_t>(count));
    }
    const int status = __atomic_load_n(&sending_status, __ATOMIC_ACQUIRE);
    if (status != 0)
        return fail("sending", status);
    return fail("receiving", __atomic_load_n(&port_status, __ATOMIC_ACQUIRE));
}

// A pipe waits while the port has not taken what came before.
bool port_is_behind() {
    int queued = 0;
    return ioctl(near_end, SIOCOUTQ, &queued) == 0 && queued > 65536;
}

exit_code talk_until_left(session &talk, bool terminal, int silence) {
    pollfd entries[sources] = {
        {STDIN_FILENO, POLLIN, 0}, {near_end, POLLIN, 0}, {stop_descriptor(), POLLIN, 0}};
    exit_code code = done;
    bool ended = false; // of the input
    while (code == done && !talk.leaving) {
        const bool over = ended && __atomic_load_n(&all_sent, __ATOMIC_ACQUIRE);
        const bool held = ended || (!terminal && port_is_behind());
        entries[from_user].fd = held ? -1 : STDIN_FILENO;
        // While the rest of a pipe is on its way, look again now and then.
        const int ready = poll(entries, sources, over ? silence : held ? 10 : -1);
        if ((ready == 0 && over) || entries[from_watch].revents != 0)
            return done;
        if (ready <= 0)
            continue;
        if (entries[from_port].revents != 0)
            code = take_data(talk);
        if (code == done && entries[from_user].revents != 0)
            code = take_input(talk, terminal, ended);
    }
    return code;
}

} // namespace

exit_code serial_term(const request &from) {
    static session talk;
    line_settings settings{};
    uint64_t silence = 0;
    const bool terminal = isatty(STDIN_FILENO) == 1;
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = read_duration(from, 'S', 1000000, silence);
    if (code == done)
        code = talk.shown.open(from);
    if (code == done)
        code = start_watch(terminal ? ending::is_told : ending::is_failure);
    if (code == done)
        code = open_port(port, from.arguments[0], settings, terminal ? peer::any_time : peer::needed);
    if (code == done)
        code = start_streams();
    if (code != done)
        return code;
    talk.rts_raised = settings.rts != UART_RTS_DROP;
    if (terminal) {
        note("C-t q leaves, C-t ? shows the keys");
        code = take_terminal();
    }
    return code == done ? talk_until_left(talk, terminal, static_cast<int>(silence / 1000)) : code;
}

} // namespace kivctl
