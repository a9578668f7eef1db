// i2c: chips on a bus.
//
//   Bus         the device, and whether a kernel driver holds a chip
//   Transfers   one call of the library, and what its failures mean
//   Messages    the grammar of transfer
//   Ranges      read and write
//   Registers   get, set, dump
//   Detect

#include "kiv/i2c.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "areas.h"
#include "numbers.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

// Bus ----------------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t longest_message = 8192;
constexpr uint32_t last_address = 0x7f;

// A chip on the bus that -b names.
struct chip {
    kiv_i2c_device record = {};
    uint32_t address = 0;
    char bus[256] = "";
};

exit_code read_bus(const request &from, chip &of) {
    const char *text = from.value('B') != nullptr ? from.value('B') : "0";
    uint32_t number = 0;
    if (parse_number(text, INT32_MAX, number))
        snprintf(of.bus, sizeof of.bus, "/dev/i2c-%u", number);
    else if (text[0] == '/')
        snprintf(of.bus, sizeof of.bus, "%s", text);
    else
        return misuse("'%s' is neither the number nor the path of a bus", text);
    name_device(of.bus);
    return start_watch(ending::is_failure);
}

exit_code read_address(const char *text, uint32_t &address) {
    return parse_number(text, last_address, address) ? done
                                                     : misuse("'%s' is no address from 0x00 to 0x7f", text);
}

// The library uses a chip that a kernel driver serves without asking: whoever does it may confuse the driver.
exit_code look_for_driver(const chip &of, bool &held) {
    const int fd = open(of.bus, O_RDWR | O_CLOEXEC);
    if (fd == -1)
        return fail("opening", errno);
    held = ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(of.address)) == -1 && errno == EBUSY;
    close(fd);
    return done;
}

exit_code open_chip(const request &from, chip &of) {
    bool held = false;
    const exit_code code = look_for_driver(of, held);
    if (code != done)
        return code;
    if (held && !from.has('F'))
        return fail(failed, nullptr, "a kernel driver holds 0x%02x; -f uses it all the same", of.address);
    const int status = kiv_i2c_open(&of.record, of.bus, of.address);
    return status == 0 ? done : fail("opening", status);
}

// Transfers ----------------------------------------------------------------------------------------------

bool is_silence(int status) {
    return status == ENXIO || status == EREMOTEIO;
}

exit_code fail_transfer(const chip &of, int status) {
    if (is_silence(status))
        return fail(failed, nullptr, "no answer from 0x%02x", of.address);
    return fail(failed, "transfer", "%s", strerror(status));
}

exit_code transfer(chip &with, const kiv_i2c_message *messages, int count) {
    const int status = kiv_i2c_msg(&with.record, messages, count);
    return status == 0 ? done : fail_transfer(with, status);
}

// A register's address, as the chip wants it.
struct place {
    uint8_t bytes[2];
    uint32_t size;

    place(uint32_t offset, bool wide) : bytes{}, size(wide ? 2 : 1) {
        bytes[0] = static_cast<uint8_t>(wide ? offset >> 8 : offset);
        bytes[1] = static_cast<uint8_t>(offset);
    }
};

uint32_t range_of(const request &from) {
    return from.has('W') ? 0x10000 : 0x100;
}

exit_code read_range(chip &with, bool wide, uint32_t offset, uint8_t *data, uint32_t size) {
    exit_code code = done;
    for (uint32_t at = 0; at < size && code == done;) {
        const uint32_t count = size - at < longest_message ? size - at : longest_message;
        place start(offset + at, wide);
        const kiv_i2c_message messages[] = {{start.bytes, start.size, 0}, {data + at, count, KIV_I2C_READ}};
        code = transfer(with, messages, 2);
        at += count;
    }
    return code;
}

exit_code read_offset(const request &from, const char *text, uint32_t &offset) {
    const uint32_t range = range_of(from);
    return parse_number(text, range - 1, offset)
               ? done
               : misuse("'%s' is no register from 0 to 0x%x%s", text, range - 1,
                        range == 0x100 ? " (--wide goes further)" : "");
}

// Bus, address and register of a verb that has them.
exit_code read_place(const request &from, chip &of, uint32_t &offset) {
    exit_code code = read_address(from.arguments[0], of.address);
    if (code == done)
        code = read_offset(from, from.arguments[1], offset);
    if (code == done)
        code = read_bus(from, of);
    return code;
}

// Messages -----------------------------------------------------------------------------------------------

struct message_list {
    kiv_i2c_message messages[KIV_I2C_MAX_MSGS];
    int count = 0;
    uint32_t address = last_address + 1; // none yet
    bool chip_tells = false;             // the length of one of them
};

