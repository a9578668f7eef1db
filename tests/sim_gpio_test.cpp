// The pins of the board, used as a program uses /dev/gpio and /sys/class/gpio, and looked at from around.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include "fixtures/board.h"
#include "fixtures/pins.h"

namespace kiv::test {
namespace {

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

class SimGpio : public BoardTest {
  protected:
    int fd_ = -1;

    void SetUp() override {
        BoardTest::SetUp();
        fd_ = ::open("/dev/gpio", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        ::close(fd_);
        BoardTest::TearDown();
    }
    short polled() const {
        pollfd entry = {fd_, POLLIN | POLLOUT, 0};
        return ::poll(&entry, 1, 0) >= 0 ? entry.revents : short{-1};
    }
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

TEST_F(SimGpio, AnEdgeIsKeptUntilItIsFetched) {
    ::fcntl(fd_, F_SETFL, O_NONBLOCK);
    ASSERT_EQ(ask(fd_, open_irq, 8, KIV_SIM_EDGE_RISING), 0);
    EXPECT_EQ(polled(), 0);
    for (const int drive : {1, 1, 0}) // the second one is no edge
        ASSERT_EQ(kiv_sim_pin_drive(8, drive), 0);
    EXPECT_EQ(polled(), POLLIN);
    EXPECT_EQ(ask(fd_, wait_irq, 8), 0);
    EXPECT_EQ(ask(fd_, wait_irq, 8), EAGAIN);
    ASSERT_EQ(kiv_sim_pin_drive(8, 1), 0);
    ASSERT_EQ(ask(fd_, close_irq, 8), 0); // forgets what was not fetched
    EXPECT_EQ(polled(), 0);
}

// What ends a wait, beside an edge and a signal: the closing of the interrupt, the end of the board.
TEST_F(SimGpio, EndsOfAWait) {
    for (void (*const end)(int fd) :
         {+[](int fd) { ask(fd, close_irq, 8); }, +[](int) { kiv_sim_reset(); }}) {
        ASSERT_EQ(ask(fd_, open_irq, 8, KIV_SIM_EDGE_RISING), 0);
        std::thread waiter([this] { EXPECT_EQ(ask(fd_, wait_irq, 8), ENODEV); });
        wait_for_waiter(8);
        end(fd_);
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

} // namespace
} // namespace kiv::test
