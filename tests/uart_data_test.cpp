// Reading and writing: the loops over a transport's slots, by script, and the tty behind them.

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <semaphore>
#include <thread>

#include "fixtures/pty.h"
#include "fixtures/resources.h"
#include "fixtures/serial.h"
#include "fixtures/signal.h"

namespace kiv::test {
namespace {

constexpr const char *text_of_read = "ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)";
constexpr const char *text_of_partial = "ret = pos_read(UART_infos, buffer, remaining)";
constexpr const char *text_of_first = "ret = pos_read(UART_infos, buffer, 1)";
constexpr const char *text_of_select =
    "ret = select(UART_infos->fd+1, &readset, ((void *)0), ((void *)0), &timeout)";
constexpr const char *text_of_write = "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)";
constexpr const char *text_of_writev = "ret = UART_infos->writev(UART_infos, iov, iovcnt)";

// A transport that answers by script: counts, 0, or a negated errno; then it is at its end.
struct Script {
    std::vector<int> answers;
    std::vector<unsigned int> asked{};
    std::string moved{}; // bytes given, or taken

    int answer(unsigned int length) {
        const std::size_t turn = asked.size();
        asked.push_back(length);
        const int next = turn < answers.size() ? answers[turn] : 0;
        if (next < 0)
            errno = -next;
        return next < 0 ? -1 : next;
    }
};

int scripted_read(UART_infos *port, void *buffer, unsigned int length) {
    auto &script = *static_cast<Script *>(port->priv);
    const int count = script.answer(length);
    for (int i = 0; i < count; ++i) {
        static_cast<char *>(buffer)[i] = static_cast<char>('a' + script.moved.size());
        script.moved += static_cast<char *>(buffer)[i];
    }
    return count;
}

int scripted_write(UART_infos *port, const void *buffer, unsigned int length) {
    auto &script = *static_cast<Script *>(port->priv);
    const int count = script.answer(length);
    if (count > 0)
        script.moved.append(static_cast<const char *>(buffer), static_cast<std::size_t>(count));
    return count;
}

int scripted_writev(UART_infos *port, const iovec *, int count) {
    return static_cast<Script *>(port->priv)->answer(static_cast<unsigned int>(count));
}

using Read = int (*)(UART_infos *, void *, unsigned int *);

int read_timed(UART_infos *port, void *buffer, unsigned int *length) {
    return sup_uart_Read_partial_timeout(port, buffer, length, 0);
}

class UartData : public SerialTest {
  protected:
    char buffer_[64] = {};
    unsigned int length_ = 0;

