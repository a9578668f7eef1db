// bnep: the interface "bnep" over a serial link.
//
//   Link       packets on a stream: SLIP (RFC 1055) finds their beginnings again when bytes were lost
//   Outbound   from the interface, on the library's thread
//   Inbound    to the interface
//   Run
//
// A packet is one of BNEP's own with the sender's address, since a link of bytes does not tell who sends.

#include "kiv/network.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "areas.h"
#include "capture.h"
#include "interface.h"
#include "numbers.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

// Link ---------------------------------------------------------------------------------------------------

namespace {

constexpr uint8_t slip_end = 0xc0;
constexpr uint8_t slip_escape = 0xdb;
constexpr uint8_t slip_escaped_end = 0xdc;
constexpr uint8_t slip_escaped_escape = 0xdd;

enum : uint8_t { bnep_general = 0, bnep_compressed = 2, bnep_source_only = 3, bnep_destination_only = 4 };
constexpr uint8_t bnep_extension = 0x80;

constexpr size_t address_size = 6;
constexpr size_t longest_payload = 1586;
constexpr size_t longest_packet = 1 + 2 * address_size + 2 + longest_payload;

struct slip_writer {
    uint8_t bytes[2 * longest_packet + 2];
    size_t size = 0;

    void begin() {
        size = 0;
        bytes[size++] = slip_end; // whatever the line made up before it is a packet of its own
    }
    void add(const uint8_t *data, size_t count) {
        for (; count > 0; ++data, --count) {
            const bool special = *data == slip_end || *data == slip_escape;
            if (special)
                bytes[size++] = slip_escape;
            bytes[size++] = !special ? *data : *data == slip_end ? slip_escaped_end : slip_escaped_escape;
        }
    }
    void end() { bytes[size++] = slip_end; }
};

struct slip_reader {
    uint8_t packet[longest_packet];
    size_t size = 0;
    bool escaped = false;
    bool too_long = false;

    void restart() {
        size = 0;
        escaped = too_long = false;
    }

    // Whether a packet is complete; it then has to be restarted.
    bool take(uint8_t byte) {
        if (byte == slip_end)
            return true;
        if (byte == slip_escape) {
            escaped = true;
            return false;
        }
        if (escaped)
            byte = byte == slip_escaped_end ? slip_end : byte == slip_escaped_escape ? slip_escape : byte;
        escaped = false;
        too_long = too_long || size == sizeof packet;
        if (!too_long)
            packet[size++] = byte;
        return false;
    }
};

UART_infos port;
uint8_t own[address_size];    // as written
uint8_t own_bt[address_size]; // as Bluetooth has it
uint8_t peer_address[address_size] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
pcap_writer file;
int over = -1;
exit_code ending_code = done;

// Of both threads: the counts, the peer's address, the file.
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
struct {
    uint32_t out, in, dropped;
} counts;

void end(exit_code code) {
    const uint64_t one = 1;
    __atomic_store_n(&ending_code, code, __ATOMIC_RELEASE);
    if (write(over, &one, sizeof one) != sizeof one)
        leave(code);
}

void reverse(const uint8_t *from, uint8_t (&to)[address_size]) {
    for (size_t i = 0; i < address_size; ++i)
        to[i] = from[address_size - 1 - i];
}

// Writes a frame to the file as it would be on Ethernet.
exit_code record(const uint8_t *destination, const uint8_t *source, const uint8_t *protocol,
                 const uint8_t *payload, size_t size) {
    uint8_t header[KIV_ETH_HEADER_SIZE];
    memcpy(header, destination, address_size);
    memcpy(header + address_size, source, address_size);
    memcpy(header + 2 * address_size, protocol, 2);
    return file.write(header, sizeof header, payload, size);
}

// Outbound -----------------------------------------------------------------------------------------------

uint8_t out_protocol[2];

void send_packet(const uint8_t *payload, size_t size) {
    static slip_writer packet;
    const uint8_t type = bnep_source_only;
    packet.begin();
    packet.add(&type, 1);
    packet.add(own, sizeof own);
    packet.add(out_protocol, sizeof out_protocol);
    packet.add(payload, size);
    packet.end();
    const int status = sup_uart_Send(&port, packet.bytes, static_cast<unsigned>(packet.size));
    pthread_mutex_lock(&lock);
    ++counts.out;
    const exit_code code = record(peer_address, own, out_protocol, payload, size);
    pthread_mutex_unlock(&lock);
    if (status != 0)
        end(fail("sending", status));
    else if (code != done)
        end(code);
}

void take_outbound(void *, uint16_t protocol, const uint8_t *payload, uint16_t length, int32_t step) {
    if (step == KIV_BNEP_FRAME_START) {
        out_protocol[0] = static_cast<uint8_t>(protocol >> 8);
        out_protocol[1] = static_cast<uint8_t>(protocol);
    } else if (step == KIV_BNEP_FRAME_DATA) {
        send_packet(payload, length);
    }
}

// Inbound ------------------------------------------------------------------------------------------------

struct packet_view {
    const uint8_t *at;
    size_t left;

