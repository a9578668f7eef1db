// TCP ports: a server that serves one client after the other, and a client that connects again.
//
// kiv-core's delay is replaced here by one that only counts, its mutexes are watched.

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "fixtures/mutexes.h"
#include "fixtures/resources.h"
#include "fixtures/serial.h"
#include "fixtures/tcp_peer.h"
#include "kiv/core.h"
#include "kiv/transports.h"

namespace {

std::atomic<unsigned> delays;
std::function<void()> during_delay; // set before threads start
std::function<void()> at_shutdown;  // likewise

} // namespace

int sup_thread_delay(unsigned int delay, int options) {
    EXPECT_EQ(delay, 5000U);
    EXPECT_EQ(options, 0);
    ++delays;
    if (during_delay)
        during_delay();
    return 0;
}

int shutdown(int fd, int how) noexcept {
    static const auto real = reinterpret_cast<decltype(&shutdown)>(::dlsym(RTLD_NEXT, "shutdown"));
    if (at_shutdown)
        at_shutdown();
    return real(fd, how);
}

namespace kiv::test {
namespace {

class TcpTest : public LoggedBoardTest {
  protected:
    UART_infos port_{};

    void SetUp() override {
        LoggedBoardTest::SetUp();
        delays = 0;
        during_delay = nullptr;
        at_shutdown = nullptr;
    }
    void close() { EXPECT_EQ(sup_uart_close(&port_), 0); }
    std::string read(unsigned int most = 64) {
        std::string bytes(most, '\0');
        EXPECT_EQ(sup_uart_Read_partial(&port_, bytes.data(), &most), 0);
        return bytes.substr(0, most);
    }
    std::string read_whole(unsigned int count) {
        std::string bytes(count, '\0');
        EXPECT_EQ(sup_uart_Read(&port_, bytes.data(), &count), 0);
        return bytes;
    }
    void send(const std::string &bytes) {
        EXPECT_EQ(sup_uart_Send(&port_, bytes.data(), static_cast<unsigned int>(bytes.size())), 0);
    }
    void fail_send() {
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE), 0);
        send("dropped");
    }

    // Servers
    void open(const std::string &name = "tcp:") {
        ASSERT_EQ(sup_uart_Init(&port_, name.c_str(), 0, 0), 0);
        ASSERT_EQ(port_.fd, -1);
    }
    Peer join() const { return Peer(connect_to_port(number_of(port_.fd_listen))); }
    // A client that the port has taken.
    Peer join_served() {
        Peer peer = join();
        send("+");
        EXPECT_EQ(peer.receive(1), "+");
        return peer;
    }

    // Clients
    int open_client(const std::string &name, unsigned int options = 0) {
        sup_uart_Prepare(&port_, nullptr);
        return sup_uart_Opened(&port_, pos_open_tcp_client(&port_, name.c_str(), options));
    }
    static Reports trying(long number) {
        return {diagnosed("Try to connect to 127.0.0.1:" + std::to_string(number) + "\n")};
    }
    Peer open_connected(const Listener &listener) {
        EXPECT_EQ(open_client(listener.client_name()), 0);
        EXPECT_EQ(reports(), trying(listener.number()));
        return listener.accept();
    }
};

// Openings --------------------------------------------------------------------------------------------------

// First of all: the mutex is made once in a process.
TEST_F(TcpTest, MutexThatCouldNotBeMadeIsTriedAgain) {
    if (mutexes_made != 0)
        GTEST_SKIP() << "made already";
    const Listener listener;
    mutex_init_status = ENOMEM;
    EXPECT_EQ(sup_uart_Init(&port_, "tcp:", 0, 0), ENOMEM);
    EXPECT_EQ(open_client(listener.client_name()), ENOMEM);
    EXPECT_EQ(port_.priv, nullptr);
    mutex_init_status = 0;
    for (int i = 0; i < 2; ++i) {
        open();
        close();
    }
    EXPECT_EQ(mutexes_made, 1);
}

TEST_F(TcpTest, ServerTakesTheLow16BitsOfItsNumber) {
    const int number = free_port();
    const std::string digits = std::to_string(number);
    for (const std::string &text : {"0" + digits, " +" + digits + "xyz", std::to_string(number + 65536),
                                    std::to_string(number - 65536)}) {
        open("tcp:" + text);
        EXPECT_EQ(number_of(port_.fd_listen), number) << text;
        close();
    }
    open("tcp:x80");
    EXPECT_NE(number_of(port_.fd_listen), 0); // the kernel's choice
    EXPECT_EQ(address_of(port_.fd_listen).sin_addr.s_addr, htonl(INADDR_ANY));
    close();
}

