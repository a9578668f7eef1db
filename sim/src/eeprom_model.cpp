#include "eeprom_model.h"

namespace kiv::sim {

// While a page is being programmed the chip does not hear its address. A repeated start drops what was sent
// since the last stop.
bool eeprom_model::start(bool reading) {
    latched_bytes_ = 0;
    if (busy_ > 0) {
        --busy_;
        return false;
    }
    awaits_pointer_ = !reading;
    return true;
}

// Data goes round within its page: the ninth byte takes the place of the first.
bool eeprom_model::put(std::uint8_t byte) {
    if (awaits_pointer_) {
        pointer_ = byte;
        awaits_pointer_ = false;
        return true;
    }
    const unsigned slot = pointer_ % page;
    latched_[slot] = byte;
    latched_bytes_ |= 1U << slot;
    pointer_ = static_cast<std::uint8_t>(pointer_ - slot + (slot + 1) % page);
    return true;
}

std::uint8_t eeprom_model::get() {
    return memory_[pointer_++]; // reads go round at the end of the memory
}

void eeprom_model::stop() {
    if (latched_bytes_ == 0)
        return;
    const unsigned base = pointer_ - pointer_ % page;
    for (unsigned slot = 0; slot < page; ++slot)
        if ((latched_bytes_ >> slot & 1U) != 0)
            memory_[base + slot] = latched_[slot];
    latched_bytes_ = 0;
    busy_ = busy_polls_;
    ++pages_written_;
}

} // namespace kiv::sim
