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
std::atomic<unsigned> odd_delays;   // with other arguments than a retry has
std::function<void()> during_delay; // set before threads start
std::function<void()> at_shutdown;  // likewise

} // namespace

int sup_thread_delay(unsigned int delay, int options) {
    if (delay != 5000 || options != 0)
        ++odd_delays;
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

constexpr const char *tcp = "posix/linux_uart_tcp";
constexpr const char *text_of_socket = "UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)";
constexpr const char *text_of_bind =
    "ret = bind(UART_infos->fd_listen, (struct sockaddr *)&addr, sizeof(addr))";
constexpr const char *text_of_accept = "UART_infos->fd = accept(UART_infos->fd_listen, ((void *)0), 0)";
constexpr const char *text_of_select =
    "ret = select(UART_infos->fd_listen+1, &readfds, ((void *)0), ((void *)0), "
    "block?((void *)0):&timeout)";

std::uint16_t number_of(const UART_infos &port) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(port.fd_listen, reinterpret_cast<sockaddr *>(&address), &length), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    return ntohs(address.sin_port);
}

std::string read_some(UART_infos &port, unsigned int most = 64) {
    std::string bytes(most, '\0');
    EXPECT_EQ(sup_uart_Read_partial(&port, bytes.data(), &most), 0);
    bytes.resize(most);
    return bytes;
}

std::string read_whole(UART_infos &port, unsigned int count) {
    std::string bytes(count, '\0');
    EXPECT_EQ(sup_uart_Read(&port, bytes.data(), &count), 0);
    return bytes;
}

void send(UART_infos &port, const std::string &bytes) {
    EXPECT_EQ(sup_uart_Send(&port, bytes.data(), static_cast<unsigned int>(bytes.size())), 0);
}

class TcpTest : public LoggedBoardTest {
  protected:
    UART_infos port_{};

    void SetUp() override {
        LoggedBoardTest::SetUp();
        delays = odd_delays = 0;
        during_delay = nullptr;
        at_shutdown = nullptr;
    }
    void TearDown() override {
        EXPECT_EQ(odd_delays, 0U);
        LoggedBoardTest::TearDown();
    }
    void close() { EXPECT_EQ(sup_uart_close(&port_), 0); }

    // Servers
    void open(const std::string &name = "tcp:") {
        ASSERT_EQ(sup_uart_Init(&port_, name.c_str(), 0, 0), 0);
        ASSERT_EQ(port_.magic, UART_MAGIC);
        ASSERT_EQ(port_.fd, -1);
    }
    Peer join() const { return Peer(connect_to_port(number_of(port_))); }
    // A client that the port has taken.
    Peer join_served() {
        Peer peer = join();
        send(port_, "+");
        EXPECT_EQ(peer.receive(1), "+");
        return peer;
    }

