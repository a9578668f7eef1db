// The HCI transport against an oracle of its own: arbitrary bytes in arbitrary pieces, in both directions.
//
// An input is a list of steps: a byte that says what, a byte that says how much, and for some of them that
// many bytes. After each step, the packets that have reached the controller, the bytes that have been read
// and the messages in the log must be those that the oracle expects.

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kiv/core.h"
#include "kiv/sim.h"
#include "kiv/uart.h"
#include "require.h"
#include "script.h"

namespace {

constexpr std::size_t longest = 1029;
constexpr unsigned refusal = ENETDOWN;

std::vector<std::string> messages; // what the library has logged

// What the stream of bytes to the controller means.
class Oracle {
    Bytes pending_;

  public:
    std::vector<Bytes> packets;
    std::vector<std::string> log;

    // One send. The packet of it that is to be refused, counted from 1, takes the rest of the send with it.
    // Returns the status.
    int send(const Bytes &piece, unsigned refused) {
        pending_.insert(pending_.end(), piece.begin(), piece.end());
        for (std::size_t length = 0; !pending_.empty(); erase(length)) {
            const unsigned type = pending_[0];
            const std::size_t header = type == 2 ? 5 : 4;
            length = 1;
            if (type < 1 || type > 3) {
                log.push_back("Invalid BT packet " + std::to_string(type) + "\n");
                continue;
            }
            if (pending_.size() < header)
                break;
            const std::size_t total = header + pending_[3] + (type == 2 ? 256U * pending_[4] : 0U);
            length = header;
            if (total > longest) {
                log.push_back("Invalid BT packet : too big : " + std::to_string(total) + "\n");
                continue;
            }
            if (pending_.size() < total)
                break;
            length = total;
            if (refused != 0 && --refused == 0) {
                pending_.clear();
                return refusal;
            }
            packets.emplace_back(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(total));
        }
        return 0;
    }
    void erase(std::size_t length) {
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(length));
    }
    void forget() { pending_.clear(); }
};

class Session {
    UART_infos port_ = {};
    Oracle oracle_;
    Bytes unread_;             // sent by the controller, not read yet
    std::size_t in_queue_ = 0; // packets of it, at most

    void open() {
        require(sup_uart_Init(&port_, "hci0", 0, 0) == 0, "opening");
        oracle_.forget();
        unread_.clear();
        in_queue_ = 0;
    }

    void check_controller() {
        std::uint8_t packet[longest];
        for (const Bytes &expected : oracle_.packets) {
            const std::size_t length = kiv_sim_hci_receive(0, packet, sizeof packet);
            require(expected == Bytes(packet, packet + length), "a packet at the controller");
        }
        require(kiv_sim_hci_receive(0, packet, sizeof packet) == 0, "a packet too many");
        oracle_.packets.clear();
        require(messages == oracle_.log, "the log");
        messages.clear();
        oracle_.log.clear();
    }

    void send(const Bytes &piece, unsigned refused) {
        if (piece.empty())
            return;
        if (refused != 0)
            kiv_sim_fail(KIV_SIM_WRITE, refused, 1, refusal);
        const int expected = oracle_.send(piece, refused);
        require(sup_uart_Send(&port_, piece.data(), static_cast<unsigned>(piece.size())) == expected,
                "status");
        kiv_sim_clear_faults();
        if (expected != 0) // the serial port's own report of the failed write
            oracle_.log.push_back("write failed");
        check_controller();
    }

    // Past the assembler, in two pieces.
    void send_gathered(const Bytes &packet) {
        const std::size_t cut = packet.size() / 2;
        Bytes first(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(cut));
        Bytes second(packet.begin() + static_cast<std::ptrdiff_t>(cut), packet.end());
        const iovec pieces[] = {{first.data(), first.size()}, {second.data(), second.size()}};
        unsigned sent = 0;
        const bool valid = packet.size() >= 4 && packet[0] >= 1 && packet[0] <= 3;
        require(sup_uart_Sendv(&port_, pieces, 2, &sent) == (valid ? 0 : EINVAL), "gathered status");
        require(sent == (valid ? packet.size() : 0), "gathered count");
        if (valid)
            oracle_.packets.push_back(packet);
        else
            oracle_.log.push_back("write failed");
        check_controller();
    }

    void controller_sends(const Bytes &packet) {
        constexpr std::size_t safely_queued = 64;
        if (packet.empty() || in_queue_ == safely_queued)
            return;
        require(kiv_sim_hci_send(0, packet.data(), packet.size()) == 0, "sending");
        unread_.insert(unread_.end(), packet.begin(), packet.end());
        ++in_queue_;
    }

    void read(std::size_t most) {
        if (unread_.empty() || most == 0)
            return;
        Bytes buffer(most);
        auto length = static_cast<unsigned>(most);
        require(sup_uart_Read_partial(&port_, buffer.data(), &length) == 0, "read status");
        require(length >= 1 && length <= most && length <= unread_.size(), "read length");
        require(std::equal(buffer.begin(), buffer.begin() + length, unread_.begin()), "bytes read");
        unread_.erase(unread_.begin(), unread_.begin() + length);
        if (unread_.empty())
            in_queue_ = 0;
    }

  public:
    Session() {
        kiv_sim_reset();
        kiv_sim_hci_config config;
        kiv_sim_hci_get_config(0, &config);
        config.answers = 0;
        kiv_sim_hci_set_config(0, &config);
        open();
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() { sup_uart_close(&port_); }

    void step(Input &input) {
        const unsigned what = input.byte();
        const std::size_t amount = input.byte();
        switch (what % 8) {
        case 0:
            return send_gathered(input.bytes(amount));
        case 1: {
            Bytes packet = input.bytes(amount);
            if (what / 8 % 2 != 0) // longer than an input need be
                packet.resize(std::min(longest, packet.size() * 5));
            return controller_sends(packet);
        }
        case 2:
            return read(amount * 5);
        case 3: // a payload that an input need not hold
            return send(Bytes(amount * 5, static_cast<std::uint8_t>(what)), 0);
        case 4:
            return send(input.bytes(amount), 1 + what / 8 % 4);
        case 5:
            if (amount != 0)
                return read(1);
            sup_uart_close(&port_);
            return open();
        default:
            return send(input.bytes(amount), 0);
        }
    }
};

} // namespace

// kiv-core: messages are kept, and the reports of a failed write are one message each.

int sup_log_msg_nocolor_raw(const char *, int, const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::string message = text;
    messages.push_back(message.find("Invalid BT packet") == 0 ? message : "write failed");
    return 0;
}

void kiv_assert(const char *, const char *, int, const char *) {}
void kiv_warn(const char *, const char *, int, const char *) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    Session session;
    while (!input.empty())
        session.step(input);
    return 0;
}
