// The board's frame, proven by the system calls themselves: which calls it takes, changes and passes on.

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "fixtures/board.h"

namespace kiv::test {
namespace {

// An errno that none of the calls here gives by itself.
constexpr int unreal = EL2HLT;

class SimFaults : public BoardTest {};

extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t room);
int __poll_chk(pollfd *entries, nfds_t count, int timeout, size_t room);
}

iovec no_piece = {.iov_base = nullptr, .iov_len = 0};
timespec no_time = {.tv_sec = 0, .tv_nsec = 0};
char byte;
socklen_t one = 1;

// What the library itself does not call: each makes the call, and tells whether it failed.
const struct Spelling {
    kiv_sim_call kind;
    bool (*fails)();
} spellings[] = {
    {KIV_SIM_OPEN, [] { return ::open64("/nowhere", O_RDONLY) == -1; }},
    {KIV_SIM_OPEN, [] { return ::openat(AT_FDCWD, "/nowhere", O_RDONLY) == -1; }},
    {KIV_SIM_OPEN, [] { return ::openat64(AT_FDCWD, "/nowhere", O_RDONLY) == -1; }},
    {KIV_SIM_OPEN, [] { return __open_2("/nowhere", O_RDONLY) == -1; }},
    {KIV_SIM_OPEN, [] { return __open64_2("/nowhere", O_RDONLY) == -1; }},
    {KIV_SIM_FOPEN, [] { return ::fopen64("/nowhere", "r") == nullptr; }},
    {KIV_SIM_READ, [] { return __read_chk(-1, &byte, 1, 1) == -1; }},
    {KIV_SIM_READV, [] { return ::readv(-1, &no_piece, 1) == -1; }},
    {KIV_SIM_RECV, [] { return ::recv(-1, &byte, 1, 0) == -1; }},
    {KIV_SIM_POLL, [] { return __poll_chk(nullptr, 0, 0, 0) == -1; }},
    {KIV_SIM_PSELECT, [] { return ::pselect(0, nullptr, nullptr, nullptr, &no_time, nullptr) == -1; }},
    {KIV_SIM_FCNTL, [] { return ::fcntl64(-1, F_GETFL) == -1; }},
    {KIV_SIM_DUP, [] { return ::dup(-1) == -1; }},
    {KIV_SIM_DUP2, [] { return ::dup3(-1, 0, 0) == -1; }},
    {KIV_SIM_ACCEPT, [] { return ::accept4(-1, nullptr, nullptr, 0) == -1; }},
    {KIV_SIM_GETSOCKOPT, [] { return ::getsockopt(-1, 0, 0, &byte, &one) == -1; }},
    {KIV_SIM_SHUTDOWN, [] { return ::shutdown(-1, SHUT_RD) == -1; }},
    {KIV_SIM_NANOSLEEP, [] { return ::nanosleep(&no_time, nullptr) == -1; }},
    {KIV_SIM_NANOSLEEP,
     [] { return (errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, &no_time, nullptr)) != 0; }},
};

TEST_F(SimFaults, EverySpellingIsCountedAndFailsOnceWithTheErrnoAskedFor) {
    for (const auto &[kind, fails] : spellings) {
        SCOPED_TRACE(kiv_sim_call_name(kind));
        const auto failure = [call = fails] {
            errno = 0;
            const bool failed = call();
            return std::pair(failed, errno);
        };
        const auto undisturbed = failure();
        const unsigned calls = kiv_sim_calls(kind);
        ASSERT_EQ(kiv_sim_fail(kind, 1, 1, unreal), 0);
        EXPECT_EQ(failure(), std::pair(true, unreal));
        EXPECT_EQ(failure(), undisturbed);
        EXPECT_EQ(kiv_sim_calls(kind), calls + 2);
        kiv_sim_clear_faults();
    }
}

// Several count the same calls, and the older one wins.
TEST_F(SimFaults, ChangeTheNthCallSoManyTimes) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_LISTEN, 2, 1, unreal), 0);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_LISTEN, 1, 3, 7), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_LISTEN, 6, KIV_SIM_ALWAYS, unreal), 0);
    std::string seen;
    for (int i = 0; i < 8; ++i) {
        const int answer = ::listen(-1, 1);
        seen += answer == 7 ? '7' : errno == unreal ? 'x' : '.';
    }
    EXPECT_EQ(seen, "7x7..xxx");
    EXPECT_EQ(kiv_sim_faults_fired(), 6U);
}

