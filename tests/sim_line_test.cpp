// The serial lines of the board, used as a program uses a tty and looked at from their far end.

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "fixtures/board.h"
#include "fixtures/signal.h"

namespace kiv::test {
namespace {

constexpr unsigned all_inputs = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD;
constexpr unsigned inputs_without_cts = KIV_SIM_DSR | KIV_SIM_DCD;

class SimLine : public BoardTest {
  protected:
    int fd_ = -1;

    void SetUp() override {
        BoardTest::SetUp();
        fd_ = ::open("/dev/ttyKIV0", O_RDWR | O_NOCTTY);
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
    termios2 settings() const {
        termios2 read = {};
        EXPECT_EQ(::ioctl(fd_, TCGETS2, &read), 0);
        return read;
    }
    void set(const termios2 &wanted) const { EXPECT_EQ(::ioctl(fd_, TCSETS2, &wanted), 0); }
    void make_raw(tcflag_t more_cflag = 0) const {
        termios2 raw = settings();
        raw.c_iflag = raw.c_oflag = raw.c_lflag = 0;
        raw.c_cflag |= more_cflag;
        set(raw);
    }
    // Raw, with hardware flow control, and the far end not ready.
    void hold() const {
        make_raw(CRTSCTS);
        ASSERT_EQ(kiv_sim_line_set_inputs(0, inputs_without_cts), 0);
    }
    void feed(const std::string &bytes) const {
        ASSERT_EQ(kiv_sim_line_send(0, bytes.data(), bytes.size()), bytes.size());
    }
    static std::string sent() {
        char buffer[65536];
        return std::string(buffer, kiv_sim_line_receive(0, buffer, sizeof buffer));
    }
    // Without waiting.
    std::string readable() const {
        std::string bytes(state().input_queued, '\0');
        EXPECT_EQ(::read(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return bytes;
    }
    short polled(short events) const {
        pollfd entry = {fd_, events, 0};
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
        {1500000, B3000000, 9, B1500000, 1500000},
        {1000001, BOTHER, 2000000, BOTHER, 1000001},
    };
    for (const auto &each : speeds) {
        ASSERT_EQ(kiv_sim_line_set_max_speed(0, each.most), 0);
        termios2 wanted = settings();
        wanted.c_cflag = (wanted.c_cflag & ~static_cast<tcflag_t>(CBAUD)) | each.code;
        wanted.c_ispeed = wanted.c_ospeed = each.number;
        set(wanted);
        EXPECT_EQ(settings().c_cflag & CBAUD, each.code_after) << each.number;
        EXPECT_EQ(settings().c_ospeed, each.rate_after);
        EXPECT_EQ(settings().c_ispeed, each.rate_after);
    }
    termios older = {};
    EXPECT_EQ(::ioctl(fd_, TCGETS, &older), 0);
    EXPECT_EQ(older.c_cflag, settings().c_cflag) << "the older request sees the same settings";
    EXPECT_TRUE(::ioctl(fd_, TCFLSH, 3) == -1 && errno == EINVAL);
    EXPECT_TRUE(::ioctl(fd_, TIOCGWINSZ, &older) == -1 && errno == ENOTTY);
}

TEST_F(SimLine, SpeedZeroAndTheLastCloseDropTheOutputs) {
    unsigned wanted = KIV_SIM_DTR; // the inputs in it are not the port's to set
    EXPECT_EQ(::ioctl(fd_, TIOCMSET, &wanted), 0);
    EXPECT_EQ(state().modem, KIV_SIM_DTR | all_inputs);
    termios2 speed = settings();
    speed.c_cflag &= ~static_cast<tcflag_t>(CBAUD);
    set(speed);
    EXPECT_EQ(state().modem, all_inputs);
    speed.c_cflag |= B9600;
    set(speed);
    EXPECT_EQ(state().modem, KIV_SIM_DTR | KIV_SIM_RTS | all_inputs);
    ::close(fd_);
    EXPECT_EQ(state().modem, all_inputs);
    fd_ = ::open("/dev/ttyKIV0", O_RDWR);
    EXPECT_EQ(state().modem, KIV_SIM_DTR | KIV_SIM_RTS | all_inputs);
}

TEST_F(SimLine, TreatsInputAsItsSettingsSay) {
    const struct {
        tcflag_t iflag, lflag;
        std::string received, read, echoed;
    } disciplines[] = {
        {0, 0, "a\r\n\x11\x93", "a\r\n\x11\x93", ""},
        {ICRNL, 0, "a\r", "a\n", ""},
        {IGNCR, 0, "a\r\n", "a\n", ""},
        {INLCR, 0, "a\n", "a\r", ""},
        {IXON, 0,
         "a\x13\x11"
         "b",
         "ab", ""},
        {0, ICANON, "half", "", ""},
        {ICRNL, ICANON | ECHO, "whole\rhalf", "whole\n", "whole\nhalf"},
    };
    for (const auto &each : disciplines) {
        termios2 wanted = settings();
        wanted.c_iflag = each.iflag;
        wanted.c_lflag = each.lflag;
        wanted.c_oflag = 0;
        set(wanted);
        EXPECT_EQ(::ioctl(fd_, TCFLSH, TCIFLUSH), 0);
        feed(each.received);
        EXPECT_EQ(readable(), each.read);
        EXPECT_EQ(sent(), each.echoed);
    }
    make_raw();
    EXPECT_EQ(readable(), "half") << "an unfinished line is readable once the line is raw";
    termios2 deaf = settings();
    deaf.c_cflag &= ~static_cast<tcflag_t>(CREAD);
    set(deaf);
    feed("lost");
    EXPECT_EQ(polled(POLLIN), 0);
    deaf.c_cc[VMIN] = deaf.c_cc[VTIME] = 0;
    set(deaf);
    char byte = 0;
    EXPECT_EQ(::read(fd_, &byte, 1), 0) << "with nothing to wait for";
}

TEST_F(SimLine, LeavesErrnoAloneAndHasAnEndToItsQueue) {
    errno = EL2HLT;
    EXPECT_EQ(::write(fd_, "a\n", 2), 2);
    EXPECT_EQ(sent(), "a\r\n") << "a cooked line";
    make_raw();
    feed("hello");
    int waiting = 0;
    EXPECT_EQ(::ioctl(fd_, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 5);
    const std::string large(20000, 'x');
    while (kiv_sim_line_send(0, large.data(), large.size()) == large.size()) {
        // Until the input queue is full: sending never waits for it.
    }
    EXPECT_EQ(readable().substr(0, 6), "hellox");
    EXPECT_EQ(errno, EL2HLT);
}

TEST_F(SimLine, WhatEndsADrainBesideTheFarEnd) {
    hold();
    EXPECT_EQ(::write(fd_, "held", 4), 4);
    Interrupter signals(::pthread_self());
    const int interrupted = ::ioctl(fd_, TCSBRK, 1);
    const int error = errno;
    signals.stop();
    EXPECT_EQ(interrupted, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(state().output_queued, 4U);
    for (const auto end : {"flush", "flow control off", "hang-up"}) {
        SCOPED_TRACE(end);
        hold();
        EXPECT_EQ(::write(fd_, "held", 4), 4);
        int drained = 1;
        std::thread drainer([&] { drained = ::ioctl(fd_, TCSBRK, 1); });
        kiv_sim_line_wait(
            0, [](const kiv_sim_line_state *now, void *) { return now->drains_waiting > 0 ? 1 : 0; },
            nullptr);
        termios2 free = settings();
        free.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
        if (end[1] == 'l' && end[2] == 'u')
            ::ioctl(fd_, TCFLSH, TCOFLUSH);
        else if (end[0] == 'f')
            set(free);
        else
            kiv_sim_line_hang_up(0, 1);
        drainer.join();
        EXPECT_EQ(drained, end[0] == 'h' ? -1 : 0);
    }
}

TEST_F(SimLine, AFullQueueBlocksTheWriter) {
    hold();
    ASSERT_EQ(::fcntl(fd_, F_SETFL, O_NONBLOCK), 0);
    const std::string block(1024, 'x');
    std::size_t queued = 0;
    for (ssize_t taken = 0; (taken = ::write(fd_, block.data(), block.size())) != -1;)
        queued += static_cast<std::size_t>(taken);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(polled(POLLOUT), 0);
    ASSERT_EQ(::fcntl(fd_, F_SETFL, 0), 0);
    const std::string rest(50000, 'y');
    const unsigned writes = kiv_sim_calls(KIV_SIM_WRITE);
    std::thread writer(
        [&] { EXPECT_EQ(::write(fd_, rest.data(), rest.size()), static_cast<ssize_t>(rest.size())); });
    kiv_sim_wait_calls(KIV_SIM_WRITE, writes + 1);
    kiv_sim_line_set_inputs(0, all_inputs);
    writer.join();
    EXPECT_EQ(sent(), std::string(queued, 'x') + rest);
}

TEST_F(SimLine, HangsUpAsAnUnpluggedDeviceDoes) {
    for (const bool with_data : {true, false}) {
        make_raw();
        feed("unread");
        kiv_sim_line_hang_up(0, with_data ? 1 : 0);
        const int gone = with_data ? POLLIN | POLLERR | POLLHUP : POLLERR | POLLHUP;
        char byte = 0;
        EXPECT_EQ(polled(POLLIN), gone);
        EXPECT_EQ(::read(fd_, &byte, 1), 0);
        EXPECT_EQ(polled(POLLIN), gone) << "and goes on doing so";
        EXPECT_TRUE(::write(fd_, "x", 1) == -1 && errno == EIO);
        EXPECT_TRUE(::ioctl(fd_, TCSBRK, 1) == -1 && errno == EIO);
        EXPECT_TRUE(::open("/dev/ttyKIV0", O_RDWR) == -1 && errno == ENOENT);
        kiv_sim_line_plug_in(0);
        EXPECT_EQ(polled(POLLIN), gone) << "an old descriptor stays as it is";
        ::close(fd_);
        fd_ = ::open("/dev/ttyKIV0", O_RDWR | O_NOCTTY);
        ASSERT_GE(fd_, 0);
        EXPECT_EQ(polled(POLLIN), 0);
    }
}

TEST_F(SimLine, NearEndsShareOneLine) {
    make_raw();
    const int second = ::open("/dev/ttyKIV0", O_RDWR | O_CLOEXEC);
    const int copy = ::dup(second);
    const int high = ::fcntl(second, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(high, 100);
    EXPECT_EQ(state().near_ends, 2U);
    ::close(second);
    EXPECT_EQ(state().near_ends, 2U) << "its copies keep it open";
    EXPECT_EQ(::write(copy, "x", 1), 1);
    EXPECT_EQ(::write(high, "y", 1), 1);
    EXPECT_EQ(sent(), "xy");
    feed("z");
    char byte = 0;
    EXPECT_EQ(::read(copy, &byte, 1), 1);
    EXPECT_EQ(polled(POLLIN), 0);
    ::close(copy);
    EXPECT_EQ(::dup2(STDERR_FILENO, high), high) << "takes the place of the last copy";
    EXPECT_EQ(state().near_ends, 1U);
    ::close(high);
}

TEST_F(SimLine, IsAStreamToo) {
    make_raw();
    FILE *stream = ::fopen("/dev/ttyKIV0", "r+");
    ASSERT_NE(stream, nullptr);
    feed("line\n");
    char text[16];
    EXPECT_STREQ(::fgets(text, sizeof text, stream), "line\n");
    ::rewind(stream);
    EXPECT_EQ(::fputs("answer", stream), 1);
    ::close(fd_);
    EXPECT_EQ(::fclose(stream), 0);
    EXPECT_EQ(state().near_ends, 0U);
    EXPECT_EQ(sent(), "answer") << "written as the last near end was closed";
    fd_ = ::open("/dev/ttyKIV0", O_RDWR);
}

TEST_F(SimLine, ADescriptorClosedBehindTheBoardsBackIsNotTheLinesAnyMore) {
    const int copy = ::dup(fd_);
    ASSERT_EQ(::syscall(SYS_close, copy), 0);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(ends[0], copy);
    termios settings;
    EXPECT_TRUE(::ioctl(ends[0], TCGETS, &settings) == -1 && errno == ENOTTY);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(SimLine, AnotherProcessCanBeTheFarEnd) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = "@kiv-sim-line-" + std::to_string(::getpid());
    name.copy(address.sun_path, name.size());
    address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr *>(&address), length), 0);
    ::setenv("KIV_SIM_LINE1", name.c_str(), 1);
    EXPECT_TRUE(::open("/dev/ttyKIV1", O_RDWR) == -1 && errno == ECONNREFUSED);
    ASSERT_EQ(::listen(listener, 1), 0);
    const int near_end = ::open("/dev/ttyKIV1", O_RDWR);
    ASSERT_GE(near_end, 0);
    const int peer = ::accept(listener, nullptr, nullptr);
    char buffer[8] = {};
    EXPECT_EQ(::write(near_end, "out", 3), 3);
    EXPECT_EQ(::read(peer, buffer, sizeof buffer), 3);
    EXPECT_EQ(::write(peer, "in", 2), 2);
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 2);
    ::close(peer);
    pollfd entry = {near_end, POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, -1), 1);
    EXPECT_EQ(entry.revents, POLLIN | POLLERR | POLLHUP);
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 0);
    EXPECT_TRUE(::write(near_end, "x", 1) == -1 && errno == EIO);
    ::unsetenv("KIV_SIM_LINE1");
    ::close(near_end);
    ::close(listener);
}

} // namespace
} // namespace kiv::test
