// Ports by name.
//
//   Settings    the options of a line, and the codes of the library
//   Opening
//   Sending     to the end
//   State       what a tty really does, read back

#include "port.h"

#include <asm/ioctls.h>
#include <asm/termbits.h> // and not <termios.h>, which has no rates by number
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kiv/transports.h"
#include "numbers.h"
#include "output.h"

namespace kivctl {

// Settings -----------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t default_rate = 115200;

struct rate_code {
    uint32_t rate;
    unsigned code;
};
// Up to 115200 a rate has to be one of these; above, any number will do.
constexpr rate_code rate_codes[] = {{2400, UART_SPEED_2400},    {4800, UART_SPEED_4800},
                                    {9600, UART_SPEED_9600},    {19200, UART_SPEED_19200},
                                    {38400, UART_SPEED_38400},  {57600, UART_SPEED_57600},
                                    {115200, UART_SPEED_115200}};

// Zero, which is no rate: there is none.
unsigned code_of_rate(uint32_t rate) {
    for (const rate_code &row : rate_codes)
        if (row.rate == rate)
            return row.code;
    return rate > default_rate ? rate : 0;
}

struct word_value {
    const char *word;
    int value;
};

// The value of an option that is one of some words; otherwise when it is not given.
template <size_t Count>
exit_code read_word(const request &from, char key, const word_value (&words)[Count], int otherwise,
                    int &value) {
    const char *text = from.value(key);
    value = otherwise;
    if (text == nullptr)
        return done;
    for (const word_value &each : words)
        if (strcmp(each.word, text) == 0) {
            value = each.value;
            return done;
        }
    const option_row &row = *find_option(key);
    return misuse("--%s takes %s and not '%s'", row.name, row.argument, text);
}

constexpr int parity_even = 3; // no code of the library's: it leaves the choice as the line has it
constexpr word_value parities[] = {
    {"none", UART_PARITY_NONE}, {"odd", UART_PARITY_ODD}, {"even", parity_even}};
constexpr word_value stops[] = {{"1", UART_STOP_BITS_ONE}, {"2", UART_STOP_BITS_TWO}};
constexpr word_value flows[] = {{"none", 0}, {"hard", UART_OPTION_RTS_CTS}};
constexpr word_value switches[] = {{"on", UART_RTS_RAISE}, {"off", UART_RTS_DROP}};

} // namespace

exit_code read_line_settings(const request &from, line_settings &settings) {
    const char *rate = from.value('b');
    settings.rate = default_rate;
    if (rate != nullptr &&
        (!parse_number(rate, UINT32_MAX, settings.rate) || code_of_rate(settings.rate) == 0))
        return misuse("'%s' is no rate: 2400, 4800, 9600, 19200, 38400, 57600, 115200 or more", rate);
    int parity = 0;
    int stop = 0;
    int flow = 0;
    exit_code code = read_word(from, 'p', parities, UART_PARITY_NONE, parity);
    if (code == done)
        code = read_word(from, 's', stops, UART_STOP_BITS_ONE, stop);
    if (code == done)
        code = read_word(from, 'f', flows, 0, flow);
    if (code == done)
        code = read_word(from, 'r', switches, unchanged, settings.rts);
    settings.parity = static_cast<unsigned>(parity);
    settings.stop_bits = static_cast<unsigned>(stop);
    settings.flow = static_cast<unsigned>(flow);
    return code;
}

exit_code read_text(char *argument, size_t &length) {
    const long result = unescape(argument);
    if (result < 0)
        return misuse("in '%s' a backslash is followed by none of r n t e 0 \\ xNN", argument);
    length = static_cast<size_t>(result);
    return done;
}

exit_code read_duration(const request &from, char key, uint64_t otherwise, uint64_t &value) {
    const char *text = from.value(key);
    value = otherwise;
    if (text == nullptr || parse_duration(text, value))
        return done;
    return misuse("--%s takes a time such as 2s or 500ms, and not '%s'", find_option(key)->name, text);
}

exit_code read_count(const request &from, char key, uint32_t least, uint32_t otherwise, uint32_t &value) {
    const char *text = from.value(key);
    value = otherwise;
    if (text == nullptr || (parse_number(text, UINT32_MAX, value) && value >= least))
        return done;
    return misuse("--%s takes a number from %u on, and not '%s'", find_option(key)->name, least, text);
}

// Opening ------------------------------------------------------------------------------------------------

namespace {

bool begins(const char *name, const char *prefix) {
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

// What the library would take for something else, or say nothing about.
const char *fault_of_name(const char *name) {
    uint32_t number = 0;
    if (*name == '\0')
        return "a device has a name";
    if (begins(name, "btsyspath:"))
        return "controllers cannot be named by their path; use hci0";
    if (begins(name, "tcp:") && !parse_number(name + 4, 65535, number))
        return "a TCP port is tcp: and a number up to 65535";
    const char *colon = strrchr(name, ':');
    if (begins(name, "tcpout:") &&
        (colon == name + 6 || !parse_number(colon + 1, 65535, number) || number == 0))
        return "a TCP client is tcpout:ADDRESS:PORT";
    if ((begins(name, "unix:") && name[5] == '\0') || (begins(name, "gpsdemux:") && name[9] == '\0'))
        return "the path of the socket is missing";
    return nullptr;
}

int open_by_name(UART_infos &port, const char *name, unsigned speed, unsigned options) {
    if (begins(name, "tcpout:")) {
        sup_uart_Prepare(&port, nullptr);
        const int status = sup_uart_Opened(&port, pos_open_tcp_client(&port, name, 0));
        if (status != 0)
            pos_close_tcp_client(&port);
        return status;
    }
    if (begins(name, "gpsdemux:")) {
        sup_uart_Prepare(&port, nullptr);
        return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, name + strlen("gpsdemux:")));
    }
    return sup_uart_Init2(&port, name, speed, options, nullptr);
}

