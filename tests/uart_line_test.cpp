// Line control and closing: the termios block, the modem lines, the queues.

#include <cerrno>
#include <cstring>
#include <thread>

#include "fixtures/serial.h"

namespace kiv::test {
namespace {

struct Change {
    const char *function;
    int (*call)(UART_infos *, unsigned int);
};
constexpr Change speed = {"sup_uart_Change_Speed", sup_uart_Change_Speed};
constexpr Change parity = {"sup_uart_Change_Parity", sup_uart_Change_Parity};
constexpr Change stop_bits = {"sup_uart_Change_StopBitsNumber", sup_uart_Change_StopBitsNumber};
constexpr Change flow_control = {"sup_uart_RTS_Enable", sup_uart_RTS_Enable};

class UartLine : public SerialTest {
  protected:
    static void wait_for_drain() {
        kiv_sim_line_wait(
            0, [](const kiv_sim_line_state *now, void *) { return now->drains_waiting > 0 ? 1 : 0; },
            nullptr);
    }
    // A blocked read that a stop has ended, or is going to end.
    void expect_stopped_read() {
        char byte;
        unsigned int length = 1;
        EXPECT_EQ(sup_uart_Read(&port_, &byte, &length), EIO);
        EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_Read")}));
    }
};

// Changes ---------------------------------------------------------------------------------------------------

TEST_F(UartLine, ChangesTouchTheirOwnBitsOnlyOrAreRefused) {
    const struct {
        const Change &change;
        unsigned int value;
        uint32_t cleared, set;
        int status = 0;
    } rows[] = {
        {parity, 1, 0, parity_on | parity_odd},
        {parity, 2, 0, parity_on}, // odd, as it was
        {parity, 0, parity_on, 0},
        {parity, 3, 0, 0, -EINVAL},
        {stop_bits, 2, 0, two_stop_bits},
        {stop_bits, 0, two_stop_bits, 0},
        {stop_bits, 1, 0, 0, -EINVAL},
        {stop_bits, 3, 0, 0, -EINVAL},
        {flow_control, 7, 0, rts_cts},
        {speed, 4, baud_bits, 0x000D},
        {speed, 250000, baud_bits, baud_other},
        {speed, 19, 0, 0, EINVAL},
        {flow_control, 0, rts_cts, 0},
    };
    Settings odd{};
    odd.cflag = 0x11A6 | 0x5A000000; // every bit that has no part in this
    ASSERT_NO_FATAL_FAILURE(preset(odd));
    open();
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const auto was = state();
        EXPECT_EQ(row.change.call(&port_, row.value), row.status);
        const auto now = state();
        EXPECT_EQ(now.c_cflag, (was.c_cflag & ~row.cleared) | row.set);
        EXPECT_EQ(now.c_iflag, was.c_iflag);
        EXPECT_EQ(now.c_oflag, was.c_oflag);
        EXPECT_EQ(now.c_lflag, was.c_lflag);
        EXPECT_EQ(now.settings_set - was.settings_set, row.status == 0 ? 1U : 0U);
        EXPECT_EQ(now.drains - was.drains, &row.change == &flow_control ? 0U : 1U);
        Reports expected;
        if (row.status == EINVAL)
            expected.push_back(trace(uart, row.change.function, text_of_speed, EINVAL));
        if (row.status != 0)
            expected.push_back(warned(uart, row.change.function));
        EXPECT_EQ(reports(), expected);
    }
    EXPECT_EQ(state().c_ospeed, 250000U);
    close();
}

TEST_F(UartLine, FailedStopReleasesTheReaderAllTheSame) {
    open();
    for (const unsigned long request : {drain_output, set_settings}) {
        ASSERT_EQ(kiv_sim_fail_ioctl(request, 1, 1, EIO), 0);
        EXPECT_EQ(sup_uart_Stop_UART(&port_), EIO);
        EXPECT_EQ(reports().size(), 3U);
        expect_stopped_read();
    }
    close();
}

// Output that flow control holds ----------------------------------------------------------------------------

TEST_F(UartLine, ChangeWaitsForHeldOutputAndTheOthersDoNot) {
    open_held();
    ASSERT_EQ(sup_uart_Send(&port_, "held", 4), 0);
    const unsigned set_before = state().settings_set;
    std::thread changer([&] { EXPECT_EQ(sup_uart_Change_Speed(&port_, 4), 0); });
    wait_for_drain();
    EXPECT_EQ(state().settings_set, set_before);
    EXPECT_EQ(sup_uart_RTS_Enable(&port_, 1), 0);
    EXPECT_EQ(sup_uart_Flush(&port_, UART_FLUSH_INPUT), 0);
    EXPECT_EQ(state().drains_waiting, 1U);
    EXPECT_EQ(sent(), "");
    release_output();
    changer.join();
    EXPECT_EQ(sent(), "held");
    EXPECT_EQ(state().settings_set, set_before + 2);
    close();
}

TEST_F(UartLine, StopWaitsForHeldOutputBeforeItReleasesTheReader) {
    open_held();
    ASSERT_EQ(sup_uart_Send(&port_, "held", 4), 0);
    std::thread stopper([&] { EXPECT_EQ(sup_uart_Stop_UART(&port_), 0); });
    wait_for_drain();
    ASSERT_EQ(sup_uart_Flush(&port_, UART_FLUSH_OUTPUT), 0); // the way out of a line that stays held
    expect_stopped_read();
    stopper.join();
    EXPECT_EQ(sent(), "");
    close();
    release_output();
}

// Queues and modem lines ------------------------------------------------------------------------------------

TEST_F(UartLine, FlushDiscardsWhatItsFlagNames) {
    const struct {
        unsigned int flag;
        std::size_t input_left, output_left;
    } rows[] = {{UART_FLUSH_INPUT, 0, 3}, {UART_FLUSH_OUTPUT, 2, 0}, {FLUSH_ALL, 0, 0}, {7, 0, 0}};
    for (const auto &row : rows) {
        open_held();
        feed("in");
        ASSERT_EQ(sup_uart_Send(&port_, "out", 3), 0);
        EXPECT_EQ(sup_uart_Flush(&port_, row.flag), 0);
        EXPECT_EQ(state().input_queued, row.input_left) << row.flag;
        EXPECT_EQ(state().output_queued, row.output_left) << row.flag;
        Reports expected;
        if (row.flag > FLUSH_ALL)
            expected = {asserted(uart, "sup_uart_Flush", "flag>=0 && flag <=FLUSH_ALL"),
                        asserted(uart, "sup_uart_Flush", "0")};
        EXPECT_EQ(reports(), expected);
        release_output();
        sent();
        close();
    }
}

TEST_F(UartLine, RtsIsRaisedByZeroAndDroppedByAnythingElse) {
    open();
    for (const unsigned manage : {1U, 0U, 0xFFFFFFFFU}) {
        const unsigned others = state().modem & ~static_cast<unsigned>(KIV_SIM_RTS);
        sup_uart_RTS_Manage(&port_, manage);
        EXPECT_EQ(state().modem, manage == 0 ? others | KIV_SIM_RTS : others);
    }
    // A driver that answers the request with a number of its own is warned of, without an errno.
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 2, 1, 1), 0);
    sup_uart_RTS_Manage(&port_, UART_RTS_DROP);
    EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_RTS_Manage")}));
    close();
}

