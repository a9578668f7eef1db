// A clock chip with battery-backed memory, as the DS1307 is one: seven registers of time in BCD, a control
// register, 56 bytes of memory, and a pointer that goes round.

#ifndef KIV_SIM_RTC_MODEL_H
#define KIV_SIM_RTC_MODEL_H

#include <cstdint>

namespace kiv::sim {

class rtc_model {
  public:
    static constexpr unsigned registers = 64;
    static constexpr unsigned time_registers = 7;

    // Seconds since 1970, from whoever drives the chip's crystal.
    constexpr explicit rtc_model(std::int64_t (*crystal)()) : crystal_(crystal) {}

    bool start(bool reading);
    bool put(std::uint8_t byte);
    std::uint8_t get();
    void stop();

    // The time that the chip shows, in seconds since 1970; it knows the years 2000 to 2099.
    std::int64_t now() const;
    void set(std::int64_t time);
    // The crystal stands still, or runs again; the time goes on from where it is.
    void freeze(bool frozen);

  private:
    std::int64_t ticks() const { return frozen_ ? frozen_at_ : crystal_(); }
    void latch();
    void take_over();

    std::int64_t (*crystal_)();
    std::int64_t offset_ = 0;    // of the time from the crystal's
    std::int64_t halted_at_ = 0; // the time while the program has stopped the clock
    std::int64_t frozen_at_ = 0;
    std::uint8_t shown_[registers] = {};
    unsigned weekday_shift_ = 0; // the chip counts the days of the week from wherever it was told
    std::uint8_t pointer_ = 0;
    bool halted_ = false;
    bool twelve_hours_ = false;
    bool frozen_ = false;
    bool awaits_pointer_ = false;
    bool time_written_ = false;
    bool weekday_written_ = false;
};

} // namespace kiv::sim

#endif