uint8_t room[KIV_I2C_MAX_MSGS][longest_message];

// The chip tells in its first byte how many follow. The kernel wants room for the most, and in the buffer the
// number of bytes that come in any case.
void take_length_of_chip(message_list &list, kiv_i2c_message &message) {
    message.len = 1 + I2C_SMBUS_BLOCK_MAX;
    message.flags = KIV_I2C_READ | I2C_M_RECV_LEN;
    message.buf[0] = 1;
    list.chip_tells = true;
}

// Buses that know nothing of it would read one byte and call that a success.
exit_code look_for_lengths(const chip &at) {
    unsigned long functions = 0;
    if (ioctl(at.record.fd, I2C_FUNCS, &functions) == 0 && (functions & I2C_FUNC_SMBUS_READ_BLOCK_DATA) != 0)
        return done;
    return fail(unavailable, nullptr, "this bus lets no chip tell a length, as r? wants");
}

// rN, rN@ADDR, wN, wN@ADDR; ? in the place of the N of a read.
exit_code read_head(const char *text, message_list &list, kiv_i2c_message &message) {
    const bool reads = text[0] == 'r';
    const char *at = text + 1;
    uint32_t address = list.address;
    message.flags = reads ? KIV_I2C_READ : 0;
    if (reads && at[0] == '?' && (at[1] == '@' || at[1] == '\0')) {
        take_length_of_chip(list, message);
        ++at;
    } else if ((!reads && text[0] != 'w') || !parse_number(at, "@", longest_message, message.len)) {
        return misuse("'%s' is not rN, rN@ADDR, r?, wN or wN@ADDR, with N up to %u", text, longest_message);
    }
    if (*at == '@' && !parse_number(at + 1, last_address, address))
        return misuse("in '%s' the address is not from 0x00 to 0x7f", text);
    if (address > last_address)
        return misuse("'%s' needs an address: %s@0x50", text, text);
    if (list.count > 0 && address != list.address)
        return misuse("all messages of a transfer go to one chip: 0x%02x, then 0x%02x", list.address,
                      address);
    if (message.len == 0 && reads)
        return misuse("'%s' reads nothing", text);
    list.address = address;
    return done;
}

// The byte after this one, as a suffix says: = the same, + one more, - one less, p the next of a
// pseudo-random sequence, which is that of i2ctransfer.
uint8_t next_byte(char suffix, uint8_t byte) {
    const auto mixed = static_cast<uint8_t>((byte ^ 27) + 13);
    switch (suffix) {
    case '+':
        return static_cast<uint8_t>(byte + 1);
    case '-':
        return static_cast<uint8_t>(byte - 1);
    case 'p':
        return static_cast<uint8_t>(mixed << 1 | mixed >> 7);
    default:
        return byte;
    }
}

// The bytes of a write. A suffix on the last one fills the rest.
exit_code read_bytes(const char *const *words, int count, kiv_i2c_message &message, int &used) {
    uint32_t filled = 0;
    for (used = 0; filled < message.len; ++used) {
        if (used == count)
            return misuse("a write of %u bytes has only %u", message.len, filled);
        const char *at = words[used];
        uint32_t value = 0;
        if (!parse_number(at, "=+-p", 0xff, value) || (*at != '\0' && at[1] != '\0'))
            return misuse("'%s' is no byte", words[used]);
        message.buf[filled++] = static_cast<uint8_t>(value);
        for (; *at != '\0' && filled < message.len; ++filled)
            message.buf[filled] = next_byte(*at, message.buf[filled - 1]);
    }
    return done;
}

exit_code read_messages(const request &from, message_list &list) {
    for (int i = 0; i < from.count; ++list.count) {
        if (list.count == KIV_I2C_MAX_MSGS)
            return misuse("a transfer has at most %d messages", KIV_I2C_MAX_MSGS);
        kiv_i2c_message &message = list.messages[list.count];
        message.buf = room[list.count];
        exit_code code = read_head(from.arguments[i++], list, message);
        int used = 0;
        if (code == done && message.flags == 0)
            code = read_bytes(from.arguments + i, from.count - i, message, used);
        if (code != done)
            return code;
        i += used;
    }
    return done;
}

// As much as has come.
uint32_t size_of(const kiv_i2c_message &message) {
    const uint32_t told = 1U + message.buf[0];
    return (message.flags & I2C_M_RECV_LEN) != 0 && told < message.len ? told : message.len;
}

