// The serial port: what an application calls, and the tty behind a port that no transport serves.
//
//   1. Kernel requests   the tty requests under the names that their traces show
//   2. Speeds            codes, rates, and the bits of the termios block
//   3. Termios changes   one frame: read the block, change it, write it
//   4. Opening           the device's name decides; the tty's set-up
//   5. Reading, writing  loops over a transport's slot or the tty
//   6. Line control      speed, parity, stop bits, flow control; flush, RTS, stop
//   7. Closing
//
// An empty slot means the tty: pos_read and pos_write decide that for the data, nothing else does. The
// module keeps no state and takes no lock.

#define KIV_MODULE "drivers/src/posix/linux_uart"

#include <asm/termbits.h>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>

#include "common/hints.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/wait.h"
#include "kiv/platform.h"
#include "kiv/transports.h"
#include "linux/linux_sfd.h"

using kiv::check;
using kiv::current_fd;
using kiv::site;
using kiv::trace_and_warn;
using kiv::trace_errno;
using kiv::trace_status;
using kiv::warn;

// The record is shared with applications: its layout cannot move.
#if UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(UART_infos) == 16 * 4);
static_assert(offsetof(UART_infos, read) == 4 * 4 && offsetof(UART_infos, change_stop_bits) == 10 * 4);
#endif
static_assert(offsetof(UART_infos, magic) == 0 && offsetof(UART_infos, fd) == 4);
static_assert(offsetof(UART_infos, kiv_linux_sfd) == 8);
static_assert(offsetof(UART_infos, flags) == 8 + sizeof(void *));
static_assert(offsetof(UART_infos, status_cb) + 3 * sizeof(void *) == sizeof(UART_infos));