    void attach(Script &script, int fd) {
        port_ = {};
        port_.magic = UART_MAGIC;
        port_.fd = fd;
        port_.flags = UART_FLAG_STREAM;
        port_.read = scripted_read;
        port_.write = scripted_write;
        port_.priv = &script;
    }
};

// Slots, by script ------------------------------------------------------------------------------------------

// What is readable is always so here: the timed read waits for it without waiting. What is asked of the
// stream and what is reported follow from its answers: an errno is traced, a failing end is warned of.
TEST_F(UartData, ReadsFollowWhatTheStreamGives) {
    const struct {
        Read read;
        const char *name, *first_text, *text;
    } whole = {sup_uart_Read, "sup_uart_Read", text_of_read, text_of_read},
      partial = {sup_uart_Read_partial, "sup_uart_Read_partial", text_of_partial, text_of_partial},
      timed = {read_timed, "sup_uart_Read_partial_timeout", text_of_first, text_of_read},
      // Without a descriptor to wait on, the timed read is the partial one, name and all.
        unwaited = {read_timed, "sup_uart_Read_partial", text_of_partial, text_of_partial};
    const struct {
        decltype(whole) &operation;
        unsigned int wanted;
        std::vector<int> answers;
        int status;
        unsigned int length;
    } rows[] = {
        {partial, 0, {}, 0, 0},
        {partial, 9, {4}, 0, 4},
        {partial, 9, {0}, EIO, 9},
        {partial, 9, {-EPERM}, EPERM, 9},
        {partial, 9, {-EINTR, -EINTR, 9}, 0, 9},
        {whole, 0, {}, EIO, 0},
        {whole, 9, {3, -EINTR, 4, 2}, 0, 9},
        {whole, 9, {3, 0}, EIO, 3},
        {whole, 9, {-EINTR, 3, -ENODEV}, ENODEV, 3},
        {unwaited, 0, {}, 0, 0},
        {unwaited, 9, {-EINTR, 4}, 0, 4},
        {unwaited, 9, {-EIO}, EIO, 9},
        {timed, 0, {}, 0, 0},
        {timed, 1, {1}, 0, 1},
        {timed, 9, {0}, EIO, 9},
        {timed, 9, {-EPERM}, EPERM, 9},
        {timed, 9, {-EINTR, 1, 5, -EINTR, 3}, 0, 9},
        {timed, 9, {1, 5, 0}, EIO, 9},
        {timed, 9, {1, -EINTR, -EPERM}, EPERM, 9},
    };
    const int ready = ::open("/dev/null", O_RDONLY);
    for (const auto &[operation, wanted, answers, status, length] : rows) {
        SCOPED_TRACE(operation.name + std::string(", answers ") + ::testing::PrintToString(answers));
        Script script{answers};
        attach(script, &operation == &unwaited ? -2 : ready);
        length_ = wanted;
        EXPECT_EQ(operation.read(&port_, buffer_, &length_), status);
        EXPECT_EQ(length_, length);
        EXPECT_EQ(std::string(buffer_, script.moved.size()), script.moved);
        std::vector<unsigned int> asked;
        Reports expected;
        unsigned int got = 0;
        for (const int answer : answers) {
            asked.push_back(got == 0 && &operation == &timed ? 1 : wanted - got);
            if (answer < 0)
                expected.push_back(
                    trace(uart, operation.name, got == 0 ? operation.first_text : operation.text, -answer));
            else
                got += static_cast<unsigned int>(answer);
        }
        if (status != 0)
            expected.push_back(warned(uart, operation.name));
        EXPECT_EQ(script.asked, asked);
        EXPECT_EQ(reports(), expected);
    }
    // More than the one byte that was asked for counts as one.
    Script script{{2, 3}};
    attach(script, ready);
    EXPECT_EQ(read_timed(&port_, buffer_, &(length_ = 4)), 0);
    EXPECT_EQ(script.asked, std::vector<unsigned int>({1, 3}));
    EXPECT_EQ(reports(), Reports({asserted(uart, timed.name, "ret == 1")}));
    ::close(ready);
}

TEST_F(UartData, SendsFollowWhatTheStreamTakes) {
    constexpr const char *send = "sup_uart_Send";
    const struct {
        std::vector<int> answers;
        int status;
        std::vector<unsigned int> asked;
    } rows[] = {
        {{9}, 0, {9}},
        {{3, -EINTR, 4, 2}, 0, {9, 6, 6, 2}},
        {{3, 0}, EIO, {9, 6}},
        {{-EINTR, -EPIPE}, EPIPE, {9, 9}},
    };
    for (const auto &[answers, status, asked] : rows) {
        Script script{answers};
        attach(script, -1);
        EXPECT_EQ(sup_uart_Send(&port_, "123456789", 9), status);
        EXPECT_EQ(script.asked, asked);
        EXPECT_EQ(script.moved, std::string("123456789").substr(0, script.moved.size()));
        Reports expected;
        for (const int answer : answers)
            if (answer < 0)
                expected.push_back(trace(uart, send, text_of_write, -answer));
        if (status != 0)
            expected.push_back(warned(uart, send));
        EXPECT_EQ(reports(), expected);
    }
    EXPECT_EQ(sup_uart_Send(&port_, "", 0), EIO);
    EXPECT_EQ(reports(), Reports({warned(uart, send)}));
}

TEST_F(UartData, GatheredSendsGoPieceByPieceOrThroughTheSlot) {
    constexpr const char *sendv = "sup_uart_Sendv";
    char text[] = "123456789";
    const iovec pieces[] = {{text, 4}, {text + 4, 0}, {text + 4, 5}};
    const iovec full[] = {{text, 4}, {text + 4, 3}, {text + 7, 2}};
    const struct {
        bool slot;
        const iovec *iov;
        int count;
        std::vector<int> answers;
        int status;
        unsigned int sent;
        std::vector<unsigned int> asked;
        Reports reported;
    } rows[] = {
        {false, full, 3, {4, 1, 2, 2}, 0, 9, {4, 3, 2, 2}, {}},
        {false, pieces, 3, {4}, EIO, 4, {4}, {warned(uart, "sup_uart_Send"), warned(uart, sendv)}},
        {false,
         full,
         3,
         {4, -EPERM},
         EPERM,
         7,
         {4, 3},
         {trace(uart, "sup_uart_Send", text_of_write, EPERM), warned(uart, "sup_uart_Send"),
          warned(uart, sendv)}},
        {false, full, 0, {}, 0, 0, {}, {}},
        {false, full, -1, {}, 0, 0, {}, {}},
        {true, full, 3, {9}, 0, 9, {3}, {}},
        {true, pieces, 3, {-EINTR, 9}, 0, 9, {3, 3}, {trace(uart, sendv, text_of_writev, EINTR)}},
        {true, full, 3, {7}, 0, 7, {3}, {asserted(uart, sendv, "ret == len")}},
        {true, full, 0, {0}, 0, 0, {0}, {}},
        {true, full, -1, {0}, 0, 0, {UINT_MAX}, {}},
        {true,
         full,
         3,
         {-EPIPE},
         EPIPE,
         0,
         {3},
         {trace(uart, sendv, text_of_writev, EPIPE), asserted(uart, sendv, "ret == len"),
          warned(uart, sendv)}},
    };
    for (const auto &row : rows) {
        const auto index = &row - rows;
        Script script{row.answers};
        attach(script, -1);
        port_.writev = row.slot ? scripted_writev : nullptr;
        unsigned int count = 77;
        EXPECT_EQ(sup_uart_Sendv(&port_, row.iov, row.count, &count), row.status) << "row " << index;
        EXPECT_EQ(count, row.sent) << "row " << index;
        EXPECT_EQ(script.asked, row.asked) << "row " << index;
        EXPECT_EQ(script.moved, std::string(text).substr(0, script.moved.size())) << "row " << index;
        EXPECT_EQ(reports(), row.reported) << "row " << index;
    }
}

// The wait of the timed read --------------------------------------------------------------------------------

class UartTimedRead : public UartData, public ::testing::WithParamInterface<bool> {
  protected:
    static constexpr const char *timed = "sup_uart_Read_partial_timeout";
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
    int read(unsigned int wanted, unsigned int timeout_us) {
        length_ = wanted;
        return sup_uart_Read_partial_timeout(&port_, buffer_, &length_, timeout_us);
    }
};

INSTANTIATE_TEST_SUITE_P(Descriptors, UartTimedRead, ::testing::Values(false, true),
                         [](const auto &chosen) { return chosen.param ? "Above1023" : "Below1024"; });

TEST_P(UartTimedRead, ReturnsABurstAndNotTheNext) {
    feed("first");
    EXPECT_EQ(read(64, 0), 0);
    EXPECT_EQ(std::string(buffer_, length_), "first");
    feed("second");
    EXPECT_EQ(read(64, 1000), 0);
    EXPECT_EQ(std::string(buffer_, length_), "second");
    feed("third");
    EXPECT_EQ(read(3, UINT_MAX), 0); // full: no further wait
    EXPECT_EQ(std::string(buffer_, length_), "thi");
    const unsigned waits = kiv_sim_calls(wait_);
    EXPECT_GE(waits, 5U);
    EXPECT_EQ(read(1, UINT_MAX), 0);
    EXPECT_EQ(std::string(buffer_, length_), "r");
    EXPECT_EQ(kiv_sim_calls(wait_), waits); // one byte is never waited for here
}

double seconds_now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

TEST_P(UartTimedRead, WaitsNoShorterThanItsLimit) {
    for (const unsigned timeout_us : {30000U, 1040000U}) {
        feed("x");
        const double begin = seconds_now();
        EXPECT_EQ(read(9, timeout_us), 0);
        EXPECT_EQ(length_, 1U);
        EXPECT_GE(seconds_now() - begin, timeout_us * 1e-6);
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
        kiv_sim_wait_calls(wait_, waits + 3);
        feed("e");
    });
    // The far end sends byte by byte: a piece may come in two.
    EXPECT_EQ(read(5, UINT_MAX), 0);
    EXPECT_EQ(std::string(buffer_, length_), "abcde");
    far.join();
}

TEST_P(UartTimedRead, SignalEndsTheWaitLikeATimeOut) {
    for (int i = 0; i < 3; ++i) {
        feed("abc");
        ASSERT_EQ(kiv_sim_fail(wait_, 2, 1, EINTR), 0);
        EXPECT_EQ(read(9, UINT_MAX), 0);
        EXPECT_EQ(length_, 3U);
        EXPECT_EQ(reports(), Reports({trace(uart, timed, text_of_select, EINTR)}));
        kiv_sim_clear_faults();
    }
    // And a real one, which may also hit the first byte's poll.
    feed("abc");
    const Interrupter interrupter(::pthread_self());
    EXPECT_EQ(read(9, UINT_MAX), 0);
    const Reports seen = reports();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), trace(uart, timed, text_of_select, EINTR));
}

