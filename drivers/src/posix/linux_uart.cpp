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

#include <algorithm>
#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "common/connection.h"
#include "common/hints.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/shared.h"
#include "common/slots.h"
#include "common/wait.h"
#include "kiv/platform.h"
#include "kiv/transports.h"
#include "linux/linux_sfd.h"

using kiv::check;
using kiv::seen;
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
    return (seen(port.flags) & 3u) != 0;
}

// Whether nothing stands behind a record but the descriptor 0 of a cleared one, which is somebody else's.
bool was_never_opened(const UART_infos &port) {
    return port.fd == 0 && port.kiv_linux_sfd == nullptr && port.read == nullptr && port.write == nullptr &&
           port.writev == nullptr && port.change_speed == nullptr && port.change_parity == nullptr &&
           port.change_stop_bits == nullptr;
}

KIV_HOT bool is_open(const UART_infos *port) {
    return port != nullptr && port->magic == UART_MAGIC;
}

// For a record that is not open: a null one and one that was never opened are refused, any other is reported
// only. Returns 0 or the status.
KIV_COLD int refuse_record(const UART_infos *port, const char *function, int line) {
    if (port == nullptr)
        return kiv::refuse_null("(UART_infos) != ((void *)0)", function, line);
    check(false, "UART_infos->magic == 0xc0decafe", function, line);
    return was_never_opened(*port) ? warn(EBADF, function, line) : 0;
}

// The beginning of every operation.
int check_record(const UART_infos *port, const char *function, int line) {
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

// Changes a termios block. Returns 0 or the status of a refusal.
using settings_edit = int(termios2 *termios_p, unsigned int value);

// The block is written in the last step only, so a refusal or a failure leaves the line as it was. Returns 0,
// the errno of a request, or the status of a refusal. Speeds are refused with an error number, which is
// traced; nothing else is.
int change_settings(int fd, settings_edit *edit, unsigned int value, const char *function) {
    termios2 termios_p;
    if (kiv_tcgetattr(fd, &termios_p) == -1)
        return trace_errno(KIV_ON_BEHALF_OF(function, "ret = kiv_tcgetattr(UART_infos->fd, &termios_p)"));
    const int refusal = edit(&termios_p, value);
    if (refusal > 0)
        trace_status(KIV_ON_BEHALF_OF(function, "ret = uart_set_speed(&termios_p, speed)"), refusal);
    if (refusal != 0)
        return refusal;
    if (kiv_tcsetattr(fd, &termios_p) == -1)
        return trace_errno(KIV_ON_BEHALF_OF(function, "ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)"));
    return 0;
}

int set_flow_control(termios2 *termios_p, unsigned int enable) {
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

int make_raw_with_flow_control(termios2 *termios_p, unsigned int speed) {
    make_raw(termios_p);
    set_flow_control(termios_p, 1);
    return uart_set_speed(termios_p, speed);
}

int make_raw_without_flow_control(termios2 *termios_p, unsigned int speed) {
    make_raw(termios_p);
    set_flow_control(termios_p, 0);
    return uart_set_speed(termios_p, speed);
}

// Opens the device and sets the line up, on behalf of sup_uart_Init2.
int open_tty(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    constexpr const char *function = "sup_uart_Init2";
    port->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY);
    if (port->kiv_linux_sfd == nullptr)
        return trace_errno(KIV_ON_BEHALF_OF(
            function, "UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY)"));
    port->fd = kiv_linux_sfdno(port->kiv_linux_sfd);
    const bool flow_control = (options & UART_OPTION_RTS_CTS) != 0;
    const int status = change_settings(
        port->fd, flow_control ? make_raw_with_flow_control : make_raw_without_flow_control, speed, function);
    if (status != 0) {
        kiv_linux_sclose(port->kiv_linux_sfd);
        return status;
    }
    if (port->status_cb.connected != nullptr)
        port->status_cb.connected(port, port->status_cb.context);
    return 0;
}

// The device's name says who opens it.
int open_by_name(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    if (kiv::skip_prefix("hci", device_name) != nullptr)
        return pos_open_bt(port, device_name, options);
    if (kiv::skip_prefix("btsyspath:", device_name) != nullptr)
        return pos_open_bt_syspath(port, device_name, options);
    if (kiv::skip_prefix("tcp:", device_name) != nullptr)
        return pos_open_tcp(port, device_name, options);
    if (kiv::skip_prefix("tcpout:", device_name) != nullptr) {
        kiv::log_failure("tcpout support is not enabled\n");
        return ENODEV;
    }
    if (kiv::skip_prefix("unix:", device_name) != nullptr)
        return pos_open_unix(port, device_name, options);
    return open_tty(port, device_name, speed, options);
}

} // namespace