namespace {

// 1. Kernel requests ------------------------------------------------------------------------------------

static_assert(sizeof(termios2) == 44 && offsetof(termios2, c_ispeed) == 36);
static_assert(TCGETS2 == 0x802C542A && TCSETS2 == 0x402C542B && TCSBRK == 0x5409 && TCFLSH == 0x540B);
static_assert(TIOCMGET == 0x5415 && TIOCMSET == 0x5418);
static_assert(O_RDWR == 2 && O_NOCTTY == 0x100);

int kiv_tcgetattr(int fd, termios2 *settings) {
    return ::ioctl(fd, TCGETS2, settings);
}
int kiv_tcsetattr(int fd, const termios2 *settings) {
    return ::ioctl(fd, TCSETS2, settings);
}
int kiv_tcdrain(int fd) {
    return ::ioctl(fd, TCSBRK, 1);
}
int kiv_tcflush(int fd, unsigned int queue_selector) {
    return ::ioctl(fd, TCFLSH, queue_selector);
}

bool is_stream(const UART_infos &port) {
    return (__atomic_load_n(&port.flags, __ATOMIC_RELAXED) & 3u) != 0;
}

// The beginning of every operation. A null record ends it; one that is not open is reported only. Returns 0
// or EINVAL.
KIV_COLD int refuse_record(const UART_infos *port, const char *function, int line) {
    if (port == nullptr)
        return kiv::refuse_null({"(UART_infos) != ((void *)0)", function, line});
    check(false, {"UART_infos->magic == 0xc0decafe", function, line});
    return 0;
}

KIV_HOT bool is_open(const UART_infos *port) {
    return port != nullptr && port->magic == UART_MAGIC;
}

KIV_HOT int check_record(const UART_infos *port, const char *function, int line) {
    return is_open(port) ? 0 : refuse_record(port, function, line);
}

// 2. Speeds ---------------------------------------------------------------------------------------------

constexpr uint32_t refused = 0xFFFFFFFF;

// Indexed by speed code: the bits of c_cflag.
constexpr uint32_t uart_speed_table[] = {
    B0,      B2400,   B4800,   refused, B9600,   refused, B19200,   B38400,   B57600,   B115200,
    refused, B230400, refused, B460800, refused, B921600, B1500000, B2000000, B3000000,
};
static_assert(sizeof uart_speed_table / sizeof uart_speed_table[0] == 19 && CBAUD == 0x100F);

constexpr unsigned int highest_code = 18;
constexpr unsigned int highest_coded_rate = 115200; // numbers above it are rates

int uart_set_speed(termios2 *termios_p, unsigned int speed) {
    uint32_t bits = BOTHER;
    if (speed > highest_coded_rate) {
        termios_p->c_ispeed = speed;
        termios_p->c_ospeed = speed;
    } else {
        bits = speed <= highest_code ? uart_speed_table[speed] : refused;
        if (bits == refused)
            return EINVAL;
    }
    termios_p->c_cflag = (termios_p->c_cflag & ~static_cast<tcflag_t>(CBAUD)) | bits;
    return 0;
}

// 3. Termios changes ------------------------------------------------------------------------------------

// Changes a termios block for the operation that function names. Returns 0 or the status of a refusal.
using settings_edit = int(termios2 *termios_p, unsigned int value, unsigned int options,
                          const char *function);

// The block is written in the last step only, so a refusal or a failure leaves the line as it was. Returns 0,
// the errno of a request, which is traced, or the status of a refusal.
int change_settings(int fd, settings_edit *edit, unsigned int value, unsigned int options,
                    const char *function) {
    termios2 termios_p;
    if (kiv_tcgetattr(fd, &termios_p) == -1) [[unlikely]]
        return trace_errno(kiv::in(function, KIV_SITE("ret = kiv_tcgetattr(UART_infos->fd, &termios_p)")));
    const int refusal = edit(&termios_p, value, options, function);
    if (refusal != 0) [[unlikely]]
        return refusal;
    if (kiv_tcsetattr(fd, &termios_p) == -1) [[unlikely]]
        return trace_errno(kiv::in(function, KIV_SITE("ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)")));
    return 0;
}

int edit_speed(termios2 *termios_p, unsigned int speed, unsigned int, const char *function) {
    const int refusal = uart_set_speed(termios_p, speed);
    if (refusal != 0) [[unlikely]]
        trace_status(kiv::in(function, KIV_SITE("ret = uart_set_speed(&termios_p, speed)")), refusal);
    return refusal;
}

int edit_flow_control(termios2 *termios_p, unsigned int enable, unsigned int, const char *) {
    if (enable != 0)
        termios_p->c_cflag |= CRTSCTS;
    else
        termios_p->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    return 0;
}

// 4. Opening --------------------------------------------------------------------------------------------

// Eight data bits, every byte as it is; a read waits for one byte and no longer. The stop bits, the receiver
// and hang-up on close stay as they were.
void make_raw(termios2 *termios_p) {
    termios_p->c_iflag &=
        ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    termios_p->c_oflag &= ~static_cast<tcflag_t>(OPOST);
    termios_p->c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    termios_p->c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
    termios_p->c_cflag |= CS8 | CLOCAL;
    termios_p->c_cc[VMIN] = 1;
    termios_p->c_cc[VTIME] = 0;
}

int edit_for_opening(termios2 *termios_p, unsigned int speed, unsigned int options, const char *function) {
    make_raw(termios_p);
    edit_flow_control(termios_p, options & UART_OPTION_RTS_CTS, 0, function);
    return edit_speed(termios_p, speed, 0, function);
}

// Opens the device and sets the line up. In a frame of its own: a transport's opening needs fewer registers.
KIV_APART int open_tty(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    constexpr const char *function = "sup_uart_Init2";
    port->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY);
    if (port->kiv_linux_sfd == nullptr) [[unlikely]]
        return trace_errno(
            kiv::in(function,
                    KIV_SITE("UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY)")));
    port->fd = kiv_linux_sfdno(port->kiv_linux_sfd);
    const int status = change_settings(port->fd, edit_for_opening, speed, options, function);
    if (status != 0) [[unlikely]] {
        kiv_linux_sclose(port->kiv_linux_sfd);
        return status;
    }
    if (port->status_cb.connected != nullptr)
        port->status_cb.connected(port, port->status_cb.context);
    return 0;
}

// The device's name says who opens it.
KIV_HOT int open_by_name(UART_infos *port, const char *device_name, unsigned int speed,
                         unsigned int options) {
    if (kiv::after("hci", device_name) != nullptr)
        return pos_open_bt(port, device_name, options);
    if (kiv::after("btsyspath:", device_name) != nullptr)
        return pos_open_bt_syspath(port, device_name, options);
    if (kiv::after("tcp:", device_name) != nullptr)
        return pos_open_tcp(port, device_name, options);
    if (kiv::after("tcpout:", device_name) != nullptr) {
        kiv::log_failure("tcpout support is not enabled\n");
        return ENODEV;
    }
    if (kiv::after("unix:", device_name) != nullptr)
        return pos_open_unix(port, device_name, options);
    return open_tty(port, device_name, speed, options);
}

} // namespace