TEST_P(UartTimedRead, FailingWaitIsReportedAndKeepsTheLength) {
    feed("abc");
    ASSERT_EQ(kiv_sim_fail(wait_, 2, 1, ENOMEM), 0);
    EXPECT_EQ(read(9, 5), ENOMEM);
    EXPECT_EQ(length_, 9U);
    EXPECT_EQ(reports(), Reports({trace(uart, timed, text_of_select, ENOMEM), warned(uart, timed)}));
}

TEST_F(UartData, TimedReadLooksAtTheDescriptorBeforeEveryWait) {
    // The peer goes away after the first byte: what has come is all there is.
    Script script{{1, 3}};
    const int ready = ::open("/dev/null", O_RDONLY);
    attach(script, ready);
    port_.read = [](UART_infos *port, void *buffer, unsigned int length) {
        port->fd = -1;
        return scripted_read(port, buffer, length);
    };
    length_ = 9;
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port_, buffer_, &length_, UINT_MAX), 0);
    EXPECT_EQ(length_, 1U);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0U);
    // Another descriptor takes its place, one that has data.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Script other{{1, 3, 5}};
    attach(other, ends[0]);
    static int next_fd;
    next_fd = ready;
    port_.read = [](UART_infos *port, void *buffer, unsigned int length) {
        port->fd = next_fd;
        return scripted_read(port, buffer, length);
    };
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port_, buffer_, &(length_ = 9), UINT_MAX), 0);
    EXPECT_EQ(length_, 9U);
    for (const int fd : {ends[0], ends[1], ready})
        ::close(fd);
    // A descriptor that is none.
    Script closed{{1}};
    attach(closed, ready);
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port_, buffer_, &(length_ = 9), 0), EBADF);
    EXPECT_EQ(reports(), Reports({trace(uart, "sup_uart_Read_partial_timeout", text_of_select, EBADF),
                                  warned(uart, "sup_uart_Read_partial_timeout")}));
}

