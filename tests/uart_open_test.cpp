// Opening a port: which transport, how a tty is set up, and what is left when a step fails.

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "fixtures/serial.h"
#include "fixtures/unix_service.h"

namespace kiv::test {
namespace {

class UartOpen : public SerialTest {
  protected:
    static std::string traced(const std::string &text, int error) {
        return trace(uart, "sup_uart_Init2", text, error);
    }
};

TEST_F(UartOpen, NameSelectsTheTransport) {
    std::memset(&port_, 0x5A, sizeof port_);
    EXPECT_EQ(sup_uart_Init(&port_, "tcpout:127.0.0.1:1", 9, 0), ENODEV);
    EXPECT_EQ(port_.magic, 0U);
    EXPECT_EQ(port_.fd, -1);
    EXPECT_EQ(reports(), Reports({logged(1, "tcpout support is not enabled\n")}));
    for (const char *name : {"", "unix", "tcp", "TCP:1", " tcp:1", "tcpout", "btsyspath", "hc"}) {
        EXPECT_EQ(sup_uart_Init(&port_, name, 9, 0), ENOENT) << name;
        EXPECT_EQ(reports(), Reports({traced(text_of_open, ENOENT)}));
    }
    ASSERT_EQ(sup_uart_Init(&port_, "tcp:", 12345, 2), 0); // the speed does not concern it
    EXPECT_EQ(port_.magic, UART_MAGIC);
    EXPECT_EQ(port_.flags & 3U, UART_FLAG_STREAM);
    EXPECT_EQ(port_.kiv_linux_sfd, nullptr);
    close();
}

// Codes up to 18, then rates as numbers, of which only those above the highest coded one are taken.
TEST_F(UartOpen, SpeedsSetTheirBitsOrAreRefused) {
    constexpr uint32_t refused = ~0U;
    struct Speed {
        unsigned number;
        uint32_t bits;
    };
    constexpr Speed speeds[] = {
        {0, 0x0000},       {1, 0x000B},          {2, 0x000C},           {3, refused}, {4, 0x000D},
        {5, refused},      {6, 0x000E},          {7, 0x000F},           {8, 0x1001},  {9, 0x1002},
        {10, refused},     {11, 0x1003},         {12, refused},         {13, 0x1004}, {14, refused},
        {15, 0x1007},      {16, 0x100A},         {17, 0x100B},          {18, 0x100D}, {19, refused},
        {115200, refused}, {115201, baud_other}, {3999999, baud_other},
    };
    for (const auto &[number, bits] : speeds) {
        SCOPED_TRACE(number);
        const unsigned set_before = state().settings_set;
        const bool taken = bits != refused;
        EXPECT_EQ(sup_uart_Init(&port_, tty_path, number, 1), taken ? 0 : EINVAL);
        EXPECT_EQ(port_.magic, taken ? UART_MAGIC : 0);
        EXPECT_EQ(state().settings_set, set_before + (taken ? 1 : 0));
        if (taken) {
            EXPECT_EQ(state().c_cflag & baud_bits, bits);
            if (bits == baud_other) {
                EXPECT_EQ(state().c_ospeed, number);
            }
            close();
        } else {
            EXPECT_EQ(reports(), Reports({traced(text_of_speed, EINVAL)}));
            EXPECT_EQ(state().near_ends, 0U);
        }
    }
}

TEST_F(UartOpen, RawMakingTouchesItsOwnBitsOnly) {
    Settings all{};
    all.iflag = all.oflag = all.cflag = all.lflag = 0xFFFFFFFF;
    all.line = 3;
    std::memset(all.cc, 0x11, sizeof all.cc);
    all.ispeed = all.ospeed = 31250;
    for (const Settings &before : {all, Settings{}}) {
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
        EXPECT_EQ(state().c_lflag & 0x804BU, 0U) << "the line is raw whatever the options";
        EXPECT_EQ(port_.flags, 0U);
        EXPECT_EQ(port_.fd, kiv_linux_sfdno(port_.kiv_linux_sfd));
        close();
    }
}

TEST_F(UartOpen, ConnectedIsCalledOnceBeforeTheRecordCountsAsOpen) {
    struct {
        unsigned count = 0;
        uint32_t magic = 1;
        int32_t fd = -1;
    } seen;
    const auto note = [](UART_infos *port, void *context) {
        auto &calls = *static_cast<decltype(seen) *>(context);
        calls = {calls.count + 1, port->magic, port->fd};
    };
    const UART_status_cb callbacks = {note, nullptr, &seen};
    ASSERT_EQ(sup_uart_Init2(&port_, tty_path, 9, 0, &callbacks), 0);
    EXPECT_EQ(seen.count, 1U);
    EXPECT_EQ(seen.magic, 0U);
    EXPECT_EQ(seen.fd, port_.fd);
    close();
    // The record's own callbacks, given again; and an opening that fails in its last step.
    ASSERT_EQ(sup_uart_Init2(&port_, tty_path, 9, 0, &port_.status_cb), 0);
    EXPECT_EQ(seen.count, 2U);
    close();
    ASSERT_EQ(kiv_sim_fail_ioctl(set_settings, 1, 1, EINTR), 0);
    EXPECT_EQ(sup_uart_Init2(&port_, tty_path, 9, 0, &port_.status_cb), EINTR);
    EXPECT_EQ(seen.count, 2U);
    EXPECT_EQ(port_.magic, 0U);
    EXPECT_EQ(reports(), Reports({traced(text_of_set, EINTR)}));
    open(); // without callbacks: the old ones are forgotten
    EXPECT_EQ(seen.count, 2U);
    close();
}

// Descriptors, and objects on the heap. What a module keeps for all its ports is there after the first
// opening.
TEST_F(UartOpen, AnOpenPortHoldsNoMoreThanItsData) {
    UnixService service(own_name("held"));
    service.start();
    const std::string local = "unix:" + service.name();
    const bool counts = kiv_sim_reaches(KIV_SIM_MALLOC) != 0;
    const auto objects = [] { return kiv_sim_calls(KIV_SIM_MALLOC) + kiv_sim_calls(KIV_SIM_CALLOC); };
    const auto open_port = [this](const char *name) {
        ASSERT_EQ(sup_uart_Init(&port_, name, UART_SPEED_115200, 0), 0);
    };
    struct Row {
        const char *name;
        std::size_t descriptors, of_board; // what the board keeps open for its device, too
        unsigned objects;
    };
    // A tty has a pipe that cancels its reads; the object holds both. The object of a Unix port is its
    // address.
    const Row rows[] = {{tty_path, 3, 2, 1}, {"tcp:", 1, 0, 0}, {local.c_str(), 1, 0, 1}, {"hci0", 1, 1, 0}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        open_port(row.name);
        close();
        const std::size_t descriptors = open_descriptors().size();
        const unsigned before = objects();
        open_port(row.name);
        const unsigned made = objects() - before;
        EXPECT_EQ(made, counts ? row.objects : 0U);
        EXPECT_EQ(open_descriptors().size() - descriptors, row.descriptors + row.of_board);
        close();
    }
}

} // namespace
} // namespace kiv::test
