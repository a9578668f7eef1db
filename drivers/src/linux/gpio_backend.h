// What the GPIO module reaches pins through: its only state. The library itself selects the device or
// nothing; tests select the sysfs pins, and nothing again.

#ifndef KIV_LINUX_GPIO_BACKEND_H
#define KIV_LINUX_GPIO_BACKEND_H

#include <cstdint>

#include "common/shared.h"

namespace kiv {

enum : int32_t { GPIO_BACKEND_NONE = 0, GPIO_BACKEND_SYSFS = 1, GPIO_BACKEND_DEV = 2 };

// NOLINTBEGIN(bugprone-dynamic-static-initializers): they are constinit
extern constinit int32_t gpio_backend;
extern constinit int32_t gpio_fd; // of /dev/gpio; means something only with GPIO_BACKEND_DEV
// NOLINTEND(bugprone-dynamic-static-initializers)

// The descriptor comes first: a thread that sees the back end has it.
inline void select_gpio_backend(int32_t backend, int32_t fd) noexcept {
    set(gpio_fd, fd);
    set(gpio_backend, backend);
}

inline int32_t selected_gpio_backend() noexcept {
    return seen(gpio_backend);
}

} // namespace kiv

#endif
