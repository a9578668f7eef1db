#include "common/prefix.h"

namespace kiv {

const char *skip_prefix(const char *prefix, const char *text) noexcept {
    for (; *prefix != '\0'; ++text, ++prefix)
        if (*text != *prefix)
            return nullptr;
    return text;
}

} // namespace kiv
