// Words that threads share without a lock: read and written whole, and in order.

#ifndef KIV_COMMON_SHARED_H
#define KIV_COMMON_SHARED_H

namespace kiv {

// A processor of one core, without barrier instructions, keeps the order by itself; asking for it there would
// call run-time help.
#if defined(__ARM_ARCH) && __ARM_ARCH < 6
constexpr int order_of_load = __ATOMIC_RELAXED, order_of_store = __ATOMIC_RELAXED;
#else
constexpr int order_of_load = __ATOMIC_ACQUIRE, order_of_store = __ATOMIC_RELEASE;
#endif

template <typename T>
[[gnu::always_inline]] inline T seen(const T &word) noexcept {
    return __atomic_load_n(&word, order_of_load);
}

template <typename T, typename Value>
[[gnu::always_inline]] inline void set(T &word, Value value) noexcept {
    __atomic_store_n(&word, static_cast<T>(value), order_of_store);
}

} // namespace kiv

#endif
