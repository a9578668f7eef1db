// The chip behind the pins: directions, levels, wires and edges. It knows no descriptors and takes no locks;
// every pin is one bit of a word.
//
// Pins that are wired together are one net and have one level: that of the outputs on it, low where they
// disagree; else what the outside drives, high where it disagrees; else low.

#ifndef KIV_SIM_GPIO_CHIP_MODEL_H
#define KIV_SIM_GPIO_CHIP_MODEL_H

#include <cstdint>

#include "kiv/sim.h"

namespace kiv::sim {

class gpio_chip {
  public:
    static constexpr int pins = KIV_SIM_PINS;
    static constexpr std::uint64_t bit(int pin) { return std::uint64_t{1} << pin; }

    constexpr gpio_chip() {
        for (int pin = 0; pin < pins; ++pin)
            net_[pin] = bit(pin);
    }

    // What a driver asks for. They return 0 or an errno value: EINVAL for what there is none of, EBUSY for a
    // pin or an interrupt that is somebody else's.
    int configure(int pin, int direction); // 0 input, 1 output driven low, 2 high; EIO while it interrupts
    int read(int pin, int &value) const;
    int drive(int pin, int level); // EPERM for an input

    // An interrupt belongs to whoever opened it, until he closes it. EIO for an output.
    int open_interrupt(int pin, int mode, const void *owner);
    int close_interrupt(int pin, const void *owner);
    void close_interrupts(const void *owner);
    bool owns_interrupt(int pin, const void *owner) const;
    // Edges since the last time it was taken are one interrupt.
    bool take_interrupt(int pin);
    bool has_interrupt(const void *owner) const;

    // The outside. The pins are valid ones.
    void wire(int pin, int other);
    void unwire(int pin);
    void drive_outside(int pin, int level); // negative: not any more
    void claim(int pin, bool claimed);
    void set_high(int value) { high_ = value; }

    // What can be seen.
    bool is_output(int pin) const { return (outputs_ & bit(pin)) != 0; }
    bool is_high(int pin) const { return (levels_ & bit(pin)) != 0; }
    bool is_pending(int pin) const { return (pending_ & bit(pin)) != 0; }
    int interrupt_mode(int pin) const;

  private:
    std::uint64_t outputs_ = 0, driven_ = 0;               // by the chip
    std::uint64_t outside_ = 0, outside_high_ = 0;         // by the outside
    std::uint64_t claimed_ = 0;                            // by somebody else
    std::uint64_t levels_ = 0;                             // settled
    std::uint64_t rising_ = 0, falling_ = 0, pending_ = 0; // interrupts
    std::uint64_t net_[pins] = {}; // the pins that each is wired with, itself included
    const void *owner_[pins] = {};
    int high_ = 1;

    int check(int pin) const;
    bool level_of(std::uint64_t net) const;
    void settle();
};

} // namespace kiv::sim

#endif
