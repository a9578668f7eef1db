// The serial port: what an application calls, and the tty behind a port that no transport serves.
//
//   1. Kernel requests   the tty requests under the names that their traces show
//   2. Speeds            codes, rates, and the bits of the termios block
//   3. Opening           the device's name decides; the tty's set-up
//   4. Reading, writing  loops over a transport's slot or the tty
//   5. Line control      one frame for the changes of the termios block; flush, RTS, stop
//   6. Closing
//
// An empty slot means the tty: pos_read and pos_write decide that for the data, nothing else does. The
// module keeps no state and takes no lock.

#define KIV_MODULE "drivers/src/posix/linux_uart"

#include <asm/termbits.h>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>

#include "common/prefix.h"
#include "common/report.h"
#include "common/slots.h"
#include "common/wait.h"
#include "kiv/platform.h"
#include "kiv/transports.h"
#include "linux/linux_sfd.h"

using kiv::check;
using kiv::current_fd;
using kiv::has_prefix;
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
[[gnu::cold, gnu::noinline]] int refuse_record(const UART_infos *port, const char *function, int line) {
    if (port == nullptr)
        return kiv::refuse_null({"(UART_infos) != ((void *)0)", function, line});
    check(false, {"UART_infos->magic == 0xc0decafe", function, line});
    return 0;
}

[[gnu::always_inline]] inline int check_record(const UART_infos *port, const char *function, int line) {
    if (port == nullptr || port->magic != UART_MAGIC) [[unlikely]]
        return refuse_record(port, function, line);
    return 0;
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

int uart_set_speed(termios2 *settings, unsigned int speed) {
    uint32_t bits = BOTHER;
    if (speed > highest_coded_rate) {
        settings->c_ispeed = speed;
        settings->c_ospeed = speed;
    } else {
        bits = speed <= highest_code ? uart_speed_table[speed] : refused;
        if (bits == refused)
            return EINVAL;
    }
    settings->c_cflag = (settings->c_cflag & ~static_cast<tcflag_t>(CBAUD)) | bits;
    return 0;
}

// 3. Opening --------------------------------------------------------------------------------------------

// Eight data bits, every byte as it is; a read waits for one byte and no longer. The stop bits, the receiver
// and hang-up on close stay as they were.
void make_raw(termios2 *settings) {
    settings->c_iflag &=
        ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    settings->c_oflag &= ~static_cast<tcflag_t>(OPOST);
    settings->c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    settings->c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
    settings->c_cflag |= CS8 | CLOCAL;
    settings->c_cc[VMIN] = 1;
    settings->c_cc[VTIME] = 0;
}

void set_flow_control(termios2 *settings, bool on) {
    if (on)
        settings->c_cflag |= CRTSCTS;
    else
        settings->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
}

// The first failing step ends it, traced under the opening's name. Returns 0 or its error.
int set_up_tty(int fd, unsigned int speed, unsigned int options, const char *function) {
    termios2 termios_p;
    if (kiv_tcgetattr(fd, &termios_p) == -1) [[unlikely]]
        return trace_errno(kiv::in(function, KIV_SITE("ret = kiv_tcgetattr(UART_infos->fd, &termios_p)")));
    make_raw(&termios_p);
    const int refusal = uart_set_speed(&termios_p, speed);
    if (refusal != 0) [[unlikely]]
        return trace_status(kiv::in(function, KIV_SITE("ret = uart_set_speed(&termios_p, speed)")), refusal);
    set_flow_control(&termios_p, (options & UART_OPTION_RTS_CTS) != 0);
    if (kiv_tcsetattr(fd, &termios_p) == -1) [[unlikely]]
        return trace_errno(kiv::in(function, KIV_SITE("ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)")));
    return 0;
}

} // namespace

int sup_uart_Init2(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options,
                   const UART_status_cb *status_cb) {
    if (port == nullptr) [[unlikely]]
        return kiv::refuse_null(KIV_SITE("(UART_infos) != ((void *)0)"));
    if (device_name == nullptr) [[unlikely]]
        return kiv::refuse_null(KIV_SITE("(device_name) != ((void *)0)"));
    // The callbacks may be those of the record that is about to be cleared.
    const UART_status_cb callbacks = status_cb != nullptr ? *status_cb : UART_status_cb{};
    sup_uart_Prepare(port, &callbacks);

    if (has_prefix(device_name, "hci"))
        return sup_uart_Opened(port, pos_open_bt(port, device_name, options));
    if (has_prefix(device_name, "btsyspath:"))
        return sup_uart_Opened(port, pos_open_bt_syspath(port, device_name, options));
    if (has_prefix(device_name, "tcp:"))
        return sup_uart_Opened(port, pos_open_tcp(port, device_name, options));
    if (has_prefix(device_name, "tcpout:")) {
        if (kiv::pos_wants(1))
            sup_log_msg_nocolor_raw(kiv::pos_category_name, 1, "tcpout support is not enabled\n");
        return ENODEV;
    }

    port->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY);
    if (port->kiv_linux_sfd == nullptr) [[unlikely]]
        return trace_errno(
            KIV_SITE("UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY)"));
    port->fd = kiv_linux_sfdno(port->kiv_linux_sfd);
    const int status = set_up_tty(port->fd, speed, options, __func__);
    if (status != 0) [[unlikely]] {
        kiv_linux_sclose(port->kiv_linux_sfd);
        return status;
    }
    if (port->status_cb.connected != nullptr)
        port->status_cb.connected(port, port->status_cb.context);
    return sup_uart_Opened(port, 0);
}