// Ports that are no ttys ------------------------------------------------------------------------------------

TEST_F(UartLine, StreamPortsAreLeftAloneUnlessTheyHaveASlot) {
    for (const uint32_t flags : {1U, 2U, 0xFFFFFFFDU}) {
        open(); // a tty, so that a request would succeed
        const unsigned requests = kiv_sim_calls(KIV_SIM_IOCTL);
        port_.flags = flags;
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 3), 0);
        EXPECT_EQ(sup_uart_Change_Parity(&port_, 9), 0);
        EXPECT_EQ(sup_uart_Change_StopBitsNumber(&port_, 9), 0);
        EXPECT_EQ(sup_uart_RTS_Enable(&port_, 1), 0);
        EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
        sup_uart_RTS_Manage(&port_, 1);
        EXPECT_EQ(sup_uart_Flush(&port_, 3), 0); // one of the two assertions only
        EXPECT_EQ(reports(), Reports({asserted(uart, "sup_uart_Flush", "flag>=0 && flag <=FLUSH_ALL")}));
        port_.change_speed = [](UART_infos *, unsigned int value) { return static_cast<int>(value); };
        port_.change_parity = [](UART_infos *, unsigned int value) { return -static_cast<int>(value); };
        port_.change_stop_bits = [](UART_infos *, unsigned int value) { return static_cast<int>(value) + 1; };
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 1234), 1234);
        EXPECT_EQ(sup_uart_Change_Parity(&port_, 5), -5);
        EXPECT_EQ(sup_uart_Change_StopBitsNumber(&port_, 5), 6);
        port_.flags = 0; // a slot goes first on a tty as well
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 77), 77);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), requests);
        close();
    }
}

// Closing ---------------------------------------------------------------------------------------------------

// Its values stay, but what it is used for by mistake fails and hits nobody.
TEST_F(UartLine, AClosedTtyIsLeftAlone) {
    open();
    const UART_infos before = port_;
    close();
    EXPECT_TRUE(port_.magic == before.magic && port_.fd == before.fd &&
                port_.kiv_linux_sfd == before.kiv_linux_sfd);
    close();
    unsigned int length = 1;
    char byte;
    EXPECT_EQ(sup_uart_Read(&port_, &byte, &length), EBADF);
    EXPECT_EQ(sup_uart_Send(&port_, "x", 1), EBADF);
    EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
    reports();
}

TEST_F(UartLine, TransportsCloseThemselvesOrAreReleased) {
    port_.close = [](UART_infos *port) { return port->fd; };
    for (const int status : {0, -22, 5}) {
        port_.fd = status;
        EXPECT_EQ(sup_uart_close(&port_), status);
        EXPECT_EQ(reports(), times(status == 0 ? 0 : 1, warned(uart, "sup_uart_close")));
    }
    // One without a slot owns what its record holds; closing it twice hits nobody.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    port_ = {};
    port_.flags = UART_FLAG_STREAM;
    port_.fd = ends[0];
    port_.fd_listen = ends[1];
    port_.priv = std::malloc(16);
    close();
    ASSERT_EQ(::pipe(ends), 0);
    close();
    EXPECT_EQ(::fcntl(ends[0], F_GETFD) | ::fcntl(ends[1], F_GETFD), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}

} // namespace
} // namespace kiv::test
