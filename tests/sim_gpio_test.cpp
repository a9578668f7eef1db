// The pins of the board, used as a program uses /dev/gpio and /sys/class/gpio, and looked at from around.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>

#include "fixtures/board.h"

namespace kiv::test {
namespace {

enum request : unsigned {
    set_direction = 0x40087000,
    get_level = 0xc0087001,
    set_level = 0x40087002,
    open_irq = 0x40087003,
    close_irq = 0x40087004,
    wait_irq = 0x40087005
};
enum { input, low, high };

class SimGpio : public BoardTest {
  protected:
    int fd_ = -1;

    void SetUp() override {
        BoardTest::SetUp();
        open();
    }
    void TearDown() override {
        ::close(fd_);
        BoardTest::TearDown();
    }
    void open(int flags = O_RDWR) {
        fd_ = ::open("/dev/gpio", flags);
        ASSERT_GE(fd_, 0);
    }

    // 0, or the errno of a failure.
    static int ask_on(int fd, unsigned long request, std::int32_t pin, std::int32_t argument = 0) {
        std::int32_t record[] = {pin, argument};
        return ::ioctl(fd, request, record) == 0 ? 0 : errno;
    }
    int ask(unsigned long request, std::int32_t pin, std::int32_t argument = 0) const {
        return ask_on(fd_, request, pin, argument);
    }
    int level(std::int32_t pin) const {
        std::int32_t record[] = {pin, -1};
        return ::ioctl(fd_, get_level, record) == 0 ? record[1] : -1;
    }
    static short polled(int fd) {
        pollfd entry = {fd, POLLIN | POLLOUT, 0};
        return ::poll(&entry, 1, 0) >= 0 ? entry.revents : short{-1};
    }
};

TEST_F(SimGpio, RefusesAsADriverDoes) {
    ASSERT_EQ(kiv_sim_pin_claim(7, 1), 0);
    ASSERT_EQ(ask(set_direction, 5, low), 0);
    ASSERT_EQ(ask(open_irq, 6, KIV_SIM_EDGE_BOTH), 0);
    const int second = ::open("/dev/gpio", O_RDWR | O_CLOEXEC);
    const struct {
        int fd;
        unsigned request;
        std::int32_t pin, argument;
        int error;
    } rows[] = {
        {fd_, set_direction, 4, 3, EINVAL}, {fd_, get_level, 7, 0, EBUSY},
        {fd_, set_direction, 6, low, EIO},  {fd_, open_irq, 5, 1, EIO},
        {second, open_irq, 6, 1, EBUSY},    {fd_, open_irq, 4, 0, EINVAL},
        {fd_, wait_irq, 4, 0, EINVAL},      {second, wait_irq, 6, 0, EINVAL},
        {second, close_irq, 6, 0, EINVAL},  {fd_, 0x40087006, 4, 0, ENOTTY},
        {fd_, set_direction, 6, input, 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ask_on(row.fd, row.request, row.pin, row.argument), row.error)
            << std::hex << row.request << " of " << row.pin;
    char byte = 0;
    EXPECT_EQ(::write(fd_, &byte, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    ::close(second);
}

TEST_F(SimGpio, WiredPinsHaveOneLevel) {
    ASSERT_EQ(kiv_sim_pin_wire(3, 4), 0);
    ASSERT_EQ(kiv_sim_pin_wire(5, 4), 0);
    ASSERT_EQ(kiv_sim_pin_drive(3, 1), 0);
    EXPECT_EQ(level(5), 1);
    ASSERT_EQ(ask(set_direction, 4, low), 0); // stronger than the outside
    EXPECT_EQ(level(5), 0);
    ASSERT_EQ(ask(set_level, 4, 7), 0);
    EXPECT_EQ(level(5), 1);
    ASSERT_EQ(ask(set_direction, 5, low), 0); // they disagree
    EXPECT_EQ(level(4), 0);
    ASSERT_EQ(kiv_sim_pin_unwire(5), 0);
    EXPECT_EQ(level(4), 1);
    EXPECT_EQ(level(3), 1);
}

TEST_F(SimGpio, AnEdgeIsKeptUntilItIsFetched) {
    ::fcntl(fd_, F_SETFL, O_NONBLOCK);
    ASSERT_EQ(ask(open_irq, 8, KIV_SIM_EDGE_RISING), 0);
    EXPECT_EQ(polled(fd_), 0);
    for (const int drive : {1, 1, 0}) // the second one is no edge
        ASSERT_EQ(kiv_sim_pin_drive(8, drive), 0);
    EXPECT_EQ(polled(fd_), POLLIN);
    EXPECT_EQ(ask(wait_irq, 8), 0);
    EXPECT_EQ(ask(wait_irq, 8), EAGAIN);
    ASSERT_EQ(kiv_sim_pin_drive(8, 1), 0);
    ASSERT_EQ(ask(close_irq, 8), 0); // forgets what was not fetched
    EXPECT_EQ(polled(fd_), 0);
}

// What ends a wait, beside an edge and a signal: the closing of the interrupt, the end of the board.
TEST_F(SimGpio, EndsOfAWait) {
    ASSERT_EQ(ask(open_irq, 8, KIV_SIM_EDGE_RISING), 0);
    for (const bool by_reset : {false, true}) {
        std::thread waiter([this] { EXPECT_EQ(ask(wait_irq, 8), ENODEV); });
        EXPECT_EQ(kiv_sim_pin_wait(
                      8, [](const kiv_sim_pin_state *state, void *) { return state->waiting != 0 ? 1 : 0; },
                      nullptr),
                  0);
        if (by_reset)
            kiv_sim_reset();
        else
            EXPECT_EQ(ask(close_irq, 8), 0);
        waiter.join();
        EXPECT_EQ(ask(open_irq, 8, KIV_SIM_EDGE_RISING), by_reset ? ENODEV : 0);
    }
    EXPECT_EQ(polled(fd_) & (POLLERR | POLLHUP), POLLERR | POLLHUP);
}

TEST_F(SimGpio, ClosingTheLastDescriptorClosesInterrupts) {
    ASSERT_EQ(ask(open_irq, 8, KIV_SIM_EDGE_RISING), 0);
    const int second = ::open("/dev/gpio", O_RDWR);
    const int copy = ::dup(fd_);
    ::close(fd_);
    EXPECT_EQ(ask_on(second, open_irq, 8, KIV_SIM_EDGE_RISING), EBUSY);
    ::close(copy);
    EXPECT_EQ(ask_on(second, open_irq, 8, KIV_SIM_EDGE_RISING), 0);
    fd_ = second;
}

TEST_F(SimGpio, WiresAndDirectoriesOfTheEnvironment) {
    ::close(fd_);
    kiv_sim_reset();
    ::setenv("KIV_SIM_WIRES", "3=4 10=11 5=x 6=7", 1);
    ::setenv("KIV_SIM_SYSFS", "led=3 gpio4=4", 1);
    open();
    ASSERT_EQ(ask(set_direction, 3, high), 0);
    ASSERT_EQ(ask(set_direction, 11, high), 0);
    ASSERT_EQ(ask(set_direction, 6, high), 0);
    EXPECT_EQ(level(4), 1);
    EXPECT_EQ(level(10), 1);
    EXPECT_EQ(level(7), 0); // behind the mistake
    const int value = ::open("/sys/class/gpio/gpio4/value", O_RDONLY);
    char text[8];
    EXPECT_EQ(::read(value, text, sizeof text), 2);
    EXPECT_EQ(text[0], '1');
    ::close(value);
    ::unsetenv("KIV_SIM_WIRES");
    ::unsetenv("KIV_SIM_SYSFS");
}

class SimSysfs : public SimGpio {
  protected:
    void SetUp() override {
        SimGpio::SetUp();
        ASSERT_EQ(kiv_sim_sysfs_export("led", 4, 1), 0);
        ASSERT_EQ(kiv_sim_sysfs_export("fixed", 5, 0), 0);
    }
    static int open_pin(const std::string &path, int flags) {
        return ::open(("/sys/class/gpio/" + path).c_str(), flags);
    }
    // 0, or the errno of a failure.
    static int write_to(const std::string &path, const std::string &text) {
        const int fd = open_pin(path, O_WRONLY);
        if (fd == -1)
            return errno;
        const ssize_t done = ::write(fd, text.data(), text.size());
        const int error = done == static_cast<ssize_t>(text.size()) ? 0 : errno;
        ::close(fd);
        return error;
    }
    static std::string read_from(const std::string &path) {
        const int fd = open_pin(path, O_RDONLY);
        char text[16];
        const ssize_t length = ::read(fd, text, sizeof text);
        ::close(fd);
        return length < 0 ? "failed" : std::string(text, static_cast<std::size_t>(length));
    }
};

TEST_F(SimSysfs, TextsAreTakenAsTheKernelTakesThem) {
    const std::string zero(1, '\0');
    const struct {
        const char *path;
        std::string text;
        int error;
        const char *direction, *value;
    } rows[] = {
        {"led/direction", "low\n", 0, "out\n", "0\n"},
        {"led/value", "1" + zero, 0, "out\n", "1\n"},
        {"led/value", "x", EINVAL, "out\n", "1\n"},
        {"led/value", "", 0, "out\n", "1\n"},
        {"led/value", "1 and far too much", EINVAL, "out\n", "1\n"},
        {"led/direction", "hi", EINVAL, "out\n", "1\n"},
        {"led/direction", "in", 0, "in\n", "0\n"},
        {"led/direction", "out", 0, "out\n", "0\n"},
        {"fixed/direction", "in", ENOENT, "out\n", "0\n"},
        {"led/edge", "both", ENOENT, "out\n", "0\n"},
        {"led", "1", EISDIR, "out\n", "0\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(write_to(row.path, row.text), row.error) << row.path << " " << row.text;
        EXPECT_EQ(read_from("led/direction"), row.direction) << row.text;
        EXPECT_EQ(read_from("led/value"), row.value) << row.text;
    }
    EXPECT_EQ(read_from("fixed/value"), "0\n");
    EXPECT_EQ(read_from("led"), "failed");
}

TEST_F(SimSysfs, ReadingAgainNeedsTheBeginning) {
    const int fd = open_pin("led/value", O_RDWR);
    char text[4];
    iovec pieces[] = {{text, 1}, {text + 1, 3}};
    EXPECT_EQ(::readv(fd, pieces, 2), 2);
    EXPECT_EQ(std::string(text, 2), "0\n");
    EXPECT_EQ(::read(fd, text, sizeof text), 0);
    ASSERT_EQ(kiv_sim_pin_drive(4, 1), 0);
    EXPECT_EQ(::lseek(fd, 0, SEEK_SET), 0);
    EXPECT_EQ(::read(fd, text, 1), 1);
    EXPECT_EQ(text[0], '1');
    const int reader = open_pin("led/value", O_RDONLY);
    EXPECT_TRUE(::write(reader, "1", 1) == -1 && errno == EBADF);
    ::close(reader);
    ASSERT_EQ(kiv_sim_pin_claim(4, 1), 0);
    EXPECT_TRUE(::lseek(fd, 0, SEEK_SET) == 0 && ::read(fd, text, 1) == -1 && errno == EBUSY);
    ASSERT_EQ(kiv_sim_sysfs_unexport("led"), 0);
    EXPECT_EQ(::write(fd, "1", 1), -1);
    EXPECT_EQ(errno, ENODEV);
    ::close(fd);
}

} // namespace
} // namespace kiv::test
