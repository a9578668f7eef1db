// The simulated I2C bus against what the kernel's i2c-dev says.

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

    // The error of one combined transfer, 0 for success.
    int combined(i2c_msg *messages, unsigned count) const {
        i2c_rdwr_ioctl_data data = {.msgs = messages, .nmsgs = count};
        const int done = ::ioctl(fd_, I2C_RDWR, &data);
        EXPECT_TRUE(done == -1 || done == static_cast<int>(count));
        return done == -1 ? errno : 0;
    }
};

TEST_F(SimI2c, HasTheKernelsRequests) {
    ASSERT_EQ(kiv_sim_i2c_claim(0x50, 1), 0);
    const struct {
        unsigned long request, argument;
        int error;
    } rows[] = {{I2C_SLAVE_FORCE, 0x80, EINVAL},
                {I2C_SLAVE, 0x50, EBUSY},
                {I2C_SLAVE_FORCE, 0x50, 0},
                {I2C_SLAVE, 0x7f, 0},
                {I2C_RDWR, 0, EFAULT},
                {I2C_SMBUS, 0, EOPNOTSUPP},
                {0x5401, 0, ENOTTY}};
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(::ioctl(fd_, row.request, row.argument), row.error == 0 ? 0 : -1) << row.request;
        EXPECT_EQ(errno, row.error) << row.request;
    }
    kiv_sim_reset();
    EXPECT_EQ(combined(nullptr, 0), ENODEV) << "the bus is gone";
}

TEST_F(SimI2c, HasTheKernelsLimits) {
    std::vector<std::uint8_t> room(8193, 0x77);
    i2c_msg messages[43];
    for (i2c_msg &each : messages)
        each = {.addr = 0x50, .flags = I2C_M_RD, .len = 1, .buf = room.data()};
    EXPECT_EQ(combined(messages, 0), EINVAL);
    EXPECT_EQ(combined(nullptr, 1), EINVAL);
    EXPECT_EQ(combined(messages, 42), 0);
    EXPECT_EQ(combined(messages, 43), EINVAL);
    const struct {
        i2c_msg second;
        int error;
    } rows[] = {
        {{.addr = 0x50, .flags = I2C_M_RD, .len = 8192, .buf = room.data()}, 0},
        {{.addr = 0x50, .flags = I2C_M_RD, .len = 8193, .buf = room.data()}, EINVAL},
        {{.addr = 0x50, .flags = I2C_M_TEN, .len = 1, .buf = room.data()}, EOPNOTSUPP},
        {{.addr = 0x50, .flags = 0, .len = 1, .buf = nullptr}, EFAULT},
        {{.addr = 0x51, .flags = I2C_M_RD, .len = 1, .buf = room.data() + 1}, EREMOTEIO},
    };
    for (const auto &row : rows) {
        room[0] = 0x77;
        messages[1] = row.second;
        EXPECT_EQ(combined(messages, 2), row.error);
    }
    EXPECT_EQ(room[0], 0x77) << "a transfer that failed gives nothing back";
}

} // namespace
} // namespace kiv::test