int sup_uart_Init(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    return sup_uart_Init2(port, device_name, speed, options, nullptr);
}

// 4. Reading, writing -----------------------------------------------------------------------------------

namespace {

// Apart, so that the way to a slot saves no registers.
[[gnu::noinline]] int read_tty(UART_infos *port, void *buffer, unsigned int length) {
    if (port->kiv_linux_sfd == nullptr) [[unlikely]] { // never opened
        errno = EBADF;
        return -1;
    }
    return static_cast<int>(kiv::sread(*port->kiv_linux_sfd, buffer, length));
}

int pos_read(UART_infos *port, void *buffer, unsigned int length) {
    return port->read != nullptr ? port->read(port, buffer, length) : read_tty(port, buffer, length);
}

int pos_write(UART_infos *port, const void *buffer, unsigned int length) {
    if (port->write != nullptr)
        return port->write(port, buffer, length);
    return static_cast<int>(::write(port->fd, buffer, length));
}

// What a call that moved no byte means: EINTR to try again, or the status of the operation's failing exit,
// warned of. A stream that gives or takes nothing is at its end.
[[gnu::cold, gnu::noinline]] int end_of_stream(const char *text, const char *function, int line, int ret) {
    const int error = ret == 0 ? EIO : trace_errno({text, function, line});
    return error == EINTR ? EINTR : warn(error, function, line);
}

[[gnu::always_inline]] inline int stream_failure(int ret, site at) {
    return end_of_stream(at.text, at.function, at.line, ret);
}

constexpr unsigned int second_us = 1000000;

// Whole seconds go into their own field. The device's processor has no divider, so they are found bit by bit.
timeval limit_of(unsigned int timeout_us) {
    time_t seconds = 0;
    if (timeout_us >= second_us) [[unlikely]]
        for (unsigned int bit = 12; bit <= 12; --bit)
            if (timeout_us >= second_us << bit) {
                timeout_us -= second_us << bit;
                seconds += 1 << bit;
            }
    return {.tv_sec = seconds, .tv_usec = static_cast<suseconds_t>(timeout_us)};
}

} // namespace

int sup_uart_Read_partial(UART_infos *port, void *buffer, unsigned int *length) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (*length == 0)
        return 0;
    for (;;) {
        const int ret = pos_read(port, buffer, *length);
        if (ret > 0) [[likely]] {
            *length = static_cast<unsigned int>(ret);
            return 0;
        }
        const int status = stream_failure(ret, KIV_SITE("ret = pos_read(UART_infos, buffer, remaining)"));
        if (status != EINTR)
            return status;
    }
}

int sup_uart_Read(UART_infos *port, void *buffer, unsigned int *length) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (*length == 0) [[unlikely]]
        return KIV_WARN(EIO);
    auto *at = static_cast<char *>(buffer);
    unsigned int remaining = *length;
    do {
        const int ret = pos_read(port, at, remaining);
        if (ret > 0) [[likely]] {
            at += ret;
            remaining -= static_cast<unsigned int>(ret);
            continue;
        }
        const int status = stream_failure(
            ret, KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)"));
        if (status != EINTR) {
            *length -= remaining;
            return status;
        }
    } while (remaining > 0);
    return 0;
}

int sup_uart_Read_partial_timeout(UART_infos *port, void *buffer, unsigned int *length,
                                  unsigned int timeout_us) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (current_fd(*port) < 0)
        return sup_uart_Read_partial(port, buffer, length);
    if (*length == 0)
        return 0;

    int ret = pos_read(port, buffer, 1);
    while (ret == -1 || ret == 0)
        [[unlikely]] {
            const int status = stream_failure(ret, KIV_SITE("ret = pos_read(UART_infos, buffer, 1)"));
            if (status != EINTR)
                return status;
            ret = pos_read(port, buffer, 1);
        }
    check(ret == 1, KIV_SITE("ret == 1"));

    auto *at = static_cast<char *>(buffer) + 1;
    unsigned int remaining = *length - 1;
    while (remaining > 0) {
        const int fd = current_fd(*port);
        if (fd < 0) [[unlikely]] // a writer has noticed that the peer is gone: nothing more comes from it
            break;
        timeval timeout = limit_of(timeout_us);
        ret = kiv::wait_readable(fd, &timeout);
        if (ret == -1) [[unlikely]] {
            if (errno == EBADF && current_fd(*port) != fd)
                continue; // closed by that writer while this was on its way into the wait
            const int error = trace_errno(
                KIV_SITE("ret = select(UART_infos->fd+1, &readset, ((void *)0), ((void *)0), &timeout)"));
            if (error != EINTR)
                return KIV_WARN(error);
        }
        if (ret <= 0)
            break;
        for (;;) {
            ret = pos_read(port, at, remaining);
            if (ret > 0) [[likely]]
                break;
            const int status = stream_failure(
                ret, KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)"));
            if (status != EINTR)
                return status;
        }
        at += ret;
        remaining -= static_cast<unsigned int>(ret);
    }
    *length -= remaining;
    return 0;
}

