// Devices of the board, used as a program uses them: what the kernel and its drivers refuse is refused here
// too.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "fixtures/board.h"
#include "fixtures/pins.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

class SimDevice : public BoardTest {
    const char *const path_;

  protected:
    int fd_ = -1;

    explicit SimDevice(const char *path) : path_(path) {}
    void SetUp() override {
        BoardTest::SetUp();
        fd_ = ::open(path_, O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        ::close(fd_);
        BoardTest::TearDown();
    }
};

// I2C ----------------------------------------------------------------------------------------------------

class SimI2c : public SimDevice {
  protected:
    SimI2c() : SimDevice("/dev/i2c-0") {}

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
                {I2C_SMBUS, 0, EFAULT},
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
    Bytes room(8193, 0x77);
    i2c_msg messages[43];
    for (i2c_msg &each : messages)
        each = {.addr = 0x50, .flags = I2C_M_RD, .len = 1, .buf = room.data()};
    EXPECT_EQ(combined(messages, 0), EINVAL);
    EXPECT_EQ(combined(nullptr, 1), EINVAL);
    EXPECT_EQ(combined(messages, 42), 0);
    EXPECT_EQ(combined(messages, 43), EINVAL);
    const std::pair<i2c_msg, int> rows[] = {
        {{.addr = 0x50, .flags = I2C_M_RD, .len = 8192, .buf = room.data()}, 0},
        {{.addr = 0x50, .flags = I2C_M_RD, .len = 8193, .buf = room.data()}, EINVAL},
        {{.addr = 0x50, .flags = I2C_M_TEN, .len = 1, .buf = room.data()}, EOPNOTSUPP},
        {{.addr = 0x50, .flags = 0, .len = 1, .buf = nullptr}, EFAULT},
        {{.addr = 0x51, .flags = I2C_M_RD, .len = 1, .buf = room.data() + 1}, EREMOTEIO},
    };
    for (const auto &[second, error] : rows) {
        room[0] = 0x77;
        messages[1] = second;
        EXPECT_EQ(combined(messages, 2), error);
    }
    EXPECT_EQ(room[0], 0x77) << "a transfer that failed gives nothing back";
}

// What the i2c-tools do not ask for; the clock chip has memory from register 8 on.
TEST_F(SimI2c, MakesMessagesOfSmbusOperations) {
    ASSERT_EQ(::ioctl(fd_, I2C_SLAVE, KIV_SIM_I2C_CLOCK), 0);
    i2c_smbus_data data = {};
    const auto ask = [&](char direction, unsigned operation, unsigned command = 8) {
        i2c_smbus_ioctl_data wanted = {static_cast<std::uint8_t>(direction),
                                       static_cast<std::uint8_t>(command), operation, &data};
        return error_of(::ioctl(fd_, I2C_SMBUS, &wanted));
    };
    const auto put_block = [&](const Bytes &block) { std::memcpy(data.block, block.data(), block.size()); };
    put_block({2, 0xaa, 0xbb});
    EXPECT_EQ(ask(I2C_SMBUS_WRITE, I2C_SMBUS_BLOCK_DATA), 0);
    put_block({4});
    EXPECT_EQ(ask(I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_DATA), 0);
    EXPECT_EQ(Bytes(data.block, data.block + 5), (Bytes{4, 2, 0xaa, 0xbb, 0})) << "behind its length";
    data.word = 0x1234;
    EXPECT_EQ(ask(I2C_SMBUS_WRITE, I2C_SMBUS_PROC_CALL, 7), 0);
    EXPECT_EQ(data.word, 0xbbaa) << "of the registers behind those that were written";
    EXPECT_EQ(ask(I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_BROKEN), 0);
    EXPECT_EQ(Bytes(data.block, data.block + 4), (Bytes{32, 0x12, 0xaa, 0xbb}));
    data.block[0] = 33;
    EXPECT_EQ(ask(I2C_SMBUS_WRITE, I2C_SMBUS_BLOCK_DATA), EINVAL);
    EXPECT_EQ(ask(I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_DATA), EINVAL);
    EXPECT_EQ(ask(I2C_SMBUS_READ, I2C_SMBUS_BLOCK_DATA), EOPNOTSUPP);
    EXPECT_EQ(ask(2, I2C_SMBUS_BYTE_DATA), EINVAL);
    EXPECT_EQ(ask(I2C_SMBUS_READ, 9), EINVAL);
}

// Pins ---------------------------------------------------------------------------------------------------

enum request : unsigned {
    set_direction = 0x40087000,
    get_level = 0xc0087001,
    open_irq = 0x40087003,
    close_irq = 0x40087004,
    wait_irq = 0x40087005
};
constexpr std::int32_t low = 1;

// 0, or the errno of a failure.
int ask(int fd, unsigned long request, std::int32_t pin, std::int32_t argument = 0) {
    std::int32_t record[] = {pin, argument};
    return ::ioctl(fd, request, record) == 0 ? 0 : errno;
}

class SimGpio : public SimDevice {
  protected:
    SimGpio() : SimDevice("/dev/gpio") {}
};

TEST_F(SimGpio, RefusesAsADriverDoes) {
    ASSERT_EQ(kiv_sim_pin_claim(7, 1), 0);
    ASSERT_EQ(ask(fd_, set_direction, 5, low), 0);
    ASSERT_EQ(ask(fd_, open_irq, 6, KIV_SIM_EDGE_BOTH), 0);
    const int second = ::open("/dev/gpio", O_RDWR | O_CLOEXEC);
    const struct {
        int fd;
        unsigned request;
        std::int32_t pin, argument;
        int error;
    } rows[] = {
        {fd_, set_direction, 4, 3, EINVAL}, {fd_, get_level, 7, 0, EBUSY},
        {fd_, set_direction, 6, low, EIO},  {fd_, open_irq, 5, 1, EIO},
        {second, open_irq, 6, 1, EBUSY},    {second, wait_irq, 6, 0, EINVAL},
        {second, close_irq, 6, 0, EINVAL},  {fd_, 0x40087006, 4, 0, ENOTTY},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ask(row.fd, row.request, row.pin, row.argument), row.error)
            << std::hex << row.request << " of " << row.pin;
    ::close(fd_);
    EXPECT_EQ(ask(second, open_irq, 6, 1), 0) << "the last descriptor closes its interrupts";
    fd_ = second;
}

// What ends a wait, beside an edge and a signal: the closing of the interrupt, the end of the board.
TEST_F(SimGpio, EndsOfAWait) {
    const std::function<void()> endings[] = {[this] { ask(fd_, close_irq, 8); }, kiv_sim_reset};
    for (const auto &end : endings) {
        ASSERT_EQ(ask(fd_, open_irq, 8, KIV_SIM_EDGE_RISING), 0);
        std::thread waiter([this] { EXPECT_EQ(ask(fd_, wait_irq, 8), ENODEV); });
        wait_for_waiter(8);
        end();
        waiter.join();
    }
    EXPECT_EQ(ask(fd_, open_irq, 8, KIV_SIM_EDGE_RISING), ENODEV);
}

TEST(SimGpioEnvironment, MakesWiresAndDirectoriesUpToTheFirstMistake) {
    ::setenv("KIV_SIM_WIRES", "3=4 10=11 5=x 6=7", 1);
    ::setenv("KIV_SIM_SYSFS", "led=3", 1);
    kiv_sim_reset();
    const int value = ::open("/sys/class/gpio/led/value", O_RDONLY);
    EXPECT_GE(value, 0);
    ::close(value);
    for (const unsigned pin : {3U, 11U, 6U})
        EXPECT_EQ(kiv_sim_pin_drive(pin, 1), 0);
    EXPECT_EQ(pin_state(4).level, 1);
    EXPECT_EQ(pin_state(10).level, 1);
    EXPECT_EQ(pin_state(7).level, 0);
    ::unsetenv("KIV_SIM_WIRES");
    ::unsetenv("KIV_SIM_SYSFS");
}

// TAP interfaces -----------------------------------------------------------------------------------------

struct Interface {
    int fd = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request = {};

