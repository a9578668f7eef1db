// Frames both ways through a TAP interface and through the BNEP sender, with calls that fail; interface names
// and addresses are arbitrary. A frame is never mixed with another, cut where it fits, or made up.
//
// The sender runs for the whole process: it cannot be stopped within a second.

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

#include "kiv/network.h"
#include "quiet.h"
#include "require.h"
#include "script.h"

namespace {

constexpr std::size_t header_size = 14, address_size = 6, longest = 1600;

Bytes joined(const Bytes &first, const Bytes &second) {
    Bytes all = first;
    all.insert(all.end(), second.begin(), second.end());
    return all;
}

Bytes reversed(const Bytes &address) {
    return {address.rbegin(), address.rend()};
}

Bytes written_to(const char *name) {
    Bytes frame(70000);
    frame.resize(kiv_sim_tap_receive(name, frame.data(), frame.size()));
    return frame;
}

// TAP ---------------------------------------------------------------------------------------------------

class Tap {
    std::int32_t fd_ = -1;
    std::string name_;
    bool up_ = false, deleted_ = false;

    // What the interface is called; empty if that is no name.
    static std::string completed(std::string name) {
        name = name.empty() ? "tap%d" : name;
        const std::size_t place = name.find('%');
        if (place != std::string::npos && name.compare(place, 2, "%d") == 0)
            name = (name.substr(0, place) + "0" + name.substr(place + 2)).substr(0, 15);
        const bool refused =
            name.find_first_of("/: \t\n\v\f\r") != std::string::npos || name == "." || name == "..";
        return refused ? std::string() : name;
    }

    void open(Input &input) {
        close();
        Fault fault(input, {KIV_SIM_OPEN, KIV_SIM_IOCTL}, {EINTR, EIO, EBUSY}, 0);
        Bytes address = input.exactly(address_size);
        if (input.below(4) != 0)
            address[0] = 2;
        std::string name;
        for (const std::uint8_t byte : input.bytes(input.byte() % 24))
            name += static_cast<char>(byte);
        name = name.substr(0, name.find('\0'));
        const std::string kept = name.substr(0, 15);
        if (kept.find('%') != kept.rfind('%')) // which is for the kernel to judge
            return;
        name_ = completed(kept);
        const bool station = (address[0] & 1) == 0 && address != Bytes(address_size, 0);
        bool made = fault.next(KIV_SIM_OPEN) == 0; // the second device is not there
        for (const bool fits : {!name_.empty() && name_ != "bnep", station})
            made = made && fault.next(KIV_SIM_IOCTL) == 0 && fits;
        fault.arm();
        const int status = kiv_eth_open(&fd_, name.c_str(), address.data());
        kiv_sim_clear_faults();
        require_equal(status, made ? 0 : -ENODEV, "the making of an interface");
        kiv_sim_tap_state state;
        kiv_sim_tap_inspect(name_.c_str(), &state);
        require((state.exists != 0) == (made || name_ == "bnep"), "the interface");
        if (made)
            require(std::memcmp(state.hardware_address, address.data(), address_size) == 0, "its address");
        else
            require(fd_ == -1, "the descriptor of a failed opening");
        up_ = deleted_ = false;
    }

    // The calls that are made again after a signal.
    static int error_of(Fault &fault, kiv_sim_call call) {
        int error = fault.next(call);
        while (error == EINTR)
            error = fault.next(call);
        return error;
    }

