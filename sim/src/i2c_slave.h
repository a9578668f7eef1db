// What a bus does to one slave, byte by byte: the seam between the bus and the chips on it.

#ifndef KIV_SIM_I2C_SLAVE_H
#define KIV_SIM_I2C_SLAVE_H

#include <cstdint>

namespace kiv::sim {

struct i2c_slave {
    void *chip;
    bool (*start)(void *chip, bool reading); // its address after a start: whether it acknowledges
    bool (*put)(void *chip, std::uint8_t byte);
    std::uint8_t (*get)(void *chip);
    void (*stop)(void *chip);
};

// A chip has these four as member functions.
template <class Chip>
constexpr i2c_slave slave_of(Chip &chip) {
    return {.chip = &chip,
            .start = [](void *self, bool reading) { return static_cast<Chip *>(self)->start(reading); },
            .put = [](void *self, std::uint8_t byte) { return static_cast<Chip *>(self)->put(byte); },
            .get = [](void *self) { return static_cast<Chip *>(self)->get(); },
            .stop = [](void *self) { static_cast<Chip *>(self)->stop(); }};
}

} // namespace kiv::sim

#endif