// A line that was odd before stays so with the library's code.
int make_even(int fd) {
    termios2 line{};
    if (ioctl(fd, TCGETS2, &line) == -1)
        return errno;
    line.c_cflag &= ~static_cast<tcflag_t>(PARODD);
    return ioctl(fd, TCSETS2, &line) == -1 ? errno : 0;
}

int set_up_line(UART_infos &port, const line_settings &settings) {
    const bool even = settings.parity == parity_even;
    int status = 0;
    if (settings.parity != UART_PARITY_NONE)
        status =
            sup_uart_Change_Parity(&port, even ? static_cast<unsigned>(UART_PARITY_ON) : settings.parity);
    if (status == 0 && even)
        status = make_even(port.fd);
    if (status == 0)
        status = sup_uart_Change_StopBitsNumber(&port, settings.stop_bits);
    if (status == 0 && settings.rts != unchanged)
        sup_uart_RTS_Manage(&port, static_cast<unsigned>(settings.rts));
    return status < 0 ? -status : status;
}

void warn_of_rate(const UART_infos &port, uint32_t asked) {
    line_state state{};
    if (read_line_state(port.fd, state) == 0 && is_off(asked, state.output_rate))
        note("warning: asked for %u bit/s, it runs at %u", asked, state.output_rate);
}

// What is written to a TCP or Unix socket without a peer is dropped. The others wait.
bool drops_what_is_sent(const UART_infos &port, const char *name) {
    sockaddr_storage peer_address{};
    socklen_t size = sizeof peer_address;
    if (!begins(name, "unix:") && !begins(name, "tcp"))
        return false;
    return port.fd < 0 || getpeername(port.fd, reinterpret_cast<sockaddr *>(&peer_address), &size) == -1;
}

} // namespace

exit_code open_port(UART_infos &port, const char *name, const line_settings &settings, peer wanted) {
    name_device(name);
    const char *fault = fault_of_name(name);
    if (fault != nullptr)
        return misuse("%s", fault);
    const bool server = begins(name, "tcp:");
    const unsigned wait = server && wanted == peer::needed ? UART_OPTION_WAIT_PEER : 0;
    const int status = open_by_name(port, name, code_of_rate(settings.rate), server ? wait : settings.flow);
    if (status != 0)
        return fail("opening", status < 0 ? -status : status);
    if (!is_tty(port))
        return wanted == peer::needed && drops_what_is_sent(port, name) ? fail("opening", ECONNREFUSED)
                                                                        : done;
    const int refused = set_up_line(port, settings);
    if (refused != 0) {
        sup_uart_close(&port);
        return fail("setting up the line", refused);
    }
    warn_of_rate(port, settings.rate);
    return done;
}

bool names_tty(const char *name) {
    constexpr const char *others[] = {"hci", "tcp:", "tcpout:", "unix:", "gpsdemux:"};
    for (const char *prefix : others)
        if (begins(name, prefix))
            return false;
    return true;
}

// Sending ------------------------------------------------------------------------------------------------

void finish_sending(UART_infos &port) {
    constexpr int longest_farewell = 2000; // milliseconds without a word
    if (is_tty(port)) {
        ioctl(port.fd, TCSBRK, 1); // waits, and sends no break
        return;
    }
    // A connection that is closed with data unread is reset, and the other end may lose what it has not read.
    char unread[4096];
    pollfd entry = {port.fd, POLLIN, 0};
    if (shutdown(port.fd, SHUT_WR) == 0)
        while (poll(&entry, 1, longest_farewell) > 0 && recv(port.fd, unread, sizeof unread, 0) > 0)
            ;
}

// State --------------------------------------------------------------------------------------------------

int read_line_state(int fd, line_state &state) {
    termios2 line{};
    if (ioctl(fd, TCGETS2, &line) == -1)
        return errno;
    constexpr unsigned sizes[] = {5, 6, 7, 8};
    state = {};
    state.output_rate = line.c_ospeed;
    state.input_rate = line.c_ispeed;
    state.data_bits = sizes[(line.c_cflag & CSIZE) / CS6];
    state.stop_bits = (line.c_cflag & CSTOPB) != 0 ? 2 : 1;
    state.parity = (line.c_cflag & PARENB) == 0 ? "none" : (line.c_cflag & PARODD) != 0 ? "odd" : "even";
    state.hard_flow = (line.c_cflag & CRTSCTS) != 0;
    state.soft_flow = (line.c_iflag & (IXON | IXOFF)) != 0;
    state.has_modem_lines = ioctl(fd, TIOCMGET, &state.modem) == 0;
    if (ioctl(fd, FIONREAD, &state.input_queued) == -1)
        state.input_queued = -1;
    if (ioctl(fd, TIOCOUTQ, &state.output_queued) == -1)
        state.output_queued = -1;
    return 0;
}

bool is_off(uint32_t asked, uint32_t actual) {
    const uint32_t difference = asked > actual ? asked - actual : actual - asked;
    return uint64_t{difference} * 50 > asked; // 2 %
}

} // namespace kivctl