int sup_uart_Init2(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options,
                   const UART_status_cb *status_cb) {
    if (kiv::check_opening(port, device_name, __func__, __LINE__) != 0)
        return EINVAL;
    // The callbacks may be those of the record that is about to be cleared.
    const UART_status_cb callbacks = status_cb != nullptr ? *status_cb : UART_status_cb{};
    sup_uart_Prepare(port, &callbacks);
    return sup_uart_Opened(port, open_by_name(port, device_name, speed, options));
}

int sup_uart_Init(UART_infos *port, const char *device_name, unsigned int speed, unsigned int options) {
    return sup_uart_Init2(port, device_name, speed, options, nullptr);
}

// 5. Reading, writing -----------------------------------------------------------------------------------

namespace {

inline int pos_read(UART_infos *port, void *buffer, unsigned int length) {
    if (port->read != nullptr)
        return port->read(port, buffer, length);
    return static_cast<int>(kiv::sread(*port->kiv_linux_sfd, buffer, length));
}

KIV_HOT int pos_write(UART_infos *port, const void *buffer, unsigned int length) {
    if (port->write != nullptr)
        return port->write(port, buffer, length);
    return static_cast<int>(::write(port->fd, buffer, length));
}

// As refuse_record; a record with nothing to read from, because it was never opened, is refused, too, and
// nothing has been read then.
KIV_COLD int refuse_reader(const UART_infos *port, unsigned int *length, const char *function, int line) {
    int status = refuse_record(port, function, line);
    if (status == 0 && port->read == nullptr && port->kiv_linux_sfd == nullptr)
        status = warn(EBADF, function, line);
    if (status == EBADF)
        *length = 0;
    return status;
}

KIV_HOT int check_reader(const UART_infos *port, unsigned int *length, const char *function, int line) {
    return is_open(port) ? 0 : refuse_reader(port, length, function, line);
}

// What a call that moved no byte means: EINTR to make it again, or the status of the operation's failing
// exit, warned of. A stream that gives or takes nothing is at its end.
KIV_COLD int end_of_stream(int ret, const char *text, const char *function, int line) {
    const int error = ret == -1 ? trace_errno(text, function, line) : EIO;
    if (error == EINTR)
        return EINTR;
    return warn(error != 0 ? error : EIO, function, line);
}

// One read that brings something, on behalf of the operation at the site. Returns the number of bytes, or
// minus the status of the operation.
KIV_HOT int read_some(UART_infos *port, void *buffer, unsigned int length, const char *text,
                      const char *function, int line) {
    for (;;) {
        const int ret = pos_read(port, buffer, length);
        if (ret > 0)
            return ret;
        const int status = end_of_stream(ret, text, function, line);
        if (status != EINTR)
            return -status;
    }
}

} // namespace

int sup_uart_Read_partial(UART_infos *port, void *buffer, unsigned int *length) {
    const int refusal = check_reader(port, length, __func__, __LINE__);
    if (refusal != 0 || *length == 0)
        return refusal;
    const int got =
        read_some(port, buffer, *length, KIV_SITE("ret = pos_read(UART_infos, buffer, remaining)"));
    if (got < 0)
        return -got;
    *length = static_cast<unsigned int>(got);
    return 0;
}

