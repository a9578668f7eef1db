// I2C: one slave of a kernel bus in a record. An operation set in the record stands in for the bus.

#define KIV_MODULE "drivers/src/linux/i2c"

#include "kiv/i2c.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/hints.h"
#include "common/prefix.h"
#include "common/report.h"

using kiv::site;
using kiv::trace_and_warn;
using kiv::trace_errno;

// Record and messages are shared with applications: their layouts cannot move.
static_assert(offsetof(kiv_i2c_device, fd) == 0 && offsetof(kiv_i2c_device, address) == 4);
static_assert(offsetof(kiv_i2c_device, rx) == 8);
static_assert(offsetof(kiv_i2c_device, tx) == 8 + sizeof(void *));
static_assert(offsetof(kiv_i2c_device, msg) == 8 + 2 * sizeof(void *));
static_assert(offsetof(kiv_i2c_device, close) == 8 + 3 * sizeof(void *));
static_assert(sizeof(kiv_i2c_device) == 8 + 4 * sizeof(void *));
static_assert(offsetof(kiv_i2c_message, buf) == 0);
static_assert(offsetof(kiv_i2c_message, len) == sizeof(void *));
static_assert(offsetof(kiv_i2c_message, flags) == sizeof(void *) + 4);
static_assert(sizeof(kiv_i2c_message) == sizeof(void *) + 8);

static_assert(sizeof(i2c_msg) == 8 + sizeof(void *) && offsetof(i2c_msg, buf) == 8);
static_assert(I2C_SLAVE_FORCE == 0x0706 && I2C_RDWR == 0x0707 && I2C_M_RD == KIV_I2C_READ);
static_assert(KIV_I2C_MAX_MSGS <= I2C_RDWR_IOCTL_MAX_MSGS);
static_assert(O_RDWR == 02);

namespace {

constexpr char default_bus[] = "/dev/i2c-0";
constexpr char refused_bus[] = "/dev/usb-i2c";

// A null pointer given to a function that counts bytes: reported, and nothing was moved.
[[gnu::always_inline]] inline int32_t nothing_moved(site at) {
    kiv::refuse_null(at);
    return 0;
}

// The transfers of a record whose own operations serve it.
KIV_COLD int32_t served_tx(kiv_i2c_device *device, const void *tx_data, uint32_t count) {
    const int32_t moved = device->tx(device, tx_data, count);
    return moved == -1 ? 0 : moved;
}

KIV_COLD int32_t served_rx(kiv_i2c_device *device, void *rx_data, uint32_t count) {
    const int32_t moved = device->rx != nullptr ? device->rx(device, rx_data, count) : 0;
    return moved == -1 ? 0 : moved;
}

// One plain transfer. It lies in memory while the kernel works on it: that costs the path that works less
// than keeping three registers over the call for the path that does not.
struct transfer {
    kiv_i2c_device *device;
    void *data;
    uint32_t count;
};

enum class direction { out, in };

// Goes on from a transfer that failed: one that a signal interrupted is made again. A slave that does not
// answer is no event worth a line, since that is how programs find out who is there and when an EEPROM has
// finished writing.
KIV_COLD int32_t after_failure(const transfer &wanted, direction way) {
    const site at = way == direction::out
                        ? kiv::in("kiv_i2c_tx", KIV_SITE("ret = write(device->fd, tx_data, count)"))
                        : kiv::in("kiv_i2c_rx", KIV_SITE("ret = read(device->fd, rx_data, count)"));
    for (;;) {
        if (errno == EREMOTEIO || trace_errno(at) != EINTR)
            return 0;
        const int fd = wanted.device->fd;
        const ssize_t ret = way == direction::out ? ::write(fd, wanted.data, wanted.count)
                                                  : ::read(fd, wanted.data, wanted.count);
        if (ret != -1)
            return static_cast<int32_t>(ret);
    }
}

i2c_msg to_kernel(const kiv_i2c_message &message, uint32_t address) {
    return {.addr = static_cast<uint16_t>(address),
            .flags = static_cast<uint16_t>(message.flags),
            .len = static_cast<uint16_t>(message.len),
            .buf = message.buf};
}

// The kernel refuses a negative count, as a number too large for it.
[[gnu::always_inline]] inline int32_t request(const kiv_i2c_device &device, i2c_msg *messages, int32_t count,
                                              const char *function) {
    i2c_rdwr_ioctl_data msg_rdwr = {.msgs = messages, .nmsgs = static_cast<uint32_t>(count)};
    if (::ioctl(device.fd, I2C_RDWR, &msg_rdwr) == -1) [[unlikely]]
        return trace_errno(kiv::in(function, KIV_SITE("ret = ioctl(device->fd, 0x0707, &msg_rdwr)")));
    return 0;
}

// Combined transfers of every other kind than the pair below. Only the messages that are sent are filled.
[[gnu::noinline]] int32_t transfer_any(kiv_i2c_device *device, const kiv_i2c_message *msgs, int32_t count,
                                       const char *function) {
    if (count > KIV_I2C_MAX_MSGS)
        return EINVAL;
    if (device->tx != nullptr)
        return device->msg != nullptr ? device->msg(device, msgs, count) : ENODEV;
    i2c_msg messages[KIV_I2C_MAX_MSGS];
    for (int32_t i = 0; i < count; ++i)
        messages[i] = to_kernel(msgs[i], device->address);
    return request(*device, messages, count, function);
}

} // namespace

