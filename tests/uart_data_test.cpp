// Reading and writing: the loops over a transport's slots, by script, and the tty behind them.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <thread>

#include "fixtures/pty.h"
#include "fixtures/resources.h"
#include "fixtures/serial.h"

namespace kiv::test {
namespace {

constexpr const char *timed = "sup_uart_Read_partial_timeout";

int read_timed(UART_infos *port, void *buffer, unsigned int *length) {
    return sup_uart_Read_partial_timeout(port, buffer, length, 0);
}

class UartData : public SerialTest {
  protected:
    char buffer_[64] = {};
    unsigned int length_ = 0;

    std::string got() const { return {buffer_, length_}; }
    // What the next calls give: so many bytes at most, 0, or a negated errno.
    static void script(kiv_sim_call call, const std::vector<int> &answers) {
        kiv_sim_clear_faults();
        for (unsigned i = 0; i < answers.size(); ++i) {
            if (answers[i] > 0)
                ASSERT_EQ(kiv_sim_shorten(call, i + 1, 1, static_cast<std::size_t>(answers[i])), 0);
            else if (answers[i] == 0)
                ASSERT_EQ(kiv_sim_answer(call, i + 1, 1, 0), 0);
            else
                ASSERT_EQ(kiv_sim_fail(call, i + 1, 1, -answers[i]), 0);
        }
    }
};

// Loops, by script ------------------------------------------------------------------------------------------

struct Reading {
    int (*read)(UART_infos *, void *, unsigned int *);
    const char *name, *first_text, *text;
};
constexpr Reading whole = {sup_uart_Read, "sup_uart_Read", text_of_read, text_of_read};
constexpr Reading partial = {sup_uart_Read_partial, "sup_uart_Read_partial", text_of_partial,
                             text_of_partial};
constexpr Reading waiting = {read_timed, timed, text_of_first, text_of_read};
// Without a descriptor to wait on, the timed read is the partial one, name and all.
constexpr Reading unwaited = {read_timed, "sup_uart_Read_partial", text_of_partial, text_of_partial};

// What is readable is always so here: the timed read waits for it without waiting. What is reported follows
// from the answers: an errno is traced, a failing end is warned of.
TEST_F(UartData, ReadsFollowWhatTheDeviceGives) {
    const struct {
        const Reading &reading;
        unsigned int wanted;
        std::vector<int> answers;
        int status;
        unsigned int length;
    } rows[] = {
        {partial, 0, {}, 0, 0},
        {whole, 0, {}, EIO, 0},
        {whole, 9, {3, -EINTR, 4, 2}, 0, 9},
        {whole, 9, {-EINTR, 3, -ENODEV}, ENODEV, 3},
        {unwaited, 0, {}, 0, 0},
        {unwaited, 9, {-EIO}, EIO, 9},
        {waiting, 0, {}, 0, 0},
        {waiting, 1, {1}, 0, 1},
        {waiting, 9, {-EINTR, 1, 5, -EINTR, 3}, 0, 9},
        {waiting, 9, {1, 5, 0}, EIO, 9},
        {waiting, 9, {1, -EINTR, -EPERM}, EPERM, 9},
    };
    for (const auto &[reading, wanted, answers, status, length] : rows) {
        SCOPED_TRACE(reading.name + std::string(", answers ") + ::testing::PrintToString(answers));
        open();
        feed("123456789 and more");
        script(KIV_SIM_READ, answers);
        if (&reading == &unwaited)
            port_.fd = -2;
        length_ = wanted;
        EXPECT_EQ(reading.read(&port_, buffer_, &length_), status);
        EXPECT_EQ(length_, length);
        std::size_t moved = 0;
        Reports expected;
        for (const int answer : answers) {
            if (answer < 0)
                expected.push_back(
                    trace(uart, reading.name, moved == 0 ? reading.first_text : reading.text, -answer));
            else
                moved += static_cast<std::size_t>(answer);
        }
        if (status != 0)
            expected.push_back(warned(uart, reading.name));
        EXPECT_EQ(reports(), expected);
        EXPECT_EQ(std::string(buffer_, moved), std::string("123456789").substr(0, moved));
        EXPECT_EQ(state().input_queued, 18 - moved); // no more was asked for
        close();
    }
    // More than the one byte that was asked for counts as one.
    open();
    feed("bcd");
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_READ, 1, 1, 2), 0);
    EXPECT_EQ(read_timed(&port_, buffer_, &(length_ = 4)), 0);
    EXPECT_EQ(std::string(buffer_ + 1, 3), "bcd");
    EXPECT_EQ(reports(), Reports({asserted(uart, timed, "ret == 1")}));
    close();
}