TEST_F(TcpTest, WrongArgumentsAreRefused) {
    EXPECT_EQ(pos_open_tcp(&port_, "5000", 0), EINVAL); // sup_uart_Init2 never asks for another prefix
    for (const char *name : {"", "tcpout:127.0.0.1", "tcpout:127.0.0.1:", "tcpout:127.0.0.1:x",
                             "tcpout::5000", "tcpout:localhost:5000", "tcp:127.0.0.1:5000"}) {
        EXPECT_EQ(open_client(name), EINVAL) << name;
        EXPECT_EQ(port_.priv, nullptr);
    }
    EXPECT_EQ(open_client("tcpout:" + std::string(300, '1') + ":5000"), EINVAL);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0U);

    EXPECT_EQ(pos_open_tcp(nullptr, "tcp:", 0), EINVAL);
    EXPECT_EQ(pos_open_tcp(&port_, nullptr, 0), EINVAL);
    EXPECT_EQ(pos_open_tcp_client(nullptr, "tcpout:127.0.0.1:1", 0), EINVAL);
    EXPECT_EQ(pos_open_tcp_client(&port_, nullptr, 0), EINVAL);
    EXPECT_EQ(pos_close_tcp_client(nullptr), EINVAL);
    const char *record = "(UART_infos) != ((void *)0)";
    const char *name = "(device_name) != ((void *)0)";
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_open_tcp", record), asserted(tcp, "pos_open_tcp", name),
                                  asserted(tcp, "pos_open_tcp_client", record),
                                  asserted(tcp, "pos_open_tcp_client", name),
                                  asserted(tcp, "pos_close_tcp_client", record)}));
}

TEST_F(TcpTest, WaitingOpeningReturnsWithTheFirstClient) {
    const std::uint16_t number = free_port();
    const std::string shown = std::to_string(number + 65536);
    std::thread opener(
        [&] { EXPECT_EQ(sup_uart_Init(&port_, ("tcp:" + shown).c_str(), 0, UART_OPTION_WAIT_PEER), 0); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 1);
    const Peer peer(connect_to_port(number));
    opener.join();
    EXPECT_GE(port_.fd, 0);
    EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port " + shown + "\n")}));
    send("hello");
    EXPECT_EQ(peer.receive(5), "hello");
    close();
    EXPECT_EQ(peer.receive(1), ""); // both sockets are closed
    EXPECT_EQ(connect_to_port(number), -1);
    // A wait that fails is no failure of the opening.
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_ACCEPT, 1, 1, EMFILE), 0);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_SELECT, 1, 1, 1), 0);
    EXPECT_EQ(sup_uart_Init(&port_, "tcp:", 0, UART_OPTION_WAIT_PEER), 0);
    EXPECT_EQ(port_.fd, -1);
    EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port 0\n"),
                                  trace(tcp, "pos_tcp_accept", text_of_accept, EMFILE)}));
    close();
}

TEST_F(TcpTest, ClientTakesTheLow16BitsOfItsNumber) {
    const Listener listener;
    const long shown = listener.number() + 65536L;
    ASSERT_EQ(open_client("tcpout:127.0.0.1:" + std::to_string(shown)), 0);
    EXPECT_EQ(reports(), trying(shown));
    EXPECT_EQ(port_.fd, port_.fd_listen);
    EXPECT_EQ(port_.flags & 3U, UART_FLAG_STREAM);
    const Peer peer = listener.accept();
    close();
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(port_.priv, nullptr);
    EXPECT_EQ(pos_close_tcp_client(&port_), 0); // a second time
    EXPECT_EQ(delays, 0U);
}

TEST_F(TcpTest, RefusedClientKeepsItsAddressAndNoDescriptor) {
    const std::uint16_t number = free_port();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
    EXPECT_EQ(open_client("tcpout:127.0.0.1:" + std::to_string(number)), ECONNREFUSED);
    EXPECT_EQ(reports(), trying(number));
    EXPECT_NE(port_.priv, nullptr);
    const Listener next; // has the number of the socket that is closed
    EXPECT_EQ(pos_close_tcp_client(&port_), 0);
    EXPECT_EQ(pos_close_tcp_client(&port_), 0);
    EXPECT_EQ(port_.priv, nullptr);
    EXPECT_NE(next.number(), 0);
}

