// What a text begins with.

#ifndef KIV_COMMON_PREFIX_H
#define KIV_COMMON_PREFIX_H

#include <cstddef>

#include "common/hints.h"

namespace kiv {

// Both return the text after the prefix, or null for another text.
inline const char *skip_prefix(const char *prefix, const char *text) noexcept {
    for (; *prefix != '\0'; ++text, ++prefix)
        if (*text != *prefix)
            return nullptr;
    return text;
}

// The same for a device name, of which most differ in the first character: where speed is asked for, a
// comparison a character beats a loop.
template <size_t Size>
KIV_HOT const char *after(const char (&prefix)[Size], const char *name) noexcept {
    if constexpr (small_code)
        return skip_prefix(prefix, name);
#pragma GCC unroll 16
    for (size_t i = 0; i < Size - 1; ++i)
        if (name[i] != prefix[i])
            return nullptr;
    return name + Size - 1;
}

} // namespace kiv

#endif
