// What a device name begins with.

#ifndef KIV_COMMON_PREFIX_H
#define KIV_COMMON_PREFIX_H

namespace kiv {

// The text after the prefix, or null for another name. Most names differ in the first character, so a loop
// beats a call.
inline const char *after(const char *prefix, const char *name) noexcept {
    for (; *prefix != '\0'; ++name, ++prefix)
        if (*name != *prefix)
            return nullptr;
    return name;
}

inline bool has_prefix(const char *name, const char *prefix) noexcept {
    return after(prefix, name) != nullptr;
}

} // namespace kiv

#endif