int sup_uart_Init2(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options,
                   const UART_status_cb *status_cb) {
    if (port == nullptr || device_name == nullptr) [[unlikely]]
        return kiv::refuse_opening(port, __func__, __LINE__);
    // The callbacks may be those of the record that is about to be cleared.
    const UART_status_cb callbacks = status_cb != nullptr ? *status_cb : UART_status_cb{};
    sup_uart_Prepare(port, &callbacks);
    return sup_uart_Opened(port, open_by_name(port, device_name, speed, options));
}

int sup_uart_Init(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    return sup_uart_Init2(port, device_name, speed, options, nullptr);
}

// 5. Reading, writing -----------------------------------------------------------------------------------

// The usual case of each operation comes first, in a straight line: an open record and a call that moves all
// bytes at once. Everything else goes on out of line, and so does everything in a build for size.

namespace {

KIV_HOT int read_tty(const UART_infos &port, void *buffer, unsigned int length) {
    return static_cast<int>(kiv::sread(*port.kiv_linux_sfd, buffer, length));
}

// In a frame of its own, or a transport's read would save the registers that only a tty's needs.
[[gnu::noinline]] int read_tty_apart(const UART_infos &port, void *buffer, unsigned int length) {
    return read_tty(port, buffer, length);
}

KIV_HOT int pos_read(UART_infos *port, void *buffer, unsigned int length) {
    if (port->read != nullptr)
        return port->read(port, buffer, length);
    return read_tty_apart(*port, buffer, length);
}

// For an operation that needs the registers anyway.
KIV_HOT int pos_read_in_place(UART_infos *port, void *buffer, unsigned int length) {
    if (port->read != nullptr)
        return port->read(port, buffer, length);
    return read_tty(*port, buffer, length);
}

KIV_HOT int pos_write(UART_infos *port, const void *buffer, unsigned int length) {
    if (port->write != nullptr)
        return port->write(port, buffer, length);
    return static_cast<int>(::write(port->fd, buffer, length));
}

// As refuse_record; a record with nothing to read from, because it was never opened, gives EBADF.
KIV_COLD int refuse_reader(const UART_infos *port, const char *function, int line) {
    const int status = refuse_record(port, function, line);
    if (status == 0 && port->read == nullptr && port->kiv_linux_sfd == nullptr)
        return warn(EBADF, function, line);
    return status;
}

KIV_HOT int check_reader(const UART_infos *port, const char *function, int line) {
    return is_open(port) ? 0 : refuse_reader(port, function, line);
}

// What a call that moved no byte means: EINTR to try again, or the status of the operation's failing exit,
// warned of. A stream that gives or takes nothing is at its end.
KIV_COLD int end_of_stream(const char *text, const char *function, int line, int ret) {
    const int error = ret == 0 ? EIO : trace_errno({text, function, line});
    return error == EINTR ? EINTR : warn(error, function, line);
}

KIV_HOT int stream_failure(int ret, site at) {
    return end_of_stream(at.text, at.function, at.line, ret);
}

// Whether a count can have been moved by one call: it is not zero, and no failure when taken for a result.
KIV_HOT bool is_usual(unsigned int length) {
    return static_cast<int>(length) > 0;
}

// For a usual length: whether a call moved all of it.
KIV_HOT bool is_all(int ret, unsigned int length) {
    return static_cast<unsigned int>(ret) == length;
}

// What only those need that go on: kept in memory over the first call, which costs less than registers.
template <typename Bytes>
struct request {
    UART_infos *port;
    Bytes *buffer;
};

// Goes on with a read whose first call gave ret.
KIV_APART int read_partial_again(const request<void> &whole, unsigned int *length, int ret) {
    while (ret <= 0) {
        const int status = stream_failure(
            ret, kiv::in("sup_uart_Read_partial", KIV_SITE("ret = pos_read(UART_infos, buffer, remaining)")));
        if (status != EINTR)
            return status;
        ret = pos_read(whole.port, whole.buffer, *length);
    }
    *length = static_cast<unsigned int>(ret);
    return 0;
}

[[gnu::noinline]] int read_partial_checked(UART_infos *port, void *buffer, unsigned int *length) {
    const int status = check_reader(port, "sup_uart_Read_partial", __LINE__);
    if (status != 0 || *length == 0)
        return status;
    return read_partial_again({port, buffer}, length, pos_read(port, buffer, *length));
}

} // namespace

