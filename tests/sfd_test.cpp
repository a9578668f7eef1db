// The cancellable descriptor by itself, on a pseudo-terminal and on the board.

#include <cerrno>
#include <poll.h>
#include <thread>

#include "fixtures/pty.h"
#include "fixtures/serial.h"

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
};

TEST_F(SfdTest, OpensWithTheFlagsThatAreAskedFor) {
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(s_), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    kiv_linux_sfd_t *other = kiv_linux_sopen("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(other), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(::fcntl(kiv_linux_sfdno(other), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(kiv_linux_sread(other, buffer_, 1), 0); // at its end
    EXPECT_EQ(kiv_linux_sclose(other), 0);
}

// What a program writes to the standard output and error that it has closed must not cancel a read.
TEST_F(SfdTest, StandardDescriptorsAreLeftAlone) {
    const int input = ::dup(STDIN_FILENO);
    const int output = ::dup(STDOUT_FILENO);
    ::close(STDIN_FILENO);
    for (const char *const path : {"/dev/null", "/dev/zero"}) { // the number is free for each in turn
        kiv_linux_sfd_t *other = kiv_linux_sopen(path, O_RDONLY);
        ASSERT_NE(other, nullptr);
        EXPECT_GT(kiv_linux_sfdno(other), STDERR_FILENO);
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_EQ(kiv_linux_sclose(other), 0);
    }
    ::close(STDOUT_FILENO);
    for (const unsigned nth : {3U, 4U}) { // the ends of the pipe: the device is moved up twice before
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_DUP, nth, 1, EMFILE), 0);
        EXPECT_EQ(kiv_linux_sopen("/dev/null", O_RDONLY), nullptr);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_TRUE(::fcntl(STDIN_FILENO, F_GETFD) == -1 && ::fcntl(STDOUT_FILENO, F_GETFD) == -1);
    }
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::close(input);
    ::close(output);
}

TEST_F(SfdTest, EachCancellationEndsOneReadAndDataGoesFirst) {
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1);
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1);
    const short data_and_cancel[] = {POLLIN, POLLIN};
    ASSERT_EQ(kiv_sim_answer_poll(1, 1, data_and_cancel, 2), 0);
    EXPECT_EQ(::write(pty_.master(), "data", 4), 4);
    EXPECT_EQ(read(), 4);
    EXPECT_STREQ(buffer_, "data");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(read(), 0);
    // Nothing is left of the cancellations: the next read waits.
    std::thread far([this, polls = kiv_sim_calls(KIV_SIM_POLL) + 1] {
        kiv_sim_wait_calls(KIV_SIM_POLL, polls);
        EXPECT_EQ(::write(pty_.master(), "more", 4), 4);
    });
    EXPECT_EQ(read(), 4);
    EXPECT_STREQ(buffer_, "more");
    far.join();
    EXPECT_EQ(kiv_linux_sclose_cancel(s_), 1); // never used: no matter to the closing
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
    }
    ASSERT_EQ(kiv_linux_sclose_cancel(s_), 1);
    ASSERT_EQ(kiv_sim_answer_poll(1, 1, hang_up_and_cancel, 2), 0);
    EXPECT_EQ(read(), 0);
}

TEST_F(SfdTest, AFailureIsToldByItsOwnErrno) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_PIPE, 1, 1, ENFILE), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 3, EIO), 0); // on the way out, and of the pipe
    EXPECT_EQ(kiv_linux_sopen(pty_.path().c_str(), O_RDWR | O_NOCTTY), nullptr);
    EXPECT_EQ(errno, ENFILE);
}

} // namespace
} // namespace kiv::test