TEST_F(UartData, SendsFollowWhatTheDeviceTakes) {
    constexpr const char *send = "sup_uart_Send";
    const auto traced = [](int error) { return trace(uart, send, text_of_write, error); };
    const auto send_fails = warned(uart, send);
    const auto sendv_fails = warned(uart, "sup_uart_Sendv");
    char text[] = "123456789";
    const iovec one[] = {{text, 9}};
    const iovec hollow[] = {{text, 4}, {text + 4, 0}, {text + 4, 5}};
    const iovec full[] = {{text, 4}, {text + 4, 3}, {text + 7, 2}};
    const struct {
        const iovec *iov;
        int count;
        std::vector<int> answers;
        int status;
        unsigned int counted;
        std::string sent;
        Reports reported;
    } rows[] = {
        {one, 1, {3, -EINTR, 4, 2}, 0, 9, "123456789", {traced(EINTR)}},
        {one, 1, {3, 0}, EIO, 9, "123", {send_fails, sendv_fails}},
        {full, 3, {4, 1, 2, 2}, 0, 9, "123456789", {}},
        {full, 3, {4, -EPERM}, EPERM, 7, "1234", {traced(EPERM), send_fails, sendv_fails}},
        {hollow, 3, {4}, EIO, 4, "1234", {send_fails, sendv_fails}},
        {full, 0, {}, 0, 0, "", {}},
        {full, -1, {}, 0, 0, "", {}},
    };
    open();
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        script(KIV_SIM_WRITE, row.answers);
        EXPECT_EQ(sup_uart_Sendv(&port_, row.iov, row.count, &(length_ = 77)), row.status);
        EXPECT_EQ(length_, row.counted);
        EXPECT_EQ(sent(), row.sent);
        EXPECT_EQ(reports(), row.reported);
    }
    // A slot takes all pieces in one call; what it did not take stays unsent.
    port_.writev = [](UART_infos *, const iovec *, int count) { return count; };
    EXPECT_EQ(sup_uart_Sendv(&port_, full, 3, &length_), 0);
    EXPECT_EQ(length_, 3U);
    EXPECT_EQ(reports(), Reports({asserted(uart, "sup_uart_Sendv", "ret == len")}));
    close();
}

// Results that no slot should give: bytes that never came are no success, and nothing is stored elsewhere.
TEST_F(UartData, ResultsThatAreNoCountsAreFailures) {
    static int result;
    open();
    port_.read = [](UART_infos *, void *, unsigned int) { return errno = 0, result; };
    port_.write = [](UART_infos *, const void *, unsigned int) { return errno = 0, result; };
    port_.writev = [](UART_infos *, const iovec *, int) { return errno = 0, result; };
    for (const int each : {-1, -2, INT_MIN}) {
        result = each;
        for (const Reading *reading : {&whole, &partial, &waiting}) {
            EXPECT_EQ(reading->read(&port_, buffer_, &(length_ = 9)), EIO) << reading->name << each;
            EXPECT_EQ(reports(), Reports({warned(uart, reading->name)}));
        }
        EXPECT_EQ(sup_uart_Send(&port_, buffer_, 9), EIO) << each;
        EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_Send")}));
    }
    // A total that looks like a failure's result, on hosts whose sizes hold more than that.
    result = -1;
    const iovec huge = {buffer_, 0xFFFFFFFF};
    EXPECT_EQ(sup_uart_Sendv(&port_, &huge, 1, &length_), EIO);
    EXPECT_EQ(reports(),
              Reports({asserted(uart, "sup_uart_Sendv", "ret == len"), warned(uart, "sup_uart_Sendv")}));
    close();
}

TEST_F(UartData, APieceMayBeLongerThanASlotCanBeTold) {
    if (sizeof(std::size_t) == sizeof(unsigned int))
        GTEST_SKIP() << "no piece is longer on this host";
    static std::uint64_t taken;
    taken = 0;
    open();
    port_.write = [](UART_infos *, const void *, unsigned int length) {
        taken += std::min(length, 1U << 30);
        return static_cast<int>(std::min(length, 1U << 30));
    };
    const iovec piece = {buffer_, static_cast<std::size_t>(5ULL << 30)}; // no byte of it is looked at
    EXPECT_EQ(sup_uart_Sendv(&port_, &piece, 1, &length_), 0);
    EXPECT_EQ(taken, 5ULL << 30);
    EXPECT_EQ(sup_uart_Sendv(&port_, nullptr, -1, &length_), 0); // and none is no piece
    close();
}

// The wait of the timed read --------------------------------------------------------------------------------

class UartTimedRead : public UartData, public ::testing::WithParamInterface<bool> {
  protected:
    std::unique_ptr<NumbersTaken> taken_;
    kiv_sim_call wait_ = KIV_SIM_SELECT;

    // With a parameter of true the port's descriptor is one that no set can hold.
    void SetUp() override {
        UartData::SetUp();
        if (GetParam()) {
            taken_ = std::make_unique<NumbersTaken>(1024);
            wait_ = KIV_SIM_PPOLL;
        }
        ASSERT_NO_FATAL_FAILURE(open());
        ASSERT_EQ(port_.fd >= 1024, GetParam());
    }
    void TearDown() override {
        close();
        taken_.reset();
        UartData::TearDown();
    }
    std::string read(unsigned int wanted, unsigned int timeout_us) {
        length_ = wanted;
        EXPECT_EQ(sup_uart_Read_partial_timeout(&port_, buffer_, &length_, timeout_us), 0);
        return got();
    }
};