int sup_uart_Send(UART_infos *port, const void *buffer, unsigned int length) {
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (length == 0) [[unlikely]]
        return KIV_WARN(EIO);
    const auto *at = static_cast<const char *>(buffer);
    unsigned int remaining = length;
    do {
        const int ret = pos_write(port, at, remaining);
        if (ret > 0) [[likely]] {
            at += ret;
            remaining -= static_cast<unsigned int>(ret);
            continue;
        }
        const int status = stream_failure(
            ret, KIV_SITE("ret = pos_write(UART_infos, buffer + (length - remaining), remaining)"));
        if (status != EINTR)
            return status;
    } while (remaining > 0);
    return 0;
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
    if (check_record(port, __func__, __LINE__) != 0) [[unlikely]]
        return EINVAL;
    if (port->writev != nullptr)
        return send_gathered(port, iov, iovcnt, sent, __func__);
    for (int i = 0; i < iovcnt; ++i) {
        const auto length = static_cast<unsigned int>(iov[i].iov_len);
        const int status = sup_uart_Send(port, iov[i].iov_base, length);
        *sent += length;
        if (status != 0) [[unlikely]]
            return KIV_WARN(status);
    }
    return 0;
}

// 5. Line control ---------------------------------------------------------------------------------------

namespace {

int read_settings(int fd, termios2 *termios_p, const char *function) {
    if (kiv_tcgetattr(fd, termios_p) == -1) [[unlikely]]
        return trace_and_warn(kiv::in(function, KIV_SITE("ret = kiv_tcgetattr(UART_infos->fd, &termios_p)")));
    return 0;
}

int write_settings(int fd, const termios2 *termios_p, const char *function) {
    if (kiv_tcsetattr(fd, termios_p) == -1) [[unlikely]]
        return trace_and_warn(
            kiv::in(function, KIV_SITE("ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)")));
    return 0;
}

using settings_edit = int(termios2 *termios_p, unsigned int value);

int edit_speed(termios2 *termios_p, unsigned int speed) {
    const int refusal = uart_set_speed(termios_p, speed);
    if (refusal != 0)
        trace_status(kiv::in("sup_uart_Change_Speed", KIV_SITE("ret = uart_set_speed(&termios_p, speed)")),
                     refusal);
    return refusal;
}

int edit_parity(termios2 *termios_p, unsigned int parity) {
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

int edit_stop_bits(termios2 *termios_p, unsigned int stop_bits) {
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

// The block is written in the last step only, so a refusal or a failure leaves the line as it was.
int change_settings(int fd, settings_edit *edit, unsigned int value, const char *function) {
    if (kiv_tcdrain(fd) == -1) [[unlikely]]
        return trace_and_warn(kiv::in(function, KIV_SITE("ret = kiv_tcdrain(UART_infos->fd)")));
    termios2 termios_p;
    int status = read_settings(fd, &termios_p, function);
    if (status != 0)
        return status;
    status = edit(&termios_p, value);
    if (status != 0)
        return warn(status, function, __LINE__);
    return write_settings(fd, &termios_p, function);
}

using change_slot = int (*UART_infos::*)(UART_infos *, unsigned int);

int change_line(UART_infos *port, change_slot slot, settings_edit *edit, unsigned int value,
                const char *function) {
    if (check_record(port, function, __LINE__) != 0)
        return EINVAL;
    if (port->*slot != nullptr)
        return (port->*slot)(port, value);
    return is_stream(*port) ? 0 : change_settings(port->fd, edit, value, function);
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
    termios2 termios_p;
    const int status = read_settings(port->fd, &termios_p, __func__);
    if (status != 0)
        return status;
    set_flow_control(&termios_p, enable != 0);
    return write_settings(port->fd, &termios_p, __func__);
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

// 6. Closing --------------------------------------------------------------------------------------------

namespace {

// A stream whose transport has nothing special to do at the end: it owns the connection in fd, the socket in
// fd_listen, and the block of memory in priv, as far as there are any. They are forgotten, so that closing
// twice by mistake does not hit whoever has the numbers next.
int release_stream(UART_infos &port) {
    if (port.fd >= 0)
        ::close(port.fd);
    if (kiv::owns_listener(port))
        ::close(port.fd_listen);
    ::free(port.priv);
    port.fd = -1;
    port.fd_listen = -1;
    port.flags = UART_FLAG_STREAM;
    port.priv = nullptr;
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