    // Clients
    int open_client(const std::string &name, unsigned int options = 0) {
        sup_uart_Prepare(&port_, nullptr);
        return sup_uart_Opened(&port_, pos_open_tcp_client(&port_, name.c_str(), options));
    }
    static std::string trying(long number) {
        return diagnosed("Try to connect to 127.0.0.1:" + std::to_string(number) + "\n");
    }
    Peer open_connected(const Listener &listener) {
        EXPECT_EQ(open_client(listener.client_name()), 0);
        EXPECT_EQ(reports(), Reports({trying(listener.number())}));
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
    for (int i = 0; i < 3; ++i) {
        open();
        close();
    }
    EXPECT_EQ(mutexes_made, 1);
}

TEST_F(TcpTest, ServerTakesTheLow16BitsOfItsNumber) {
    const int number = free_port();
    const std::string digits = std::to_string(number);
    for (const std::string &text : {digits, " +" + digits + "xyz", std::to_string(number + 65536),
                                    std::to_string(number - 65536), digits + ":1"}) {
        open("tcp:" + text);
        EXPECT_EQ(number_of(port_), number) << text;
        close();
    }
    for (const char *name : {"tcp:", "tcp:x80", "tcp:65536"}) {
        open(name);
        EXPECT_NE(number_of(port_), 0);
        close();
    }
    // Other prefixes than its own it refuses; sup_uart_Init2 never asks for them.
    EXPECT_EQ(pos_open_tcp(&port_, "5000", 0), EINVAL);
}

TEST_F(TcpTest, NullArgumentsAreRefused) {
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
    const int number = free_port();
    const std::string shown = std::to_string(number + 65536);
    std::thread opener(
        [&] { EXPECT_EQ(sup_uart_Init(&port_, ("tcp:" + shown).c_str(), 0, UART_OPTION_WAIT_PEER), 0); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 1);
    const Peer peer(connect_to_port(static_cast<std::uint16_t>(number)));
    opener.join();
    EXPECT_GE(port_.fd, 0);
    EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port " + shown + "\n")}));
    send(port_, "hello");
    EXPECT_EQ(peer.receive(5), "hello");
    close();
    EXPECT_EQ(peer.receive(1), ""); // both sockets are closed
    EXPECT_EQ(connect_to_port(static_cast<std::uint16_t>(number)), -1);
    // A wait that fails is no failure of the opening.
    const std::pair<kiv_sim_call, const char *> waits[] = {{KIV_SIM_SELECT, text_of_select},
                                                           {KIV_SIM_ACCEPT, text_of_accept}};
    for (const auto &[call, text] : waits) {
        ASSERT_EQ(kiv_sim_fail(call, 1, 1, EMFILE), 0);
        ASSERT_EQ(kiv_sim_answer(KIV_SIM_SELECT, 1, 1, 1), 0);
        EXPECT_EQ(sup_uart_Init(&port_, "tcp:", 0, UART_OPTION_WAIT_PEER), 0);
        EXPECT_EQ(port_.fd, -1);
        EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port 0\n"),
                                      trace(tcp, "pos_tcp_accept", text, EMFILE)}));
        kiv_sim_clear_faults();
        close();
    }
}

TEST_F(TcpTest, EachFailingStepOfAServerGivesItsErrorAndLeavesNothing) {
    const struct {
        kiv_sim_call call;
        int error;
        const char *text;
    } steps[] = {
        {KIV_SIM_SOCKET, EMFILE, text_of_socket},
        {KIV_SIM_SETSOCKOPT, ENOMEM, "ret = setsockopt(UART_infos->fd_listen, 1, 2, &opt, sizeof(opt))"},
        {KIV_SIM_BIND, EACCES, text_of_bind},
        {KIV_SIM_LISTEN, EADDRINUSE, "ret = listen(UART_infos->fd_listen, 1)"},
    };
    for (const auto &step : steps) {
        ASSERT_EQ(kiv_sim_fail(step.call, 1, 1, step.error), 0);
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
        EXPECT_EQ(sup_uart_Init(&port_, "tcp:", 0, 1), step.error);
        EXPECT_EQ(reports(), Reports({trace(tcp, "pos_open_tcp", step.text, step.error)}));
        EXPECT_EQ(port_.magic, 0U);
        kiv_sim_clear_faults();
    }
    const Listener taken;
    EXPECT_EQ(sup_uart_Init(&port_, ("tcp:" + std::to_string(taken.number())).c_str(), 0, 0), EADDRINUSE);
    EXPECT_EQ(reports(), Reports({trace(tcp, "pos_open_tcp", text_of_bind, EADDRINUSE)}));
    open();
    close();
}

// Serving
// ----------------------------------------------------------------------------------------------------

TEST_F(TcpTest, WritesAreDroppedWhileNobodyIsConnected) {
    open();
    send(port_, "into the void");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SEND), 0U);
    EXPECT_EQ(port_.fd, -1);
    Peer peer = join();
    send(port_, "heard");
    EXPECT_EQ(peer.receive(5), "heard");
    iovec pieces[] = {{pieces, 2}, {pieces, 3}};
    unsigned int sent = 0;
    EXPECT_EQ(sup_uart_Sendv(&port_, pieces, 2, &sent), 0);
    EXPECT_EQ(sent, 5U);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SEND), 3U);
    close();
}

TEST_F(TcpTest, WritesAreDroppedWhileAReaderWaits) {
    open();
    std::string got;
    std::thread reader([&] { got = read_whole(port_, 4); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 1);
    EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 1U); // did not even look for a client
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SEND), 0U);
    Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    reader.join();
    EXPECT_EQ(got, "data");
    send(port_, "next");
    EXPECT_EQ(peer.receive(4), "next");
    close();
}

