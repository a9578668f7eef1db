// The cancellable descriptor by itself, on a pseudo-terminal and on the board.

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "fixtures/pty.h"
#include "fixtures/resources.h"
#include "fixtures/serial.h"
#include "fixtures/signal.h"

namespace kiv::test {
namespace {

class SfdTest : public LoggedBoardTest {
  protected:
    Pty pty_;
    kiv_linux_sfd_t *s_ = nullptr;
    char buffer_[64] = {};

    void SetUp() override {
        LoggedBoardTest::SetUp();
        ASSERT_TRUE(pty_.works());
        s_ = kiv_linux_sopen(pty_.path().c_str(), O_RDWR | O_NOCTTY);
        ASSERT_NE(s_, nullptr);
    }
    void TearDown() override {
        if (s_ != nullptr) {
            EXPECT_EQ(kiv_linux_sclose(s_), 0);
        }
        LoggedBoardTest::TearDown();
    }
    ssize_t read() { return kiv_linux_sread(s_, buffer_, sizeof buffer_); }
    void feed(const std::string &bytes) const {
        ASSERT_EQ(::write(pty_.master(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        pollfd arrives = {kiv_linux_sfdno(s_), POLLIN, 0}; // the kernel passes it on by a worker of its own
        ASSERT_EQ(::poll(&arrives, 1, -1), 1);
    }
};

TEST_F(SfdTest, OwnsTheDeviceThatTheFlagsAskFor) {
    struct stat mine {};
    struct stat path {};
    ASSERT_EQ(::fstat(kiv_linux_sfdno(s_), &mine), 0);
    ASSERT_EQ(::stat(pty_.path().c_str(), &path), 0);
    EXPECT_EQ(mine.st_rdev, path.st_rdev);
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(s_), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    kiv_linux_sfd_t *other = kiv_linux_sopen("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(other), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(other), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(kiv_linux_sread(other, buffer_, 1), 0); // at its end
    EXPECT_EQ(kiv_linux_sclose(other), 0);
}

TEST_F(SfdTest, EachCancellationEndsOneReadAndDataGoesFirst) {
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1);
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1);
    feed("data");
    EXPECT_EQ(read(), 4);
    EXPECT_STREQ(buffer_, "data");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(read(), 0);
    // Nothing is left of them: the next read waits until it is released from another thread.
    const unsigned polls = kiv_sim_calls(KIV_SIM_POLL) + 1;
    std::thread other([&] {
        kiv_sim_wait_calls(KIV_SIM_POLL, polls);
        EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1);
    });
    EXPECT_EQ(read(), 0);
    other.join();
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1); // never used: no matter to the closing
}

TEST_F(SfdTest, SignalEndsTheWait) {
    const Interrupter interrupter(::pthread_self());
    for (unsigned i = 0; i < scaled(1000); ++i) {
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, EINTR);
    }
}

TEST_F(SfdTest, EventWithoutDataIsAnErrorOfItsOwn) {
    const short hang_up[] = {POLLERR | POLLHUP, 0};
    const short hang_up_and_cancel[] = {POLLHUP, POLLIN};
    const short nothing_of_use[] = {0, POLLERR};
    for (const auto *revents : {hang_up, nothing_of_use}) {
        ASSERT_EQ(kiv_sim_answer_poll(1, 1, revents, 2), 0);
        errno = EINTR; // left over from something else
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, EIO);
        kiv_sim_clear_faults();
    }
    ASSERT_EQ(kiv_linux_sclose_cancel(s_), 1);
    ASSERT_EQ(kiv_sim_answer_poll(1, 1, hang_up_and_cancel, 2), 0);
    EXPECT_EQ(read(), 0);
}

TEST_F(SfdTest, PseudoTerminalThatHangsUpIsAtItsEnd) {
    Pty gone;
    kiv_linux_sfd_t *s = kiv_linux_sopen(gone.path().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_NE(s, nullptr);
    gone.hang_up();
    for (int i = 0; i < 3; ++i) { // and stays so
        errno = EINTR;
        const ssize_t ret = kiv_linux_sread(s, buffer_, sizeof buffer_);
        EXPECT_TRUE(ret == 0 || (ret == -1 && errno == EIO)) << ret << ", errno " << errno;
    }
    EXPECT_EQ(kiv_linux_sclose(s), 0);
}

TEST_F(SfdTest, FailedOpeningLeavesNothing) {
    EXPECT_EQ(kiv_linux_sopen("/nonexistent", O_RDWR), nullptr);
    EXPECT_EQ(errno, ENOENT);
    const struct {
        kiv_sim_call call;
        int error;
    } steps[] = {{KIV_SIM_OPEN, EMFILE}, {KIV_SIM_CALLOC, ENOMEM}, {KIV_SIM_PIPE, ENFILE}};
    for (const auto &step : steps) {
        if (kiv_sim_fail(step.call, 1, 1, step.error) != 0)
            continue; // allocation under a sanitizer
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
        EXPECT_EQ(kiv_linux_sopen(pty_.path().c_str(), O_RDWR | O_NOCTTY), nullptr);
        EXPECT_EQ(errno, step.error);
        kiv_sim_clear_faults();
    }
}

// The pipe is closed first, and what its closing gives is ignored.
TEST_F(SfdTest, ClosingGivesTheResultOfTheDevice) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 2, EIO), 0);
    EXPECT_EQ(kiv_linux_sclose(s_), 0);
    s_ = kiv_linux_sopen(pty_.path().c_str(), O_RDWR | O_NOCTTY);
    kiv_sim_clear_faults();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 3, 1, EINTR), 0);
    EXPECT_EQ(kiv_linux_sclose(s_), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 6U); // and is not repeated
    s_ = nullptr;
}

} // namespace
} // namespace kiv::test