    Interface() = default;
    Interface(const Interface &) = delete;
    Interface &operator=(const Interface &) = delete;
    ~Interface() { ::close(fd); }

    // 0 or errno.
    int ask(unsigned long what) { return ::ioctl(fd, what, &request) == 0 ? 0 : errno; }
    int name(const char *name, int flags = IFF_TAP | IFF_NO_PI) {
        request = {};
        std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
        request.ifr_flags = static_cast<short>(flags);
        return ask(TUNSETIFF);
    }
    int address(char first, char last, unsigned short family = ARPHRD_ETHER) {
        request.ifr_hwaddr = {};
        request.ifr_hwaddr.sa_family = family;
        request.ifr_hwaddr.sa_data[0] = first;
        request.ifr_hwaddr.sa_data[5] = last;
        return ask(SIOCSIFHWADDR);
    }
    Bytes read() const {
        Bytes frame(3000);
        const ssize_t length = ::read(fd, frame.data(), frame.size());
        frame.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return frame;
    }
    int write(const Bytes &frame) const {
        return ::write(fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()) ? 0 : errno;
    }
};

class SimTun : public BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
    }
};

TEST_F(SimTun, GivesNamesAndAddressesAsTheKernelDoes) {
    Interface first, second;
    EXPECT_EQ(first.ask(SIOCGIFHWADDR), EBADFD) << "not an interface yet";
    EXPECT_EQ(first.name("lan/1"), EINVAL);
    EXPECT_EQ(first.name("kiv0", IFF_TAP), EINVAL) << "with packet information";
    EXPECT_EQ(first.name("kiv%d"), 0);
    EXPECT_EQ(first.name("kiv1"), EEXIST);
    EXPECT_EQ(second.name("kiv0"), EBUSY);
    EXPECT_EQ(second.name("kiv%d"), 0);
    EXPECT_STREQ(second.request.ifr_name, "kiv1");
    EXPECT_EQ(first.address(3, 9), EADDRNOTAVAIL) << "of a group";
    EXPECT_EQ(first.address(0, 0), EADDRNOTAVAIL);
    EXPECT_EQ(first.address(2, 9, ARPHRD_LOOPBACK), EINVAL);
}

