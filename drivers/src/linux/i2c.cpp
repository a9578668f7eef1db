// I2C: one slave of a kernel bus in a record. An operation set in the record stands in for the bus.

#define KIV_MODULE "drivers/src/linux/i2c"

#include "kiv/i2c.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/fd.h"
#include "common/hints.h"
#include "common/prefix.h"
#include "common/report.h"

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

static_assert(I2C_SLAVE_FORCE == 0x0706 && I2C_RDWR == 0x0707 && I2C_M_RD == KIV_I2C_READ);
static_assert(KIV_I2C_MAX_MSGS <= I2C_RDWR_IOCTL_MAX_MSGS);
static_assert(O_RDWR == 02);

namespace {

// The kernel's i2c_msg, with a name for the room between its fields: the kernel reads that, too.
struct kernel_message {
    uint16_t addr, flags, len, unused;
    uint8_t *buf;
};
static_assert(sizeof(kernel_message) == sizeof(i2c_msg) &&
              offsetof(kernel_message, buf) == offsetof(i2c_msg, buf));
static_assert(offsetof(kernel_message, flags) == offsetof(i2c_msg, flags) &&
              offsetof(kernel_message, len) == offsetof(i2c_msg, len));

constexpr char default_bus[] = "/dev/i2c-0";
constexpr char refused_bus[] = "/dev/usb-i2c";

// A null pointer given to a function that counts bytes: reported, and nothing was moved.
int32_t nothing_moved(const char *text, const char *function, int line) {
    kiv::refuse_null(text, function, line);
    return 0;
}

// One plain transfer. A slave that does not answer is no event worth a line, since that is how programs find
// out who is there and when an EEPROM has finished writing.
template <typename Call>
KIV_HOT int32_t transfer(Call call, const char *text, const char *function, int line) {
    for (;;) {
        const ssize_t ret = call();
        if (ret != -1)
            return static_cast<int32_t>(ret);
        if (errno == EREMOTEIO || trace_errno(text, function, line) != EINTR)
            return 0;
    }
}

int32_t moved(int32_t count) {
    return count == -1 ? 0 : count;
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
    kiv::unique_fd bus(kiv::above_standard(::open(name, O_RDWR)));
    if (bus.get() == -1)
        return trace_and_warn(KIV_SITE("fd = open(name,02)"));
    // The forcing request takes an address that a kernel driver has claimed, too.
    if (::ioctl(bus.get(), I2C_SLAVE_FORCE, static_cast<unsigned long>(address)) == -1)
        return trace_and_warn(KIV_SITE("ret = ioctl(fd,0x0706,address)"));
    device->fd = bus.release();
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
    if (device == nullptr)
        return nothing_moved(KIV_SITE("(device) != ((void *)0)"));
    if (tx_data == nullptr)
        return nothing_moved(KIV_SITE("(tx_data) != ((void *)0)"));
    if (device->tx != nullptr)
        return moved(device->tx(device, tx_data, count));
    return transfer([=] { return ::write(device->fd, tx_data, count); },
                    KIV_SITE("ret = write(device->fd, tx_data, count)"));
}

int32_t kiv_i2c_rx(kiv_i2c_device *device, void *rx_data, uint32_t count) {
    if (device == nullptr)
        return nothing_moved(KIV_SITE("(device) != ((void *)0)"));
    if (rx_data == nullptr)
        return nothing_moved(KIV_SITE("(rx_data) != ((void *)0)"));
    if (device->tx != nullptr)
        return device->rx != nullptr ? moved(device->rx(device, rx_data, count)) : 0;
    return transfer([=] { return ::read(device->fd, rx_data, count); },
                    KIV_SITE("ret = read(device->fd, rx_data, count)"));
}

int32_t kiv_i2c_msg(kiv_i2c_device *device, const kiv_i2c_message *msgs, int32_t count) {
    if (device == nullptr)
        return kiv::refuse_null(KIV_SITE("(device) != ((void *)0)"));
    if (msgs == nullptr)
        return kiv::refuse_null(KIV_SITE("(msgs) != ((void *)0)"));
    if (count > KIV_I2C_MAX_MSGS)
        return EINVAL;
    if (device->tx != nullptr)
        return device->msg != nullptr ? device->msg(device, msgs, count) : ENODEV;
    kernel_message messages[KIV_I2C_MAX_MSGS];
    for (int32_t i = 0; i < count; ++i)
        messages[i] = {.addr = static_cast<uint16_t>(device->address),
                       .flags = static_cast<uint16_t>(msgs[i].flags),
                       .len = static_cast<uint16_t>(msgs[i].len),
                       .unused = 0,
                       .buf = msgs[i].buf};
    i2c_rdwr_ioctl_data msg_rdwr;
    ::memset(&msg_rdwr, 0, sizeof msg_rdwr);
    msg_rdwr.msgs = reinterpret_cast<i2c_msg *>(messages);
    msg_rdwr.nmsgs = static_cast<uint32_t>(count); // the kernel refuses a negative one as too large
    if (::ioctl(device->fd, I2C_RDWR, &msg_rdwr) == -1)
        return trace_errno(KIV_SITE("ret = ioctl(device->fd, 0x0707, &msg_rdwr)"));
    return 0;
}