TEST_F(SimFaults, CanBeBoundToARequestOrAThread) {
    int value = 0;
    ASSERT_EQ(kiv_sim_fail_ioctl(TIOCMGET, 1, 1, unreal), 0);
    EXPECT_EQ(error_of(::ioctl(-1, FIONREAD, &value)), EBADF);
    EXPECT_EQ(error_of(::ioctl(-1, TIOCMGET, &value)), unreal);

    kiv_sim_fault mine = {};
    mine.call = KIV_SIM_DUP;
    mine.nth = 1;
    mine.error = unreal;
    mine.this_thread = 1;
    ASSERT_EQ(kiv_sim_arm(&mine), 0);
    std::thread([&] { ::close(::dup(STDERR_FILENO)); }).join();
    EXPECT_EQ(kiv_sim_faults_fired(), 1U);
    EXPECT_EQ(error_of(::dup(STDERR_FILENO)), unreal);
}

TEST_F(SimFaults, ThatMakeNoSenseAreRefused) {
    EXPECT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 0, 1, unreal), EINVAL);
    EXPECT_EQ(kiv_sim_answer(KIV_SIM_FOPEN, 1, 1, 1), EINVAL);
    for (int i = 0; i < KIV_SIM_MAX_FAULTS; ++i)
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, unreal), 0);
    EXPECT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, unreal), ENOSPC);
}

TEST_F(SimFaults, AClosedDescriptorIsClosedWhateverCloseReports) {
    const int failing = ::dup(STDERR_FILENO);
    const int answered = ::dup(STDERR_FILENO);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EINTR), 0);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_CLOSE, 2, 1, 3), 0);
    EXPECT_EQ(error_of(::close(failing)), EINTR);
    EXPECT_EQ(::close(answered), 3);
    EXPECT_TRUE(::fcntl(failing, F_GETFD) == -1 && ::fcntl(answered, F_GETFD) == -1);
}

TEST_F(SimFaults, AnAnsweredWaitReportsWhatItIsTold) {
    pollfd entries[2] = {{-1, POLLIN, 0}, {-1, POLLOUT, 0}};
    const short hung[] = {POLLERR | POLLHUP};
    ASSERT_EQ(kiv_sim_answer_poll(1, 1, hung, 1), 0);
    EXPECT_EQ(::poll(entries, 2, -1), 1);
    EXPECT_TRUE(entries[0].revents == hung[0] && entries[1].revents == 0);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_POLL, 1, 1, 0), 0);
    EXPECT_EQ(::poll(entries, 2, -1), 0);
    EXPECT_TRUE(entries[0].revents == 0 && entries[1].revents == 0);

    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(STDERR_FILENO, &writable);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_SELECT, 1, 1, 0), 0);
    EXPECT_EQ(::select(STDERR_FILENO + 1, nullptr, &writable, nullptr, nullptr), 0);
    EXPECT_FALSE(FD_ISSET(STDERR_FILENO, &writable));
}

TEST_F(SimFaults, WhatTheBoardDoesNotKnowGoesThroughUntouched) {
    const std::string path = ::testing::TempDir() + "kiv-sim-mode";
    ::unlink(path.c_str());
    errno = unreal;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    struct stat made = {};
    EXPECT_EQ(::fstat(fd, &made), 0);
    EXPECT_EQ(made.st_mode & 0777U, 0600U);
    EXPECT_EQ(::write(fd, "text", 4), 4);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_EQ(::unlink(path.c_str()), 0);
    EXPECT_EQ(errno, unreal);
    EXPECT_EQ(error_of(::open("/dev/ttyKIV", O_RDWR)), ENOENT);
    EXPECT_EQ(error_of(::open("/dev/ttyKIV00", O_RDWR)), ENOENT);
    // Through a pointer, which has no promise to the compiler that the path is not null.
    const auto any_open = reinterpret_cast<int (*)(const char *, int, ...)>(::dlsym(RTLD_DEFAULT, "open"));
    EXPECT_EQ(error_of(any_open(nullptr, O_RDWR)), EFAULT);
    // Nor do faults change what is said on the standard streams.
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITE, 1, KIV_SIM_ALWAYS, unreal), 0);
    EXPECT_EQ(::write(STDERR_FILENO, "", 0), 0);
}

} // namespace
} // namespace kiv::test