TEST_F(SimTun, RefusesFramesAsTheKernelDoes) {
    Interface one;
    ASSERT_EQ(one.name("kiv0"), 0);
    const Bytes frame(60);
    EXPECT_EQ(one.write(frame), EIO) << "while it is down";
    EXPECT_EQ(kiv_sim_tap_send("kiv0", frame.data(), frame.size()), ENETDOWN);
    EXPECT_EQ(kiv_sim_tap_set_up("kiv0", 1), 0);
    EXPECT_EQ(one.write(Bytes(13)), EINVAL);
    EXPECT_EQ(one.write(frame), 0);
    EXPECT_EQ(kiv_sim_tap_delete("kiv0"), 0);
    EXPECT_EQ(one.write(frame), EBADFD);
    EXPECT_EQ(one.address(2, 9), EBADFD);
}

// Two hosts, the frames of each carried to the other by hand.
TEST_F(SimTun, HostsFindEachOtherAndPing) {
    Interface pinging, answering;
    ASSERT_EQ(pinging.name("kiv0"), 0);
    ASSERT_EQ(answering.name("kiv1"), 0);
    kiv_sim_host host = {.address = 0x0a000002, .peer = 0, .pings = 0, .ping_size = 0};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(answering.address(2, 2), 0);
    host = {.address = 0x0a000001, .peer = 0x0a000002, .pings = 1, .ping_size = 31};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(pinging.address(2, 1), 0);
    EXPECT_EQ(answering.write(pinging.read()), 0) << "it asks for its peer's address by itself";
    EXPECT_EQ(pinging.write(answering.read()), 0);
    const Bytes ping = pinging.read();
    Bytes damaged = ping;
    damaged.back() ^= 1;
    EXPECT_EQ(answering.write(damaged), 0);
    EXPECT_EQ(answering.read(), Bytes()) << "a damaged ping was answered";
    EXPECT_EQ(answering.write(ping), 0);
    EXPECT_EQ(pinging.write(answering.read()), 0);
    kiv_sim_tap_state state;
    kiv_sim_tap_inspect("kiv0", &state);
    EXPECT_EQ(state.replies, 1u);
}

} // namespace
} // namespace kiv::test