    const uint8_t *take(size_t count) {
        if (count > left) {
            left = 0;
            return nullptr;
        }
        const uint8_t *taken = at;
        at += count;
        left -= count;
        return taken;
    }
};

struct bnep_header {
    const uint8_t *destination, *source, *protocol;
};

// What the header does not name, is the link's two ends.
bool read_header(packet_view &packet, bnep_header &header) {
    const uint8_t *type = packet.take(1);
    const uint8_t kind = type != nullptr ? *type & static_cast<uint8_t>(~bnep_extension) : 0xff;
    header = {own, peer_address, nullptr};
    if (kind == bnep_general || kind == bnep_destination_only)
        header.destination = packet.take(address_size);
    if (kind == bnep_general || kind == bnep_source_only)
        header.source = packet.take(address_size);
    if (kind <= bnep_destination_only && kind != 1) // 1 is control
        header.protocol = packet.take(2);
    bool extended = type != nullptr && (*type & bnep_extension) != 0;
    while (extended) {
        const uint8_t *extension = packet.take(2);
        extended = extension != nullptr && (extension[0] & bnep_extension) != 0;
        if (extension == nullptr || packet.take(extension[1]) == nullptr)
            return false;
    }
    return header.destination != nullptr && header.source != nullptr && header.protocol != nullptr;
}

exit_code give_packet(const uint8_t *data, size_t size) {
    packet_view packet{data, size};
    bnep_header header{};
    uint8_t source[address_size];
    uint8_t destination[address_size];
    if (!read_header(packet, header)) {
        ++counts.dropped;
        return done;
    }
    reverse(header.source, source);
    reverse(header.destination, destination);
    const auto protocol = static_cast<uint16_t>(header.protocol[0] * 256 + header.protocol[1]);
    const int given = kiv_bnep_data_available(nullptr, protocol, packet.at,
                                              static_cast<unsigned>(packet.left), destination, source);
    if (given == -1 && errno != EIO) // which only tells that the interface is down
        return fail("giving a frame to the interface", errno);
    ++(given == -1 ? counts.dropped : counts.in);
    memmove(peer_address, header.source, address_size);
    return record(header.destination, header.source, header.protocol, packet.at, packet.left);
}

void *carry_inbound(void *) {
    static slip_reader reader;
    static uint8_t data[4096];
    for (;;) {
        unsigned length = sizeof data;
        const int status = sup_uart_Read_partial(&port, data, &length);
        exit_code code = status == 0 ? done : fail("receiving", status);
        for (unsigned i = 0; i < length && code == done; ++i) {
            if (!reader.take(data[i]))
                continue;
            pthread_mutex_lock(&lock);
            if (reader.size > 0 && !reader.too_long)
                code = give_packet(reader.packet, reader.size);
            pthread_mutex_unlock(&lock);
            reader.restart();
        }
        if (code == done)
            continue;
        end(code);
        return nullptr;
    }
}

// Run ----------------------------------------------------------------------------------------------------

// The library makes the interface on a thread of its own and tells only its log when that fails. Until it is
// there, a frame has nowhere to go; the first one that has is empty, and the interface is still down.
exit_code await_interface() {
    constexpr uint16_t experimental = 0x88b5;
    constexpr useconds_t pause = 2000;
    const double limit = now() + 10;
    while (first_report() == nullptr && now() < limit) {
        if (kiv_bnep_data_available(nullptr, experimental, nullptr, 0, own_bt, own_bt) != -1 ||
            errno != ENODEV)
            return done;
        usleep(pause);
    }
    return fail_making("bnep");
}

exit_code start(const request &from) {
    name_device("bnep");
    over = eventfd(0, EFD_CLOEXEC);
    if (over == -1)
        return fail("starting", errno);
    kiv_bnep_set_sender(take_outbound, own_bt);
    exit_code code = await_interface();
    if (code == done && from.has('u'))
        code = set_up("bnep");
    name_device(from.value('L'));
    return code == done ? start_thread(carry_inbound, nullptr) : code;
}

exit_code wait_for_end() {
    pollfd entries[] = {{stop_descriptor(), POLLIN, 0}, {over, POLLIN, 0}};
    while (poll(entries, 2, 1000) <= 0) {
        pthread_mutex_lock(&lock);
        show_progress("%u frames out, %u in, %u dropped", counts.out, counts.in, counts.dropped);
        pthread_mutex_unlock(&lock);
    }
    return entries[1].revents != 0 ? __atomic_load_n(&ending_code, __ATOMIC_ACQUIRE) : done;
}

} // namespace

exit_code bnep_run(const request &from) {
    line_settings settings{};
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = read_hardware_address(from, 'a', own);
    if (code == done && !from.has('L'))
        code = misuse("it needs --link DEVICE");
    if (code == done)
        code = start_watch(ending::is_told);
    if (code == done)
        code = file.open(from.value('w'));
    if (code == done)
        code = open_port(port, from.value('L'), settings, peer::any_time);
    reverse(own, own_bt);
    if (code == done)
        code = start(from);
    if (code != done)
        return code;
    if (from.json)
        json_line().text("interface", "bnep");
    else
        printf("bnep\n");
    code = flush_output();
    if (code == done)
        code = wait_for_end();
    pthread_mutex_lock(&lock);
    if (from.json)
        json_line().number("out", counts.out).number("in", counts.in).number("dropped", counts.dropped);
    else
        note("%u frames out, %u in, %u dropped", counts.out, counts.in, counts.dropped);
    pthread_mutex_unlock(&lock);
    return code;
}

} // namespace kivctl