void print_bytes(bool json, uint32_t address, const uint8_t *data, uint32_t size) {
    if (json) {
        json_line().number("address", address).bytes(data, size);
        return;
    }
    for (uint32_t i = 0; i < size; ++i)
        printf("%s0x%02x", i > 0 ? " " : "", data[i]);
    printf("\n");
}

} // namespace

exit_code i2c_transfer(const request &from) {
    message_list list;
    chip with;
    exit_code code = read_messages(from, list);
    with.address = list.address;
    if (code == done)
        code = read_bus(from, with);
    if (code == done)
        code = open_chip(from, with);
    if (code == done && list.chip_tells)
        code = look_for_lengths(with);
    if (code == done)
        code = transfer(with, list.messages, list.count);
    for (int i = 0; i < list.count && code == done; ++i) {
        const kiv_i2c_message &message = list.messages[i];
        if (message.flags != 0)
            print_bytes(from.json, list.address, message.buf, size_of(message));
    }
    return code;
}

// Ranges -------------------------------------------------------------------------------------------------

namespace {

uint8_t range[0x10000];

// Writes bytes, or standard input: as much as fits behind the offset.
exit_code collect(const request &from, uint32_t space, uint32_t &size) {
    size = 0;
    if (from.count > 2) {
        for (int i = 2; i < from.count; ++i) {
            uint32_t value = 0;
            if (!parse_number(from.arguments[i], 0xff, value))
                return misuse("'%s' is no byte", from.arguments[i]);
            if (size == space)
                return misuse("that is more than the chip has from there on");
            range[size++] = static_cast<uint8_t>(value);
        }
        return done;
    }
    uint8_t more = 0;
    for (ssize_t count = 1; count > 0 && size < space; size += static_cast<uint32_t>(count))
        if ((count = read(STDIN_FILENO, range + size, space - size)) == -1)
            return fail(failed, "standard input", "%s", strerror(errno));
    return size == space && read(STDIN_FILENO, &more, 1) == 1
               ? misuse("that is more than the chip has from there on")
               : done;
}

// While an EEPROM stores a page it does not answer. Writes the next piece as soon as it does.
exit_code write_piece(chip &with, const uint8_t *bytes, uint32_t size, bool patient) {
    constexpr int most_attempts = 100;
    constexpr useconds_t pause = 1000;
    uint8_t copy[2 + longest_message];
    memcpy(copy, bytes, size);
    const kiv_i2c_message message = {copy, size, 0};
    int status = 0;
    for (int i = 0; i < most_attempts; ++i) {
        status = kiv_i2c_msg(&with.record, &message, 1);
        if (!patient || !is_silence(status))
            break;
        usleep(pause);
    }
    return status == 0 ? done : fail_transfer(with, status);
}

exit_code write_range(chip &with, bool wide, uint32_t offset, uint32_t size, uint32_t page) {
    exit_code code = done;
    for (uint32_t at = 0; at < size && code == done;) {
        // A chip goes round within its page. NOLINTNEXTLINE(clang-analyzer-core.DivideZero): 0 was refused
        const uint32_t left = page - (offset + at) % page;
        const uint32_t count = size - at < left ? size - at : left;
        const place start(offset + at, wide);
        uint8_t piece[2 + longest_message];
        memcpy(piece, start.bytes, start.size);
        memcpy(piece + start.size, range + at, count);
        code = write_piece(with, piece, start.size + count, at > 0);
        at += count;
        show_progress("%u of %u bytes", at, size);
    }
    return code;
}

} // namespace

exit_code i2c_read(const request &from) {
    chip with;
    uint32_t offset = 0;
    uint32_t size = 0;
    exit_code code = read_place(from, with, offset);
    if (code == done && (!parse_number(from.arguments[2], range_of(from) - offset, size) || size == 0))
        code = misuse("'%s' is no length from 1 to %u", from.arguments[2], range_of(from) - offset);
    if (code == done)
        code = open_chip(from, with);
    if (code == done)
        code = read_range(with, from.has('W'), offset, range, size);
    if (code != done)
        return code;
    if (from.has('R'))
        fwrite(range, 1, size, stdout);
    else
        print_bytes(from.json, with.address, range, size);
    return done;
}

exit_code i2c_write(const request &from) {
    chip with;
    uint32_t offset = 0;
    uint32_t size = 0;
    uint32_t page = 0;
    exit_code code = read_place(from, with, offset);
    if (code == done)
        code = read_count(from, 'P', 1, longest_message - 2, page);
    if (code == done && page > longest_message - 2)
        code = misuse("a page has 1 to %u bytes", longest_message - 2);
    if (code == done)
        code = collect(from, range_of(from) - offset, size);
    if (code == done)
        code = open_chip(from, with);
    if (code == done)
        code = write_range(with, from.has('W'), offset, size, page);
    return code;
}