    void read(Input &input) {
        Fault fault(input, {KIV_SIM_READV}, {EINTR, EIO, ENOMEM}, 0);
        const Bytes frame = input.exactly(1 + std::size_t{input.byte()} * (1 + input.below(8)));
        const std::size_t room = std::size_t{input.byte()} * (1 + input.below(8));
        if (!deleted_)
            require_equal(kiv_sim_tap_send(name_.c_str(), frame.data(), frame.size()), up_ ? 0 : ENETDOWN,
                          "sending");
        int error = error_of(fault, KIV_SIM_READV);
        if (error == 0 && deleted_)
            error = EBADFD;
        if (error == 0 && !up_)
            return; // it would wait
        Bytes header(header_size, 0xEE), payload(room, 0xEE);
        fault.arm();
        const int count = kiv_eth_read(&fd_, header.data(), payload.data(), static_cast<unsigned>(room));
        kiv_sim_clear_faults();
        const std::size_t moved = std::min(frame.size(), header_size + room);
        require_equal(count, error != 0 ? -error : static_cast<int>(moved) - static_cast<int>(header_size),
                      "a read");
        Bytes image = joined(Bytes(header_size, 0xEE), Bytes(room, 0xEE));
        if (error == 0)
            std::copy(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(moved), image.begin());
        require(joined(header, payload) == image, "what is read");
        if (error != 0 && up_ && !deleted_) // the frame is still there
            require_equal(kiv_eth_read(&fd_, header.data(), payload.data(), static_cast<unsigned>(room)),
                          static_cast<int>(moved) - static_cast<int>(header_size), "another read");
    }

    void write(Input &input) {
        Fault fault(input, {KIV_SIM_WRITEV}, {EINTR, EIO, ENOBUFS}, 0);
        const Bytes header = input.exactly(header_size);
        const Bytes payload = input.exactly(std::size_t{input.byte()} * (1 + input.below(200)));
        int error = error_of(fault, KIV_SIM_WRITEV);
        if (error == 0)
            error = deleted_ ? EBADFD : up_ ? 0 : EIO;
        fault.arm();
        const int count =
            kiv_eth_write(&fd_, header.data(), payload.data(), static_cast<unsigned>(payload.size()));
        kiv_sim_clear_faults();
        require_equal(count, error != 0 ? -error : static_cast<int>(payload.size()), "a write");
        require(written_to(name_.c_str()) == (error != 0 ? Bytes() : joined(header, payload)),
                "what is written");
    }

    void close() {
        if (fd_ != -1)
            require(kiv_eth_close(&fd_) == 0, "closing");
        fd_ = -1;
    }

  public:
    Tap() = default;
    Tap(const Tap &) = delete;
    Tap &operator=(const Tap &) = delete;
    ~Tap() { close(); }

    void step(Input &input) {
        const unsigned what = input.below(8);
        if (fd_ == -1 || what == 0)
            return open(input);
        if (what == 1 && !deleted_) {
            up_ = input.below(4) != 0;
            kiv_sim_tap_set_up(name_.c_str(), up_ ? 1 : 0);
        } else if (what == 2 && input.below(4) == 0 && !deleted_) {
            deleted_ = kiv_sim_tap_delete(name_.c_str()) == 0;
        } else if (what < 5) {
            read(input);
        } else {
            write(input);
        }
    }
};

// BNEP --------------------------------------------------------------------------------------------------

struct Delivery {
    int by; // which of the two callbacks
    unsigned protocol;
    Bytes payload;
    bool operator==(const Delivery &) const = default;
};

class Sender {
    std::mutex lock_;
    std::condition_variable came_;
    std::vector<Delivery> deliveries_;
    int step_ = 0, callback_ = 0;
    bool up_ = true;

    void take(int by, void *context, unsigned protocol, const std::uint8_t *payload, unsigned length,
              int step) {
        const std::lock_guard<std::mutex> hold(lock_);
        require(context == nullptr && step == step_, "the steps of a delivery");
        require(step == KIV_BNEP_FRAME_DATA || (payload == nullptr && length == 0), "a payload in its step");
        require(step == KIV_BNEP_FRAME_START || protocol == 0, "a protocol in its step");
        if (step == KIV_BNEP_FRAME_START)
            deliveries_.push_back({by, protocol, {}});
        else if (step == KIV_BNEP_FRAME_DATA)
            deliveries_.back().payload.assign(payload, payload + length);
        require(deliveries_.back().by == by, "one callback for a frame");
        step_ = (step + 1) % 3;
        came_.notify_all();
    }
    template <int By>
    static void callback(void *context, std::uint16_t protocol, const std::uint8_t *payload,
                         std::uint16_t length, std::int32_t step) {
        the().take(By, context, protocol, payload, length, step);
    }
    void choose(int callback_number) {
        static constexpr std::uint8_t address[] = {1, 0, 0, 0, 0, 2};
        callback_ = callback_number;
        require(kiv_bnep_set_sender(callback_number != 0 ? callback<1> : callback<0>, address) == 0,
                "the sender");
    }
    static int exists(const kiv_sim_tap_state *state, void *) { return state->exists; }