TEST_F(TcpTest, NextClientTakesTheLostOnesPlace) {
    open();
    for (const bool by_reset : {false, true}) {
        Peer first = join_served();
        const unsigned reads = kiv_sim_calls(KIV_SIM_READ) + 1;
        std::thread reader([&] { EXPECT_EQ(read_some(port_), "second"); });
        kiv_sim_wait_calls(KIV_SIM_READ, reads);
        const unsigned waits = kiv_sim_calls(KIV_SIM_SELECT) + 1;
        by_reset ? first.reset() : first.close();
        kiv_sim_wait_calls(KIV_SIM_SELECT, waits);
        Peer second = join();
        EXPECT_TRUE(second.send("second"));
        reader.join();
        send(port_, "you");
        EXPECT_EQ(second.receive(3), "you");
        second.reset();
        // The writer notices: by an error or two, and by no SIGPIPE.
        while (port_.fd != -1)
            send(port_, "gone");
    }
    // A whole read is put together from what two clients sent.
    Peer first = join_served();
    EXPECT_TRUE(first.send("abc"));
    first.close();
    Peer second = join();
    EXPECT_TRUE(second.send("defgh"));
    EXPECT_EQ(read_whole(port_, 8), "abcdefgh");
    close();
}

TEST_F(TcpTest, FailedTransferEndsTheConnectionAndNothingElse) {
    open();
    // Whoever looks at the record from then on does not take up a number that is about to be free.
    at_shutdown = [&] { EXPECT_EQ(port_.fd, -1); };
    for (const int error : {EPIPE, ECONNRESET, EINTR, ENOBUFS, 0}) {
        const Peer peer = join_served();
        ASSERT_EQ(
            error != 0 ? kiv_sim_fail(KIV_SIM_SEND, 1, 1, error) : kiv_sim_answer(KIV_SIM_SEND, 1, 1, 0), 0);
        EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
        EXPECT_EQ(port_.fd, -1);
        EXPECT_EQ(peer.receive(1), "") << "the client is told, errno " << error;
    }
    for (const int error : {ECONNRESET, EINTR, ETIMEDOUT}) {
        const Peer peer = join_served();
        const Peer next = join();
        EXPECT_TRUE(next.send("next"));
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_READ, 1, 1, error), 0);
        EXPECT_EQ(read_some(port_), "next");
        EXPECT_EQ(peer.receive(1), "");
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE), 0);
        send(port_, "x");
    }
    close();
}

TEST_F(TcpTest, FailedWaitForAClientIsTracedAndRepeated) {
    open();
    const Peer peer = join();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_SELECT, 1, 2, EINTR), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_ACCEPT, 1, 2, EMFILE), 0);
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(read_some(port_), "data");
    const auto selecting = trace(tcp, "pos_tcp_accept", text_of_select, EINTR);
    const auto accepting = trace(tcp, "pos_tcp_accept", text_of_accept, EMFILE);
    EXPECT_EQ(reports(), Reports({selecting, selecting, accepting, accepting}));
    // A writer tries once and drops.
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE), 0);
    send(port_, "x");
    const Peer next = join();
    for (const kiv_sim_call call : {KIV_SIM_SELECT, KIV_SIM_ACCEPT}) {
        kiv_sim_clear_faults();
        ASSERT_EQ(kiv_sim_fail(call, 1, 1, call == KIV_SIM_SELECT ? EINTR : EMFILE), 0);
        send(port_, "dropped");
        EXPECT_EQ(port_.fd, -1);
    }
    EXPECT_EQ(reports(), Reports({selecting, accepting}));
    send(port_, "sent");
    EXPECT_EQ(next.receive(4), "sent");
    close();
}

TEST_F(TcpTest, SecondReaderIsReportedAndGoesOn) {
    const Listener listener;
    open();
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    port_.fd = -2;
    EXPECT_EQ(read_some(port_), "data");
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_read_tcp", "UART_infos->fd != -2")}));
    close();
    const Peer first = open_connected(listener);
    std::thread server([&] { EXPECT_TRUE(listener.accept().send("data")); });
    port_.fd = -2;
    EXPECT_EQ(read_some(port_), "data");
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
                EXPECT_EQ(read_some(port_), "second");
            else
                send(port_, "dropped");
        });
        gate.wait_reached();
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE), 0);
        send(port_, "dropped");
        EXPECT_EQ(first.receive(1), "");
        send(port_, "+");
        EXPECT_EQ(second.receive(1), "+");
        EXPECT_EQ(port_.fd, number);
        EXPECT_TRUE(second.send("second"));
        gate.open();
        late.join();
        EXPECT_EQ(port_.fd, number);
        send(port_, "still there");
        EXPECT_EQ(second.receive(11), "still there");
        close();
        kiv_sim_clear_faults();
    }
}