TEST_F(TcpTest, WaitingClientTriesUntilSomebodyListens) {
    const std::uint16_t number = free_port();
    std::unique_ptr<Listener> listener;
    during_delay = [&] {
        if (delays == 3)
            listener = std::make_unique<Listener>(number);
    };
    ASSERT_EQ(open_client("tcpout:127.0.0.1:" + std::to_string(number), UART_OPTION_WAIT_PEER), 0);
    EXPECT_EQ(delays, 3U);
    EXPECT_EQ(reports(), trying(number));
    const Peer peer = listener->accept();
    send("hello");
    EXPECT_EQ(peer.receive(5), "hello");
    close();
}

// Serving ---------------------------------------------------------------------------------------------------

TEST_F(TcpTest, WritesAreDroppedWhileNobodyIsConnected) {
    open();
    send("into the void");
    EXPECT_EQ(port_.fd, -1);
    std::string got;
    std::thread reader([&] { got = read_whole(4); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 2);
    EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 2U); // did not even look for a client
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SEND), 0U);
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    reader.join();
    EXPECT_EQ(got, "data");
    send("next");
    EXPECT_EQ(peer.receive(4), "next");
    close();
}

TEST_F(TcpTest, NextClientTakesTheLostOnesPlace) {
    open();
    for (const bool by_reset : {false, true}) {
        Peer first = join_served();
        const unsigned reads = kiv_sim_calls(KIV_SIM_READ) + 1;
        std::thread reader([&] { EXPECT_EQ(read(), "second"); });
        kiv_sim_wait_calls(KIV_SIM_READ, reads);
        const unsigned waits = kiv_sim_calls(KIV_SIM_SELECT) + 1;
        by_reset ? first.reset() : first.close();
        kiv_sim_wait_calls(KIV_SIM_SELECT, waits);
        join().close(); // says nothing
        Peer second = join();
        EXPECT_TRUE(second.send("second"));
        reader.join();
        send("you");
        EXPECT_EQ(second.receive(3), "you");
        second.reset();
        // The writer notices: by an error or two, and by no SIGPIPE.
        while (port_.fd != -1)
            send("gone");
    }
    // A whole read is put together from what two clients sent.
    Peer first = join_served();
    EXPECT_TRUE(first.send("abc"));
    first.close();
    const Peer second = join();
    EXPECT_TRUE(second.send("defgh"));
    EXPECT_EQ(read_whole(8), "abcdefgh");
    close();
}

TEST_F(TcpTest, FailedTransferEndsTheConnectionAndNothingElse) {
    open();
    // Whoever looks at the record from then on does not take up a number that is about to be free.
    at_shutdown = [&] { EXPECT_EQ(port_.fd, -1); };
    for (const int error : {EPIPE, EINTR, 0}) {
        SCOPED_TRACE(error);
        const Peer peer = join_served();
        ASSERT_EQ(
            error != 0 ? kiv_sim_fail(KIV_SIM_SEND, 1, 1, error) : kiv_sim_answer(KIV_SIM_SEND, 1, 1, 0), 0);
        EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
        EXPECT_EQ(port_.fd, -1);
        EXPECT_EQ(peer.receive(1), "") << "the client is told";
    }
    for (const int error : {ECONNRESET, EINTR}) {
        SCOPED_TRACE(error);
        const Peer peer = join_served();
        const Peer next = join();
        EXPECT_TRUE(next.send("next"));
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_READ, 1, 1, error), 0);
        EXPECT_EQ(read(), "next");
        EXPECT_EQ(peer.receive(1), "");
        fail_send();
    }
    close();
}

TEST_F(TcpTest, SecondReaderIsReportedAndGoesOn) {
    const Listener listener;
    open();
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    port_.fd = -2;
    EXPECT_EQ(read(), "data");
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_read_tcp", "UART_infos->fd != -2")}));
    close();
    const Peer first = open_connected(listener);
    fail_send();
    std::thread server([&] { EXPECT_TRUE(listener.accept().send("data")); });
    port_.fd = -2;
    EXPECT_EQ(read(), "data");
    server.join();
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_read_tcp_client", "UART_infos->fd != -2")}));
    close();
}

