// Zeroed memory for one object, by the C library: null where there is none.

#ifndef KIV_COMMON_MEMORY_H
#define KIV_COMMON_MEMORY_H

#include <cstdlib>
#include <type_traits>

namespace kiv {

template <typename T>
[[nodiscard]] T *make_zeroed() noexcept {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
    return static_cast<T *>(::calloc(1, sizeof(T)));
}

} // namespace kiv

#endif