TEST_F(TcpTest, AnyDescriptorWillDo) {
    const Listener listener;
    const auto exchange = [&] {
        std::thread client([&] {
            kiv_sim_wait_calls(KIV_SIM_LISTEN, 1);
            const Peer peer = join();
            EXPECT_TRUE(peer.send("ping"));
            EXPECT_EQ(peer.receive(4), "pong");
        });
        EXPECT_EQ(read_whole(port_, 4), "ping");
        send(port_, "pong");
        client.join();
    };
    {
        const NumbersTaken taken(1024); // a set cannot hold the listener
        open();
        EXPECT_GE(port_.fd_listen, 1024);
        send(port_, "dropped");
        exchange();
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0U);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_PPOLL), 2U);
        close();
    }
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    open();
    EXPECT_EQ(port_.fd_listen, 0);
    exchange();
    close();
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    open();
    close();
    close(); // a second time by mistake
    Peer peer = open_connected(listener);
    EXPECT_EQ(port_.fd, 0);
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(read_some(port_), "data");
    close();
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    ::dup2(input, STDIN_FILENO);
    ::close(input);
}

TEST_F(TcpTest, OneReaderAndManyWritersOutliveTheirClients) {
    open();
    std::atomic<bool> stop = false;
    std::atomic<std::size_t> received = 0;
    std::thread reader([&] {
        char bytes[64];
        unsigned int length = sizeof bytes;
        while (sup_uart_Read_partial(&port_, bytes, &length) == 0) {
            received += length;
            received.notify_one();
            if (bytes[length - 1] == 'Q')
                break;
            length = sizeof bytes;
        }
    });
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back([&] {
            const std::string block(1000, 'w');
            while (!stop)
                send(port_, block);
        });
    std::size_t expected = 0;
    const auto wait_received = [&] {
        for (std::size_t now = received; now < expected; now = received)
            received.wait(now);
    };
    for (unsigned i = 0; i < scaled(1000); ++i) {
        Peer peer = join();
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(peer.send("all of it"));
        expected += 9;
        wait_received(); // whoever noticed the end of the one before, this one is served
        ASSERT_EQ(peer.receive(2), "ww");
        i % 2 == 0 ? peer.reset() : peer.close();
    }
    stop = true;
    Peer last = join();
    EXPECT_TRUE(last.send("Q"));
    ++expected;
    wait_received();
    EXPECT_EQ(received, expected);
    last.reset(); // lets go of a writer that is blocked
    for (auto &writer : writers)
        writer.join();
    reader.join();
    close();
}

// Connecting
// ---------------------------------------------------------------------------------------------------

TEST_F(TcpTest, ClientRefusesNamesWithoutAnAddressAndAPort) {
    for (const char *name :
         {"", "tcpout:", "tcpout:127.0.0.1", "tcpout:127.0.0.1:", "tcpout:127.0.0.1:x", "tcpout::5000",
          "tcpout:localhost:5000", "tcpout:127.0.0.1.1:5000", "tcpout:0000127.0.0.000001:5000", // 19, 20
          "tcpout:00000127.0.0.000001:5000", "tcp:5000", "127.0.0.1:5000"}) {
        EXPECT_EQ(open_client(name), EINVAL) << name;
        EXPECT_EQ(port_.magic, 0U);
        EXPECT_EQ(port_.priv, nullptr);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0U);
}

TEST_F(TcpTest, ClientCarriesBytesBothWays) {
    const Listener listener;
    const long shown = listener.number() + 65536L; // the low 16 bits count
    ASSERT_EQ(open_client("tcpout:127.0.0.1:" + std::to_string(shown)), 0);
    EXPECT_EQ(reports(), Reports({trying(shown)}));
    EXPECT_EQ(port_.fd, port_.fd_listen);
    EXPECT_EQ(port_.flags & 3U, UART_FLAG_STREAM);
    const Peer peer = listener.accept();
    EXPECT_TRUE(peer.send("ping"));
    EXPECT_EQ(read_whole(port_, 4), "ping");
    send(port_, "pong");
    EXPECT_EQ(peer.receive(4), "pong");
    close();
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(port_.priv, nullptr);
    EXPECT_EQ(pos_close_tcp_client(&port_), 0); // a second time
    EXPECT_EQ(delays, 0U);
}

