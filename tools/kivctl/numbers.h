// Numbers and other values on the command line. Each returns whether the text was one.
#ifndef KIVCTL_NUMBERS_H
#define KIVCTL_NUMBERS_H

#include <cstddef>
#include <cstdint>

namespace kivctl {

// Decimal, or hexadecimal after 0x; at most most. In the second form the number ends at one of the characters
// of ends (or the text does), where it leaves text.
bool parse_number(const char *text, uint32_t most, uint32_t &value);
bool parse_number(const char *&text, const char *ends, uint32_t most, uint32_t &value);

// 2, 2s, 1.5s, 500ms, 20us: microseconds. Without a unit, seconds.
bool parse_duration(const char *text, uint64_t &microseconds);

// 02:00:00:00:00:01, in the order in which it is written.
bool parse_address(const char *text, uint8_t (&address)[6]);

// Pairs of hexadecimal digits, which may have ':' or ' ' between them. size: in, the room; out, how many.
bool parse_hex(const char *text, uint8_t *bytes, size_t &size);

// Resolves \r \n \t \e \0 \\ \xNN in place. Returns the length, or -1 for another letter after a backslash.
long unescape(char *text);

} // namespace kivctl

#endif