// Ttys
// -------------------------------------------------------------------------------------------------------

TEST_F(UartData, BytesGoBothWaysUnchanged) {
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(i);
    open();
    feed(all);
    std::string got(256, '\0');
    EXPECT_EQ(sup_uart_Read_partial(&port_, got.data(), &(length_ = 10)), 0);
    EXPECT_EQ(length_, 10U);
    EXPECT_EQ(sup_uart_Read(&port_, got.data() + 10, &(length_ = 246)), 0);
    EXPECT_EQ(length_, 246U);
    EXPECT_EQ(got, all);
    EXPECT_EQ(sup_uart_Send(&port_, all.data(), 256), 0);
    iovec pieces[] = {{all.data(), 100}, {all.data() + 100, 156}};
    unsigned int count = 0;
    EXPECT_EQ(sup_uart_Sendv(&port_, pieces, 2, &count), 0);
    EXPECT_EQ(count, 256U);
    EXPECT_EQ(sent(), all + all);
    feed("0123456789");
    EXPECT_EQ(sup_uart_Read_partial(&port_, buffer_, &(length_ = 64)), 0);
    EXPECT_EQ(length_, 10U);
    close();
}

TEST_F(UartData, PseudoTerminalCarriesThemToo) {
    Pty pty;
    if (!pty.works() || sup_uart_Init(&port_, pty.path().c_str(), 9, 0) != 0) {
        reports();
        GTEST_SKIP() << "no pseudo-terminal that takes the requests";
    }
    ASSERT_EQ(::write(pty.master(), "\x01\r\n\x03\xff", 5), 5);
    EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 5)), 0);
    EXPECT_EQ(std::string(buffer_, 5), "\x01\r\n\x03\xff");
    EXPECT_EQ(sup_uart_Send(&port_, "a\nb", 3), 0);
    EXPECT_EQ(::read(pty.master(), buffer_, sizeof buffer_), 3);
    EXPECT_EQ(std::string(buffer_, 3), "a\nb");
    close();
}

