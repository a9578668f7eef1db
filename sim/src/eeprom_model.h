// A serial EEPROM of 256 bytes in pages of 8, as the 24C02 is one.

#ifndef KIV_SIM_EEPROM_MODEL_H
#define KIV_SIM_EEPROM_MODEL_H

#include <cstddef>
#include <cstdint>

namespace kiv::sim {

class eeprom_model {
  public:
    static constexpr std::size_t size = 256;
    static constexpr unsigned page = 8;

    constexpr eeprom_model() {
        for (std::uint8_t &byte : memory_)
            byte = 0xff;
    }

    bool start(bool reading);
    bool put(std::uint8_t byte);
    std::uint8_t get();
    void stop();

    // How many times it leaves its address unanswered after each page written.
    void set_busy_polls(unsigned polls) { busy_polls_ = polls; }
    std::uint8_t &at(std::size_t offset) { return memory_[offset]; }
    unsigned pages_written() const { return pages_written_; }

  private:
    std::uint8_t memory_[size] = {};
    std::uint8_t latched_[page] = {}; // sent, not programmed yet
    unsigned latched_bytes_ = 0;      // a bit for each
    unsigned busy_polls_ = 3;
    unsigned busy_ = 0;
    unsigned pages_written_ = 0;
    std::uint8_t pointer_ = 0;
    bool awaits_pointer_ = false;
};

} // namespace kiv::sim

#endif
