#include "tun_model.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kiv::sim {
namespace {

constexpr unsigned protocol_ip = 0x0800;
constexpr unsigned protocol_arp = 0x0806;
constexpr unsigned arp_request = 1;
constexpr unsigned arp_reply = 2;
constexpr std::size_t arp_size = 28;
constexpr std::size_t ip_header_size = 20;
constexpr std::size_t icmp_header_size = 8;
constexpr std::uint8_t icmp = 1;
constexpr std::uint8_t echo_request = 8;
constexpr std::uint8_t echo_reply = 0;
constexpr std::uint8_t everybody[address_size] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr std::uint8_t nobody[address_size] = {};

unsigned get16(const std::uint8_t *from) {
    return static_cast<unsigned>(from[0]) << 8 | from[1];
}
std::uint32_t get32(const std::uint8_t *from) {
    return static_cast<std::uint32_t>(get16(from)) << 16 | get16(from + 2);
}
void put16(std::uint8_t *to, std::size_t value) {
    to[0] = static_cast<std::uint8_t>(value >> 8);
    to[1] = static_cast<std::uint8_t>(value);
}
void put32(std::uint8_t *to, std::uint32_t value) {
    put16(to, value >> 16);
    put16(to + 2, value & 0xffff);
}

// The Internet checksum; 0 over data that holds the right one.
std::uint16_t checksum(const std::uint8_t *data, std::size_t length) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < length; i += 2)
        sum += get16(data + i);
    if (length % 2 != 0)
        sum += static_cast<std::uint32_t>(data[length - 1]) << 8;
    sum = (sum >> 16) + (sum & 0xffff);
    return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

void put_ethernet(std::uint8_t *frame, const std::uint8_t *to, const std::uint8_t *from, unsigned protocol) {
    ::memcpy(frame, to, address_size);
    ::memcpy(frame + address_size, from, address_size);
    put16(frame + 2 * address_size, protocol);
}

void put_ip(std::uint8_t *ip, std::size_t total, std::uint32_t from, std::uint32_t to) {
    ::memset(ip, 0, ip_header_size);
    ip[0] = 0x45;
    put16(ip + 2, total);
    ip[8] = 64;
    ip[9] = icmp;
    put32(ip + 12, from);
    put32(ip + 16, to);
    put16(ip + 10, checksum(ip, ip_header_size));
}

} // namespace

bool is_interface_name(const char *name) {
    return *name != '\0' && ::strcmp(name, ".") != 0 && ::strcmp(name, "..") != 0 &&
           ::strpbrk(name, "/: \t\n\v\f\r") == nullptr;
}

bool is_station_address(const std::uint8_t *address) {
    return (address[0] & 1) == 0 && ::memcmp(address, nobody, address_size) != 0;
}

bool complete_name(const char *pattern, unsigned number, char *name) {
    if (*pattern == '\0')
        pattern = "tap%d";
    const char *place = ::strstr(pattern, "%d");
    if (place == nullptr)
        return false;
    const int before = static_cast<int>(place - pattern);
    ::snprintf(name, name_size, "%.*s%u%s", before, pattern, number, place + 2);
    return true;
}

std::size_t tun_host::arp(std::uint8_t *out, unsigned operation, const std::uint8_t *to,
                          std::uint32_t target) const {
    put_ethernet(out, to, hardware_, protocol_arp);
    std::uint8_t *packet = out + header_size;
    put16(packet, 1); // Ethernet
    put16(packet + 2, protocol_ip);
    packet[4] = address_size;
    packet[5] = sizeof target;
    put16(packet + 6, operation);
    ::memcpy(packet + 8, hardware_, address_size);
    put32(packet + 14, address_);
    ::memcpy(packet + 18, operation == arp_reply ? to : nobody, address_size);
    put32(packet + 24, target);
    return header_size + arp_size;
}

std::size_t tun_host::begin(const std::uint8_t *hardware, std::uint8_t *out) {
    ::memcpy(hardware_, hardware, address_size);
    return address_ != 0 && pings_left_ > 0 ? arp(out, arp_request, everybody, peer_) : 0;
}