int sup_uart_Read(UART_infos *port, void *buffer, unsigned int *length) {
    const int refusal = check_reader(port, length, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
    if (*length == 0)
        return KIV_WARN(EIO);
    auto *at = static_cast<char *>(buffer);
    unsigned int remaining = *length;
    do {
        const int got =
            read_some(port, at, remaining,
                      KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)"));
        if (got < 0) {
            *length -= remaining;
            return -got;
        }
        at += got;
        remaining -= static_cast<unsigned int>(got);
    } while (remaining > 0);
    return 0;
}

namespace {

// Whole seconds go into their own field. The device's processor has no divider; a wait of seconds can afford
// the loop.
timeval limit_of(unsigned int timeout_us) {
    constexpr unsigned int second_us = 1000000;
    timeval limit{};
    for (; timeout_us >= second_us; timeout_us -= second_us)
        ++limit.tv_sec;
    limit.tv_usec = static_cast<suseconds_t>(timeout_us);
    return limit;
}

} // namespace

int sup_uart_Read_partial_timeout(UART_infos *port, void *buffer, unsigned int *length,
                                  unsigned int timeout_us) {
    const int refusal = check_reader(port, length, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
    if (seen(port->fd) < 0)
        return sup_uart_Read_partial(port, buffer, length);
    if (*length == 0)
        return 0;
    auto *at = static_cast<char *>(buffer);
    int got = read_some(port, at, 1, KIV_SITE("ret = pos_read(UART_infos, buffer, 1)"));
    if (got < 0)
        return -got;
    check(got == 1, KIV_SITE("ret == 1"));
    unsigned int count = 1;
    while (count < *length) {
        // A port without a descriptor is like a time-out: a writer has noticed that the peer is gone, and
        // nothing more comes from that one.
        const int fd = seen(port->fd);
        timeval limit = limit_of(timeout_us);
        const int ready = kiv::wait_readable(fd, &limit);
        if (ready == 0)
            break;
        if (ready == -1) {
            if (errno == EBADF && seen(port->fd) != fd)
                continue; // a writer ended the connection while the wait was on its way
            const int error = trace_errno(
                KIV_SITE("ret = select(UART_infos->fd+1, &readset, ((void *)0), ((void *)0), &timeout)"));
            if (error == EINTR)
                break;
            return KIV_WARN(error);
        }
        got = read_some(port, at + count, *length - count,
                        KIV_SITE("ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)"));
        if (got < 0)
            return -got;
        count += static_cast<unsigned int>(got);
    }
    *length = count;
    return 0;
}

namespace {

// A send of any length, on behalf of sup_uart_Send: a piece of a gathered one may be longer, on hosts of 64
// bits, than a slot can be told.
inline int send_all(UART_infos *port, const void *buffer, size_t length) {
    constexpr const char *function = "sup_uart_Send";
    const int refusal = is_open(port) ? 0 : refuse_record(port, function, __LINE__);
    if (refusal != 0)
        return refusal;
    if (length == 0)
        return warn(EIO, function, __LINE__);
    const auto *at = static_cast<const char *>(buffer);
    do {
        const int ret = pos_write(port, at, static_cast<unsigned int>(std::min<size_t>(length, UINT_MAX)));
        if (ret > 0) {
            at += ret;
            length -= static_cast<unsigned int>(ret);
            continue;
        }
        const int status = end_of_stream(
            ret, KIV_ON_BEHALF_OF(function,
                                  "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)"));
        if (status != EINTR)
            return status;
    } while (length > 0);
    return 0;
}

// One call of the slot for all pieces, on behalf of sup_uart_Sendv; what it did not take stays unsent.
int send_gathered(UART_infos *port, const iovec *iov, int iovcnt, unsigned int *sent, const char *function) {
    size_t length = 0;
    for (int i = 0; i < iovcnt; ++i)
        length += iov[i].iov_len;
    for (;;) {
        const int ret = port->writev(port, iov, iovcnt);
        const int error =
            ret == -1
                ? trace_errno(KIV_ON_BEHALF_OF(function, "ret = UART_infos->writev(UART_infos, iov, iovcnt)"))
                : 0;
        if (error == EINTR)
            continue;
        check(ret != -1 && static_cast<size_t>(ret) == length, KIV_ON_BEHALF_OF(function, "ret == len"));
        if (ret == -1)
            return warn(error != 0 ? error : EIO, function, __LINE__);
        *sent = static_cast<unsigned int>(ret);
        return 0;
    }
}

} // namespace

int sup_uart_Send(UART_infos *port, const void *buffer, unsigned int length) {
    return send_all(port, buffer, length);
}

int sup_uart_Sendv(UART_infos *port, const struct iovec *iov, int iovcnt, unsigned int *sent) {
    *sent = 0;
    const int refusal = is_open(port) ? 0 : refuse_record(port, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
    if (port->writev != nullptr)
        return send_gathered(port, iov, iovcnt, sent, __func__);
    for (int i = 0; i < iovcnt; ++i) {
        const int status = send_all(port, iov[i].iov_base, iov[i].iov_len);
        *sent += static_cast<unsigned int>(iov[i].iov_len);
        if (status != 0)
            return KIV_WARN(status);
    }
    return 0;
}

// 6. Line control ---------------------------------------------------------------------------------------

namespace {

int set_parity(termios2 *termios_p, unsigned int parity) {
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

int set_stop_bits(termios2 *termios_p, unsigned int stop_bits) {
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
    const int refusal = check_record(port, function, __LINE__);
    if (refusal != 0)
        return refusal;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a null record has been refused
    if (port->*slot != nullptr)
        return (port->*slot)(port, value);
    if (is_stream(*port))
        return 0;
    const int status = kiv_tcdrain(port->fd) == -1
                           ? trace_errno(KIV_ON_BEHALF_OF(function, "ret = kiv_tcdrain(UART_infos->fd)"))
                           : change_settings(port->fd, edit, value, function);
    return status == 0 ? 0 : warn(status, function, __LINE__);
}

} // namespace

int sup_uart_Change_Speed(UART_infos *port, unsigned int speed) {
    return change_line(port, &UART_infos::change_speed, uart_set_speed, speed, __func__);
}

int sup_uart_Change_Parity(UART_infos *port, unsigned int parity) {
    return change_line(port, &UART_infos::change_parity, set_parity, parity, __func__);
}

int sup_uart_Change_StopBitsNumber(UART_infos *port, unsigned int stop_bits) {
    return change_line(port, &UART_infos::change_stop_bits, set_stop_bits, stop_bits, __func__);
}

int sup_uart_Flush(UART_infos *port, unsigned int flag) {
    const int refusal = check_record(port, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
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
    if (check_record(port, __func__, __LINE__) != 0 || is_stream(*port))
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
    const int refusal = check_record(port, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
    if (is_stream(*port))
        return 0;
    const int status = change_settings(port->fd, set_flow_control, enable, __func__);
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
    const int refusal = check_record(port, __func__, __LINE__);
    if (refusal != 0)
        return refusal;
    if (is_stream(*port))
        return 0;
    const int status = sup_uart_Change_Speed(port, UART_SPEED_HANGUP);
    if (port->kiv_linux_sfd != nullptr) // null when this library did not open it
        kiv_linux_sclose_cancel(port->kiv_linux_sfd);
    return status == 0 ? 0 : KIV_WARN(status);
}

// 7. Closing --------------------------------------------------------------------------------------------

namespace {

// A stream whose transport has nothing special to do at the end: it owns its connection, the socket in
// fd_listen, and the block of memory in priv, as far as there are any.
int close_stream(UART_infos &port) {
    kiv::release_connection(port);
    if (port.fd_listen > 0)
        ::close(port.fd_listen);
    ::free(port.priv);
    kiv::detach(port);
    return 0;
}

// fd and kiv_linux_sfd keep their values, which mean nothing from now on.
int close_tty(UART_infos &port) {
    const int status = kiv_linux_sclose(port.kiv_linux_sfd);
    kiv::detach(port);
    return status;
}

int close_default(UART_infos &port) {
    if (port.kiv_linux_sfd != nullptr)
        return close_tty(port);
    if (is_stream(port))
        return close_stream(port);
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
