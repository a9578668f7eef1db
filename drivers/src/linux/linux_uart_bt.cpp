// The Bluetooth HCI transport: a controller behind the kernel's raw HCI socket, as a UART that speaks H4.
//
//   1. Kernel interface   the socket's address and filter, the device requests
//   2. Reading            the cache: one packet, handed out in the pieces that the caller asks for
//   3. Writing            the assembler: bytes become packets; gathered writes, which are packets already
//   4. Opening
//
// The socket gives and takes one packet a call, indicator first, where the caller sees a stream of bytes.
// Reader and writer share nothing, so they need no lock; both have one state for the whole process.

#define KIV_MODULE "drivers/src/linux/linux_uart_bt"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <linux/ioctl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "common/device_request.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/prefix.h"
#include "common/report.h"
#include "common/retry.h"
#include "common/slots.h"
#include "kiv/transports.h"

using kiv::check;
using kiv::trace_errno;

namespace {

// 1. Kernel interface -----------------------------------------------------------------------------------

// The C library has none of this, and Bluetooth headers are not everywhere.
constexpr int BTPROTO_HCI = 1;
constexpr int SOL_HCI = 0;
constexpr int HCI_FILTER = 2;

constexpr unsigned long HCIDEVUP = _IOW('H', 201, int);
constexpr unsigned long HCIDEVDOWN = _IOW('H', 202, int);
constexpr unsigned long HCISETRAW = _IOW('H', 220, int);
static_assert(HCIDEVUP == 0x400448C9 && HCIDEVDOWN == 0x400448CA && HCISETRAW == 0x400448DC);
static_assert(AF_BLUETOOTH == 31 && SOCK_RAW == 3);

// As kernels before channels had it; later ones take the shorter address for the raw channel.
struct sockaddr_hci {
    sa_family_t hci_family;
    uint16_t hci_dev;
};
static_assert(sizeof(sockaddr_hci) == 4 && offsetof(sockaddr_hci, hci_dev) == 2);

struct hci_filter {
    uint32_t type_mask;
    uint32_t event_mask[2];
    uint16_t opcode; // 0: of any command
    uint16_t padding;
};
static_assert(sizeof(hci_filter) == 16 && offsetof(hci_filter, opcode) == 12);

constexpr hci_filter everything = {
    .type_mask = 0xFFFFFFFF, .event_mask = {0xFFFFFFFF, 0xFFFFFFFF}, .opcode = 0, .padding = 0};

constexpr unsigned int longest_packet = 1 + 4 + 1024; // an indicator, an ACL header, the data

// 2. Reading --------------------------------------------------------------------------------------------

struct packet_cache {
    uint32_t head; // the next byte to hand out
    int32_t tail;  // the size of the packet; empty when head has got there
    uint8_t data[longest_packet];
};

constinit packet_cache bt_cache{};

void empty_cache() {
    bt_cache.head = 0;
    bt_cache.tail = 0;
}

int pos_read_bt(UART_infos *port, void *buffer, unsigned int length) {
    packet_cache &cache = bt_cache;
    if (cache.head == static_cast<uint32_t>(cache.tail)) {
        cache.head = 0;
        const ssize_t ret = kiv::retry([=] { return ::read(port->fd, bt_cache.data, longest_packet); });
        cache.tail = static_cast<int32_t>(ret);
        check(ret > 0, KIV_SITE("bt_cache.tail > 0"));
        if (ret <= 0) {
            empty_cache();
            return static_cast<int>(ret);
        }
    }
    const unsigned int count = std::min(static_cast<uint32_t>(cache.tail) - cache.head, length);
    ::memcpy(buffer, cache.data + cache.head, count);
    cache.head += count;
    return static_cast<int>(count);
}

// 3. Writing --------------------------------------------------------------------------------------------

enum packet_type : uint32_t { command = 1, acl_data = 2, sco_data = 3 };

// Where a packet's header says how long it is, indicator included.
constexpr uint32_t short_header = 4; // of commands and SCO data: the length is the last byte
constexpr uint32_t acl_header = 5;   // the last two, the low one first
constexpr uint32_t length_at = 3;

struct packet_assembler {
    uint32_t count; // bytes collected; 0 between packets
    int32_t len;    // of the whole packet; 0 until its header is complete
    uint32_t type;
    uint8_t data[longest_packet];
};

constinit packet_assembler bt_packet{};

// The packet is over, sent or not.
void forget_packet() {
    bt_packet.count = 0;
    bt_packet.len = 0;
}

// Sends the packet when it is complete. A signal must not reach the caller, who would repeat only the bytes
// of this call: they would be taken for the start of the next packet.
int finish_call(const UART_infos &port, unsigned int taken) {
    packet_assembler &packet = bt_packet;
    if (packet.count != static_cast<uint32_t>(packet.len))
        return static_cast<int>(taken);
    const int fd = port.fd;
    const ssize_t ret = kiv::retry([=] { return ::write(fd, bt_packet.data, bt_packet.count); });
    forget_packet();
    return ret == -1 ? -1 : static_cast<int>(taken);
}

KIV_COLD int drop_byte(uint8_t indicator) {
    kiv::log_failure("Invalid BT packet %d\n", indicator);
    return 1;
}

KIV_COLD int drop_header() {
    kiv::log_failure("Invalid BT packet : too big : %d\n", bt_packet.len);
    forget_packet();
    return 1;
}

// One byte of the indicator and the header, which tells the packet's length when it is complete.
int take_header(const UART_infos &port, uint8_t byte) {
    packet_assembler &packet = bt_packet;
    if (packet.count == 0) {
        if (byte < command || byte > sco_data)
            return drop_byte(byte);
        packet.type = byte;
    }
    packet.data[packet.count] = byte;
    packet.count += 1;
    const bool is_acl = packet.type == acl_data;
    if (packet.count < short_header || (is_acl && packet.count < acl_header))
        return 1;
    packet.len = static_cast<int32_t>(packet.count + packet.data[length_at]);
    if (is_acl)
        packet.len += 256 * packet.data[length_at + 1];
    if (static_cast<uint32_t>(packet.len) > longest_packet)
        return drop_header();
    return finish_call(port, 1);
}

int take_payload(const UART_infos &port, const void *bytes, unsigned int length) {
    packet_assembler &packet = bt_packet;
    const unsigned int taken = std::min(static_cast<uint32_t>(packet.len) - packet.count, length);
    ::memcpy(packet.data + packet.count, bytes, taken);
    packet.count += taken;
    return finish_call(port, taken);
}

int pos_write_bt(UART_infos *port, const void *buffer, unsigned int length) {
    if (length == 0)
        return 0;
    if (bt_packet.len != 0)
        return take_payload(*port, buffer, length);
    return take_header(*port, *static_cast<const uint8_t *>(buffer));
}

int pos_writev_bt(UART_infos *port, const iovec *iov, int iovcnt) {
    return static_cast<int>(::writev(port->fd, iov, iovcnt));
}

// 4. Opening --------------------------------------------------------------------------------------------

enum opening_type { TYPE_DEVID = 0, TYPE_SYSPATH = 1 };

// Returns a raw socket that is bound to the device, or -1 with errno.
int bluez_open_dev(int dev_id) {
    const int fd = kiv::above_standard(::socket(AF_BLUETOOTH, SOCK_RAW, BTPROTO_HCI));
    if (fd == -1) {
        trace_errno(KIV_SITE("fd = socket(31, SOCK_RAW, 1)"));
        return -1;
    }
    const sockaddr_hci addr = {.hci_family = AF_BLUETOOTH, .hci_dev = static_cast<uint16_t>(dev_id)};
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == -1) {
        int error = trace_errno(KIV_SITE("ret = bind(fd, (struct sockaddr *) &addr, sizeof(addr))"));
        if (::close(fd) == -1)
            error = trace_errno(KIV_SITE("close(fd)"));
        errno = error;
        return -1;
    }
    return fd;
}