std::size_t tun_host::receive(const std::uint8_t *frame, std::size_t length, std::uint8_t *out) {
    const bool for_me =
        ::memcmp(frame, hardware_, address_size) == 0 || ::memcmp(frame, everybody, address_size) == 0;
    if (address_ == 0 || !for_me || length > longest)
        return 0;
    const unsigned protocol = get16(frame + 2 * address_size);
    if (protocol == protocol_arp)
        return receive_arp(frame, length, out);
    return protocol == protocol_ip ? receive_ip(frame, length, out) : 0;
}

std::size_t tun_host::receive_arp(const std::uint8_t *frame, std::size_t length, std::uint8_t *out) {
    const std::uint8_t *packet = frame + header_size;
    if (length < header_size + arp_size || get32(packet + 24) != address_)
        return 0;
    const unsigned operation = get16(packet + 6);
    if (operation == arp_request)
        return arp(out, arp_reply, packet + 8, get32(packet + 14));
    const bool awaited = operation == arp_reply && get32(packet + 14) == peer_ && sequence_ == 0;
    if (!awaited)
        return 0;
    ::memcpy(peer_hardware_, packet + 8, address_size);
    return next_ping(out);
}

std::size_t tun_host::receive_ip(const std::uint8_t *frame, std::size_t length, std::uint8_t *out) {
    const std::uint8_t *ip = frame + header_size;
    if (length < header_size + ip_header_size)
        return 0;
    const std::size_t header = static_cast<std::size_t>(ip[0] & 15) * 4;
    const std::size_t total = get16(ip + 2);
    const bool whole = header >= ip_header_size && total >= header + icmp_header_size &&
                       total <= length - header_size && checksum(ip, header) == 0;
    if (!whole || ip[9] != icmp || get32(ip + 16) != address_ || checksum(ip + header, total - header) != 0)
        return 0;
    if (ip[header] == echo_request)
        return echo(frame, header_size + total, out);
    if (!is_awaited_reply(ip, header, total))
        return 0;
    ++replies_;
    return next_ping(out);
}

std::size_t tun_host::echo(const std::uint8_t *frame, std::size_t length, std::uint8_t *out) const {
    ::memcpy(out, frame, length);
    put_ethernet(out, frame + address_size, hardware_, protocol_ip);
    std::uint8_t *ip = out + header_size;
    const std::size_t header = static_cast<std::size_t>(ip[0] & 15) * 4;
    const std::uint32_t asker = get32(ip + 12);
    put32(ip + 12, address_); // the header's checksum does not change: the same words in another order
    put32(ip + 16, asker);
    std::uint8_t *message = ip + header;
    message[0] = echo_reply;
    put16(message + 2, 0);
    put16(message + 2, checksum(message, length - header_size - header));
    return length;
}

bool tun_host::is_awaited_reply(const std::uint8_t *ip, std::size_t header, std::size_t total) const {
    const std::uint8_t *message = ip + header;
    if (message[0] != echo_reply || get32(ip + 12) != peer_ || get16(message + 6) != sequence_ ||
        total != header + icmp_header_size + ping_size_)
        return false;
    const std::uint8_t *data = message + icmp_header_size;
    for (std::size_t i = 0; i < ping_size_; ++i)
        if (data[i] != static_cast<std::uint8_t>(i))
            return false;
    return true;
}

std::size_t tun_host::next_ping(std::uint8_t *out) {
    if (pings_left_ == 0)
        return 0;
    --pings_left_;
    ++sequence_;
    ping_size_ = std::min(ping_size_, longest - header_size - ip_header_size - icmp_header_size);
    put_ethernet(out, peer_hardware_, hardware_, protocol_ip);
    std::uint8_t *ip = out + header_size;
    put_ip(ip, ip_header_size + icmp_header_size + ping_size_, address_, peer_);
    std::uint8_t *message = ip + ip_header_size;
    ::memset(message, 0, icmp_header_size);
    message[0] = echo_request;
    put16(message + 6, sequence_);
    for (std::size_t i = 0; i < ping_size_; ++i)
        message[icmp_header_size + i] = static_cast<std::uint8_t>(i);
    put16(message + 2, checksum(message, icmp_header_size + ping_size_));
    return header_size + ip_header_size + icmp_header_size + ping_size_;
}

} // namespace kiv::sim
