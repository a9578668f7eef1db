#include "rtc_model.h"

#include <chrono>

namespace kiv::sim {
namespace {

enum : unsigned { seconds, minutes, hours, weekday, day, month, year };

constexpr std::uint8_t clock_halt = 0x80;   // in the seconds
constexpr std::uint8_t twelve_hours = 0x40; // in the hours
constexpr std::uint8_t afternoon = 0x20;    // with it
constexpr int century = 2000;
constexpr int minute_s = 60;
constexpr int hour_s = 3600;
constexpr int day_s = 86400;

std::uint8_t to_bcd(unsigned number) {
    return static_cast<std::uint8_t>(number / 10 * 16 + number % 10);
}

unsigned from_bcd(unsigned bcd) {
    return bcd / 16 * 10 + bcd % 16;
}

std::uint8_t shown_hour(unsigned hour, bool by_twelve) {
    if (!by_twelve)
        return to_bcd(hour);
    const unsigned dial = hour % 12 == 0 ? 12 : hour % 12;
    return static_cast<std::uint8_t>(to_bcd(dial) | twelve_hours | (hour >= 12 ? afternoon : 0));
}

unsigned meant_hour(std::uint8_t shown) {
    if ((shown & twelve_hours) == 0)
        return from_bcd(shown & 0x3fU);
    return from_bcd(shown & 0x1fU) % 12 + ((shown & afternoon) != 0 ? 12 : 0);
}

using std::chrono::sys_days;

sys_days day_of(std::int64_t time) {
    return sys_days(std::chrono::days(time / day_s));
}

unsigned weekday_of(std::int64_t time) {
    return std::chrono::weekday(day_of(time)).c_encoding();
}

// A day that the month does not have, such as the 31st of June, is carried over into the next one.
std::int64_t meant_time(const std::uint8_t *shown) {
    const unsigned in_year = (from_bcd(shown[month] & 0x1fU) + 11) % 12 + 1;
    const std::chrono::year_month first{
        std::chrono::year(century + static_cast<int>(from_bcd(shown[year]) % 100)),
        std::chrono::month(in_year)};
    const auto date =
        sys_days(first / 1) + std::chrono::days(static_cast<int>(from_bcd(shown[day] & 0x3fU)) - 1);
    return static_cast<std::int64_t>(date.time_since_epoch().count()) * day_s +
           static_cast<std::int64_t>(meant_hour(shown[hours])) * hour_s +
           static_cast<std::int64_t>(from_bcd(shown[minutes] & 0x7fU)) * minute_s +
           from_bcd(shown[seconds] & 0x7fU);
}

} // namespace

std::int64_t rtc_model::now() const {
    return halted_ ? halted_at_ : ticks() + offset_;
}

void rtc_model::set(std::int64_t time) {
    offset_ = time - ticks();
    halted_at_ = time;
}

void rtc_model::freeze(bool frozen) {
    const std::int64_t time = now();
    frozen_at_ = crystal_();
    frozen_ = frozen;
    set(time);
}

// A reader sees the seven registers of one moment, however long it takes over them.
void rtc_model::latch() {
    const std::int64_t time = now();
    const std::chrono::year_month_day date(day_of(time));
    const auto of_day = static_cast<unsigned>(time % day_s);
    shown_[seconds] = static_cast<std::uint8_t>(to_bcd(of_day % minute_s) | (halted_ ? clock_halt : 0));
    shown_[minutes] = to_bcd(of_day / minute_s % 60);
    shown_[hours] = shown_hour(of_day / hour_s, twelve_hours_);
    shown_[weekday] = static_cast<std::uint8_t>((weekday_of(time) + weekday_shift_) % 7 + 1);
    shown_[day] = to_bcd(static_cast<unsigned>(date.day()));
    shown_[month] = to_bcd(static_cast<unsigned>(date.month()));
    shown_[year] = to_bcd(static_cast<unsigned>(static_cast<int>(date.year()) - century) % 100);
}

// What was written becomes the time.
void rtc_model::take_over() {
    if (!time_written_)
        return;
    const std::int64_t time = meant_time(shown_);
    if (weekday_written_)
        weekday_shift_ = (shown_[weekday] % 8U + 13 - weekday_of(time)) % 7;
    halted_ = (shown_[seconds] & clock_halt) != 0;
    twelve_hours_ = (shown_[hours] & twelve_hours) != 0;
    set(time);
    time_written_ = false;
    weekday_written_ = false;
}

bool rtc_model::start(bool reading) {
    take_over();
    latch();
    awaits_pointer_ = !reading;
    return true;
}

bool rtc_model::put(std::uint8_t byte) {
    if (awaits_pointer_) {
        pointer_ = byte % registers;
        awaits_pointer_ = false;
        return true;
    }
    shown_[pointer_] = byte;
    time_written_ = time_written_ || pointer_ < time_registers;
    weekday_written_ = weekday_written_ || pointer_ == weekday;
    pointer_ = (pointer_ + 1U) % registers;
    return true;
}

std::uint8_t rtc_model::get() {
    const std::uint8_t byte = shown_[pointer_];
    pointer_ = (pointer_ + 1U) % registers;
    return byte;
}

void rtc_model::stop() {
    take_over();
}

} // namespace kiv::sim