TEST_F(UartData, EveryCallOfTheLoopsMayComeShortOrBeInterrupted) {
    constexpr const char *read = "sup_uart_Read";
    open();
    feed("abcdefgh");
    ASSERT_EQ(kiv_sim_shorten(KIV_SIM_READ, 1, 3, 1), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_READ, 5, 2, EINTR), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_POLL, 3, 2, EINTR), 0);
    ASSERT_EQ(kiv_sim_shorten(KIV_SIM_READ, 4, 1, 2), 0);
    EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 8)), 0);
    EXPECT_EQ(std::string(buffer_, 8), "abcdefgh");
    EXPECT_EQ(reports(), times(4, trace(uart, read, text_of_read, EINTR)));
    kiv_sim_clear_faults();
    ASSERT_EQ(kiv_sim_shorten(KIV_SIM_WRITE, 1, 2, 3), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITE, 3, 5, EINTR), 0);
    EXPECT_EQ(sup_uart_Send(&port_, "12345678", 8), 0);
    EXPECT_EQ(sent(), "12345678");
    EXPECT_EQ(reports(), times(5, trace(uart, "sup_uart_Send", text_of_write, EINTR)));
    close();
}

TEST_F(UartData, RealSignalsLoseNothing) {
    open_held();
    const unsigned interruptions = scaled(400);
    const std::string big(100000, 'x'); // more than the line's queue holds
    {
        const Interrupter interrupter(::pthread_self());
        const unsigned polls = kiv_sim_calls(KIV_SIM_POLL) + interruptions;
        std::thread far([&] {
            kiv_sim_wait_calls(KIV_SIM_POLL, polls);
            feed("whole");
        });
        EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 5)), 0);
        far.join();
        EXPECT_EQ(std::string(buffer_, 5), "whole");
        const unsigned writes = kiv_sim_calls(KIV_SIM_WRITE) + interruptions;
        std::thread opener([&] {
            kiv_sim_wait_calls(KIV_SIM_WRITE, writes);
            release_output();
        });
        EXPECT_EQ(sup_uart_Send(&port_, big.data(), static_cast<unsigned int>(big.size())), 0);
        opener.join();
    }
    EXPECT_EQ(sent(), big);
    const Reports seen = reports();
    EXPECT_GE(seen.size(), 2 * interruptions - 20); // each short write is a call without a trace
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (seen[i] != trace(uart, "sup_uart_Read", text_of_read, EINTR) &&
            seen[i] != trace(uart, "sup_uart_Send", text_of_write, EINTR)) {
            ADD_FAILURE() << seen[i];
        }
    }
    close();
}

TEST_F(UartData, DeviceThatGoesAwayEndsReadsAndWritesAtOnce) {
    for (const bool readable : {true, false}) {
        open();
        ASSERT_EQ(kiv_sim_line_hang_up(0, readable ? 1 : 0), 0);
        for (int i = 0; i < 3; ++i) {
            errno = EINTR; // must not be taken for the read's
            EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 5)), EIO);
            EXPECT_EQ(length_, 0U);
            Reports expected = {warned(uart, "sup_uart_Read")};
            if (!readable)
                expected.insert(expected.begin(), trace(uart, "sup_uart_Read", text_of_read, EIO));
            EXPECT_EQ(reports(), expected);
        }
        EXPECT_EQ(sup_uart_Send(&port_, "x", 1), EIO);
        EXPECT_EQ(reports(),
                  Reports({trace(uart, "sup_uart_Send", text_of_write, EIO), warned(uart, "sup_uart_Send")}));
        close();
        ASSERT_EQ(kiv_sim_line_plug_in(0), 0);
    }
}

// Stopping
// ---------------------------------------------------------------------------------------------------

TEST_F(UartData, StopReleasesABlockedReadEveryTime) {
    open();
    const unsigned rounds = scaled(10000);
    std::counting_semaphore<> may_read(0);
    std::counting_semaphore<> has_read(0);
    unsigned released = 0;
    std::thread reader([&] {
        for (unsigned i = 0; i < rounds; ++i) {
            may_read.acquire();
            char byte;
            unsigned int length = 1;
            if (sup_uart_Read(&port_, &byte, &length) == EIO && length == 0)
                ++released;
            has_read.release();
        }
    });
    for (unsigned i = 0; i < rounds; ++i) {
        const unsigned polls = kiv_sim_calls(KIV_SIM_POLL) + 1;
        may_read.release();
        if (i % 2 == 0)
            kiv_sim_wait_calls(KIV_SIM_POLL, polls); // every other stop races with the read's beginning
        ASSERT_EQ(sup_uart_Stop_UART(&port_), 0);
        has_read.acquire();
        ASSERT_EQ(reports(), Reports({warned(uart, "sup_uart_Read")}));
    }
    reader.join();
    EXPECT_EQ(released, rounds);
    close();
}

