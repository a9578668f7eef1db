#include "gpio_chip_model.h"

#include <cerrno>

namespace kiv::sim {
namespace {

void put(std::uint64_t &word, std::uint64_t bits, bool set) {
    word = set ? word | bits : word & ~bits;
}

} // namespace

int gpio_chip::check(int pin) const {
    if (pin < 0 || pin >= pins)
        return EINVAL;
    return (claimed_ & bit(pin)) != 0 ? EBUSY : 0;
}

bool gpio_chip::level_of(std::uint64_t net) const {
    const std::uint64_t outputs = net & outputs_;
    if (outputs != 0)
        return (outputs & ~driven_) == 0;
    return (net & outside_ & outside_high_) != 0;
}

// Gives every pin its level, and every interrupt its edges.
void gpio_chip::settle() {
    const std::uint64_t before = levels_;
    for (int pin = 0; pin < pins; ++pin)
        put(levels_, bit(pin), level_of(net_[pin]));
    pending_ |= (levels_ & ~before & rising_) | (before & ~levels_ & falling_);
}

int gpio_chip::configure(int pin, int direction) {
    if (const int refusal = check(pin); refusal != 0)
        return refusal;
    if (direction < 0 || direction > 2)
        return EINVAL;
    if (direction != 0 && owner_[pin] != nullptr)
        return EIO;
    put(outputs_, bit(pin), direction != 0);
    put(driven_, bit(pin), direction == 2);
    settle();
    return 0;
}

int gpio_chip::read(int pin, int &value) const {
    if (const int refusal = check(pin); refusal != 0)
        return refusal;
    value = is_high(pin) ? high_ : 0;
    return 0;
}

int gpio_chip::drive(int pin, int level) {
    if (const int refusal = check(pin); refusal != 0)
        return refusal;
    if (!is_output(pin))
        return EPERM;
    put(driven_, bit(pin), level != 0);
    settle();
    return 0;
}

int gpio_chip::open_interrupt(int pin, int mode, const void *owner) {
    if (const int refusal = check(pin); refusal != 0)
        return refusal;
    if (mode < KIV_SIM_EDGE_RISING || mode > KIV_SIM_EDGE_BOTH)
        return EINVAL;
    if (owner_[pin] != nullptr)
        return EBUSY;
    if (is_output(pin))
        return EIO;
    owner_[pin] = owner;
    put(rising_, bit(pin), (mode & KIV_SIM_EDGE_RISING) != 0);
    put(falling_, bit(pin), (mode & KIV_SIM_EDGE_FALLING) != 0);
    return 0;
}

bool gpio_chip::owns_interrupt(int pin, const void *owner) const {
    return pin >= 0 && pin < pins && owner_[pin] == owner;
}

int gpio_chip::close_interrupt(int pin, const void *owner) {
    if (!owns_interrupt(pin, owner))
        return EINVAL;
    owner_[pin] = nullptr;
    rising_ &= ~bit(pin);
    falling_ &= ~bit(pin);
    pending_ &= ~bit(pin);
    return 0;
}

void gpio_chip::close_interrupts(const void *owner) {
    for (int pin = 0; pin < pins; ++pin)
        close_interrupt(pin, owner);
}

bool gpio_chip::take_interrupt(int pin) {
    const bool occurred = is_pending(pin);
    pending_ &= ~bit(pin);
    return occurred;
}

bool gpio_chip::has_interrupt(const void *owner) const {
    for (int pin = 0; pin < pins; ++pin)
        if (owner_[pin] == owner && is_pending(pin))
            return true;
    return false;
}

int gpio_chip::interrupt_mode(int pin) const {
    return ((rising_ & bit(pin)) != 0 ? KIV_SIM_EDGE_RISING : 0) |
           ((falling_ & bit(pin)) != 0 ? KIV_SIM_EDGE_FALLING : 0);
}

void gpio_chip::wire(int pin, int other) {
    const std::uint64_t net = net_[pin] | net_[other];
    for (int each = 0; each < pins; ++each)
        if ((net & bit(each)) != 0)
            net_[each] = net;
    settle();
}

void gpio_chip::unwire(int pin) {
    for (int each = 0; each < pins; ++each)
        net_[each] &= ~bit(pin);
    net_[pin] = bit(pin);
    settle();
}

void gpio_chip::drive_outside(int pin, int level) {
    put(outside_, bit(pin), level >= 0);
    put(outside_high_, bit(pin), level > 0);
    settle();
}

void gpio_chip::claim(int pin, bool claimed) {
    put(claimed_, bit(pin), claimed);
}

} // namespace kiv::sim
