// Capture files: pcap for Ethernet frames, btsnoop for Bluetooth packets.
#ifndef KIVCTL_CAPTURE_H
#define KIVCTL_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "cli.h"

namespace kivctl {

constexpr size_t longest_frame = 65535;

// Writes Ethernet frames with the time at which they are written. Without a file it does nothing.
class pcap_writer {
  public:
    exit_code open(const char *name);
    // A frame in two pieces.
    exit_code write(const void *header, size_t header_size, const void *payload, size_t size);

  private:
    const char *name_ = nullptr;
    FILE *file_ = nullptr;
};

// Reads Ethernet frames: either byte order, micro- or nanoseconds.
class pcap_reader {
  public:
    pcap_reader() = default;
    pcap_reader(const pcap_reader &) = delete;
    pcap_reader &operator=(const pcap_reader &) = delete;
    ~pcap_reader();

    exit_code open(const char *name);
    // size: in, the room; out, the frame's length, 0 at the end.
    exit_code next(uint8_t *frame, size_t &size);

  private:
    exit_code damaged() const;
    uint32_t number(const uint8_t *bytes) const;

    const char *name_ = nullptr;
    FILE *file_ = nullptr;
    bool big_endian_ = false;
};

enum class bt_direction : uint32_t { to_controller = 0, to_host = 1 };

// Finds the packets in one direction of an H4 stream.
class h4_parser {
  public:
    // Takes bytes up to the end of a packet. Returns how many; packet() then tells whether there is one.
    size_t take(const uint8_t *bytes, size_t size);
    bool complete() const { return length_ > 0 && length_ == wanted_; }
    const uint8_t *packet() const { return data_; }
    size_t length() const { return length_; }
    void next() { length_ = wanted_ = 0; }
    uint64_t strays() const { return strays_; } // bytes that began no packet

  private:
    void learn_length();

    uint8_t data_[1 + 4 + 65535];
    size_t length_ = 0;
    size_t wanted_ = 0;
    uint64_t strays_ = 0;
};

// Writes Bluetooth packets, from two threads.
class btsnoop_writer {
  public:
    exit_code open(const char *name);
    // Bytes that went in one direction, in any pieces.
    exit_code write(bt_direction direction, const uint8_t *bytes, size_t size);
    uint64_t strays() const { return parsers_[0].strays() + parsers_[1].strays(); }

  private:
    exit_code write_packet(bt_direction direction, const h4_parser &from);

    const char *name_ = nullptr;
    FILE *file_ = nullptr;
    h4_parser parsers_[2];
};

} // namespace kivctl

#endif
