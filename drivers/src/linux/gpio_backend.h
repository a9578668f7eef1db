// What the GPIO module reaches pins through: its only state. The library itself selects the device or
// nothing; tests select the sysfs pins, and nothing again.

#ifndef KIV_LINUX_GPIO_BACKEND_H
#define KIV_LINUX_GPIO_BACKEND_H

#include <cstdint>

namespace kiv {

enum : int32_t { GPIO_BACKEND_NONE = 0, GPIO_BACKEND_SYSFS = 1, GPIO_BACKEND_DEV = 2 };

// NOLINTBEGIN(bugprone-dynamic-static-initializers): they are constinit
extern constinit int32_t gpio_backend;
extern constinit int32_t gpio_fd; // of /dev/gpio; means something only with GPIO_BACKEND_DEV
// NOLINTEND(bugprone-dynamic-static-initializers)

// Threads that use pins read both words, so that they are written whole. Nothing orders the two for a thread
// that runs already: the selection comes before such threads start.
inline void select_gpio_backend(int32_t backend, int32_t fd) noexcept {
    __atomic_store_n(&gpio_fd, fd, __ATOMIC_RELAXED);
    __atomic_store_n(&gpio_backend, backend, __ATOMIC_RELAXED);
}

[[gnu::always_inline]] inline int32_t selected_gpio_backend() noexcept {
    return __atomic_load_n(&gpio_backend, __ATOMIC_RELAXED);
}

} // namespace kiv

#endif
