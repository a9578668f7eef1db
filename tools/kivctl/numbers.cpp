// Values on the command line.

#include "numbers.h"

#include <cstring>

namespace kivctl {

namespace {

int digit_of(char character) {
    if (character >= '0' && character <= '9')
        return character - '0';
    const char lower = static_cast<char>(character | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 16;
}

// Two hexadecimal digits, or -1.
int pair_of(const char *text) {
    const int high = digit_of(text[0]);
    const int low = high < 16 ? digit_of(text[1]) : 16;
    return low < 16 ? high * 16 + low : -1;
}

} // namespace

bool parse_number(const char *&text, const char *ends, uint32_t most, uint32_t &value) {
    const bool hex = text[0] == '0' && (text[1] | 0x20) == 'x';
    const int base = hex ? 16 : 10;
    const char *at = hex ? text + 2 : text;
    const char *first = at;
    uint64_t sum = 0;
    for (int digit = 0; (digit = digit_of(*at)) < base; ++at) {
        sum = sum * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
        if (sum > most)
            return false;
    }
    if (at == first || (*at != '\0' && strchr(ends, *at) == nullptr))
        return false;
    text = at;
    value = static_cast<uint32_t>(sum);
    return true;
}

bool parse_number(const char *text, uint32_t most, uint32_t &value) {
    return parse_number(text, "", most, value);
}

bool parse_duration(const char *text, uint64_t &microseconds) {
    constexpr uint64_t most_seconds = 1000000;
    constexpr struct {
        const char *name;
        uint32_t microseconds;
    } units[] = {{"", 1000000}, {"s", 1000000}, {"ms", 1000}, {"us", 1}};
    uint64_t whole = 0;
    uint64_t part = 0;
    uint64_t scale = 1; // of part
    bool digits = false;
    for (; digit_of(*text) < 10 && whole < most_seconds * 1000000; ++text, digits = true)
        whole = whole * 10 + static_cast<unsigned>(digit_of(*text));
    if (*text == '.')
        for (++text; digit_of(*text) < 10 && scale < 1000000; ++text, digits = true, scale *= 10)
            part = part * 10 + static_cast<unsigned>(digit_of(*text));
    for (const auto &unit : units)
        if (digits && strcmp(text, unit.name) == 0) {
            microseconds = whole * unit.microseconds + part * unit.microseconds / scale;
            return microseconds <= most_seconds * 1000000;
        }
    return false;
}

bool parse_address(const char *text, uint8_t (&address)[6]) {
    for (int i = 0; i < 6; ++i, text += 3) {
        const int value = pair_of(text);
        if (value < 0 || text[2] != (i < 5 ? ':' : '\0'))
            return false;
        address[i] = static_cast<uint8_t>(value);
    }
    return true;
}

bool parse_hex(const char *text, uint8_t *bytes, size_t &size) {
    size_t count = 0;
    while (*text != '\0') {
        const int value = pair_of(text);
        if (value < 0 || count == size)
            return false;
        bytes[count++] = static_cast<uint8_t>(value);
        text += 2;
        if (*text == ':' || *text == ' ')
            ++text;
    }
    size = count;
    return true;
}

long unescape(char *text) {
    constexpr char letters[] = "rnte0\\";
    constexpr char meanings[] = "\r\n\t\033\0\\";
    const char *from = text;
    char *to = text;
    while (*from != '\0') {
        if (*from != '\\') {
            *to++ = *from++;
            continue;
        }
        const char letter = from[1];
        const char *known = letter != '\0' ? strchr(letters, letter) : nullptr;
        const int pair = letter == 'x' ? pair_of(from + 2) : -1;
        if (known == nullptr && pair < 0)
            return -1;
        *to++ = known != nullptr ? meanings[known - letters] : static_cast<char>(pair);
        from += known != nullptr ? 2 : 4;
    }
    return to - text;
}

} // namespace kivctl
