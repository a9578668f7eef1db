// Opening a port: which transport, how a tty is set up, and what is left when a step fails.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>
#include <unistd.h>

#include "fixtures/pty.h"
#include "fixtures/serial.h"

namespace kiv::test {
namespace {

class UartOpen : public SerialTest {
  protected:
    static std::string traced(const std::string &text, int error) {
        return trace(uart, "sup_uart_Init2", text, error);
    }
};

constexpr const char *text_of_open =
    "UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY)";
constexpr const char *text_of_speed = "ret = uart_set_speed(&termios_p, speed)";

TEST_F(UartOpen, NullArgumentsAreRefusedAndLeaveTheRecordAlone) {
    UART_infos before;
    std::memset(&before, 0x5A, sizeof before);
    port_ = before;
    const UART_status_cb callbacks{};
    EXPECT_EQ(sup_uart_Init2(nullptr, path, 9, 0, &callbacks), EINVAL);
    EXPECT_EQ(sup_uart_Init(nullptr, nullptr, 9, 0), EINVAL);
    EXPECT_EQ(sup_uart_Init2(&port_, nullptr, 9, 0, &callbacks), EINVAL);
    EXPECT_EQ(std::memcmp(&port_, &before, sizeof before), 0);
    const auto record = asserted(uart, "sup_uart_Init2", "(UART_infos) != ((void *)0)");
    const auto name = asserted(uart, "sup_uart_Init2", "(device_name) != ((void *)0)");
    EXPECT_EQ(reports(), Reports({record, record, name}));
}

TEST_F(UartOpen, NameSelectsTheTransport) {
    std::memset(&port_, 0x5A, sizeof port_);
    for (const char *name : {"tcpout:1234", "tcpout:127.0.0.1:1", "tcpout:"}) {
        EXPECT_EQ(sup_uart_Init(&port_, name, 9, 0), ENODEV) << name;
        EXPECT_EQ(port_.magic, 0U);
        EXPECT_EQ(port_.fd, -1);
        EXPECT_EQ(reports(), Reports({logged(1, "tcpout support is not enabled\n")}));
    }
    for (const char *name : {"", "unix", "unixfoo", "tcp", "TCP:1", " tcp:1", "tcpout", "btsyspath", "hc"}) {
        EXPECT_EQ(sup_uart_Init(&port_, name, 9, 0), ENOENT) << name;
        EXPECT_EQ(reports(), Reports({traced(text_of_open, ENOENT)}));
    }
    ASSERT_EQ(sup_uart_Init(&port_, "tcp:", 12345, 2), 0); // the speed does not concern it
    EXPECT_EQ(port_.magic, UART_MAGIC);
    EXPECT_EQ(port_.flags & 3U, UART_FLAG_STREAM);
    EXPECT_EQ(port_.kiv_linux_sfd, nullptr);
    close();
}

// Speeds --------------------------------------------------------------------------------------------------

TEST_F(UartOpen, EverySpeedCodeSetsItsBits) {
    const struct {
        unsigned code;
        uint32_t bits;
        unsigned rate;
    } codes[] = {
        {0, 0x0000, 0},           {1, 0x000B, 2400},          {2, 0x000C, 4800},
        {4, 0x000D, 9600},        {6, 0x000E, 19200},         {7, 0x000F, 38400},
        {8, 0x1001, 57600},       {9, 0x1002, 115200},        {11, 0x1003, 230400},
        {13, 0x1004, 460800},     {15, 0x1007, 921600},       {16, 0x100A, 1500000},
        {17, 0x100B, 2000000},    {18, 0x100D, 3000000},      {250000, 0x1000, 250000},
        {115201, 0x1000, 115201}, {3999999, 0x1000, 3999999},
    };
    for (const auto &each : codes) {
        open(each.code);
        EXPECT_EQ(state().c_cflag & baud_bits, each.bits) << each.code;
        EXPECT_EQ(state().c_ispeed, each.rate) << each.code;
        EXPECT_EQ(state().c_ospeed, each.rate) << each.code;
        EXPECT_EQ((state().modem & KIV_SIM_DTR) != 0, each.code != 0) << each.code;
        close();
    }
}

TEST_F(UartOpen, RefusedSpeedsLeaveNothingOpenAndTheLineAsItWas) {
    for (const unsigned speed : {3U, 5U, 10U, 12U, 14U, 19U, 9600U, 115200U}) {
        EXPECT_EQ(sup_uart_Init(&port_, path, speed, 1), EINVAL) << speed;
        EXPECT_EQ(port_.magic, 0U);
        EXPECT_EQ(reports(), Reports({traced(text_of_speed, EINVAL)}));
        EXPECT_EQ(state().near_ends, 0U);
        EXPECT_EQ(state().settings_set, 0U);
    }
}

// The board's lines write a standard rate back as its code, as some drivers do; a pseudo-terminal keeps what
// it was given.
TEST_F(UartOpen, RateAsNumberIsGivenWithBothSpeeds) {
    const Pty pty;
    if (!pty.works() || sup_uart_Init(&port_, pty.path().c_str(), 11, 0) != 0) {
        reports();
        GTEST_SKIP() << "no pseudo-terminal that takes the requests";
    }
    Settings now{};
    ASSERT_EQ(::ioctl(port_.fd, get_settings, &now), 0);
    EXPECT_EQ(now.cflag & baud_bits, 0x1003U);
    close();
    ASSERT_EQ(sup_uart_Init(&port_, pty.path().c_str(), 230400, 0), 0);
    ASSERT_EQ(::ioctl(port_.fd, get_settings, &now), 0);
    EXPECT_EQ(now.cflag & baud_bits, baud_other);
    EXPECT_EQ(now.ispeed, 230400U);
    EXPECT_EQ(now.ospeed, 230400U);
    close();
}

// Set-up --------------------------------------------------------------------------------------------------

TEST_F(UartOpen, RawMakingTouchesItsOwnBitsOnly) {
    Settings all{};
    all.iflag = all.oflag = all.cflag = all.lflag = 0xFFFFFFFF;
    all.line = 3;
    std::memset(all.cc, 0x11, sizeof all.cc);
    all.ispeed = all.ospeed = 31250;
    Settings none{};
    for (const Settings &before : {all, none}) {
        ASSERT_NO_FATAL_FAILURE(preset(before));
        const auto was = state();
        open(UART_SPEED_9600);
        const auto now = state();
        EXPECT_EQ(now.c_iflag, was.c_iflag & ~0x5EBU);
        EXPECT_EQ(now.c_oflag, was.c_oflag & ~0x1U);
        EXPECT_EQ(now.c_lflag, was.c_lflag & ~0x804BU);
        // Eight bits, no parity, local, 9600 and no flow control; among the rest CIBAUD is kept.
        EXPECT_EQ(now.c_cflag, (was.c_cflag & ~(0x130U | baud_bits | rts_cts)) | 0x830U | 0x000DU);
        EXPECT_EQ(now.c_line, was.c_line);
        for (unsigned i = 0; i < std::size(now.c_cc); ++i)
            EXPECT_EQ(now.c_cc[i], i == 5 ? 0 : i == 6 ? 1 : was.c_cc[i]) << "c_cc " << i; // VTIME, VMIN
        close();
        release_output();
    }
}

TEST_F(UartOpen, FlowControlFollowsBitZeroOfTheOptions) {
    for (const unsigned options : {1U, 0U, 0xFFFFFFFFU, 0xFFFFFFFEU}) {
        open(UART_SPEED_115200, options);
        EXPECT_EQ((state().c_cflag & rts_cts) != 0, (options & 1U) != 0) << options;
        EXPECT_EQ(port_.flags, 0U);
        EXPECT_EQ(port_.fd, kiv_linux_sfdno(port_.kiv_linux_sfd));
        close();
    }
}

TEST_F(UartOpen, NeitherTerminalNorControllingTerminalIsNeeded) {
    // The kernel says ENOTTY; an emulated one may not know the request at all.
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    std::array<char, 64> settings{};
    ASSERT_EQ(::ioctl(null, 0x802C542A, settings.data()), -1);
    const int refusal = errno;
    ::close(null);
    EXPECT_EQ(sup_uart_Init(&port_, "/dev/null", 9, 0), refusal);
    EXPECT_EQ(reports(), Reports({traced("ret = kiv_tcgetattr(UART_infos->fd, &termios_p)", refusal)}));
    EXPECT_EQ(sup_uart_Init(&port_, "/", 9, 0), EISDIR); // opened for writing too
    EXPECT_EQ(reports(), Reports({traced(text_of_open, EISDIR)}));
}

// Callbacks -----------------------------------------------------------------------------------------------

struct Calls {
    unsigned count = 0;
    uint32_t magic = 1;
    int32_t fd = -1;
};

void note(UART_infos *port, void *context) {
    auto *calls = static_cast<Calls *>(context);
    ++calls->count;
    calls->magic = port->magic;
    calls->fd = port->fd;
}

TEST_F(UartOpen, ConnectedIsCalledOnceBeforeTheRecordCountsAsOpen) {
    Calls calls;
    const UART_status_cb callbacks = {note, nullptr, &calls};
    ASSERT_EQ(sup_uart_Init2(&port_, path, 9, 0, &callbacks), 0);
    EXPECT_EQ(calls.count, 1U);
    EXPECT_EQ(calls.magic, 0U);
    EXPECT_EQ(calls.fd, port_.fd);
    EXPECT_EQ(std::memcmp(&port_.status_cb, &callbacks, sizeof callbacks), 0);
    close();
    EXPECT_EQ(calls.count, 1U);
    // The record's own callbacks, given again.
    ASSERT_EQ(sup_uart_Init2(&port_, path, 9, 0, &port_.status_cb), 0);
    EXPECT_EQ(calls.count, 2U);
    close();
    EXPECT_EQ(sup_uart_Init2(&port_, path, 3, 0, &port_.status_cb), EINVAL);
    EXPECT_EQ(calls.count, 2U);
    EXPECT_EQ(reports().size(), 1U);
    open(); // without callbacks: the old ones are forgotten
    EXPECT_EQ(calls.count, 2U);
    EXPECT_EQ(port_.status_cb.connected, nullptr);
    close();
}

// Failing steps -------------------------------------------------------------------------------------------

TEST_F(UartOpen, EachFailingStepGivesItsErrorAndLeavesNothing) {
    const struct {
        std::function<int()> arm;
        int error;
        const char *text;
    } steps[] = {
        {[] { return kiv_sim_fail(KIV_SIM_OPEN, 1, 1, EACCES); }, EACCES, text_of_open},
        {[] { return kiv_sim_fail(KIV_SIM_OPEN, 1, 1, EINTR); }, EINTR, text_of_open},
        {[] { return kiv_sim_fail(KIV_SIM_CALLOC, 1, 1, ENOMEM); }, ENOMEM, text_of_open},
        {[] { return kiv_sim_fail(KIV_SIM_PIPE, 1, 1, EMFILE); }, EMFILE, text_of_open},
        {[] { return kiv_sim_fail_ioctl(get_settings, 1, 1, EIO); }, EIO,
         "ret = kiv_tcgetattr(UART_infos->fd, &termios_p)"},
        {[] { return kiv_sim_fail_ioctl(set_settings, 1, 1, EINTR); }, EINTR,
         "ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)"},
    };
    Calls calls;
    const UART_status_cb callbacks = {note, nullptr, &calls};
    for (const auto &step : steps) {
        if (step.arm() != 0)
            continue; // allocation under a sanitizer
        // Closing fails as well, and must not hide the first error.
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 3, EIO), 0);
        EXPECT_EQ(sup_uart_Init2(&port_, path, 9, 0, &callbacks), step.error) << step.text;
        EXPECT_EQ(reports(), Reports({traced(step.text, step.error)}));
        EXPECT_EQ(port_.magic, 0U);
        EXPECT_EQ(calls.count, 0U);
        EXPECT_EQ(state().near_ends, 0U);
        kiv_sim_clear_faults();
        open(); // whatever the failure left in the record
        close();
    }
}

} // namespace
} // namespace kiv::test