int32_t kiv_i2c_open(kiv_i2c_device *device, const char *name, uint32_t address) {
    if (device == nullptr)
        return kiv::refuse_null(KIV_SITE("(device) != ((void *)0)"));
    *device = {};
    if (name == nullptr)
        name = default_bus;
    const char *rest = kiv::skip_prefix(refused_bus, name);
    if (rest != nullptr && *rest == '\0') {
        kiv::log_failure("usb-i2c support is not enabled\n");
        return KIV_WARN(ENODEV);
    }
    const int fd = ::open(name, O_RDWR);
    if (fd == -1)
        return trace_and_warn(KIV_SITE("fd = open(name,02)"));
    // The forcing request takes an address that a kernel driver has claimed, too.
    if (::ioctl(fd, I2C_SLAVE_FORCE, static_cast<unsigned long>(address)) == -1) {
        const int error = trace_errno(KIV_SITE("ret = ioctl(fd,0x0706,address)"));
        ::close(fd);
        return KIV_WARN(error);
    }
    device->fd = fd;
    device->address = address;
    return 0;
}

void kiv_i2c_close(kiv_i2c_device *device) {
    if (device == nullptr) {
        kiv::refuse_null(KIV_SITE("(device) != ((void *)0)"));
        return;
    }
    if (device->close != nullptr) {
        device->close(device);
        return;
    }
    if (::close(device->fd) == -1 && errno != 0)
        trace_and_warn(KIV_SITE("ret = close(device->fd)"));
}

int32_t kiv_i2c_tx(kiv_i2c_device *device, const void *tx_data, uint32_t count) {
    if (device == nullptr) [[unlikely]]
        return nothing_moved(KIV_SITE("(device) != ((void *)0)"));
    if (tx_data == nullptr) [[unlikely]]
        return nothing_moved(KIV_SITE("(tx_data) != ((void *)0)"));
    if (device->tx != nullptr) [[unlikely]]
        return served_tx(device, tx_data, count);
    const transfer wanted{device, const_cast<void *>(tx_data), count};
    const ssize_t ret = ::write(device->fd, tx_data, count);
    if (ret != -1) [[likely]]
        return static_cast<int32_t>(ret);
    return after_failure(wanted, direction::out);
}

int32_t kiv_i2c_rx(kiv_i2c_device *device, void *rx_data, uint32_t count) {
    if (device == nullptr) [[unlikely]]
        return nothing_moved(KIV_SITE("(device) != ((void *)0)"));
    if (rx_data == nullptr) [[unlikely]]
        return nothing_moved(KIV_SITE("(rx_data) != ((void *)0)"));
    if (device->tx != nullptr) [[unlikely]]
        return served_rx(device, rx_data, count);
    const transfer wanted{device, rx_data, count};
    const ssize_t ret = ::read(device->fd, rx_data, count);
    if (ret != -1) [[likely]]
        return static_cast<int32_t>(ret);
    return after_failure(wanted, direction::in);
}

int32_t kiv_i2c_msg(kiv_i2c_device *device, const kiv_i2c_message *msgs, int32_t count) {
    if (device == nullptr) [[unlikely]]
        return kiv::refuse_null(KIV_SITE("(device) != ((void *)0)"));
    if (msgs == nullptr) [[unlikely]]
        return kiv::refuse_null(KIV_SITE("(msgs) != ((void *)0)"));
    // The number of a register and its contents: nearly every transfer is such a pair.
    if (kiv::small_code || count != 2 || device->tx != nullptr)
        return transfer_any(device, msgs, count, __func__);
    i2c_msg pair[] = {to_kernel(msgs[0], device->address), to_kernel(msgs[1], device->address)};
    return request(*device, pair, 2, __func__);
}