TEST_F(TcpTest, EachFailingStepOfAClientGivesItsErrorAndLeavesNothing) {
    const Listener listener;
    const std::string name = listener.client_name();
    const auto diagnosis = trying(listener.number());
    const struct {
        kiv_sim_call call;
        int error;
        Reports reported;
        bool keeps_address;
    } steps[] = {
        {KIV_SIM_SOCKET, EMFILE, {trace(tcp, "pos_open_tcp_client", text_of_socket, EMFILE)}, false},
        {KIV_SIM_CALLOC, ENOMEM, {}, false},
        {KIV_SIM_CONNECT, ETIMEDOUT, {diagnosis}, true},
        {KIV_SIM_CONNECT, EINTR, {diagnosis}, true},
    };
    for (const auto &step : steps) {
        if (kiv_sim_fail(step.call, 1, 1, step.error) != 0)
            continue; // allocation under a sanitizer
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
        EXPECT_EQ(open_client(name), step.error);
        EXPECT_EQ(reports(), step.reported);
        EXPECT_EQ(port_.magic, 0U);
        EXPECT_EQ(port_.priv != nullptr, step.keeps_address);
        EXPECT_EQ(pos_close_tcp_client(&port_), 0);
        EXPECT_EQ(pos_close_tcp_client(&port_), 0);
        EXPECT_EQ(port_.priv, nullptr);
        kiv_sim_clear_faults();
    }
    EXPECT_EQ(open_client("tcpout:127.0.0.1:" + std::to_string(free_port())), ECONNREFUSED);
    EXPECT_EQ(reports().size(), 1U);
    EXPECT_EQ(pos_close_tcp_client(&port_), 0);
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
    EXPECT_EQ(reports(), Reports({trying(number)}));
    const Peer peer = listener->accept();
    send(port_, "hello");
    EXPECT_EQ(peer.receive(5), "hello");
    close();
}

TEST_F(TcpTest, LostConnectionIsMadeAgainByTheReader) {
    const std::uint16_t number = free_port();
    auto listener = std::make_unique<Listener>(number);
    Peer peer = open_connected(*listener);
    const int own = port_.fd;
    for (const bool by_reset : {false, true}) {
        by_reset ? peer.reset() : peer.close();
        listener.reset(); // nobody there at first
        const unsigned tried = delays;
        during_delay = [&] {
            // While the reader is at it, writes neither wait nor try themselves.
            const unsigned attempts = kiv_sim_calls(KIV_SIM_CONNECT);
            EXPECT_EQ(port_.fd, -2);
            EXPECT_EQ(port_.write(&port_, "dropped", 7), 7);
            EXPECT_EQ(kiv_sim_calls(KIV_SIM_CONNECT), attempts);
            if (delays == tried + 2)
                listener = std::make_unique<Listener>(number);
        };
        const unsigned attempt = kiv_sim_calls(KIV_SIM_CONNECT) + 3;
        std::thread server([&] {
            kiv_sim_wait_calls(KIV_SIM_CONNECT, attempt);
            peer = listener->accept();
            EXPECT_TRUE(peer.send("again"));
        });
        EXPECT_EQ(read_some(port_), "again");
        server.join();
        EXPECT_EQ(delays, tried + 2);
        EXPECT_EQ(port_.fd, own);
        EXPECT_EQ(port_.fd_listen, own);
        send(port_, "and you");
        EXPECT_EQ(peer.receive(7), "and you");
    }
    close();
}