INSTANTIATE_TEST_SUITE_P(Descriptors, UartTimedRead, ::testing::Values(false, true),
                         [](const auto &chosen) { return chosen.param ? "Above1023" : "Below1024"; });

TEST_P(UartTimedRead, ReturnsABurstAndNotTheNext) {
    feed("first");
    EXPECT_EQ(read(64, 0), "first");
    feed("second");
    EXPECT_EQ(read(64, 1000), "second");
    feed("third");
    EXPECT_EQ(read(3, UINT_MAX), "thi"); // full: no further wait
    const unsigned waits = kiv_sim_calls(wait_);
    EXPECT_GE(waits, 5U);
    EXPECT_EQ(read(1, UINT_MAX), "r");
    EXPECT_EQ(kiv_sim_calls(wait_), waits); // one byte is never waited for here
}

TEST_P(UartTimedRead, WaitsNoShorterThanItsLimit) {
    for (const unsigned timeout_us : {30000U, 1040000U}) {
        feed("x");
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(read(9, timeout_us), "x");
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::microseconds(timeout_us));
    }
}

TEST_P(UartTimedRead, DataEndsTheLongestWait) {
    feed("a");
    const unsigned waits = kiv_sim_calls(wait_);
    std::thread far([&] {
        kiv_sim_wait_calls(wait_, waits + 1);
        feed("bc");
        kiv_sim_wait_calls(wait_, waits + 2);
        feed("d");
    });
    // The far end sends byte by byte: a piece may come in two.
    EXPECT_EQ(read(4, UINT_MAX), "abcd");
    far.join();
}

TEST_P(UartTimedRead, SignalEndsTheWaitLikeATimeOut) {
    const auto interrupted = trace(uart, timed, text_of_wait, EINTR);
    feed("abc");
    ASSERT_EQ(kiv_sim_fail(wait_, 2, 1, EINTR), 0);
    EXPECT_EQ(read(9, UINT_MAX), "abc");
    EXPECT_EQ(reports(), Reports({interrupted}));
}

TEST_F(UartData, TimedReadLooksAtTheDescriptorBeforeEveryWait) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[1]); // at its end, and so always ready
    const int closed = ::fcntl(ends[0], F_DUPFD, 200);
    ::close(closed);
    const struct {
        int next_fd, status;
        unsigned int length, waits;
    } rows[] = {
        {-1, 0, 1, 0},         // the peer goes away: what has come is all there is
        {ends[0], 0, 9, 2},    // another takes its place, one that has data
        {closed, EBADF, 9, 1}, // one that is none
        {5000, EBADF, 9, 0},   // and one that is beyond sets
    };
    static int next_fd;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.next_fd);
        open();
        feed("123456789");
        script(KIV_SIM_READ, {1, 3, 5});
        next_fd = row.next_fd;
        port_.read = [](UART_infos *port, void *buffer, unsigned int length) {
            port->fd = next_fd;
            return static_cast<int>(kiv_linux_sread(port->kiv_linux_sfd, buffer, length));
        };
        const unsigned waits = kiv_sim_calls(KIV_SIM_SELECT);
        errno = 0;
        EXPECT_EQ(read_timed(&port_, buffer_, &(length_ = 9)), row.status);
        EXPECT_EQ(length_, row.length);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), waits + row.waits);
        Reports expected;
        if (row.status != 0)
            expected = {trace(uart, timed, text_of_wait, row.status), warned(uart, timed)};
        EXPECT_EQ(reports(), expected);
        close();
    }
    ::close(ends[0]);
}

// Ttys ------------------------------------------------------------------------------------------------------

// The kernel's own tty; unlike the board's lines it keeps a standard rate that was given as a number.
TEST_F(UartData, PseudoTerminalIsAPortToo) {
    const Pty pty;
    if (!pty.works() || sup_uart_Init(&port_, pty.path().c_str(), 230400, 0) != 0) {
        reports();
        GTEST_SKIP() << "no pseudo-terminal that takes the requests";
    }
    Settings now{};
    ASSERT_EQ(::ioctl(port_.fd, get_settings, &now), 0);
    EXPECT_EQ(now.cflag & baud_bits, baud_other);
    EXPECT_EQ(now.ospeed, 230400U);
    std::string all(256, '\0'), moved = all;
    std::iota(all.begin(), all.end(), '\0');
    EXPECT_EQ(sup_uart_Send(&port_, all.data(), 256), 0);
    EXPECT_EQ(::read(pty.master(), moved.data(), 256), 256);
    EXPECT_EQ(moved, all);
    ASSERT_EQ(::write(pty.master(), all.data(), 256), 256);
    EXPECT_EQ(sup_uart_Read(&port_, moved.data(), &(length_ = 256)), 0);
    EXPECT_EQ(moved, all);
    EXPECT_EQ(sup_uart_Change_Parity(&port_, 0), 0);
    EXPECT_EQ(sup_uart_Flush(&port_, FLUSH_ALL), 0);
    close();
}

} // namespace
} // namespace kiv::test
