// The board's frame, for programs of all kinds: what the tests of the library's ports do not show.

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "fixtures/board.h"

namespace kiv::test {
namespace {

// An errno that none of the calls here gives by itself.
constexpr int unreal = EL2HLT;

using Bytes = std::vector<std::uint8_t>;

class Sim : public BoardTest {};

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

TEST_F(Sim, EverySpellingIsCountedAndFailsOnceWithTheErrnoAskedFor) {
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

TEST_F(Sim, WhatTheBoardDoesNotKnowGoesThroughUntouched) {
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

TEST_F(Sim, ACopyOfADescriptorIsTheSameDevice) {
    const int fd = ::open("/dev/ttyKIV0", O_RDWR | O_NOCTTY);
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(copy, 100);
    ::close(fd);
    EXPECT_EQ(::write(copy, "x", 1), 1);
    EXPECT_EQ(::dup2(STDERR_FILENO, copy), copy) << "takes the place of the copy";
    kiv_sim_line_state state;
    EXPECT_EQ(kiv_sim_line_inspect(0, &state), 0);
    EXPECT_EQ(state.near_ends, 0U);
    EXPECT_EQ(state.sent, 1U);
    ::close(copy);
}

TEST_F(Sim, ADescriptorThatWasClosedBehindItsBackIsKnown) {
    const int fd = ::open("/dev/ttyKIV0", O_RDWR | O_NOCTTY);
    ASSERT_EQ(::syscall(SYS_close, fd), 0);
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(other, fd);
    termios settings;
    EXPECT_EQ(error_of(::ioctl(other, TCGETS, &settings)), ENOTTY);
    ::close(other);
}

// What the i2c-tools do not ask for; the clock chip has memory from register 8 on.
TEST_F(Sim, MakesMessagesOfSmbusOperations) {
    const int fd = ::open("/dev/i2c-0", O_RDWR);
    ASSERT_EQ(::ioctl(fd, I2C_SLAVE, KIV_SIM_I2C_CLOCK), 0);
    i2c_smbus_data data = {};
    const auto ask = [&](char direction, unsigned operation, unsigned command = 8) {
        i2c_smbus_ioctl_data wanted = {static_cast<std::uint8_t>(direction),
                                       static_cast<std::uint8_t>(command), operation, &data};
        return error_of(::ioctl(fd, I2C_SMBUS, &wanted));
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
    ::close(fd);
}

} // namespace
} // namespace kiv::test