// A reader or a writer whose call has failed is held on its way to the mutex. Meanwhile its connection is
// ended by another thread, and the next client gets a connection of the same number.
TEST_F(TcpTest, LateFailureDoesNotEndTheNextConnection) {
    for (const bool late_is_reader : {true, false}) {
        open();
        const Peer first = join_served();
        const int number = port_.fd;
        const Peer second = join(); // not served yet
        LockGate gate;
        std::thread late([&] {
            kiv_sim_fault fault{};
            fault.call = late_is_reader ? KIV_SIM_READ : KIV_SIM_SEND;
            fault.nth = fault.times = 1;
            fault.action = KIV_SIM_FAIL;
            fault.error = ECONNRESET;
            fault.this_thread = 1;
            ASSERT_EQ(kiv_sim_arm(&fault), 0);
            gate.stop_me_at(2); // the first is to look at the connection
            if (late_is_reader)
                EXPECT_EQ(read(), "second");
            else
                send("dropped");
        });
        gate.wait_reached();
        fail_send();
        EXPECT_EQ(first.receive(1), "");
        send("+");
        EXPECT_EQ(second.receive(1), "+");
        EXPECT_EQ(port_.fd, number);
        EXPECT_TRUE(second.send("second"));
        gate.open();
        late.join();
        EXPECT_EQ(port_.fd, number);
        send("still there");
        EXPECT_EQ(second.receive(11), "still there");
        close();
        kiv_sim_clear_faults();
    }
}

TEST_F(TcpTest, AnyDescriptorWillDo) {
    const auto exchange = [&] {
        std::thread client([&] {
            kiv_sim_wait_calls(KIV_SIM_LISTEN, 1);
            const Peer peer = join();
            EXPECT_TRUE(peer.send("ping"));
            EXPECT_EQ(peer.receive(4), "pong");
        });
        EXPECT_EQ(read_whole(4), "ping");
        send("pong");
        client.join();
    };
    {
        const NumbersTaken taken(1024); // a set cannot hold the listener
        open();
        EXPECT_GE(port_.fd_listen, 1024);
        send("dropped");
        exchange();
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0U);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_PPOLL), 2U);
        close();
    }
    // Not those of standard input, output and error: what a program writes there is not for its peer.
    const Listener listener;
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    open();
    EXPECT_GT(port_.fd_listen, STDERR_FILENO);
    exchange();
    EXPECT_GT(port_.fd, STDERR_FILENO);
    close();
    Peer peer = open_connected(listener);
    EXPECT_GT(port_.fd, STDERR_FILENO);
    close();
    peer.close();
    ::dup2(input, STDIN_FILENO);
    ::close(input);
}

TEST_F(TcpTest, OneReaderAndManyWritersOutliveTheirClients) {
    open();
    std::atomic<bool> stop = false;
    std::atomic<std::size_t> received = 0;
    std::thread reader([&] {
        for (std::string bytes = "."; bytes.back() != 'Q';) {
            bytes = read();
            received += bytes.size();
            received.notify_one();
        }
    });
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back([&] {
            while (!stop)
                send(std::string(1000, 'w'));
        });
    std::size_t expected = 0;
    const auto expect_received = [&](const Peer &peer, const std::string &bytes) {
        ASSERT_TRUE(peer.send(bytes));
        expected += bytes.size();
        for (std::size_t now = received; now < expected; now = received)
            received.wait(now);
        EXPECT_EQ(received, expected);
    };
    for (unsigned i = 0; i < scaled(1000); ++i) {
        Peer peer = join();
        expect_received(peer, "all of it"); // whoever noticed the end of the one before, this one is served
        ASSERT_EQ(peer.receive(2), "ww");
        i % 2 == 0 ? peer.reset() : peer.close();
    }
    stop = true;
    Peer last = join();
    expect_received(last, "Q");
    last.reset(); // lets go of a writer that is blocked
    for (auto &writer : writers)
        writer.join();
    reader.join();
    close();
}

// Connecting again ------------------------------------------------------------------------------------------

