#include "hci_model.h"

namespace kiv::sim {

namespace {

enum status : unsigned char { success = 0x00, unknown_command = 0x01, invalid_parameters = 0x12 };
enum event : unsigned char { command_complete = 0x0e, command_status = 0x0f, completed_packets = 0x13 };
enum opcode : std::uint16_t {
    reset = 0x0c03,
    read_local_version = 0x1001,
    read_buffer_size = 0x1005,
    read_bd_addr = 0x1009,
};

constexpr unsigned char one_command = 1; // how many commands the host may send now

unsigned little_endian(const unsigned char *bytes) {
    return bytes[0] + 256U * bytes[1];
}

// An event under construction.
class event_packet {
    unsigned char bytes_[3 + 255] = {hci_event, 0, 0};
    std::size_t length_ = 3;

  public:
    explicit event_packet(event code) { bytes_[1] = code; }

    event_packet &byte(unsigned value) {
        bytes_[length_++] = static_cast<unsigned char>(value);
        return *this;
    }
    event_packet &word(unsigned value) { return byte(value & 0xff).byte(value >> 8); }

    void send(hci_sink to) {
        bytes_[2] = static_cast<unsigned char>(length_ - 3);
        to.take(to.context, bytes_, length_);
    }
};

event_packet completes(std::uint16_t opcode, status result) {
    event_packet made(command_complete);
    made.byte(one_command).word(opcode).byte(result);
    return made;
}

// Commands that start something lasting (link control, link policy) are answered by their status first, and
// by another event later; for all others the answer is the completion.
bool is_answered_by_status(std::uint16_t opcode) {
    const unsigned group = opcode >> 10;
    return group == 1 || group == 2;
}

void fail(std::uint16_t opcode, unsigned char result, hci_sink to) {
    if (is_answered_by_status(opcode))
        event_packet(command_status).byte(result).byte(one_command).word(opcode).send(to);
    else
        completes(opcode, static_cast<status>(result)).send(to);
}

event_packet complete_reset(unsigned) {
    return completes(reset, success);
}

event_packet tell_version(unsigned) {
    constexpr unsigned core_2_1 = 4;
    constexpr unsigned nobody = 0xffff; // the company identifier for internal use
    event_packet made = completes(read_local_version, success);
    return made.byte(core_2_1).word(0x0100).byte(core_2_1).word(nobody).word(0x0001);
}

event_packet tell_buffer_size(unsigned) {
    event_packet made = completes(read_buffer_size, success);
    return made.word(1024).byte(64).word(8).word(8);
}

// C2:DE:CA:FE:00:0n, locally administered; the last byte comes first.
event_packet tell_address(unsigned number) {
    event_packet made = completes(read_bd_addr, success);
    return made.byte(number).word(0xfe00).word(0xdeca).byte(0xc2);
}

// None of them takes parameters.
constexpr struct {
    opcode code;
    event_packet (*answer)(unsigned number);
} known_commands[] = {
    {reset, complete_reset},
    {read_local_version, tell_version},
    {read_buffer_size, tell_buffer_size},
    {read_bd_addr, tell_address},
};

} // namespace

unsigned char hci_controller::refused(std::uint16_t opcode) const {
    for (const refusal &each : refusals_)
        if (each.status != success && each.opcode == opcode)
            return each.status;
    return success;
}

bool hci_controller::refuse(std::uint16_t opcode, unsigned char status) {
    refusal *place = nullptr;
    for (refusal &each : refusals_)
        if (each.status == success || each.opcode == opcode)
            place = place == nullptr || each.opcode == opcode ? &each : place;
    if (place == nullptr)
        return status == success;
    *place = {.opcode = opcode, .status = status};
    return true;
}

void hci_controller::command(const unsigned char *packet, std::size_t length, hci_sink to) {
    ++counts_.commands;
    const auto opcode = static_cast<std::uint16_t>(little_endian(packet + 1));
    const std::size_t parameters = packet[3];
    if (length != 4 + parameters) {
        ++counts_.malformed;
        return fail(opcode, invalid_parameters, to);
    }
    if (const unsigned char status = refused(opcode); status != success)
        return fail(opcode, status, to);
    for (const auto &known : known_commands) {
        if (known.code != opcode)
            continue;
        return parameters == 0 ? known.answer(number_).send(to) : fail(opcode, invalid_parameters, to);
    }
    fail(opcode, unknown_command, to);
}

// Data comes back as it went, after the news that its buffer is free again.
void hci_controller::acl(const unsigned char *packet, std::size_t length, hci_sink to) {
    ++counts_.acl_packets;
    if (length < 5 || length != 5 + little_endian(packet + 3)) {
        ++counts_.malformed;
        return;
    }
    event_packet(completed_packets).byte(1).word(little_endian(packet + 1) & 0xfff).word(1).send(to);
    to.take(to.context, packet, length);
}

void hci_controller::receive(const unsigned char *packet, std::size_t length, hci_sink to) {
    switch (packet[0]) {
    case hci_command:
        return command(packet, length, to);
    case hci_acl:
        return acl(packet, length, to);
    case hci_sco:
        ++counts_.sco_packets;
        counts_.malformed += length == std::size_t{4} + packet[3] ? 0 : 1;
        return;
    default:
        return;
    }
}

} // namespace kiv::sim
