// Capture files, field by field.

#include "capture.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <pthread.h>

#include "output.h"

namespace kivctl {

namespace {

// Big-endian numbers in a row.
struct fields {
    uint8_t bytes[32];
    size_t size = 0;

    fields &add(uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes[size++] = static_cast<uint8_t>(value >> shift);
        return *this;
    }
};

struct moment {
    uint64_t seconds;
    uint32_t microseconds;
};

moment time_of_day() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return {static_cast<uint64_t>(time.tv_sec), static_cast<uint32_t>(time.tv_nsec / 1000)};
}

// Creates a file with its head.
exit_code create(const char *name, const void *head, size_t size, FILE *&file) {
    file = fopen(name, "we");
    if (file == nullptr)
        return fail(failed, name, "%s", strerror(errno));
    return fwrite(head, size, 1, file) == 1 && fflush(file) == 0 ? done
                                                                 : fail(failed, name, "%s", strerror(errno));
}

// Records are whole in the file at any time.
exit_code finish(FILE *file, const char *name) {
    return fflush(file) == 0 && ferror(file) == 0 ? done : fail(failed, name, "%s", strerror(errno));
}

} // namespace

// pcap ---------------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t pcap_magic = 0xa1b2c3d4; // microseconds
constexpr uint32_t pcap_magic_nano = 0xa1b23c4d;
constexpr uint32_t pcap_version = 0x00020004;
constexpr uint32_t pcap_ethernet = 1;

} // namespace

exit_code pcap_writer::open(const char *name) {
    if (name == nullptr)
        return done;
    fields head;
    head.add(pcap_magic).add(pcap_version).add(0).add(0).add(longest_frame).add(pcap_ethernet);
    name_ = name;
    return create(name, head.bytes, head.size, file_);
}

exit_code pcap_writer::write(const void *header, size_t header_size, const void *payload, size_t size) {
    if (file_ == nullptr)
        return done;
    const moment time = time_of_day();
    const auto length = static_cast<uint32_t>(header_size + size);
    fields head;
    head.add(static_cast<uint32_t>(time.seconds)).add(time.microseconds).add(length).add(length);
    fwrite(head.bytes, head.size, 1, file_);
    fwrite(header, 1, header_size, file_);
    fwrite(payload, 1, size, file_);
    return finish(file_, name_);
}

exit_code pcap_reader::damaged() const {
    return fail(failed, name_, "this is no pcap file of Ethernet frames");
}

uint32_t pcap_reader::number(const uint8_t *bytes) const {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | bytes[big_endian_ ? i : 3 - i];
    return value;
}

pcap_reader::~pcap_reader() {
    if (file_ != nullptr)
        fclose(file_);
}

exit_code pcap_reader::open(const char *name) {
    uint8_t head[24];
    name_ = name;
    file_ = fopen(name, "re");
    if (file_ == nullptr)
        return fail(failed, name, "%s", strerror(errno));
    if (fread(head, sizeof head, 1, file_) != 1)
        return damaged();
    big_endian_ = head[0] == 0xa1;
    const uint32_t magic = number(head);
    if ((magic != pcap_magic && magic != pcap_magic_nano) || (number(head + 20) & 0xffff) != pcap_ethernet)
        return damaged();
    return done;
}

exit_code pcap_reader::next(uint8_t *frame, size_t &size) {
    uint8_t head[16];
    const size_t got = fread(head, 1, sizeof head, file_);
    if (got == 0 && feof(file_) != 0) {
        size = 0;
        return done;
    }
    const size_t length = got == sizeof head ? number(head + 8) : 0;
    if (length == 0 || length > size || fread(frame, length, 1, file_) != 1)
        return damaged();
    size = length;
    return done;
}

// H4 -----------------------------------------------------------------------------------------------------

namespace {

struct packet_kind {
    uint8_t indicator, header, length_at, length_bytes;
};
constexpr packet_kind kinds[] = {{1, 3, 3, 1}, {2, 4, 3, 2}, {3, 3, 3, 1}, {4, 2, 2, 1}, {5, 4, 3, 2}};

const packet_kind *find_kind(uint8_t indicator) {
    for (const packet_kind &each : kinds)
        if (each.indicator == indicator)
            return &each;
    return nullptr;
}

} // namespace

// With the indicator, and again with the header: what is known of the packet's length.
void h4_parser::learn_length() {
    const packet_kind &kind = *find_kind(data_[0]);
    wanted_ = size_t{1} + kind.header;
    if (length_ < wanted_)
        return;
    size_t payload = data_[kind.length_at];
    if (kind.length_bytes == 2)
        payload += size_t{data_[kind.length_at + 1]} << 8;
    wanted_ += kind.indicator == 5 ? payload & 0x3fff : payload;
}

size_t h4_parser::take(const uint8_t *bytes, size_t size) {
    size_t used = 0;
    while (used < size && !complete()) {
        if (length_ == 0 && find_kind(bytes[used]) == nullptr) {
            ++strays_;
            ++used;
            continue;
        }
        const size_t missing = length_ == 0 ? 1 : wanted_ - length_;
        const size_t count = missing < size - used ? missing : size - used;
        memcpy(data_ + length_, bytes + used, count);
        used += count;
        length_ += count;
        const bool in_header = length_ <= size_t{1} + find_kind(data_[0])->header;
        if (in_header)
            learn_length();
    }
    return used;
}

// btsnoop ------------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t btsnoop_version = 1;
constexpr uint32_t btsnoop_h4 = 1002;
constexpr uint64_t year_zero_to_1970 = 0x00dcddb30f2f8000; // in microseconds

pthread_mutex_t file_lock = PTHREAD_MUTEX_INITIALIZER;

// Bit 0: to the host; bit 1: a command or an event.
uint32_t flags_of(bt_direction direction, uint8_t indicator) {
    return static_cast<uint32_t>(direction) | (indicator == 1 || indicator == 4 ? 2U : 0U);
}

} // namespace

exit_code btsnoop_writer::open(const char *name) {
    fields head;
    memcpy(head.bytes, "btsnoop", 8);
    head.size = 8;
    head.add(btsnoop_version).add(btsnoop_h4);
    name_ = name;
    return create(name, head.bytes, head.size, file_);
}

exit_code btsnoop_writer::write_packet(bt_direction direction, const h4_parser &from) {
    const moment time = time_of_day();
    const uint64_t stamp = time.seconds * 1000000 + time.microseconds + year_zero_to_1970;
    const auto length = static_cast<uint32_t>(from.length());
    fields head;
    head.add(length).add(length).add(flags_of(direction, from.packet()[0])).add(0);
    head.add(static_cast<uint32_t>(stamp >> 32)).add(static_cast<uint32_t>(stamp));
    pthread_mutex_lock(&file_lock);
    fwrite(head.bytes, head.size, 1, file_);
    fwrite(from.packet(), 1, length, file_);
    const exit_code code = finish(file_, name_);
    pthread_mutex_unlock(&file_lock);
    return code;
}

exit_code btsnoop_writer::write(bt_direction direction, const uint8_t *bytes, size_t size) {
    h4_parser &parser = parsers_[static_cast<size_t>(direction)];
    exit_code code = done;
    while (size > 0 && code == done) {
        const size_t used = parser.take(bytes, size);
        bytes += used;
        size -= used;
        if (!parser.complete())
            break;
        code = write_packet(direction, parser);
        parser.next();
    }
    return code;
}

} // namespace kivctl