TEST_F(TcpTest, LostConnectionIsMadeAgainByTheReader) {
    const std::uint16_t number = free_port();
    auto listener = std::make_unique<Listener>(number);
    Peer peer = open_connected(*listener);
    const int own = port_.fd;
    for (const bool by_reset : {false, true}) {
        by_reset ? peer.reset() : peer.close();
        listener.reset(); // nobody there at first
        delays = 0;
        during_delay = [&] {
            // While the reader is at it, writes neither wait nor try themselves.
            const unsigned attempts = kiv_sim_calls(KIV_SIM_CONNECT);
            EXPECT_EQ(port_.fd, -2);
            EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
            EXPECT_EQ(kiv_sim_calls(KIV_SIM_CONNECT), attempts);
            if (delays == 2)
                listener = std::make_unique<Listener>(number);
        };
        const unsigned attempt = kiv_sim_calls(KIV_SIM_CONNECT) + 3;
        std::thread server([&] {
            kiv_sim_wait_calls(KIV_SIM_CONNECT, attempt);
            peer = listener->accept();
            EXPECT_TRUE(peer.send("again"));
        });
        EXPECT_EQ(read(), "again");
        server.join();
        EXPECT_EQ(delays, 2U);
        EXPECT_EQ(port_.fd, own);
        EXPECT_EQ(port_.fd_listen, own);
        send("and you");
        EXPECT_EQ(peer.receive(7), "and you");
    }
    close();
}

TEST_F(TcpTest, WriterTriesOnceToConnectAgain) {
    const std::uint16_t number = free_port();
    auto listener = std::make_unique<Listener>(number);
    const Peer peer = open_connected(*listener);
    listener.reset();
    fail_send();
    EXPECT_EQ(port_.fd, -1);
    EXPECT_EQ(peer.receive(1), ""); // the peer learns of it at once
    const unsigned attempts = kiv_sim_calls(KIV_SIM_CONNECT);
    send("dropped");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CONNECT), attempts + 1);
    listener = std::make_unique<Listener>(number);
    send("heard");
    EXPECT_EQ(listener->accept().receive(5), "heard");
    EXPECT_EQ(delays, 0U);
    close();
}

// In numbers ------------------------------------------------------------------------------------------------

TEST_F(TcpTest, ThousandPortsAreOpenAtOnce) {
    constexpr unsigned count = 1000;
    if (!NumbersTaken::allow(2 * count + 200))
        GTEST_SKIP() << "the system allows too few descriptors";
    std::vector<UART_infos> ports(count);
    std::vector<Peer> peers;
    for (auto &port : ports)
        ASSERT_EQ(sup_uart_Init(&port, "tcp:", 0, 0), 0);
    for (auto &port : ports) {
        peers.emplace_back(connect_to_port(number_of(port.fd_listen)));
        ASSERT_TRUE(peers.back().send(std::to_string(peers.size())));
    }
    for (unsigned i = 0; i < count; ++i) {
        port_ = ports[i];
        EXPECT_EQ(read(), std::to_string(i + 1));
        close();
    }
}

TEST_F(TcpTest, OpeningAndClosingForEverCostsNothing) {
    const Listener listener;
    const auto server = [&] { return sup_uart_Init(&port_, "tcp:", 0, 0); };
    const auto tty = [&] { return sup_uart_Init(&port_, "/dev/ttyKIV0", 9, 0); };
    const auto client = [&] {
        const int status = open_client(listener.client_name());
        if (status == 0)
            listener.accept();
        return status;
    };
    const std::pair<std::function<int()>, std::vector<kiv_sim_call>> kinds[] = {
        {server, {KIV_SIM_SOCKET, KIV_SIM_SETSOCKOPT, KIV_SIM_BIND, KIV_SIM_LISTEN}},
        {client, {KIV_SIM_SOCKET, KIV_SIM_CALLOC, KIV_SIM_CONNECT}},
        {tty, {KIV_SIM_OPEN, KIV_SIM_CALLOC, KIV_SIM_PIPE, KIV_SIM_IOCTL}},
    };
    for (const auto &[open_one, steps] : kinds) {
        std::size_t heap = 0;
        const auto descriptors = open_descriptors();
        for (unsigned i = 0; i < scaled(10000) + 50; ++i) {
            if (i == 50) // what is kept for the next time is there now
                heap = heap_in_use();
            ASSERT_EQ(open_one(), 0);
            close();
            const kiv_sim_call step = steps[i % steps.size()];
            kiv_sim_fail(step, 1, 1, ENOMEM);
            ASSERT_EQ(open_one(), kiv_sim_reaches(step) != 0 ? ENOMEM : 0);
            kiv_sim_clear_faults();
            if (port_.magic == UART_MAGIC)
                close();
            else if (port_.priv != nullptr)
                pos_close_tcp_client(&port_);
            reports();
        }
        EXPECT_LT(heap_in_use(), heap + 4096); // a loss of 16 bytes in one step of four would make 40 kB
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

} // namespace
} // namespace kiv::test
