#include "smbus.h"

#include <cerrno>
#include <cstring>

namespace kiv::sim {
namespace {

constexpr unsigned word_length = 2;

bool takes_data(unsigned operation, bool reading) {
    return operation != I2C_SMBUS_QUICK && (operation != I2C_SMBUS_BYTE || reading);
}

} // namespace

void smbus_transfer::write(unsigned address, unsigned length) {
    messages_[count_++] = {.addr = static_cast<std::uint16_t>(address),
                           .flags = 0,
                           .len = static_cast<std::uint16_t>(length),
                           .buf = written_};
}

void smbus_transfer::read(unsigned address, unsigned length) {
    messages_[count_++] = {.addr = static_cast<std::uint16_t>(address),
                           .flags = I2C_M_RD,
                           .len = static_cast<std::uint16_t>(length),
                           .buf = read_};
}

// Low byte first.
void smbus_transfer::put_word(unsigned word) {
    written_[1] = static_cast<std::uint8_t>(word);
    written_[2] = static_cast<std::uint8_t>(word >> 8);
}

int smbus_transfer::counted_block(unsigned address, const std::uint8_t *block) {
    if (block[0] > I2C_SMBUS_BLOCK_MAX)
        return EINVAL;
    ::memcpy(written_ + 1, block, block[0] + 1U);
    write(address, block[0] + 2U);
    return 0;
}

int smbus_transfer::one_message(unsigned address, bool reading, unsigned length) {
    reading ? read(address, length) : write(address, length);
    return 0;
}

int smbus_transfer::register_access(unsigned address, bool reading, unsigned length) {
    write(address, reading ? 1 : 1 + length);
    if (reading)
        read(address, length);
    return 0;
}

int smbus_transfer::block_access(unsigned address, bool reading, const std::uint8_t *bytes, unsigned length) {
    if (length > I2C_SMBUS_BLOCK_MAX)
        return EINVAL;
    if (!reading)
        ::memcpy(written_ + 1, bytes, length);
    return register_access(address, reading, length);
}

int smbus_transfer::compose(unsigned address, bool reading, unsigned command, unsigned operation,
                            const i2c_smbus_data *data) {
    if (data == nullptr && takes_data(operation, reading))
        return EINVAL;
    operation_ = operation;
    written_[0] = static_cast<std::uint8_t>(command);
    switch (operation) {
    case I2C_SMBUS_QUICK: // the direction is all there is
        return one_message(address, reading, 0);
    case I2C_SMBUS_BYTE:
        return one_message(address, reading, 1);
    case I2C_SMBUS_BYTE_DATA:
        written_[1] = data->byte;
        return register_access(address, reading, 1);
    case I2C_SMBUS_WORD_DATA:
        put_word(data->word);
        return register_access(address, reading, word_length);
    case I2C_SMBUS_PROC_CALL:
        put_word(data->word);
        write(address, 1 + word_length);
        read(address, word_length);
        return 0;
    case I2C_SMBUS_BLOCK_DATA: // its length goes before the bytes
        return reading ? EOPNOTSUPP : counted_block(address, data->block);
    case I2C_SMBUS_BLOCK_PROC_CALL:
        return EOPNOTSUPP;
    case I2C_SMBUS_I2C_BLOCK_BROKEN: // the older form, which reads as much as there can be
        return block_access(address, reading, data->block + 1,
                            reading ? I2C_SMBUS_BLOCK_MAX : data->block[0]);
    case I2C_SMBUS_I2C_BLOCK_DATA:
        return block_access(address, reading, data->block + 1, data->block[0]);
    default:
        return EINVAL;
    }
}

void smbus_transfer::give(i2c_smbus_data &data) const {
    const i2c_msg &last = messages_[count_ - 1];
    if ((last.flags & I2C_M_RD) == 0)
        return;
    switch (operation_) {
    case I2C_SMBUS_QUICK:
        break;
    case I2C_SMBUS_BYTE:
    case I2C_SMBUS_BYTE_DATA:
        data.byte = read_[0];
        break;
    case I2C_SMBUS_WORD_DATA:
    case I2C_SMBUS_PROC_CALL:
        data.word = static_cast<std::uint16_t>(read_[0] | read_[1] << 8);
        break;
    default:
        data.block[0] = static_cast<std::uint8_t>(last.len);
        ::memcpy(data.block + 1, read_, last.len);
    }
}

} // namespace kiv::sim
