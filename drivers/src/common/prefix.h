// Device names are told apart by how they begin.

#ifndef KIV_COMMON_PREFIX_H
#define KIV_COMMON_PREFIX_H

#include <cstddef>
#include <cstring>

namespace kiv {

template <size_t Size>
bool has_prefix(const char *name, const char (&prefix)[Size]) noexcept {
    return ::strncmp(name, prefix, Size - 1) == 0;
}

// The text after the prefix, or null for another name.
template <size_t Size>
const char *after(const char (&prefix)[Size], const char *name) noexcept {
    return has_prefix(name, prefix) ? name + Size - 1 : nullptr;
}

} // namespace kiv

#endif