int sup_uart_Read_partial(UART_infos *port, void *buffer, unsigned int *length) {
    if (kiv::small_code || !is_open(port))
        return read_partial_checked(port, buffer, length);
    if (*length == 0) [[unlikely]]
        return 0;
    const request<void> whole = {port, buffer};
    const int ret = pos_read(port, buffer, *length);
    if (ret <= 0) [[unlikely]]
        return read_partial_again(whole, length, ret);
    *length = static_cast<unsigned int>(ret);
    return 0;
}

namespace {

// Goes on with a read whose first call gave ret.
KIV_APART int read_rest(const request<void> &whole, unsigned int *length, int ret) {
    UART_infos *port = whole.port;
    auto *at = static_cast<char *>(whole.buffer);
    unsigned int remaining = *length;
    for (;;) {
        if (ret > 0) {
            at += ret;
            remaining -= static_cast<unsigned int>(ret);
            if (remaining == 0)
                return 0;
        } else {
            const int status = stream_failure(
                ret,
                kiv::in("sup_uart_Read",
                        KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)")));
            if (status != EINTR) {
                *length -= remaining;
                return status;
            }
        }
        ret = pos_read(port, at, remaining);
    }
}

KIV_COLD int read_unusual(UART_infos *port, void *buffer, unsigned int *length) {
    if (*length == 0)
        return warn(EIO, "sup_uart_Read", __LINE__);
    return read_rest({port, buffer}, length, pos_read(port, buffer, *length));
}

[[gnu::noinline]] int read_checked(UART_infos *port, void *buffer, unsigned int *length) {
    const int status = check_reader(port, "sup_uart_Read", __LINE__);
    return status == 0 ? read_unusual(port, buffer, length) : status;
}

} // namespace

int sup_uart_Read(UART_infos *port, void *buffer, unsigned int *length) {
    if (kiv::small_code || !is_open(port))
        return read_checked(port, buffer, length);
    if (!is_usual(*length)) [[unlikely]]
        return read_unusual(port, buffer, length);
    const request<void> whole = {port, buffer};
    const int ret = pos_read(port, buffer, *length);
    if (is_all(ret, *length)) [[likely]]
        return 0;
    return read_rest(whole, length, ret);
}

namespace {

constexpr unsigned int second_us = 1000000;

// Whole seconds go into their own field. The device's processor has no divider, so they are found bit by bit.
KIV_COLD timeval split_seconds(unsigned int timeout_us) {
    time_t seconds = 0;
    for (unsigned int bit = 12; bit <= 12; --bit)
        if (timeout_us >= second_us << bit) {
            timeout_us -= second_us << bit;
            seconds += 1 << bit;
        }
    return {.tv_sec = seconds, .tv_usec = static_cast<suseconds_t>(timeout_us)};
}

KIV_HOT timeval limit_of(unsigned int timeout_us) {
    if (!kiv::small_code && timeout_us < second_us) [[likely]]
        return {.tv_sec = 0, .tv_usec = static_cast<suseconds_t>(timeout_us)};
    return split_seconds(timeout_us);
}

enum class timed_step { first_byte, wait, piece };

// What a timed read knows between two steps.
struct timed_read {
    UART_infos *port;
    char *buffer;
    unsigned int *length;
    unsigned int timeout_us;
    unsigned int got; // bytes so far
    int fd;           // what the last wait was for
};

// Waits on the descriptor that the port has now. Having none is like a time-out: a writer has noticed that
// the peer is gone, and nothing more comes from that one.
KIV_HOT int wait_for_piece(int fd, unsigned int timeout_us) {
    timeval timeout = limit_of(timeout_us);
    return kiv::wait_readable(fd, &timeout);
}

// A wait that ended without data. Returns the status of the read, or EINTR to wait once more: a writer closed
// the descriptor while the wait was on its way.
KIV_COLD int end_of_wait(const timed_read &now, int ready) {
    constexpr const char *function = "sup_uart_Read_partial_timeout";
    if (ready == -1) {
        if (errno == EBADF && current_fd(*now.port) != now.fd)
            return EINTR;
        const int error = trace_errno(kiv::in(
            function,
            KIV_SITE("ret = select(UART_infos->fd+1, &readset, ((void *)0), ((void *)0), &timeout)")));
        if (error != EINTR)
            return warn(error, function, __LINE__);
    }
    *now.length = now.got;
    return 0;
}

KIV_COLD int end_of_timed_read(timed_step step, int ret) {
    constexpr const char *function = "sup_uart_Read_partial_timeout";
    if (step == timed_step::first_byte)
        return stream_failure(ret, kiv::in(function, KIV_SITE("ret = pos_read(UART_infos, buffer, 1)")));
    return stream_failure(
        ret,
        kiv::in(function, KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)")));
}

// Goes on with a timed read from the step whose call gave ret.
KIV_APART int read_timed_rest(timed_read &&now, timed_step step, int ret) {
    for (;;) {
        if (step == timed_step::wait) {
            const int status = ret > 0 ? EINTR : end_of_wait(now, ret);
            if (status != EINTR)
                return status;
            step = ret > 0 ? timed_step::piece : timed_step::wait;
        } else if (ret == 0 || ret == -1) {
            const int status = end_of_timed_read(step, ret);
            if (status != EINTR)
                return status;
        } else {
            const bool first = step == timed_step::first_byte;
            check(!first || ret == 1, kiv::in("sup_uart_Read_partial_timeout", KIV_SITE("ret == 1")));
            now.got += first ? 1u : static_cast<unsigned int>(ret);
            if (now.got == *now.length)
                return 0;
            step = timed_step::wait;
        }
        if (step == timed_step::wait) {
            now.fd = current_fd(*now.port);
            ret = wait_for_piece(now.fd, now.timeout_us);
        } else {
            const unsigned int wanted = step == timed_step::first_byte ? 1 : *now.length - now.got;
            ret = pos_read(now.port, now.buffer + now.got, wanted);
        }
    }
}

// From the first byte on: a read for which that is all, and one of a length that no call can move.
int read_timed_unusual(UART_infos *port, void *buffer, unsigned int *length, unsigned int timeout_us) {
    if (*length == 0)
        return 0;
    auto *at = static_cast<char *>(buffer);
    return read_timed_rest({port, at, length, timeout_us, 0, -1}, timed_step::first_byte,
                           pos_read(port, at, 1));
}

} // namespace

int sup_uart_Read_partial_timeout(UART_infos *port, void *buffer, unsigned int *length,
                                  unsigned int timeout_us) {
    const int refusal = check_reader(port, __func__, __LINE__);
    if (refusal != 0) [[unlikely]]
        return refusal;
    if (current_fd(*port) < 0) [[unlikely]]
        return sup_uart_Read_partial(port, buffer, length);
    const unsigned int rest = *length - 1;
    if (kiv::small_code || !is_usual(rest))
        return read_timed_unusual(port, buffer, length, timeout_us);
    auto *at = static_cast<char *>(buffer);
    int ret = pos_read_in_place(port, at, 1);
    if (ret != 1) [[unlikely]]
        return read_timed_rest({port, at, length, timeout_us, 0, -1}, timed_step::first_byte, ret);
    const int waited = current_fd(*port);
    ret = wait_for_piece(waited, timeout_us);
    if (ret <= 0) [[unlikely]]
        return read_timed_rest({port, at, length, timeout_us, 1, waited}, timed_step::wait, ret);
    ret = pos_read_in_place(port, at + 1, rest);
    if (is_all(ret, rest)) [[likely]]
        return 0;
    return read_timed_rest({port, at, length, timeout_us, 1, waited}, timed_step::piece, ret);
}

namespace {

// Goes on with a send whose first call gave ret.
[[gnu::noinline]] int send_rest(const request<const void> &whole, unsigned int length, int ret) {
    UART_infos *port = whole.port;
    const auto *at = static_cast<const char *>(whole.buffer);
    for (;;) {
        if (ret > 0) {
            at += ret;
            length -= static_cast<unsigned int>(ret);
            if (length == 0)
                return 0;
        } else {
            const int status = stream_failure(
                ret,
                kiv::in("sup_uart_Send",
                        KIV_SITE("ret = pos_write(UART_infos, buffer + (length - remaining), remaining)")));
            if (status != EINTR)
                return status;
        }
        ret = pos_write(port, at, length);
    }
}

KIV_COLD int send_unusual(UART_infos *port, const void *buffer, unsigned int length) {
    if (length == 0)
        return warn(EIO, "sup_uart_Send", __LINE__);
    return send_rest({port, buffer}, length, pos_write(port, buffer, length));
}

// The send itself, on a record that has been checked.
KIV_HOT int send_piece(UART_infos *port, const void *buffer, unsigned int length) {
    if (!is_usual(length)) [[unlikely]]
        return send_unusual(port, buffer, length);
    const request<const void> whole = {port, buffer};
    const int ret = pos_write(port, buffer, length);
    if (is_all(ret, length)) [[likely]]
        return 0;
    return send_rest(whole, length, ret);
}

[[gnu::noinline]] int send_checked(UART_infos *port, const void *buffer, unsigned int length) {
    const int status = check_record(port, "sup_uart_Send", __LINE__);
    return status == 0 ? send_unusual(port, buffer, length) : status;
}

} // namespace

int sup_uart_Send(UART_infos *port, const void *buffer, unsigned int length) {
    if (kiv::small_code || !is_open(port))
        return send_checked(port, buffer, length);
    return send_piece(port, buffer, length);
}

namespace {

// One call of the slot for all pieces; what it did not take stays unsent.
int send_gathered(UART_infos *port, const iovec *iov, int iovcnt, unsigned int *sent, const char *function) {
    size_t length = 0;
    for (int i = 0; i < iovcnt; ++i)
        length += iov[i].iov_len;
    for (;;) {
        const int ret = port->writev(port, iov, iovcnt);
        int error = 0;
        if (ret == -1) [[unlikely]] {
            error =
                trace_errno(kiv::in(function, KIV_SITE("ret = UART_infos->writev(UART_infos, iov, iovcnt)")));
            if (error == EINTR)
                continue;
        }
        check(ret == static_cast<int>(length), kiv::in(function, KIV_SITE("ret == len")));
        if (ret == -1) [[unlikely]]
            return warn(error, function, __LINE__);
        *sent = static_cast<unsigned int>(ret);
        return 0;
    }
}

} // namespace

int sup_uart_Sendv(UART_infos *port, const struct iovec *iov, int iovcnt, unsigned int *sent) {
    *sent = 0;
    const bool open = is_open(port);
    if (!open && refuse_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (port->writev != nullptr)
        return send_gathered(port, iov, iovcnt, sent, __func__);
    for (const iovec *end = iov + iovcnt; iov < end; ++iov) {
        const auto length = static_cast<unsigned int>(iov->iov_len);
        const int status = !kiv::small_code && open ? send_piece(port, iov->iov_base, length)
                                                    : sup_uart_Send(port, iov->iov_base, length);
        *sent += length;
        if (status != 0) [[unlikely]]
            return KIV_WARN(status);
    }
    return 0;
}

// 6. Line control ---------------------------------------------------------------------------------------

namespace {

int edit_parity(termios2 *termios_p, unsigned int parity, unsigned int, const char *) {
    switch (parity) {
    case UART_PARITY_NONE:
        termios_p->c_cflag &= ~static_cast<tcflag_t>(PARENB);
        return 0;
    case UART_PARITY_ODD:
        termios_p->c_cflag |= PARENB | PARODD;
        return 0;
    case UART_PARITY_ON:
        termios_p->c_cflag |= PARENB;
        return 0;
    default:
        return -EINVAL;
    }
}

int edit_stop_bits(termios2 *termios_p, unsigned int stop_bits, unsigned int, const char *) {
    switch (stop_bits) {
    case UART_STOP_BITS_ONE:
        termios_p->c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
        return 0;
    case UART_STOP_BITS_TWO:
        termios_p->c_cflag |= CSTOPB;
        return 0;
    default:
        return -EINVAL;
    }
}

using change_slot = int (*UART_infos::*)(UART_infos *, unsigned int);

int change_line(UART_infos *port, change_slot slot, settings_edit *edit, unsigned int value,
                const char *function) {
    if (check_record(port, function, __LINE__) != 0)
        return EINVAL;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the report of a null record always gives EINVAL
    if (port->*slot != nullptr)
        return (port->*slot)(port, value);
    if (is_stream(*port))
        return 0;
    const int status = kiv_tcdrain(port->fd) == -1
                           ? trace_errno(kiv::in(function, KIV_SITE("ret = kiv_tcdrain(UART_infos->fd)")))
                           : change_settings(port->fd, edit, value, 0, function);
    return status == 0 ? 0 : warn(status, function, __LINE__);
}

} // namespace

int sup_uart_Change_Speed(UART_infos *port, unsigned int speed) {
    return change_line(port, &UART_infos::change_speed, edit_speed, speed, __func__);
}

int sup_uart_Change_Parity(UART_infos *port, unsigned int parity) {
    return change_line(port, &UART_infos::change_parity, edit_parity, parity, __func__);
}

int sup_uart_Change_StopBitsNumber(UART_infos *port, unsigned int stop_bits) {
    return change_line(port, &UART_infos::change_stop_bits, edit_stop_bits, stop_bits, __func__);
}

int sup_uart_Flush(UART_infos *port, unsigned int flag) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    const bool known = flag <= FLUSH_ALL;
    check(known, KIV_SITE("flag>=0 && flag <=FLUSH_ALL"));
    if (is_stream(*port))
        return 0;
    check(known, KIV_SITE("0"));
    // The flags and the kernel's queue selectors are the same numbers.
    static_assert(UART_FLUSH_INPUT == TCIFLUSH && UART_FLUSH_OUTPUT == TCOFLUSH && FLUSH_ALL == TCIOFLUSH);
    if (kiv_tcflush(port->fd, known ? flag : TCIOFLUSH) == -1) {
        trace_and_warn(KIV_SITE("ret = kiv_tcflush(UART_infos->fd, queue_selector)"));
        return -1;
    }
    return 0;
}

void sup_uart_RTS_Manage(UART_infos *port, unsigned int manage) {
    check(port->magic == UART_MAGIC, KIV_SITE("UART_infos->magic == 0xc0decafe"));
    if (is_stream(*port))
        return;
    int lines;
    if (::ioctl(port->fd, TIOCMGET, &lines) == -1) {
        trace_and_warn(KIV_SITE("ret = ioctl(fd, 0x5415, &flags)"));
        return;
    }
    if (manage == UART_RTS_RAISE)
        lines |= TIOCM_RTS;
    else
        lines &= ~TIOCM_RTS;
    const int ret = ::ioctl(port->fd, TIOCMSET, &lines);
    if (ret == -1)
        trace_and_warn(KIV_SITE("ret = ioctl(fd, 0x5418, &flags)"));
    else if (ret != 0)
        KIV_WARN(ret);
}

int sup_uart_RTS_Enable(UART_infos *port, unsigned int enable) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (is_stream(*port))
        return 0;
    const int status = change_settings(port->fd, edit_flow_control, enable, 0, __func__);
    return status == 0 ? 0 : KIV_WARN(status);
}

int sup_uart_Set_Break(UART_infos *) {
    return ENOSYS;
}

int sup_uart_Reset_Break(UART_infos *) {
    return ENOSYS;
}

int sup_uart_Register_Status_Callback(UART_infos *, const UART_status_cb *) {
    return ENOSYS;
}

int sup_uart_Stop_UART(UART_infos *port) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (is_stream(*port))
        return 0;
    const int status = sup_uart_Change_Speed(port, UART_SPEED_HANGUP);
    if (port->kiv_linux_sfd != nullptr) // null when never opened
        kiv_linux_sclose_cancel(port->kiv_linux_sfd);
    return status == 0 ? 0 : KIV_WARN(status);
}

// 7. Closing --------------------------------------------------------------------------------------------

namespace {

// A stream whose transport has nothing special to do at the end: it owns the connection in fd, the socket in
// fd_listen, and the block of memory in priv, as far as there are any.
int release_stream(UART_infos &port) {
    if (port.fd >= 0)
        ::close(port.fd);
    if (kiv::owns_listener(port))
        ::close(port.fd_listen);
    ::free(port.priv);
    kiv::detach(port);
    return 0;
}

int close_default(UART_infos &port) {
    if (port.kiv_linux_sfd != nullptr)
        return kiv_linux_sclose(port.kiv_linux_sfd);
    if (is_stream(port))
        return release_stream(port);
    errno = EBADF; // never opened
    return -1;
}

} // namespace

int sup_uart_close(UART_infos *port) {
    if (port == nullptr)
        return kiv::refuse_null(KIV_SITE("(UART_infos) != ((void *)0)"));
    const int status = port->close != nullptr ? port->close(port) : close_default(*port);
    return status == 0 ? 0 : KIV_WARN(status);
}
