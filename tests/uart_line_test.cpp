// Line control and closing: the termios block, the modem lines, the queues.

#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>

#include "fixtures/pty.h"
#include "fixtures/serial.h"

namespace kiv::test {
namespace {

constexpr const char *text_of_drain = "ret = kiv_tcdrain(UART_infos->fd)";
constexpr const char *text_of_get = "ret = kiv_tcgetattr(UART_infos->fd, &termios_p)";
constexpr const char *text_of_set = "ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)";

using Change = int (*)(UART_infos *, unsigned int);

class UartLine : public SerialTest {
  protected:
    static void wait_for_drain() {
        kiv_sim_line_wait(
            0, [](const kiv_sim_line_state *now, void *) { return now->drains_waiting > 0 ? 1 : 0; },
            nullptr);
    }
};

// Changes ---------------------------------------------------------------------------------------------------

TEST_F(UartLine, ChangesTouchTheirOwnBitsOnly) {
    const struct {
        Change change;
        unsigned int value;
        uint32_t cleared, set;
    } rows[] = {
        {sup_uart_Change_Parity, 1, 0, parity_on | parity_odd},
        {sup_uart_Change_Parity, 2, 0, parity_on}, // odd, as it was
        {sup_uart_Change_Parity, 0, parity_on, 0},
        {sup_uart_Change_StopBitsNumber, 2, 0, two_stop_bits},
        {sup_uart_Change_StopBitsNumber, 0, two_stop_bits, 0},
        {sup_uart_RTS_Enable, 7, 0, rts_cts},
        {sup_uart_Change_Speed, 4, baud_bits, 0x000D},
        {sup_uart_Change_Speed, 18, baud_bits, 0x100D},
        {sup_uart_Change_Speed, 250000, baud_bits, baud_other},
        {sup_uart_RTS_Enable, 0, rts_cts, 0},
        {sup_uart_Change_Parity, 2, 0, parity_on},
    };
    Settings odd{};
    odd.cflag = 0x13A6 | 0x5A000000; // every bit that has no part in this
    ASSERT_NO_FATAL_FAILURE(preset(odd));
    open();
    for (const auto &row : rows) {
        const auto was = state();
        EXPECT_EQ(row.change(&port_, row.value), 0);
        const auto now = state();
        EXPECT_EQ(now.c_cflag, (was.c_cflag & ~row.cleared) | row.set) << &row - rows;
        EXPECT_EQ(now.c_iflag, was.c_iflag);
        EXPECT_EQ(now.c_oflag, was.c_oflag);
        EXPECT_EQ(now.c_lflag, was.c_lflag);
        EXPECT_EQ(now.settings_set, was.settings_set + 1);
        EXPECT_EQ(now.drains - was.drains, row.change == sup_uart_RTS_Enable ? 0U : 1U);
    }
    EXPECT_EQ(state().c_ospeed, 250000U);
    close();
}

TEST_F(UartLine, RefusedValuesAreWrittenNowhere) {
    const struct {
        Change change;
        const char *function;
        unsigned int value;
        int status;
    } rows[] = {
        {sup_uart_Change_Parity, "sup_uart_Change_Parity", 3, -EINVAL},
        {sup_uart_Change_Parity, "sup_uart_Change_Parity", 0xFFFFFFFF, -EINVAL},
        {sup_uart_Change_StopBitsNumber, "sup_uart_Change_StopBitsNumber", 1, -EINVAL},
        {sup_uart_Change_StopBitsNumber, "sup_uart_Change_StopBitsNumber", 3, -EINVAL},
        {sup_uart_Change_Speed, "sup_uart_Change_Speed", 5, EINVAL},
        {sup_uart_Change_Speed, "sup_uart_Change_Speed", 19, EINVAL},
        {sup_uart_Change_Speed, "sup_uart_Change_Speed", 115200, EINVAL},
    };
    open();
    for (const auto &row : rows) {
        const auto was = state();
        EXPECT_EQ(row.change(&port_, row.value), row.status);
        EXPECT_EQ(state().settings_set, was.settings_set);
        EXPECT_EQ(state().drains, was.drains + 1);
        Reports expected = {warned(uart, row.function)};
        if (row.status == EINVAL)
            expected.insert(expected.begin(),
                            trace(uart, row.function, "ret = uart_set_speed(&termios_p, speed)", EINVAL));
        EXPECT_EQ(reports(), expected);
    }
    close();
}

TEST_F(UartLine, EachFailingRequestEndsTheOperation) {
    constexpr const char *speed = "sup_uart_Change_Speed";
    constexpr const char *enable = "sup_uart_RTS_Enable";
    constexpr const char *manage = "sup_uart_RTS_Manage";
    const std::function<int(UART_infos *)> change_speed = [](auto *p) { return sup_uart_Change_Speed(p, 4); };
    const std::function<int(UART_infos *)> enable_rts = [](auto *p) { return sup_uart_RTS_Enable(p, 1); };
    const std::function<int(UART_infos *)> drop_rts = [](auto *p) {
        sup_uart_RTS_Manage(p, UART_RTS_DROP);
        return 0;
    };
    const auto traced = [](const char *function, const char *text, int error) {
        return Reports({trace(uart, function, text, error), warned(uart, function)});
    };
    const auto stopped = [](const char *text, int error) {
        return Reports({trace(uart, "sup_uart_Change_Speed", text, error),
                        warned(uart, "sup_uart_Change_Speed"), warned(uart, "sup_uart_Stop_UART")});
    };
    const struct {
        unsigned long request;
        int error;
        std::function<int(UART_infos *)> act;
        int status;
        Reports reported;
    } rows[] = {
        {drain_output, EINTR, change_speed, EINTR, traced(speed, text_of_drain, EINTR)}, // not repeated
        {get_settings, EIO, change_speed, EIO, traced(speed, text_of_get, EIO)},
        {set_settings, EPERM, change_speed, EPERM, traced(speed, text_of_set, EPERM)},
        {get_settings, EIO, enable_rts, EIO, traced(enable, text_of_get, EIO)},
        {set_settings, EINTR, enable_rts, EINTR, traced(enable, text_of_set, EINTR)},
        {flush_queues, EIO, [](auto *p) { return sup_uart_Flush(p, 1); }, -1,
         traced("sup_uart_Flush", "ret = kiv_tcflush(UART_infos->fd, queue_selector)", EIO)},
        {get_modem, ENOTTY, drop_rts, 0, traced(manage, "ret = ioctl(fd, 0x5415, &flags)", ENOTTY)},
        {set_modem, EIO, drop_rts, 0, traced(manage, "ret = ioctl(fd, 0x5418, &flags)", EIO)},
        {drain_output, EIO, sup_uart_Stop_UART, EIO, stopped(text_of_drain, EIO)},
        {set_settings, EIO, sup_uart_Stop_UART, EIO, stopped(text_of_set, EIO)},
    };
    open();
    for (const auto &row : rows) {
        const auto was = state();
        ASSERT_EQ(kiv_sim_fail_ioctl(row.request, 1, 1, row.error), 0);
        EXPECT_EQ(row.act(&port_), row.status) << &row - rows;
        EXPECT_EQ(reports(), row.reported) << &row - rows;
        EXPECT_EQ(kiv_sim_faults_fired(), static_cast<unsigned>(&row - rows) + 1);
        EXPECT_EQ(state().settings_set, was.settings_set);
        EXPECT_EQ(state().modem, was.modem);
        kiv_sim_clear_faults();
    }
    // The stops that failed have each left their cancellation all the same.
    char byte;
    unsigned int length = 1;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(sup_uart_Read(&port_, &byte, &length), EIO) << length++;
    EXPECT_EQ(reports(), times(2, warned(uart, "sup_uart_Read")));
    // A driver that answers the modem request with a number of its own is warned of, without an errno.
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 2, 1, 1), 0);
    sup_uart_RTS_Manage(&port_, UART_RTS_DROP);
    EXPECT_EQ(reports(), Reports({warned(uart, manage)}));
    close();
}

