// SMBus operations as messages of the I2C bus, which is how the kernel carries them out on a controller that
// knows messages only. Pure: the bus plays them.

#ifndef KIV_SIM_SMBUS_H
#define KIV_SIM_SMBUS_H

#include <cstdint>
#include <linux/i2c.h>

namespace kiv::sim {

// What one operation puts on the bus: one message, or a written one and a read one. They point into this.
class smbus_transfer {
  public:
    // Returns 0 or an errno: EINVAL for an operation that the kernel refuses, EOPNOTSUPP for one whose length
    // the chip would have to tell. `data` may be null where the operation takes none.
    int compose(unsigned address, bool reading, unsigned command, unsigned operation,
                const i2c_smbus_data *data);

    const i2c_msg *messages() const { return messages_; }
    unsigned count() const { return count_; }

    // What was read, once the messages were played.
    void give(i2c_smbus_data &data) const;

  private:
    i2c_msg messages_[2] = {};
    unsigned count_ = 0;
    unsigned operation_ = 0;
    std::uint8_t written_[I2C_SMBUS_BLOCK_MAX + 2] = {};
    std::uint8_t read_[I2C_SMBUS_BLOCK_MAX] = {};

    void write(unsigned address, unsigned length);
    void read(unsigned address, unsigned length);
    void put_word(unsigned word);
    int one_message(unsigned address, bool reading, unsigned length);
    int register_access(unsigned address, bool reading, unsigned length);
    int block_access(unsigned address, bool reading, const std::uint8_t *bytes, unsigned length);
    int counted_block(unsigned address, const std::uint8_t *block);
};

} // namespace kiv::sim

#endif