TEST_F(UartData, StopLetsDataThroughAndIsKeptForTheNextRead) {
    open();
    EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
    EXPECT_EQ(state().modem & (KIV_SIM_DTR | KIV_SIM_RTS), 0U);
    EXPECT_EQ(port_.magic, UART_MAGIC);
    feed("ab");
    EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 5)), EIO); // two bytes, then the stop
    EXPECT_EQ(length_, 2U);
    EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_Read")}));
    EXPECT_EQ(sup_uart_Change_Speed(&port_, UART_SPEED_115200), 0);
    EXPECT_NE(state().modem & KIV_SIM_DTR, 0U);
    feed("c");
    EXPECT_EQ(sup_uart_Read_partial(&port_, buffer_, &(length_ = 5)), 0); // and works again
    EXPECT_EQ(length_, 1U);
    close();
}

// Records that are none
// --------------------------------------------------------------------------------------

TEST_F(UartData, NullAndNeverOpenedRecordsAreSurvived) {
    const iovec piece = {buffer_, 1};
    unsigned int count = 77;
    const std::pair<const char *, std::function<int(UART_infos *)>> functions[] = {
        {"sup_uart_Read", [&](auto *p) { return sup_uart_Read(p, buffer_, &(length_ = 1)); }},
        {"sup_uart_Read_partial", [&](auto *p) { return sup_uart_Read_partial(p, buffer_, &(length_ = 1)); }},
        {"sup_uart_Read_partial_timeout", [&](auto *p) { return read_timed(p, buffer_, &(length_ = 1)); }},
        {"sup_uart_Send", [&](auto *p) { return sup_uart_Send(p, "", 1); }},
        {"sup_uart_Sendv", [&](auto *p) { return sup_uart_Sendv(p, &piece, 1, &(count = 77)); }},
        {"sup_uart_Change_Speed", [](auto *p) { return sup_uart_Change_Speed(p, 9); }},
        {"sup_uart_Change_Parity", [](auto *p) { return sup_uart_Change_Parity(p, 0); }},
        {"sup_uart_Change_StopBitsNumber", [](auto *p) { return sup_uart_Change_StopBitsNumber(p, 0); }},
        {"sup_uart_Flush", [](auto *p) { return sup_uart_Flush(p, 0); }},
        {"sup_uart_RTS_Enable", [](auto *p) { return sup_uart_RTS_Enable(p, 0); }},
        {"sup_uart_Stop_UART", sup_uart_Stop_UART},
        {"sup_uart_close", sup_uart_close},
    };
    for (const auto &[function, call] : functions) {
        EXPECT_EQ(call(nullptr), EINVAL) << function;
        EXPECT_EQ(reports(), Reports({asserted(uart, function, "(UART_infos) != ((void *)0)")}));
        EXPECT_EQ(count, std::string(function) == "sup_uart_Sendv" ? 0U : 77U);
        count = 77;
        port_ = {};
        port_.fd = 1000; // nobody's; the 0 of a cleared record would be the terminal of whoever runs this
        EXPECT_NE(call(&port_), 0) << function;
        const Reports seen = reports();
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen[0], std::string(function) == "sup_uart_close"
                               ? warned(uart, function) // closing does not look at the magic
                               : asserted(uart, function, "UART_infos->magic == 0xc0decafe"));
        count = 77;
    }
}

// A bad magic is reported and no more.
TEST_F(UartData, BadMagicChangesNothingElse) {
    open();
    port_.magic = 0xdeadbeef;
    feed("ab");
    EXPECT_EQ(sup_uart_Read(&port_, buffer_, &(length_ = 2)), 0);
    EXPECT_EQ(sup_uart_Send(&port_, "xy", 2), 0);
    sup_uart_RTS_Manage(&port_, UART_RTS_DROP);
    EXPECT_EQ(sent(), "xy");
    EXPECT_EQ(state().modem & KIV_SIM_RTS, 0U);
    const std::string text = "UART_infos->magic == 0xc0decafe";
    EXPECT_EQ(reports(),
              Reports({asserted(uart, "sup_uart_Read", text), asserted(uart, "sup_uart_Send", text),
                       asserted(uart, "sup_uart_RTS_Manage", text)}));
    close(); // which does not look at it
}

} // namespace
} // namespace kiv::test
