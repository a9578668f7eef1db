#include "serial_line.h"

#include "kiv/sim.h"

namespace kiv::sim {

namespace {

constexpr unsigned output_lines = KIV_SIM_DTR | KIV_SIM_RTS;
constexpr unsigned input_lines = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD | KIV_SIM_RI;

struct standard_speed {
    tcflag_t code;
    unsigned rate;
};

constexpr standard_speed standard_speeds[] = {
    {B0, 0},
    {B50, 50},
    {B75, 75},
    {B110, 110},
    {B134, 134},
    {B150, 150},
    {B200, 200},
    {B300, 300},
    {B600, 600},
    {B1200, 1200},
    {B1800, 1800},
    {B2400, 2400},
    {B4800, 4800},
    {B9600, 9600},
    {B19200, 19200},
    {B38400, 38400},
    {B57600, 57600},
    {B115200, 115200},
    {B230400, 230400},
    {B460800, 460800},
    {B500000, 500000},
    {B576000, 576000},
    {B921600, 921600},
    {B1000000, 1000000},
    {B1152000, 1152000},
    {B1500000, 1500000},
    {B2000000, 2000000},
    {B2500000, 2500000},
    {B3000000, 3000000},
    {B3500000, 3500000},
    {B4000000, 4000000},
};

// BOTHER is no standard speed, and neither is a rate that only BOTHER can give.
const standard_speed *find_code(tcflag_t code) {
    for (const auto &each : standard_speeds)
        if (each.code == code)
            return &each;
    return nullptr;
}

const standard_speed *find_rate(unsigned rate) {
    for (const auto &each : standard_speeds)
        if (each.rate == rate)
            return &each;
    return nullptr;
}

unsigned requested_rate(const termios2 &wanted) {
    const standard_speed *known = find_code(wanted.c_cflag & CBAUD);
    return known != nullptr ? known->rate : wanted.c_ospeed;
}

} // namespace

void serial_line::set(const termios2 &wanted) {
    const bool was_down = (settings_.c_cflag & CBAUD) == B0;
    const unsigned asked = requested_rate(wanted);
    const unsigned kept = can_make(settings_.c_ospeed) ? settings_.c_ospeed : max_speed_;
    const unsigned rate = can_make(asked) ? asked : kept;
    const standard_speed *known = find_rate(rate);
    settings_ = wanted;
    settings_.c_cflag &= ~static_cast<tcflag_t>(CBAUD);
    settings_.c_cflag |= known != nullptr ? known->code : static_cast<tcflag_t>(BOTHER);
    settings_.c_ispeed = settings_.c_ospeed = rate;
    if (rate == 0)
        drop_outputs();
    else if (was_down)
        raise_outputs();
}

void serial_line::raise_outputs() {
    if ((settings_.c_cflag & CBAUD) != B0)
        modem_ |= output_lines;
}

void serial_line::drop_outputs() {
    modem_ &= ~output_lines;
}

void serial_line::set_outputs(unsigned lines) {
    modem_ = (modem_ & ~output_lines) | (lines & output_lines);
}

void serial_line::set_inputs(unsigned lines) {
    modem_ = (modem_ & ~input_lines) | (lines & input_lines);
}

} // namespace kiv::sim
