// The serial lines of the board, used as a program uses a tty and looked at from their far end: what the
// tests of serial ports do not need, and other programs may.

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "fixtures/board.h"
#include "fixtures/signal.h"
#include "fixtures/unix_service.h"

namespace kiv::test {
namespace {

constexpr const char *path = "/dev/ttyKIV0";
constexpr unsigned inputs = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD;
constexpr unsigned outputs = KIV_SIM_DTR | KIV_SIM_RTS;

class SimLine : public BoardTest {
  protected:
    int fd_ = -1;

    void SetUp() override {
        BoardTest::SetUp();
        fd_ = ::open(path, O_RDWR | O_NOCTTY);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        ::close(fd_);
        BoardTest::TearDown();
    }

    static kiv_sim_line_state state() {
        kiv_sim_line_state seen;
        EXPECT_EQ(kiv_sim_line_inspect(0, &seen), 0);
        return seen;
    }
    // The settings, after `change` has had a hand in them.
    template <class Change>
    termios2 set(Change change) const {
        termios2 settings = {};
        EXPECT_EQ(::ioctl(fd_, TCGETS2, &settings), 0);
        change(settings);
        EXPECT_EQ(::ioctl(fd_, TCSETS2, &settings), 0);
        EXPECT_EQ(::ioctl(fd_, TCGETS2, &settings), 0);
        return settings;
    }
    termios2 set_speed(tcflag_t code, unsigned number) const {
        return set([=](termios2 &wanted) {
            wanted.c_cflag = (wanted.c_cflag & ~static_cast<tcflag_t>(CBAUD)) | code;
            wanted.c_ispeed = wanted.c_ospeed = number;
        });
    }
    static void feed(const std::string &bytes) {
        ASSERT_EQ(kiv_sim_line_send(0, bytes.data(), bytes.size()), bytes.size());
    }
    static std::string sent() {
        char buffer[64];
        return std::string(buffer, kiv_sim_line_receive(0, buffer, sizeof buffer));
    }
    // Without waiting.
    std::string readable() const {
        std::string bytes(state().input_queued, '\0');
        EXPECT_EQ(::read(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return bytes;
    }
    static short polled(int fd) {
        pollfd entry = {fd, POLLIN, 0};
        return ::poll(&entry, 1, 0) == 1 ? entry.revents : short{0};
    }
};

TEST_F(SimLine, ReadsBackTheSpeedThatItsClockGives) {
    const struct {
        unsigned most;
        tcflag_t code;
        unsigned number;
        tcflag_t code_after;
        unsigned rate_after;
    } speeds[] = {
        {4000000, BOTHER, 3000000, B3000000, 3000000},
        {1500000, BOTHER, 250000, BOTHER, 250000},
        {1500000, B3000000, 9, BOTHER, 250000}, // it keeps what it had
    };
    termios2 given = {};
    for (const auto &each : speeds) {
        ASSERT_EQ(kiv_sim_line_set_max_speed(0, each.most), 0);
        given = set_speed(each.code, each.number);
        EXPECT_EQ(given.c_cflag & CBAUD, each.code_after) << each.number;
        EXPECT_TRUE(given.c_ospeed == each.rate_after && given.c_ispeed == each.rate_after) << each.number;
    }
    termios older = {};
    EXPECT_EQ(::ioctl(fd_, TCGETS, &older), 0);
    EXPECT_EQ(older.c_cflag, given.c_cflag) << "the older request sees the same settings";
    EXPECT_EQ(error_of(::ioctl(fd_, TCFLSH, 3)), EINVAL);
    EXPECT_EQ(error_of(::ioctl(fd_, TIOCGICOUNT, &older)), ENOTTY);
}

TEST_F(SimLine, SpeedZeroAndTheLastCloseDropTheOutputs) {
    set_speed(B0, 0);
    EXPECT_EQ(state().modem, inputs);
    set_speed(B9600, 0);
    EXPECT_EQ(state().modem, outputs | inputs);
    ::close(fd_);
    EXPECT_EQ(state().modem, inputs);
    fd_ = ::open(path, O_RDWR);
    EXPECT_EQ(state().modem, outputs | inputs);
}

TEST_F(SimLine, PassesBytesAsTheyAreWhateverItsDisciplineSays) {
    const std::string bytes = "\x11 a\r\n\x93\x13 z"; // cooked, with echo and XON
    errno = EL2HLT;
    EXPECT_EQ(::write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(errno, EL2HLT);
    EXPECT_EQ(sent(), bytes);
    feed(bytes);
    EXPECT_EQ(readable(), bytes);
    EXPECT_EQ(sent(), "");
    set([](termios2 &deaf) {
        deaf.c_cflag &= ~static_cast<tcflag_t>(CREAD);
        deaf.c_cc[VMIN] = deaf.c_cc[VTIME] = 0;
    });
    feed("lost");
    char byte = 0;
    EXPECT_EQ(::read(fd_, &byte, 1), 0) << "with nothing to wait for";
}

TEST_F(SimLine, ASignalAndAHangUpEndADrain) {
    set([](termios2 &held) { held.c_cflag |= CRTSCTS; });
    ASSERT_EQ(kiv_sim_line_set_inputs(0, 0), 0);
    EXPECT_EQ(::write(fd_, "held", 4), 4);
    Interrupter signals(::pthread_self());
    const int error = error_of(::ioctl(fd_, TCSBRK, 1));
    signals.stop();
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(state().output_queued, 4U);
    std::thread drainer([&] { EXPECT_EQ(error_of(::ioctl(fd_, TCSBRK, 1)), EIO); });
    const auto waits = [](const kiv_sim_line_state *now, void *) { return now->drains_waiting > 0 ? 1 : 0; };
    kiv_sim_line_wait(0, waits, nullptr);
    kiv_sim_line_hang_up(0, 1);
    drainer.join();
}

TEST_F(SimLine, HangsUpAsAnUnpluggedDeviceDoes) {
    for (const bool with_data : {true, false}) {
        feed("unread\n");
        kiv_sim_line_hang_up(0, with_data ? 1 : 0);
        const int gone = with_data ? POLLIN | POLLERR | POLLHUP : POLLERR | POLLHUP;
        EXPECT_EQ(polled(fd_), gone);
        char byte = 0;
        EXPECT_EQ(::read(fd_, &byte, 1), 0);
        EXPECT_EQ(error_of(::write(fd_, "x", 1)), EIO);
        EXPECT_EQ(error_of(::ioctl(fd_, TCFLSH, TCIFLUSH)), EIO);
        EXPECT_EQ(error_of(::open(path, O_RDWR)), ENOENT);
        kiv_sim_line_plug_in(0);
        EXPECT_EQ(polled(fd_), gone) << "an old descriptor stays as it is";
        ::close(fd_);
        fd_ = ::open(path, O_RDWR | O_NOCTTY);
        EXPECT_EQ(polled(fd_), 0);
    }
}

TEST_F(SimLine, LivesAsLongAsACopyOfItsDescriptor) {
    const int copy = ::fcntl(fd_, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(copy, 100);
    ::close(std::exchange(fd_, -1));
    EXPECT_EQ(::write(copy, "x", 1), 1);
    EXPECT_EQ(sent(), "x");
    EXPECT_EQ(::dup2(STDERR_FILENO, copy), copy) << "takes the place of the copy";
    EXPECT_EQ(state().near_ends, 0U);
    ::close(copy);
}

TEST_F(SimLine, KnowsADescriptorThatWasClosedBehindItsBack) {
    ASSERT_EQ(::syscall(SYS_close, fd_), 0);
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(other, fd_);
    termios settings;
    EXPECT_EQ(error_of(::ioctl(other, TCGETS, &settings)), ENOTTY);
}

TEST_F(SimLine, AnotherProcessCanBeTheFarEnd) {
    UnixService far(own_path());
    ::setenv("KIV_SIM_TTY1", far.name().c_str(), 1);
    EXPECT_EQ(error_of(::open("/dev/ttyKIV1", O_RDWR)), ENOENT);
    far.start();
    const int near_end = ::open("/dev/ttyKIV1", O_RDWR);
    Peer peer = far.accept();
    EXPECT_EQ(::write(near_end, "out", 3), 3);
    EXPECT_EQ(peer.receive(3), "out");
    EXPECT_TRUE(peer.send("in"));
    char buffer[8] = {};
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 2);
    EXPECT_EQ(::write(near_end, "unread", 6), 6);
    peer.close(); // with a reset, which a tty does not have
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 0);
    EXPECT_EQ(polled(near_end), POLLIN | POLLERR | POLLHUP);
    EXPECT_EQ(error_of(::write(near_end, "x", 1)), EIO);
    ::unsetenv("KIV_SIM_TTY1");
    ::close(near_end);
}

} // namespace
} // namespace kiv::test