// Output that flow control holds
// -----------------------------------------------------------------------------

TEST_F(UartLine, ChangesWaitForHeldOutputAndTheOthersDoNot) {
    const std::pair<Change, unsigned int> waiting[] = {
        {sup_uart_Change_Speed, 4}, {sup_uart_Change_Parity, 1}, {sup_uart_Change_StopBitsNumber, 2}};
    for (const auto &[change, value] : waiting) {
        open_held();
        ASSERT_EQ(sup_uart_Send(&port_, "held", 4), 0);
        const unsigned set_before = state().settings_set;
        std::thread changer([&, change = change, value = value] { EXPECT_EQ(change(&port_, value), 0); });
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
}

TEST_F(UartLine, StopWaitsForHeldOutputBeforeItReleasesTheReader) {
    open_held();
    ASSERT_EQ(sup_uart_Send(&port_, "held", 4), 0);
    std::thread stopper([&] { EXPECT_EQ(sup_uart_Stop_UART(&port_), 0); });
    wait_for_drain();
    ASSERT_EQ(sup_uart_Flush(&port_, UART_FLUSH_OUTPUT), 0); // the way out of a line that stays held
    char byte;
    unsigned int length = 1;
    EXPECT_EQ(sup_uart_Read(&port_, &byte, &length), EIO);
    stopper.join();
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_Read")}));
    close();
    release_output();
}

// Queues and modem lines
// --------------------------------------------------------------------------------------

TEST_F(UartLine, FlushDiscardsWhatItsFlagNames) {
    const struct {
        unsigned int flag;
        bool input, output;
    } rows[] = {{0, true, false}, {1, false, true}, {FLUSH_ALL, true, true}, {7, true, true}};
    for (const auto &row : rows) {
        open_held();
        feed("in");
        ASSERT_EQ(sup_uart_Send(&port_, "out", 3), 0);
        EXPECT_EQ(sup_uart_Flush(&port_, row.flag), 0);
        EXPECT_EQ(state().input_queued, row.input ? 0U : 2U) << row.flag;
        EXPECT_EQ(state().output_queued, row.output ? 0U : 3U) << row.flag;
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
    for (const unsigned manage : {1U, 0U, 0xFFFFFFFFU, 0U}) {
        const unsigned others = state().modem & ~static_cast<unsigned>(KIV_SIM_RTS);
        sup_uart_RTS_Manage(&port_, manage);
        EXPECT_EQ(state().modem, manage == 0 ? others | KIV_SIM_RTS : others);
    }
    EXPECT_EQ(state().modem_set, 4U);
    close();
}

TEST_F(UartLine, PseudoTerminalHasNoModemLines) {
    const Pty pty;
    if (!pty.works() || sup_uart_Init(&port_, pty.path().c_str(), 9, 0) != 0) {
        reports();
        GTEST_SKIP() << "no pseudo-terminal that takes the requests";
    }
    EXPECT_EQ(sup_uart_Change_Parity(&port_, 0), 0);
    EXPECT_EQ(sup_uart_Flush(&port_, FLUSH_ALL), 0);
    sup_uart_RTS_Manage(&port_, 0);
    EXPECT_EQ(reports(),
              Reports({trace(uart, "sup_uart_RTS_Manage", "ret = ioctl(fd, 0x5415, &flags)", ENOTTY),
                       warned(uart, "sup_uart_RTS_Manage")}));
    close();
}

// Ports that are no ttys
// ---------------------------------------------------------------------------------------

TEST_F(UartLine, StreamPortsAreLeftAloneUnlessTheyHaveASlot) {
    static unsigned int seen;
    for (const uint32_t flags : {1U, 2U, 3U, 0xFFFFFFFDU}) {
        open(); // a tty, so that a request would succeed
        const unsigned requests = kiv_sim_calls(KIV_SIM_IOCTL);
        port_.flags = flags;
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 3), 0);
        EXPECT_EQ(sup_uart_Change_Parity(&port_, 9), 0);
        EXPECT_EQ(sup_uart_Change_StopBitsNumber(&port_, 9), 0);
        EXPECT_EQ(sup_uart_Flush(&port_, 2), 0);
        EXPECT_EQ(sup_uart_RTS_Enable(&port_, 1), 0);
        EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
        sup_uart_RTS_Manage(&port_, 1);
        EXPECT_EQ(reports(), Reports());
        EXPECT_EQ(sup_uart_Flush(&port_, 3), 0); // one of the two assertions only
        EXPECT_EQ(reports(), Reports({asserted(uart, "sup_uart_Flush", "flag>=0 && flag <=FLUSH_ALL")}));
        port_.change_speed = [](UART_infos *, unsigned int value) { return static_cast<int>(seen = value); };
        port_.change_parity = [](UART_infos *, unsigned int value) { return -static_cast<int>(value); };
        port_.change_stop_bits = [](UART_infos *, unsigned int value) { return static_cast<int>(value) + 1; };
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 1234), 1234);
        EXPECT_EQ(seen, 1234U);
        EXPECT_EQ(sup_uart_Change_Parity(&port_, 5), -5);
        EXPECT_EQ(sup_uart_Change_StopBitsNumber(&port_, 5), 6);
        port_.flags = 0; // a slot goes first on a tty as well
        EXPECT_EQ(sup_uart_Change_Speed(&port_, 77), 77);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), requests);
        close();
    }
}

