// What a serial port and its line discipline do with settings, modem lines and bytes. Pure behaviour: no
// descriptors, no locks.

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

    // What TCSETS2 does: the speed becomes what the port's clock gives, and is written back as the kernel
    // writes it; leaving or entering B0 moves DTR and RTS.
    void set(const termios2 &wanted);
    void set_max_speed(unsigned speed) { max_speed_ = speed; }

    // The first near end opens, the last one closes.
    void raise_outputs();
    void drop_outputs();
    void set_outputs(unsigned lines);
    void set_inputs(unsigned lines);

    // Whether output has to wait: hardware flow control, or an XOFF that was received.
    bool holds_output() const;

    bool is_canonical() const { return (settings_.c_lflag & ICANON) != 0; }

    // A received byte: whether it reaches the reader, as which byte, and whether it is sent back.
    struct received {
        bool delivered;
        bool echoed;
        unsigned char byte;
    };
    received receive(unsigned char byte);

    // A received byte, as it is delivered, that makes a canonical line complete.
    bool ends_line(unsigned char byte) const;

    // A byte that leaves the port: writes one or two bytes, returns how many.
    std::size_t transmit(unsigned char byte, unsigned char sent[2]) const;

  private:
    termios2 settings_ = initial_settings();
    unsigned max_speed_ = 4000000;
    unsigned modem_ = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD; // a peer is there
    bool stopped_ = false;

    bool handle_flow_character(unsigned char byte);
};

} // namespace kiv::sim

#endif
