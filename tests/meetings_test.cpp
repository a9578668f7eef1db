// Every place where threads may meet, again and again: what the headers allow at the same time on one record,
// one handle, one sender, and in one process.
//
//   meetings_test [--rounds N]    beside GoogleTest's own options; made for the thread sanitizer and helgrind
//
// The rounds say how often something begins anew: a connection, a stop, a sender.

#include <cstdlib>
#include <semaphore>
#include <vector>

#include "fixtures/hci.h"
#include "fixtures/resources.h"
#include "fixtures/serial.h"
#include "fixtures/stream_port.h"
#include "fixtures/tap.h"
#include "kiv/gpio.h"

namespace kiv::test {
namespace {

unsigned rounds = scaled(400);

// Calls that threads make at once, again and again, until this ends.
class Meanwhile {
    std::atomic<bool> stopped_{false};
    std::vector<std::thread> threads_;

  public:
    template <class... Calls>
    explicit Meanwhile(Calls... calls) {
        (threads_.emplace_back([this, calls]() mutable {
            for (; !stopped_; std::this_thread::yield())
                calls();
        }),
         ...);
    }
    Meanwhile(const Meanwhile &) = delete;
    Meanwhile &operator=(const Meanwhile &) = delete;
    void stop() { stopped_ = true; } // the calls that are under way still have to return
    ~Meanwhile() {
        stop();
        for (auto &thread : threads_)
            thread.join();
    }
};

// A serial line -------------------------------------------------------------------------------------------

class LineMeetings : public SerialTest {};

// Every other stop races with the read's beginning.
TEST_F(LineMeetings, StopAndRead) {
    open();
    std::counting_semaphore<> may_read(0), has_read(0);
    std::thread reader([&] {
        for (unsigned i = 0; i < rounds; ++i) {
            may_read.acquire();
            char byte;
            unsigned length = 1;
            EXPECT_EQ(sup_uart_Read(&port_, &byte, &length), EIO);
            EXPECT_EQ(length, 0U);
            has_read.release();
        }
    });
    for (unsigned i = 0; i < rounds; ++i) {
        const unsigned polls = kiv_sim_calls(KIV_SIM_POLL) + 1;
        may_read.release();
        if (i % 2 == 0)
            kiv_sim_wait_calls(KIV_SIM_POLL, polls);
        EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
        has_read.acquire();
        EXPECT_EQ(reports(), Reports({warned(uart, "sup_uart_Read")}));
    }
    reader.join();
    close();
}

// A reader, a writer, who changes the line, and who stops it.
TEST_F(LineMeetings, ReadWriteChangeAndStop) {
    ::setenv("KIV_SIM_TTY0", "echo", 1);
    open();
    ::unsetenv("KIV_SIM_TTY0");
    std::atomic<unsigned> stops{0}, stopped{0}, on_their_way{0};
    {
        const Meanwhile others(
            [&] {
                if (on_their_way < 64) { // the line loses what it cannot hold, and data goes before a stop
                    on_their_way += 8;
                    EXPECT_EQ(sup_uart_Send(&port_, "12345678", 8), 0);
                }
            },
            [&] {
                EXPECT_EQ(sup_uart_RTS_Enable(&port_, 0), 0);
                EXPECT_EQ(sup_uart_Flush(&port_, UART_FLUSH_OUTPUT), 0);
                sup_uart_RTS_Manage(&port_, UART_RTS_RAISE);
            },
            [&] {
                if (stops < stopped + 10) {
                    EXPECT_EQ(sup_uart_Stop_UART(&port_), 0);
                    ++stops;
                }
            });
        while (stopped < rounds) {
            char bytes[64];
            unsigned length = sizeof bytes;
            if (sup_uart_Read_partial_timeout(&port_, bytes, &length, 0) == 0)
                on_their_way -= length;
            else
                ++stopped;
        }
    }
    EXPECT_EQ(reports(), times(rounds, warned(uart, "sup_uart_Read_partial_timeout")));
    close();
}

// Any thread may cancel; each cancellation ends one read.
TEST_F(LineMeetings, CancellationsOfManyThreads) {
    kiv_linux_sfd_t *s = kiv_linux_sopen(tty_path, O_RDWR | O_NOCTTY);
    std::atomic<unsigned> cancelled{0}, ended{0};
    {
        const auto cancel = [&] {
            if (cancelled - ended < 100 && kiv_linux_sclose_cancel(s) == 1)
                ++cancelled;
        };
        const Meanwhile others(cancel, cancel, cancel);
        for (char byte; ended < rounds; ++ended)
            EXPECT_EQ(kiv_linux_sread(s, &byte, 1), 0);
    }
    for (char byte; ended < cancelled; ++ended)
        EXPECT_EQ(kiv_linux_sread(s, &byte, 1), 0);
    EXPECT_EQ(kiv_linux_sclose(s), 0);
}

// Connections that are lost -------------------------------------------------------------------------------

class StreamMeetings : public StreamTest, public ::testing::WithParamInterface<Transport> {};

INSTANTIATE_TEST_SUITE_P(, StreamMeetings,
                         ::testing::Values(tcp_server, tcp_client, unix_client, demultiplexer),
                         transport_name);

// Whoever notices the end of a connection, one comes after it, and what is sent on that one is read. Where
// nothing is ever dropped, reader and writer may each make one: then the later one counts.
TEST_P(StreamMeetings, ReaderAndWritersOutliveTheirPeers) {
    const auto far = far_side_of(GetParam(), own_name("meeting"));
    const bool calls_back = GetParam() == demultiplexer;
    far->start();
    ASSERT_EQ(far->open(port, events.callbacks()), 0);
    std::counting_semaphore<> read(0);
    std::atomic<bool> has_quit{false};
    std::thread reader([&] {
        for (std::string bytes; bytes != "Quit";) {
            bytes = read_whole(4);
            read.release();
        }
        has_quit = true;
    });
    Peer peer;
    {
        const auto write = [&] { EXPECT_EQ(send(std::string(1000, 'w')), 0); };
        const auto idle = [&] { EXPECT_NE(fd(), 0); };
        Meanwhile writers(write, calls_back ? std::function<void()>(idle) : write,
                          calls_back ? std::function<void()>(idle) : write);
        for (unsigned i = 0; i <= rounds && !HasFailure(); ++i) {
            i % 2 == 0 ? peer.reset() : peer.close();
            peer = far->next();
            const char *const text = i < rounds ? "read" : "Quit";
            EXPECT_TRUE(peer.send(text) || calls_back) << "the only connection has gone";
            while (calls_back && !(i < rounds ? read.try_acquire() : has_quit.load()))
                if (!far->nobody_waits()) {
                    peer = far->next();
                    peer.send(text);
                }
            if (calls_back)
                continue;
            read.acquire();
            EXPECT_EQ(peer.receive(2), "ww");
            EXPECT_TRUE(far->nobody_waits()) << "one connection too many";
        }
        writers.stop();
        reader.join();
        peer.reset(); // lets go of a writer that is blocked
    }
    reports();
}

// Ports of their own do not disturb each other, their modules' first use included.
TEST_P(StreamMeetings, OpeningsAndClosings) {
    ::signal(SIGPIPE, SIG_IGN);
    std::atomic<unsigned> done{0};
    std::atomic<int> names{0};
    const auto open_and_close = [&, kind = GetParam()] {
        const auto far = far_side_of(kind, own_name("opening" + std::to_string(++names)));
        far->start();
        UART_infos own;
        ASSERT_EQ(far->open(own, UART_status_cb{}), 0);
        const Peer peer = far->next();
        EXPECT_TRUE(peer.send("here"));
        char text[4];
        unsigned length = sizeof text;
        EXPECT_EQ(sup_uart_Read(&own, text, &length), 0);
        EXPECT_EQ(sup_uart_close(&own), 0);
        ++done;
    };
    at_shutdown = nullptr;
    {
        const Meanwhile others(open_and_close, open_and_close, open_and_close);
        while (done < rounds)
            std::this_thread::yield();
    }
    reports();
}

// A controller --------------------------------------------------------------------------------------------

class OtherMeetings : public TapBoardTest {};

TEST_F(OtherMeetings, ReaderAndWriterOfAController) {
    UART_infos port;
    ASSERT_EQ(sup_uart_Init(&port, "hci0", 0, 0), 0);
    std::atomic<std::size_t> echoed{0};
    std::thread writer([&] {
        for (std::size_t i = 0; i < rounds; ++i) {
            const Bytes packet = acl(i * 13 % 1025);
            const auto cut = static_cast<unsigned>(1 + i % (packet.size() - 1));
            EXPECT_EQ(sup_uart_Send(&port, packet.data(), cut), 0);
            EXPECT_EQ(sup_uart_Send(&port, packet.data() + cut, static_cast<unsigned>(packet.size()) - cut),
                      0);
            while (i >= echoed + 50) // the socket's queue loses what it cannot hold
                std::this_thread::yield();
        }
    });
    const auto read = [&port](std::size_t length) {
        Bytes bytes(length);
        auto count = static_cast<unsigned>(length);
        EXPECT_EQ(sup_uart_Read(&port, bytes.data(), &count), 0);
        return bytes;
    };
    const Bytes freed = {4, 0x13, 5, 1, 0x2a, 0, 1, 0};
    for (; echoed < rounds && !HasFailure(); ++echoed) {
        EXPECT_EQ(read(freed.size()), freed);
        const Bytes packet = acl(echoed * 13 % 1025);
        EXPECT_EQ(read(1), part(packet, 0, 1));
        EXPECT_EQ(read(packet.size() - 1), part(packet, 1));
    }
    echoed = rounds;
    writer.join();
    EXPECT_EQ(state_of().lost, 0u);
    EXPECT_EQ(sup_uart_close(&port), 0);
}

// The sender ----------------------------------------------------------------------------------------------

std::atomic<unsigned> delivered[2];

template <int Which>
void count_frame(void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t step) {
    delivered[Which] += step == KIV_BNEP_FRAME_END ? 1 : 0;
}

// Its starts, stops and replacements under traffic both ways; no injection overlaps a stop.
TEST_F(OtherMeetings, StartsStopsAndFramesOfTheSender) {
    static const std::uint8_t address[] = {1, 0, 0, 0, 0, 2};
    std::atomic<bool> stopping{false};
    std::atomic<int> injecting{0};
    const auto inject = [&] {
        ++injecting;
        if (!stopping)
            kiv_bnep_data_available(nullptr, experimental, "payload", 7, address, address);
        --injecting;
        received_by_kernel("bnep");
    };
    const Meanwhile others(
        [frame = frame_of(60, experimental)] {
            kiv_sim_tap_set_up("bnep", 1);
            kiv_sim_tap_send("bnep", frame.data(), frame.size());
        },
        inject, inject);
    for (unsigned i = 0; i < rounds / 10 + 1; ++i) {
        ASSERT_EQ(kiv_bnep_set_sender(count_frame<0>, address), 0);
        for (const unsigned before = delivered[0]; i % 2 == 0 && delivered[0] == before;)
            std::this_thread::yield();
        EXPECT_EQ(kiv_bnep_set_sender(count_frame<1>, address), 0);
        const unsigned after_replacement = delivered[0];
        for (const unsigned before = delivered[1]; i % 4 == 0 && delivered[1] == before;)
            std::this_thread::yield();
        EXPECT_EQ(delivered[0], after_replacement);
        for (stopping = true; injecting != 0;)
            std::this_thread::yield();
        EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        const unsigned after_stop = delivered[1];
        EXPECT_EQ(tap_state("bnep").exists, 0);
        EXPECT_EQ(delivered[1], after_stop);
        stopping = false;
    }
    reports();
}

// Pins ----------------------------------------------------------------------------------------------------

// Once in a process: the device stays open, and another test's board would not know it.
TEST(PinMeetings, ReadDriveConfigureAndInterrupts) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    ASSERT_EQ(kiv_sim_pin_wire(3, 4), 0);
    if (kiv_gpio_config(3, KIV_GPIO_OUTPUT_LOW) == ENODEV)
        GTEST_SKIP() << "the board has been started afresh";
    std::atomic<unsigned> interrupts{0};
    const auto wait_for_edges = [&interrupts](int pin) {
        kiv_gpio_irq_device irq;
        EXPECT_EQ(kiv_gpio_irq_open(&irq, pin, KIV_SIM_EDGE_BOTH), 0);
        for (unsigned i = 0; i < rounds; ++i, ++interrupts)
            EXPECT_EQ(kiv_gpio_irq_wait(&irq), 0);
        EXPECT_EQ(kiv_gpio_irq_close(&irq), 0);
    };
    // Whoever changes a pin without a pause lets nobody else at the board.
    const auto pause = [&interrupts] {
        const unsigned before = interrupts;
        for (int i = 0; i < 100 && interrupts == before; ++i)
            std::this_thread::yield();
    };
    const Meanwhile others(
        [&] {
            EXPECT_EQ(kiv_gpio_output_set(3), 0);
            pause();
            EXPECT_EQ(kiv_gpio_output_clear(3), 0);
            pause();
        },
        [&, level = 0]() mutable {
            kiv_sim_pin_drive(8, level = 1 - level);
            pause();
        },
        [&] {
            EXPECT_NE(kiv_gpio_read(3), -1);
            EXPECT_EQ(kiv_gpio_config(20, KIV_GPIO_INPUT), 0);
            pause();
        });
    std::thread other([&] { wait_for_edges(8); });
    wait_for_edges(4);
    other.join();
}

// Log levels ----------------------------------------------------------------------------------------------

TEST_F(OtherMeetings, LevelsAndReports) {
    std::atomic<unsigned> failures{0};
    {
        const auto set = [](int &level, int value) { __atomic_store_n(&level, value, __ATOMIC_RELAXED); };
        const auto fail = [&] {
            UART_infos port;
            EXPECT_EQ(sup_uart_Init(&port, "/dev/there is none", UART_SPEED_9600, 0), ENOENT);
            EXPECT_EQ(pos_open_bt_syspath(&port, "btsyspath:x", 0), -EINVAL);
            ++failures;
        };
        const Meanwhile others(fail, fail, [&] {
            for (const int level : {0, 3}) {
                set(kiv_log_dyn_level_POS, level);
                set(kiv_log_dyn_level_uart_bt, level);
            }
        });
        while (failures < rounds)
            std::this_thread::yield();
    }
    EXPECT_LE(reports().size(), 2 * failures);
}

} // namespace
} // namespace kiv::test

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc == 3 && std::string(argv[1]) == "--rounds")
        kiv::test::rounds = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    return RUN_ALL_TESTS();
}