TEST_F(TcpTest, WriterTriesOnceToConnectAgain) {
    const std::uint16_t number = free_port();
    auto listener = std::make_unique<Listener>(number);
    Peer peer = open_connected(*listener);
    listener.reset();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE), 0);
    send(port_, "lost");
    EXPECT_EQ(port_.fd, -1);
    EXPECT_EQ(peer.receive(1), ""); // the peer learns of it at once
    const unsigned attempts = kiv_sim_calls(KIV_SIM_CONNECT);
    send(port_, "dropped");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CONNECT), attempts + 1);
    listener = std::make_unique<Listener>(number);
    constexpr const char *connecting = "pos_connect_tcp_client";
    const std::pair<kiv_sim_call, const char *> steps[] = {
        {KIV_SIM_SOCKET, text_of_socket}, {KIV_SIM_DUP2, "ret = dup2(fd, UART_infos->fd_listen)"}};
    for (const auto &[call, text] : steps) {
        kiv_sim_clear_faults();
        ASSERT_EQ(kiv_sim_fail(call, 1, 1, EMFILE), 0);
        send(port_, "dropped");
        EXPECT_EQ(port_.fd, -1);
        EXPECT_EQ(reports(), Reports({trace(tcp, connecting, text, EMFILE)}));
    }
    send(port_, "heard");
    EXPECT_EQ(listener->accept().receive(5), "heard");
    EXPECT_EQ(delays, 0U);
    close();
}

// In numbers
// ---------------------------------------------------------------------------------------------------

TEST_F(TcpTest, ThousandPortsAreOpenAtOnce) {
    constexpr unsigned count = 1000;
    if (!NumbersTaken::allow(2 * count + 200))
        GTEST_SKIP() << "the system allows too few descriptors";
    std::vector<UART_infos> ports(count);
    std::vector<Peer> peers;
    for (auto &port : ports)
        ASSERT_EQ(sup_uart_Init(&port, "tcp:", 0, 0), 0);
    for (auto &port : ports)
        peers.emplace_back(connect_to_port(number_of(port)));
    for (unsigned i = 0; i < count; ++i) {
        send(ports[i], std::to_string(i) + ".");
        ASSERT_TRUE(peers[i].send(std::to_string(i)));
    }
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(read_some(ports[i]), std::to_string(i));
        EXPECT_EQ(peers[i].receive(std::to_string(i).size() + 1), std::to_string(i) + ".");
        peers[i].reset();
        EXPECT_EQ(sup_uart_close(&ports[i]), 0);
    }
}

TEST_F(TcpTest, OpeningAndClosingForEverCostsNothing) {
    const Listener listener;
    const std::string name = listener.client_name();
    const auto server = [&](int expected) {
        ASSERT_EQ(sup_uart_Init(&port_, "tcp:", 0, 0), expected);
        if (expected == 0)
            close();
    };
    const auto client = [&](int expected) {
        ASSERT_EQ(open_client(name), expected);
        if (expected == 0)
            listener.accept().reset();
        ASSERT_EQ(pos_close_tcp_client(&port_), 0);
    };
    const auto tty = [&](int expected) {
        ASSERT_EQ(sup_uart_Init(&port_, "/dev/ttyKIV0", 9, 0), expected);
        if (expected == 0)
            close();
    };
    const std::pair<std::function<void(int)>, std::vector<kiv_sim_call>> kinds[] = {
        {server, {KIV_SIM_SOCKET, KIV_SIM_SETSOCKOPT, KIV_SIM_BIND, KIV_SIM_LISTEN}},
        {client, {KIV_SIM_SOCKET, KIV_SIM_CALLOC, KIV_SIM_CONNECT}},
        {tty, {KIV_SIM_OPEN, KIV_SIM_CALLOC, KIV_SIM_PIPE, KIV_SIM_IOCTL}},
    };
    const auto cycles = [&](unsigned count, const std::function<void(int)> &cycle,
                            const std::vector<kiv_sim_call> &steps) {
        for (unsigned i = 0; i < count; ++i) {
            cycle(0);
            kiv_sim_fail(steps[i % steps.size()], 1, 1, ENOMEM);
            cycle(kiv_sim_reaches(steps[i % steps.size()]) != 0 ? ENOMEM : 0);
            kiv_sim_clear_faults();
            reports();
        }
    };
    for (const auto &[cycle, steps] : kinds) {
        cycles(50, cycle, steps); // whatever is kept for the next time
        const auto descriptors = open_descriptors();
        const std::size_t heap = heap_in_use();
        cycles(scaled(10000), cycle, steps);
        EXPECT_LT(heap_in_use(), heap + 4096); // a loss of 16 bytes in one step of four would make 40 kB
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

} // namespace
} // namespace kiv::test