// Makes a device request on behalf of pos_open_bt_generic; argument is what its trace shows of the value.
int device_request(int device, unsigned long request, int value, const char *argument) {
    const int ret = ::ioctl(device, request, value);
    if (ret == -1)
        kiv::report::trace_request({.fd = "UART_infos->fd",
                                    .direction = "1U",
                                    .type = 'H',
                                    .number = static_cast<unsigned int>(_IOC_NR(request)),
                                    .size = "int",
                                    .argument = argument},
                                   "pos_open_bt_generic", __LINE__, KIV_MODULE);
    return ret;
}

// The order is fixed: a device changes to raw mode while it is down, so that the kernel's own stack leaves it
// alone when it comes up.
int pos_open_bt_generic(UART_infos *port, const char *dev_number, opening_type type) {
    if (type == TYPE_SYSPATH) {
        if (kiv::uart_bt_wants(1))
            sup_log_msg_nocolor_raw(kiv::uart_bt_category_name, 1, "%s: type TYPE_SYSPATH invalid here\n",
                                    __func__);
        return -EINVAL;
    }
    const auto dev_id = static_cast<int>(::strtol(dev_number, nullptr, 10));
    kiv::unique_fd device(bluez_open_dev(dev_id));
    if (device.get() == -1)
        return trace_errno(KIV_SITE("UART_infos->fd = bluez_open_dev(dev_id)"));
    if (::setsockopt(device.get(), SOL_HCI, HCI_FILTER, &everything, sizeof everything) == -1)
        return trace_errno(KIV_SITE("ret = setsockopt(UART_infos->fd, 0, 2, &filter, sizeof(filter))"));
    if (device_request(device.get(), HCIDEVDOWN, dev_id, "dev_id") == -1)
        return errno;
    const int ret = device_request(device.get(), HCISETRAW, 1, "1");
    check(ret == 0, KIV_SITE("\"no CAP_NET_ADMIN right ???\\n\" && ret == 0"));
    if (ret == -1 || device_request(device.get(), HCIDEVUP, dev_id, "dev_id") == -1)
        return errno;

    // What an earlier port has left half read or half written is not for this one.
    empty_cache();
    forget_packet();
    port->fd = device.release();
    kiv::attach(*port,
                {.read = pos_read_bt, .write = pos_write_bt, .writev = pos_writev_bt, .close = nullptr});
    if (port->status_cb.connected != nullptr)
        port->status_cb.connected(port, port->status_cb.context);
    return 0;
}

} // namespace

int pos_open_bt(UART_infos *port, const char *device_name, unsigned int) {
    if (kiv::check_opening(port, device_name, __func__, __LINE__) != 0)
        return EINVAL;
    const char *dev_number = kiv::skip_prefix("hci", device_name);
    if (dev_number == nullptr)
        return EINVAL;
    return pos_open_bt_generic(port, dev_number, TYPE_DEVID);
}

int pos_open_bt_syspath(UART_infos *port, const char *device_name, unsigned int) {
    return pos_open_bt_generic(port, device_name, TYPE_SYSPATH);
}