// Registers ----------------------------------------------------------------------------------------------

exit_code i2c_get(const request &from) {
    chip with;
    uint32_t offset = 0;
    uint8_t value = 0;
    exit_code code = read_place(from, with, offset);
    if (code == done)
        code = open_chip(from, with);
    if (code == done)
        code = read_range(with, from.has('W'), offset, &value, 1);
    if (code == done && from.json)
        json_line().number("address", with.address).number("register", offset).number("value", value);
    else if (code == done)
        printf("0x%02x\n", value);
    return code;
}

exit_code i2c_set(const request &from) {
    chip with;
    uint32_t offset = 0;
    uint32_t value = 0;
    exit_code code =
        parse_number(from.arguments[2], 0xff, value) ? done : misuse("'%s' is no byte", from.arguments[2]);
    if (code == done)
        code = read_place(from, with, offset);
    range[0] = static_cast<uint8_t>(value);
    if (code == done)
        code = open_chip(from, with);
    if (code == done)
        code = write_range(with, from.has('W'), offset, 1, 1);
    return code;
}

exit_code i2c_dump(const request &from) {
    constexpr uint32_t size = 0x100;
    chip with;
    exit_code code = read_address(from.arguments[0], with.address);
    if (code == done)
        code = read_bus(from, with);
    if (code == done)
        code = open_chip(from, with);
    if (code == done)
        code = read_range(with, false, 0, range, size);
    if (code != done)
        return code;
    if (from.json) {
        print_bytes(true, with.address, range, size);
        return done;
    }
    printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n");
    for (uint32_t row = 0; row < size; row += 16) {
        printf("%02x:", row);
        for (uint32_t i = row; i < row + 16; ++i)
            printf(" %02x", range[i]);
        printf("    ");
        for (uint32_t i = row; i < row + 16; ++i)
            putchar(range[i] >= 0x20 && range[i] < 0x7f ? range[i] : '.');
        printf("\n");
    }
    return done;
}

// Detect -------------------------------------------------------------------------------------------------

namespace {

enum class presence { absent, present, held };

// Nothing but an address is sent, in the direction that does no harm: some EEPROMs take an empty write for a
// real one, and some other chips hang the bus when they are read. What cannot send nothing, reads a byte.
exit_code probe(chip &at, presence &found) {
    const bool memory =
        (at.address >= 0x30 && at.address <= 0x37) || (at.address >= 0x50 && at.address <= 0x5f);
    uint8_t byte = 0;
    const kiv_i2c_message empty = {&byte, 0, 0};
    const kiv_i2c_message one = {&byte, 1, KIV_I2C_READ};
    int status = kiv_i2c_open(&at.record, at.bus, at.address);
    if (status != 0)
        return fail("opening", status);
    status = kiv_i2c_msg(&at.record, memory ? &one : &empty, 1);
    if (status == EOPNOTSUPP && !memory)
        status = kiv_i2c_msg(&at.record, &one, 1);
    kiv_i2c_close(&at.record);
    found = status == 0 ? presence::present : presence::absent;
    return status == 0 || status == EIO || is_silence(status) ? done : fail_transfer(at, status);
}

void print_presence(bool json, uint32_t address, presence found) {
    if (json && found != presence::absent)
        json_line().number("address", address).text("state", found == presence::held ? "held" : "present");
    else if (!json && found == presence::present)
        printf(" %02x", address);
    else if (!json)
        printf(found == presence::held ? " UU" : " --");
}

} // namespace

exit_code i2c_detect(const request &from) {
    constexpr uint32_t first = 0x08; // the others are reserved
    constexpr uint32_t last = 0x77;
    chip at;
    bool held = false;
    exit_code code = read_bus(from, at);
    if (code == done) // there is a bus
        code = look_for_driver(at, held);
    if (code != done)
        return code;
    if (!from.json)
        printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f");
    for (at.address = 0; at.address <= last && code == done; ++at.address) {
        if (at.address % 16 == 0 && !from.json)
            printf("\n%02x:", at.address);
        if (at.address < first) {
            printf(from.json ? "" : "   ");
            continue;
        }
        presence found = presence::held;
        code = look_for_driver(at, held);
        if (code == done && !held)
            code = probe(at, found);
        if (code == done)
            print_presence(from.json, at.address, found);
    }
    if (!from.json)
        printf("\n");
    return code;
}

} // namespace kivctl
