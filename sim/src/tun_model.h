// What the kernel is behind a TAP interface: the rules for its name and address, and a small host that
// answers ARP and ICMP echo, and can ping a peer. Behaviour only; tun.cpp ties it to descriptors.

#ifndef KIV_SIM_TUN_MODEL_H
#define KIV_SIM_TUN_MODEL_H

#include <cstddef>
#include <cstdint>

namespace kiv::sim {

inline constexpr std::size_t address_size = 6;
inline constexpr std::size_t name_size = 16; // with the terminating zero
inline constexpr std::size_t header_size = 14;

// The kernel's rules. A name must be one path component without blanks and colons; an address must be one
// station's.
bool is_interface_name(const char *name);
bool is_station_address(const std::uint8_t *address);

// Completes a pattern such as "tap%d" with a number, into name_size bytes; an empty name is "tap%d" as well.
// False for a name without a pattern: there is nothing to complete.
bool complete_name(const char *pattern, unsigned number, char *name);

// An IPv4 host. Addresses are numbers: 10.0.0.1 is 0x0a000001.
class tun_host {
  public:
    static constexpr std::size_t longest = 2048;

    tun_host() = default;
    tun_host(std::uint32_t address, std::uint32_t peer, unsigned pings, std::size_t ping_size)
        : address_(address), peer_(peer), pings_left_(pings), ping_size_(ping_size) {}

    // Its interface is up: the first frame that it sends, or 0 for none. `out` has room for `longest` bytes.
    std::size_t begin(const std::uint8_t *hardware, std::uint8_t *out);

    // A frame has come in: the frame that it sends next, or 0 for none.
    std::size_t receive(const std::uint8_t *frame, std::size_t length, std::uint8_t *out);

    // How many echo replies with the right data have come.
    unsigned replies() const { return replies_; }

  private:
    std::size_t receive_arp(const std::uint8_t *frame, std::size_t length, std::uint8_t *out);
    std::size_t receive_ip(const std::uint8_t *frame, std::size_t length, std::uint8_t *out);
    std::size_t echo(const std::uint8_t *frame, std::size_t length, std::uint8_t *out) const;
    bool is_awaited_reply(const std::uint8_t *ip, std::size_t header, std::size_t total) const;
    std::size_t next_ping(std::uint8_t *out);
    std::size_t arp(std::uint8_t *out, unsigned operation, const std::uint8_t *to,
                    std::uint32_t target) const;

    std::uint32_t address_ = 0; // 0: nobody is there
    std::uint32_t peer_ = 0;
    unsigned pings_left_ = 0;
    std::size_t ping_size_ = 0;
    unsigned sequence_ = 0;
    unsigned replies_ = 0;
    std::uint8_t hardware_[address_size] = {};
    std::uint8_t peer_hardware_[address_size] = {};
};

} // namespace kiv::sim

#endif
