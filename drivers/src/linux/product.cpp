// Product identification: what the kernel's description of the processor says about the board.
//
// A line that does not fit into its buffer arrives in pieces, and each piece counts as a line. A zero byte
// ends a line's text, whatever follows it. A file that cannot be read any further counts as ended.

#include "common/prefix.h"
#include "kiv/platform.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char cpuinfo[] = "/proc/cpuinfo";
constexpr char name_prefix[] = "Hardware\t: ";
constexpr char revision_prefix[] = "Revision";

// Reads lines into text until one begins with the prefix. False at the end of the file.
template <size_t Size>
bool find_line(FILE *file, char (&text)[Size], const char *prefix) {
    while (::fgets(text, Size, file) != nullptr)
        if (kiv::skip_prefix(prefix, text) != nullptr)
            return true;
    return false;
}

// The length of the word that text begins with, no more than limit.
size_t word_length(const char *text, size_t limit) {
    size_t length = 0;
    while (length < limit && text[length] != '\0' && ::isspace(static_cast<unsigned char>(text[length])) == 0)
        ++length;
    return length;
}

// A hexadecimal number as a 32-bit strtoul reads it, which saturates at 32 bits and wraps a negative number
// there, on hosts whose long is wider too.
uint32_t hexadecimal(const char *text) {
    char *end = nullptr;
    const unsigned long value = ::strtoul(text, &end, 16);
#if ULONG_MAX > UINT32_MAX
    const bool negative = ::memchr(text, '-', static_cast<size_t>(end - text)) != nullptr;
    if ((negative ? 0 - value : value) > UINT32_MAX)
        return UINT32_MAX;
#endif
    return static_cast<uint32_t>(value);
}

} // namespace

int32_t get_product_name(char *name, uint32_t len) {
    if (name == nullptr || len == 0)
        return -EINVAL;
    FILE *file = ::fopen(cpuinfo, "r");
    if (file == nullptr)
        return -errno;
    char line[512];
    const bool found = find_line(file, line, name_prefix);
    ::fclose(file);
    if (!found)
        return -ENOENT;
    const char *word = line + sizeof name_prefix - 1;
    const size_t length = word_length(word, len - 1);
    ::memcpy(name, word, length);
    ::memset(name + length, 0, len - length);
    return 0;
}

uint32_t get_product_revision() {
    FILE *file = ::fopen(cpuinfo, "r");
    if (file == nullptr)
        return 0;
    char line[128];
    uint32_t revision = 0;
    while (find_line(file, line, revision_prefix)) {
        const char *colon = ::strchr(line, ':');
        if (colon == nullptr)
            continue;
        // The number is a blank away from the colon, unless the text ends before.
        if (colon[1] != '\0')
            revision = hexadecimal(colon + 2);
        break;
    }
    ::fclose(file);
    return revision;
}
