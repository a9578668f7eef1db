// The serial lines of the board, used as a program uses a tty and looked at from their far end.

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <future>
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

constexpr unsigned all_inputs = KIV_SIM_CTS | KIV_SIM_DSR | KIV_SIM_DCD;

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
    void set_cflag(tcflag_t cleared, tcflag_t added) const {
        termios2 wanted = settings();
        wanted.c_cflag = (wanted.c_cflag & ~cleared) | added;
        set(wanted);
    }
    void set_discipline(tcflag_t iflag, tcflag_t lflag) const {
        termios2 wanted = settings();
        wanted.c_iflag = iflag;
        wanted.c_lflag = lflag;
        wanted.c_oflag = 0;
        set(wanted);
    }
    // Raw, with hardware flow control, and the far end not ready; four bytes are held.
    void hold_four() const {
        set_discipline(0, 0);
        set_cflag(0, CRTSCTS);
        ASSERT_EQ(kiv_sim_line_set_inputs(0, KIV_SIM_DSR | KIV_SIM_DCD), 0);
        EXPECT_EQ(::write(fd_, "held", 4), 4);
    }
    static void feed(const std::string &bytes) {
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
        const termios2 given = settings();
        EXPECT_EQ(given.c_cflag & CBAUD, each.code_after) << each.number;
        EXPECT_TRUE(given.c_ospeed == each.rate_after && given.c_ispeed == each.rate_after) << each.number;
    }
    termios older = {};
    EXPECT_EQ(::ioctl(fd_, TCGETS, &older), 0);
    EXPECT_EQ(older.c_cflag, settings().c_cflag) << "the older request sees the same settings";
    EXPECT_EQ(error_of(::ioctl(fd_, TCFLSH, 3)), EINVAL);
    EXPECT_EQ(error_of(::ioctl(fd_, TIOCGWINSZ, &older)), ENOTTY);
}

TEST_F(SimLine, SpeedZeroAndTheLastCloseDropTheOutputs) {
    unsigned wanted = KIV_SIM_DTR; // the inputs in it are not the port's to set
    EXPECT_EQ(::ioctl(fd_, TIOCMSET, &wanted), 0);
    EXPECT_EQ(state().modem, KIV_SIM_DTR | all_inputs);
    set_cflag(CBAUD, B0);
    EXPECT_EQ(state().modem, all_inputs);
    set_cflag(CBAUD, B9600);
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
        {IXON, 0, "a\x13\x11z", "az", ""},
        {0, ICANON, "half", "", ""},
        {ICRNL, ICANON | ECHO, "whole\rhalf", "whole\n", "whole\nhalf"},
    };
    for (const auto &each : disciplines) {
        set_discipline(each.iflag, each.lflag);
        EXPECT_EQ(::ioctl(fd_, TCFLSH, TCIFLUSH), 0);
        feed(each.received);
        EXPECT_EQ(readable(), each.read);
        EXPECT_EQ(sent(), each.echoed);
    }
    set_discipline(0, 0);
    EXPECT_EQ(readable(), "half") << "an unfinished line is readable once the line is raw";
    termios2 deaf = settings();
    deaf.c_cflag &= ~static_cast<tcflag_t>(CREAD);
    deaf.c_cc[VMIN] = deaf.c_cc[VTIME] = 0;
    set(deaf);
    feed("lost");
    char byte = 0;
    EXPECT_EQ(::read(fd_, &byte, 1), 0) << "with nothing to wait for";
}

TEST_F(SimLine, LeavesErrnoAloneAndHasAnEndToItsQueue) {
    errno = EL2HLT;
    EXPECT_EQ(::write(fd_, "a\n", 2), 2);
    EXPECT_EQ(sent(), "a\r\n") << "a cooked line";
    set_discipline(0, 0);
    const std::string large(20000, 'x');
    while (kiv_sim_line_send(0, large.data(), large.size()) == large.size()) {
        // Until the input queue is full: sending never waits for it.
    }
    EXPECT_GE(readable().size(), large.size());
    EXPECT_EQ(errno, EL2HLT);
}

