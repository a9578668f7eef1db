// The board's pins, which /dev/gpio and the sysfs pins share.

#ifndef KIV_SIM_GPIO_BOARD_H
#define KIV_SIM_GPIO_BOARD_H

#include "gpio_chip_model.h"
#include "waiting.h"

namespace kiv::sim {

struct gpio_board {
    mutex lock;
    event changed;
    gpio_chip chip;
    bool environment_read = false;
};

// NOLINTNEXTLINE(bugprone-dynamic-static-initializers): it is constinit
extern constinit gpio_board gpio;

// With the lock held: wires and directories of the environment, at the first opening.
void read_gpio_environment();

// With the lock held: pins have changed. Tells whoever waits for it.
void announce_pins();

// With the lock held: sysfs directories. They return 0 or an errno value.
int export_pin(const char *name, std::size_t length, int pin, bool has_direction);

// Runs `action`, which returns 0 or an errno value, on a pin that exists, locked, with errno kept.
template <class Action>
int with_pin(unsigned pin, Action action) {
    const errno_keeper keeper;
    if (pin >= KIV_SIM_PINS)
        return EINVAL;
    const guard hold(gpio.lock);
    const int status = action(static_cast<int>(pin));
    announce_pins();
    return status;
}

} // namespace kiv::sim

#endif
