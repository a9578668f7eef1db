// The simulated I2C bus against what the kernel's i2c-dev and the chips' data sheets say.

#include <cerrno>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "fixtures/board.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

class SimI2c : public BoardTest {
  protected:
    int fd_ = -1;

    void SetUp() override {
        BoardTest::SetUp();
        fd_ = ::open64("/dev/i2c-0", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        ::close(fd_);
        BoardTest::TearDown();
    }

    void talk_to(unsigned long address) const { ASSERT_EQ(::ioctl(fd_, I2C_SLAVE, address), 0); }
    ssize_t send(const Bytes &bytes) const { return ::write(fd_, bytes.data(), bytes.size()); }
    Bytes receive(std::size_t count) const {
        Bytes bytes(count, 0);
        EXPECT_EQ(::read(fd_, bytes.data(), count), static_cast<ssize_t>(count));
        return bytes;
    }
    // The error of one combined transfer, 0 for success.
    int combined(i2c_msg *messages, unsigned count) const {
        i2c_rdwr_ioctl_data data = {.msgs = messages, .nmsgs = count};
        const int done = ::ioctl(fd_, I2C_RDWR, &data);
        EXPECT_TRUE(done == -1 || done == static_cast<int>(count));
        return done == -1 ? errno : 0;
    }
    // Reads `count` bytes from a register on.
    Bytes registers(std::uint16_t address, std::uint8_t first, std::uint16_t count) const {
        Bytes bytes(count, 0);
        i2c_msg messages[] = {{address, 0, 1, &first}, {address, I2C_M_RD, count, bytes.data()}};
        EXPECT_EQ(combined(messages, 2), 0);
        return bytes;
    }
};

TEST_F(SimI2c, HasTheKernelsLimits) {
    ASSERT_EQ(kiv_sim_i2c_claim(0x50, 1), 0);
    const struct {
        unsigned long request, argument;
        int error;
    } requests[] = {{I2C_SLAVE, 0x80, EINVAL},  {I2C_SLAVE_FORCE, 0x80, EINVAL},
                    {I2C_SLAVE, 0x50, EBUSY},   {I2C_SLAVE_FORCE, 0x50, 0},
                    {I2C_SLAVE, 0x7f, 0},       {I2C_RDWR, 0, EFAULT},
                    {I2C_SMBUS, 0, EOPNOTSUPP}, {0x5401, 0, ENOTTY}};
    for (const auto &row : requests) {
        errno = 0;
        EXPECT_EQ(::ioctl(fd_, row.request, row.argument), row.error == 0 ? 0 : -1) << row.request;
        EXPECT_EQ(errno, row.error) << row.request;
    }
    std::vector<std::uint8_t> room(8193, 0);
    i2c_msg messages[43];
    for (i2c_msg &each : messages)
        each = {.addr = 0x50, .flags = I2C_M_RD, .len = 1, .buf = room.data()};
    EXPECT_EQ(combined(messages, 0), EINVAL);
    EXPECT_EQ(combined(nullptr, 1), EINVAL);
    EXPECT_EQ(combined(messages, 42), 0);
    EXPECT_EQ(combined(messages, 43), EINVAL);
    messages[1].len = 8192;
    EXPECT_EQ(combined(messages, 2), 0);
    messages[1].len = 8193;
    EXPECT_EQ(combined(messages, 2), EINVAL);
    messages[1] = {.addr = 0x50, .flags = I2C_M_RD | I2C_M_TEN, .len = 1, .buf = room.data()};
    EXPECT_EQ(combined(messages, 2), EOPNOTSUPP);
    messages[1] = {.addr = 0x50, .flags = 0, .len = 1, .buf = nullptr};
    EXPECT_EQ(combined(messages, 2), EFAULT);
    messages[1] = {.addr = 0x51, .flags = I2C_M_RD, .len = 1, .buf = room.data()};
    room[0] = 0x77;
    EXPECT_EQ(combined(messages, 2), EREMOTEIO);
    EXPECT_EQ(room[0], 0x77) << "a transfer that failed gives nothing back";
}

TEST_F(SimI2c, IsGoneAfterAResetAndKeepsAccessModes) {
    std::uint8_t byte = 0;
    const int reader = ::open("/dev/i2c-0", O_RDONLY);
    EXPECT_TRUE(::write(reader, &byte, 1) == -1 && errno == EBADF);
    ::close(reader);
    kiv_sim_reset();
    EXPECT_TRUE(send({0}) == -1 && errno == ENODEV);
}

TEST_F(SimI2c, EepromGoesRoundInItsPage) {
    kiv_sim_eeprom_set_busy(0);
    talk_to(0x50);
    ASSERT_EQ(send({0x0e, 1, 2, 3, 4}), 5);
    EXPECT_EQ(registers(0x50, 0x08, 8), (Bytes{3, 4, 0xff, 0xff, 0xff, 0xff, 1, 2}));
    // Bytes without a stop behind them are not kept.
    std::uint8_t dropped[] = {0x20, 9};
    std::uint8_t byte = 0;
    i2c_msg messages[] = {{0x50, 0, 2, dropped}, {0x50, I2C_M_RD, 1, &byte}};
    ASSERT_EQ(combined(messages, 2), 0);
    EXPECT_EQ(registers(0x50, 0x20, 1), Bytes{0xff});
}

TEST_F(SimI2c, ClockShowsAndTakesTimes) {
    // Seconds, minutes, hours, day of the week from Sunday 1, day, month, year; what is written reads back.
    const struct {
        std::int64_t time;
        Bytes shown;
    } rows[] = {
        {946684799 + 1, {0x00, 0x00, 0x00, 7, 0x01, 0x01, 0x00}},
        {1709209845, {0x45, 0x30, 0x12, 5, 0x29, 0x02, 0x24}},
        {4102444799, {0x59, 0x59, 0x23, 5, 0x31, 0x12, 0x99}},
    };
    talk_to(0x68);
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_clock_set(row.time, 1), 0);
        EXPECT_EQ(registers(0x68, 0, 7), row.shown);
        ASSERT_EQ(kiv_sim_clock_set(1000000000, 1), 0);
        Bytes written = row.shown;
        written.insert(written.begin(), 0);
        ASSERT_EQ(send(written), 8);
        EXPECT_EQ(kiv_sim_clock_time(), row.time);
        EXPECT_EQ(registers(0x68, 0, 7), row.shown);
    }
    ASSERT_EQ(send({2, 0x72}), 2); // noon of a clock of twelve hours
    EXPECT_EQ(kiv_sim_clock_time() / 3600 % 24, 12);
    ASSERT_EQ(send({0, 0x80}), 2);
    EXPECT_EQ(registers(0x68, 0, 1), Bytes{0x80}) << "halted";
    ASSERT_EQ(send({0x3f, 0xab}), 2);
    EXPECT_EQ(registers(0x68, 0x3f, 2), (Bytes{0xab, 0x80})) << "the pointer goes round";
}

} // namespace
} // namespace kiv::test
