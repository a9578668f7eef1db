// What a text begins with.

#ifndef KIV_COMMON_PREFIX_H
#define KIV_COMMON_PREFIX_H

namespace kiv {

// Returns the text after the prefix, or null for another text.
const char *skip_prefix(const char *prefix, const char *text) noexcept;

} // namespace kiv

#endif
