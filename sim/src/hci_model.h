// What a Bluetooth controller does with the packets of its host. Pure behaviour: no descriptors, no locks.

#ifndef KIV_SIM_HCI_MODEL_H
#define KIV_SIM_HCI_MODEL_H

#include <cstddef>
#include <cstdint>

namespace kiv::sim {

enum hci_indicator : unsigned char { hci_command = 1, hci_acl = 2, hci_sco = 3, hci_event = 4 };

constexpr std::size_t hci_longest = 1 + 4 + 1024; // an indicator, an ACL header, the data

// Takes the packets that the controller sends, indicator first.
struct hci_sink {
    void (*take)(void *context, const unsigned char *packet, std::size_t length);
    void *context;
};

class hci_controller {
  public:
    explicit constexpr hci_controller(unsigned number = 0) : number_(static_cast<unsigned char>(number)) {}

    // One packet from the host, indicator first, at least four bytes. What it makes the controller send goes
    // to the sink before this returns.
    void receive(const unsigned char *packet, std::size_t length, hci_sink to);

    // From now on a command of this opcode fails with this status; with status 0 it is itself again. False
    // when the controller can remember no more refusals.
    bool refuse(std::uint16_t opcode, unsigned char status);

    struct counters {
        unsigned commands, acl_packets, sco_packets;
        unsigned malformed; // the length in the header was not that of the packet
    };
    const counters &counts() const { return counts_; }

  private:
    struct refusal {
        std::uint16_t opcode;
        unsigned char status;
    };
    static constexpr std::size_t most_refusals = 8;

    unsigned char number_; // the last byte of the address
    refusal refusals_[most_refusals] = {};
    counters counts_ = {};

    void command(const unsigned char *packet, std::size_t length, hci_sink to);
    void acl(const unsigned char *packet, std::size_t length, hci_sink to);
    unsigned char refused(std::uint16_t opcode) const;
};

} // namespace kiv::sim

#endif