TEST_F(SimLine, WhatEndsADrainBesideTheFarEnd) {
    hold_four();
    Interrupter signals(::pthread_self());
    const int error = error_of(::ioctl(fd_, TCSBRK, 1));
    signals.stop();
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(state().output_queued, 4U);
    const std::function<void()> ends[] = {[&] { ::ioctl(fd_, TCFLSH, TCOFLUSH); },
                                          [&] { set_cflag(CRTSCTS, 0); }, [] { kiv_sim_line_hang_up(0, 1); }};
    const int errors[] = {0, 0, EIO};
    for (std::size_t i = 0; i < std::size(ends); ++i) {
        SCOPED_TRACE(i);
        hold_four();
        auto drained = std::async(std::launch::async, [&] { return error_of(::ioctl(fd_, TCSBRK, 1)); });
        kiv_sim_line_wait(
            0, [](const kiv_sim_line_state *now, void *) { return now->drains_waiting > 0 ? 1 : 0; },
            nullptr);
        ends[i]();
        EXPECT_EQ(drained.get(), errors[i]);
    }
}

TEST_F(SimLine, AFullQueueBlocksTheWriter) {
    hold_four();
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
    EXPECT_EQ(sent(), "held" + std::string(queued, 'x') + rest);
}

TEST_F(SimLine, HangsUpAsAnUnpluggedDeviceDoes) {
    for (const bool with_data : {true, false}) {
        feed("unread\n");
        kiv_sim_line_hang_up(0, with_data ? 1 : 0);
        const int gone = with_data ? POLLIN | POLLERR | POLLHUP : POLLERR | POLLHUP;
        char byte = 0;
        EXPECT_EQ(polled(POLLIN), gone);
        EXPECT_EQ(::read(fd_, &byte, 1), 0);
        EXPECT_EQ(error_of(::write(fd_, "x", 1)), EIO);
        EXPECT_EQ(error_of(::ioctl(fd_, TCSBRK, 1)), EIO);
        EXPECT_EQ(error_of(::open("/dev/ttyKIV0", O_RDWR)), ENOENT);
        kiv_sim_line_plug_in(0);
        EXPECT_EQ(polled(POLLIN), gone) << "an old descriptor stays as it is";
        ::close(fd_);
        fd_ = ::open("/dev/ttyKIV0", O_RDWR | O_NOCTTY);
        EXPECT_EQ(polled(POLLIN), 0);
    }
}

TEST_F(SimLine, NearEndsShareOneLine) {
    const int second = ::open("/dev/ttyKIV0", O_RDWR | O_CLOEXEC);
    const int copy = ::fcntl(second, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(copy, 100);
    ::close(second);
    EXPECT_EQ(state().near_ends, 2U) << "its copy keeps it open";
    EXPECT_EQ(::write(copy, "x", 1), 1);
    EXPECT_EQ(sent(), "x");
    EXPECT_EQ(::dup2(STDERR_FILENO, copy), copy) << "takes the place of the copy";
    EXPECT_EQ(state().near_ends, 1U);
    ::close(copy);

    // Closed behind the board's back, the number is the line's no more.
    const int unseen = ::dup(fd_);
    ASSERT_EQ(::syscall(SYS_close, unseen), 0);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(ends[0], unseen);
    termios none;
    EXPECT_EQ(error_of(::ioctl(ends[0], TCGETS, &none)), ENOTTY);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(SimLine, AnotherProcessCanBeTheFarEnd) {
    UnixService far(own_path());
    ::setenv("KIV_SIM_LINE1", far.name().c_str(), 1);
    EXPECT_EQ(error_of(::open("/dev/ttyKIV1", O_RDWR)), ENOENT);
    far.start();
    const int near_end = ::open("/dev/ttyKIV1", O_RDWR);
    Peer peer = far.accept();
    EXPECT_EQ(::write(near_end, "out", 3), 3);
    EXPECT_EQ(peer.receive(3), "out");
    EXPECT_TRUE(peer.send("in"));
    char buffer[8] = {};
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 2);
    peer.close();
    pollfd entry = {near_end, POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, -1), 1);
    EXPECT_EQ(entry.revents, POLLIN | POLLERR | POLLHUP);
    EXPECT_EQ(::read(near_end, buffer, sizeof buffer), 0);
    EXPECT_EQ(error_of(::write(near_end, "x", 1)), EIO);
    ::unsetenv("KIV_SIM_LINE1");
    ::close(near_end);
}

} // namespace
} // namespace kiv::test