TEST_F(UartLine, BreakAndLateCallbacksAreNotThere) {
    const UART_status_cb callbacks{};
    for (UART_infos *port : {static_cast<UART_infos *>(nullptr), &port_}) {
        EXPECT_EQ(sup_uart_Set_Break(port), ENOSYS);
        EXPECT_EQ(sup_uart_Reset_Break(port), ENOSYS);
        EXPECT_EQ(sup_uart_Register_Status_Callback(port, &callbacks), ENOSYS);
        EXPECT_EQ(sup_uart_Register_Status_Callback(port, nullptr), ENOSYS);
    }
}

// Closing
// --------------------------------------------------------------------------------------------------------

TEST_F(UartLine, ClosingReleasesTheTtyAndKeepsTheRecord) {
    open();
    const UART_infos before = port_;
    close();
    EXPECT_EQ(std::memcmp(&port_, &before, sizeof before), 0);
    EXPECT_EQ(state().near_ends, 0U);
    open();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 3, 1, EIO), 0); // the device's, after the pipe's two
    EXPECT_EQ(sup_uart_close(&port_), -1);
    EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_close")}));
    EXPECT_EQ(state().near_ends, 0U);
}

TEST_F(UartLine, TransportsCloseThemselvesOrAreReleased) {
    port_ = {};
    for (const int status : {0, -22, 5}) {
        static int answer;
        answer = status;
        port_.close = [](UART_infos *) { return answer; };
        EXPECT_EQ(sup_uart_close(&port_), status);
        EXPECT_EQ(reports(), status == 0 ? Reports() : Reports({warned(uart, "sup_uart_close")}));
    }
    // One without a slot owns what its record holds; closing it twice hits nobody.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    port_ = {};
    port_.flags = UART_FLAG_STREAM;
    port_.fd = ends[0];
    port_.fd_listen = ends[1];
    port_.priv = std::malloc(16);
    EXPECT_EQ(sup_uart_close(&port_), 0);
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(sup_uart_close(&port_), 0);
    EXPECT_EQ(::fcntl(ends[0], F_GETFD) | ::fcntl(ends[1], F_GETFD), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}

} // namespace
} // namespace kiv::test
