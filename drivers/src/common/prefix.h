// What a device name begins with.

#ifndef KIV_COMMON_PREFIX_H
#define KIV_COMMON_PREFIX_H

#include <cstddef>
#include <cstring>

namespace kiv {

// The text after the prefix, or null for another name.
template <size_t Size>
const char *after(const char (&prefix)[Size], const char *name) noexcept {
    return ::strncmp(name, prefix, Size - 1) == 0 ? name + Size - 1 : nullptr;
}

template <size_t Size>
bool has_prefix(const char *name, const char (&prefix)[Size]) noexcept {
    return after(prefix, name) != nullptr;
}

} // namespace kiv

#endif