    Sender() {
        const Undisturbed quiet; // the thread inherits that
        choose(0);
        kiv_sim_tap_wait("bnep", exists, nullptr);
        kiv_sim_tap_set_up("bnep", 1);
        const Bytes bluetooth(address_size, 0);
        while (kiv_bnep_data_available(nullptr, 0, "", 0, bluetooth.data(), bluetooth.data()) == -1) {
        }
        written_to("bnep");
    }

    // A frame, and one behind it that shows that there is no more of the first.
    void outbound(Input &input) {
        static const Bytes marker(header_size + 1, 0x5A);
        if (input.below(4) == 0)
            choose(static_cast<int>(input.below(2)));
        const Bytes frame = input.exactly(1 + std::size_t{input.byte()} * (1 + input.below(8)));
        if (!up_)
            return;
        std::vector<Delivery> expected;
        for (const Bytes &each : {frame, marker}) {
            require(kiv_sim_tap_send("bnep", each.data(), each.size()) == 0, "sending");
            const auto end = each.begin() + static_cast<std::ptrdiff_t>(std::min(each.size(), longest));
            if (each.size() >= header_size)
                expected.push_back(
                    {callback_, each[12] * 256U + each[13], Bytes(each.begin() + header_size, end)});
        }
        std::unique_lock<std::mutex> hold(lock_);
        came_.wait(hold, [&] { return deliveries_.size() >= expected.size() && step_ == 0; });
        require(deliveries_ == expected, "what is delivered");
        deliveries_.clear();
    }

    void inbound(Input &input) {
        Fault fault(input, {KIV_SIM_WRITEV}, {EINTR, EIO, ENOBUFS}, 0);
        const Bytes destination = input.exactly(address_size), source = input.exactly(address_size);
        const auto protocol = static_cast<std::uint16_t>(input.word());
        const Bytes payload = input.exactly(std::size_t{input.byte()} * (1 + input.below(200)));
        int error = fault.next(KIV_SIM_WRITEV);
        error = error == 0 && !up_ ? EIO : error;
        fault.arm();
        const int count =
            kiv_bnep_data_available(nullptr, protocol, payload.data(), static_cast<unsigned>(payload.size()),
                                    destination.data(), source.data());
        require(error == 0 || errno == error, "the errno of an injection");
        kiv_sim_clear_faults();
        require_equal(count, error != 0 ? -1 : static_cast<long>(header_size + payload.size()),
                      "an injection");
        const Bytes type = {static_cast<std::uint8_t>(protocol >> 8), static_cast<std::uint8_t>(protocol)};
        const Bytes frame = joined(joined(reversed(destination), reversed(source)), joined(type, payload));
        require(written_to("bnep") == (error != 0 ? Bytes() : frame), "what is injected");
    }

  public:
    static Sender &the() {
        static auto *one = new Sender; // lives as long as its thread
        return *one;
    }
    void step(Input &input) {
        const unsigned what = input.below(8);
        if (what == 0) {
            up_ = input.below(4) != 0;
            kiv_sim_tap_set_up("bnep", up_ ? 1 : 0);
        } else if (what < 4) {
            outbound(input);
        } else {
            inbound(input);
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
    kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, KIV_SIM_TUN_ABSENT);
    Sender::the();
    const KeepsDescriptors kept;
    Input input(data, size);
    Tap tap;
    while (!input.empty()) {
        const Undisturbed quiet;
        input.below(2) != 0 ? tap.step(input) : Sender::the().step(input);
    }
    return 0;
}
