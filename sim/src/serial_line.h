// What a serial port does with settings and modem lines. Pure behaviour: no descriptors, no locks. Settings
// of the line discipline (line editing, echo, line ends, XON and XOFF) are kept and have no effect: a port
// that is used for data turns them off, and bytes pass as they are.

#ifndef KIV_SIM_SERIAL_LINE_H
#define KIV_SIM_SERIAL_LINE_H

#include <asm/termbits.h>
#include <cstddef>

#include "kiv/sim.h"

namespace kiv::sim {

// As the kernel sets up a tty that nobody has touched.
constexpr termios2 initial_settings() {
    termios2 made = {};
    made.c_iflag = ICRNL | IXON;
    made.c_oflag = OPOST | ONLCR;
    made.c_cflag = B9600 | CS8 | CREAD | HUPCL;
    made.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE | IEXTEN;
    made.c_cc[VINTR] = 0x03;
    made.c_cc[VQUIT] = 0x1c;
    made.c_cc[VERASE] = 0x7f;
    made.c_cc[VKILL] = 0x15;
    made.c_cc[VEOF] = 0x04;
    made.c_cc[VMIN] = 1;
    made.c_cc[VSTART] = 0x11;
    made.c_cc[VSTOP] = 0x13;
    made.c_cc[VSUSP] = 0x1a;
    made.c_cc[VREPRINT] = 0x12;
    made.c_cc[VDISCARD] = 0x0f;
    made.c_cc[VWERASE] = 0x17;
    made.c_cc[VLNEXT] = 0x16;
    made.c_ispeed = made.c_ospeed = 9600;
    return made;
}

class serial_line {
  public:
    const termios2 &settings() const { return settings_; }
    unsigned modem() const { return modem_; }

    // What TCSETS2 does: a speed that the port's clock cannot make leaves the old one; the speed is written
    // back as the kernel writes it; leaving or entering B0 moves DTR and RTS.
    void set(const termios2 &wanted);
    void set_max_speed(unsigned speed) { max_speed_ = speed; }

    // The first near end opens, the last one closes.
    void raise_outputs();
    void drop_outputs();
    void set_outputs(unsigned lines);
    void set_inputs(unsigned lines);

    // Whether output has to wait: hardware flow control, and the peer is not ready.
    bool holds_output() const { return (settings_.c_cflag & CRTSCTS) != 0 && (modem_ & KIV_SIM_CTS) == 0; }
    bool hears() const { return (settings_.c_cflag & CREAD) != 0; }

  private:
    termios2 settings_ = initial_settings();
    unsigned max_speed_ = 4000000;
    unsigned modem_ = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD; // a peer is there

    bool can_make(unsigned rate) const { return rate <= max_speed_; }
};

} // namespace kiv::sim

#endif
