// TCP ports: what is theirs alone. How they get their connections anew is tested with the other transports.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <thread>

#include "fixtures/resources.h"
#include "fixtures/stream_port.h"

namespace kiv::test {
namespace {

class TcpTest : public StreamTest {
  protected:
    // Servers
    void open(const std::string &name = "tcp:") {
        ASSERT_EQ(sup_uart_Init(&port, name.c_str(), 0, 0), 0);
        ASSERT_EQ(port.fd, -1);
    }
    Peer join() const { return Peer(connect_to_port(number_of(port.fd_listen))); }

    // Clients
    int open_client(const std::string &name, unsigned int options = 0) {
        sup_uart_Prepare(&port, nullptr);
        return sup_uart_Opened(&port, pos_open_tcp_client(&port, name.c_str(), options));
    }
    static std::string name_of(long number) { return "tcpout:127.0.0.1:" + std::to_string(number); }
    static Reports trying(long number) {
        return {diagnosed("Try to connect to 127.0.0.1:" + std::to_string(number) + "\n")};
    }
    Peer open_connected(const Listener &listener) {
        EXPECT_EQ(open_client(name_of(listener.number())), 0);
        EXPECT_EQ(reports(), trying(listener.number()));
        return listener.accept();
    }
};

// Openings --------------------------------------------------------------------------------------------------

TEST_F(TcpTest, ServerTakesTheLow16BitsOfItsNumber) {
    const ReservedPort reserved;
    const int number = reserved.number();
    const std::string digits = std::to_string(number);
    for (const std::string &text : {"0" + digits, " +" + digits + "xyz", std::to_string(number + 65536),
                                    std::to_string(number - 65536)}) {
        open("tcp:" + text);
        EXPECT_EQ(number_of(port.fd_listen), number) << text;
        close();
    }
    open("tcp:x80");
    EXPECT_NE(number_of(port.fd_listen), 0); // the kernel's choice
    EXPECT_EQ(address_of(port.fd_listen).sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST_F(TcpTest, OtherNamesAreRefused) {
    EXPECT_EQ(pos_open_tcp(&port, "5000", 0), EINVAL); // sup_uart_Init2 never asks for another prefix
    for (const std::string &name : {std::string(), std::string("tcpout:127.0.0.1"), name_of(1).substr(0, 17),
                                    std::string("tcpout:127.0.0.1:x"), std::string("tcpout::5000"),
                                    std::string("tcpout:localhost:5000"), std::string("tcp:127.0.0.1:5000"),
                                    "tcpout:" + std::string(300, '1') + ":5000"}) {
        EXPECT_EQ(open_client(name), EINVAL) << name;
        EXPECT_EQ(port.priv, nullptr);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0U);
}

// Neither a TCP port's, nor a Unix port's, which nobody serves.
TEST_F(TcpTest, WhatAnUnclearedRecordHeldIsNobodysState) {
    const int others = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const bool is_tcp : {true, false}) {
        std::memset(static_cast<void *>(&port), 0xA5, sizeof port);
        port.fd = port.fd_listen = others;
        port.priv = &port;
        port.status_cb = {};
        const int status = is_tcp ? pos_open_tcp(&port, "tcp:", 0) : pos_open_unix(&port, "unix:@nobody", 0);
        ASSERT_EQ(sup_uart_Opened(&port, status), 0);
        EXPECT_EQ(send("dropped"), 0);
        close();
    }
    EXPECT_EQ(::close(others), 0);
}

// A process that has no descriptor for a client: the port neither spins nor fills the log.
TEST_F(TcpTest, AClientThatCannotBeAcceptedIsTriedAtIntervals) {
    open();
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_ACCEPT, 1, 9, EMFILE), 0);
    const unsigned before = kiv_sim_faults_fired();
    char text[8];
    unsigned length = sizeof text;
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port, text, &length, 0), 0); // no limit without a client
    EXPECT_EQ(std::string(text, length), "data");
    EXPECT_EQ(kiv_sim_faults_fired(), before + 9 + 8)
        << "between nine attempts, eight pauses of half a second";
    EXPECT_EQ(reports(), times(9, trace(tcp, "pos_tcp_accept", text_of_accept, EMFILE)));
}

TEST_F(TcpTest, WaitingOpeningReturnsWithTheFirstClient) {
    const ReservedPort reserved;
    const std::string shown = std::to_string(reserved.number() + 65536);
    std::thread opener(
        [&] { EXPECT_EQ(sup_uart_Init(&port, ("tcp:" + shown).c_str(), 0, UART_OPTION_WAIT_PEER), 0); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 1);
    const Peer peer(connect_to_port(reserved.number()));
    opener.join();
    EXPECT_GE(port.fd, 0);
    EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port " + shown + "\n")}));
    expect_served_by(peer);
}

TEST_F(TcpTest, WaitingOpeningOutlivesAWaitThatFails) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_ACCEPT, 1, 1, EMFILE), 0);
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_SELECT, 1, 1, 1), 0);
    EXPECT_EQ(sup_uart_Init(&port, "tcp:", 0, UART_OPTION_WAIT_PEER), 0);
    EXPECT_EQ(port.fd, -1);
    EXPECT_EQ(reports(), Reports({diagnosed("Waiting connection on tcp port 0\n"),
                                  trace(tcp, "pos_tcp_accept", text_of_accept, EMFILE)}));
}

TEST_F(TcpTest, ClientTakesTheLow16BitsOfItsNumber) {
    const Listener listener;
    const long shown = listener.number() + 65536L;
    ASSERT_EQ(open_client("tcpout:127.0.0.1:0" + std::to_string(shown)), 0); // decimal all the same
    EXPECT_EQ(reports(), trying(shown));
    EXPECT_EQ(port.fd, port.fd_listen);
    const Peer peer = listener.accept();
    expect_served_by(peer);
    EXPECT_EQ(delays, 0U);
}

TEST_F(TcpTest, RefusedClientKeepsItsAddressAndNoDescriptor) {
    const ReservedPort reserved;
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
    EXPECT_EQ(open_client(name_of(reserved.number())), ECONNREFUSED);
    EXPECT_EQ(reports(), trying(reserved.number()));
    EXPECT_NE(port.priv, nullptr);
    const Listener next; // has the number of the socket that is closed
    EXPECT_EQ(pos_close_tcp_client(&port), 0);
    EXPECT_EQ(pos_close_tcp_client(&port), 0);
    EXPECT_EQ(port.priv, nullptr);
    EXPECT_NE(next.number(), 0);
}

TEST_F(TcpTest, WaitingClientTriesUntilSomebodyListens) {
    const ReservedPort reserved;
    std::unique_ptr<Listener> listener;
    during_delay = [&] {
        if (delays == 3)
            listener = std::make_unique<Listener>(reserved.number());
    };
    ASSERT_EQ(open_client(name_of(reserved.number()), UART_OPTION_WAIT_PEER), 0);
    EXPECT_EQ(delays, 3U);
    EXPECT_EQ(reports(), trying(reserved.number()));
    expect_served_by(listener->accept());
}

// Data ------------------------------------------------------------------------------------------------------

TEST_F(TcpTest, AWholeReadIsPutTogetherFromWhatSeveralClientsSent) {
    open();
    AsyncCall text([this] { return read_whole(8); });
    EXPECT_TRUE(join().send("abc")); // and goes
    join().close();                  // says nothing
    const Peer last = join();
    EXPECT_TRUE(last.send("defgh"));
    EXPECT_EQ(text.get(), "abcdefgh");
    expect_served_by(last);
}

// While a reader is at it, writers neither wait nor try themselves.
TEST_F(TcpTest, WritesAreDroppedWhileAReaderWaitsForAClient) {
    open();
    EXPECT_EQ(send("into the void"), 0);
    EXPECT_EQ(port.fd, -1);
    AsyncCall text([this] { return read_whole(4); });
    kiv_sim_wait_calls(KIV_SIM_SELECT, 2);
    EXPECT_EQ(port.write(&port, "dropped", 7), 7);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 2U); // did not even look for a client
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SEND), 0U);
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(text.get(), "data");
    expect_served_by(peer);
}

// It has ended its connection, has found none, and is about to say that it waits for one.
TEST_F(TcpTest, AReaderTakesTheConnectionThatAWriterHasMadeMeanwhile) {
    open();
    Peer peer = join();
    EXPECT_EQ(send("first"), 0);
    LockGate gate;
    AsyncCall late([&] {
        kiv_sim_fault fault{};
        fault.call = KIV_SIM_READ;
        fault.nth = fault.times = 1;
        fault.error = ECONNRESET;
        fault.this_thread = 1;
        EXPECT_EQ(kiv_sim_arm(&fault), 0);
        gate.stop_me_after_failure(2);
        return read_some();
    });
    gate.wait_reached();
    peer = join();
    EXPECT_EQ(send("second"), 0);
    EXPECT_EQ(peer.receive(6), "second");
    gate.open();
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(late.get(), "data");
}

TEST_F(TcpTest, SecondReaderIsReportedAndGoesOn) {
    const Listener listener;
    open();
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    port.fd = -2;
    EXPECT_EQ(read_some(), "data");
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_read_tcp", "UART_infos->fd != -2")}));
    close();
    const Peer first = open_connected(listener);
    fail(KIV_SIM_SEND, EPIPE);
    EXPECT_EQ(send("dropped"), 0);
    std::thread server([&] { EXPECT_TRUE(listener.accept().send("data")); });
    port.fd = -2;
    EXPECT_EQ(read_some(), "data");
    server.join();
    EXPECT_EQ(reports(), Reports({asserted(tcp, "pos_read_tcp_client", "UART_infos->fd != -2")}));
}

TEST_F(TcpTest, DescriptorsThatASetCannotHold) {
    const NumbersTaken taken(1024);
    open();
    EXPECT_GE(port.fd_listen, 1024);
    EXPECT_EQ(send("dropped"), 0);
    const Peer peer = join();
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(read_whole(4), "data");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0U);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_PPOLL), 2U);
    close();
}

// What a program writes to its standard output and error is not for its peer.
TEST_F(TcpTest, StandardDescriptorsAreNoPorts) {
    const Listener listener;
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    open();
    EXPECT_GT(port.fd_listen, STDERR_FILENO);
    expect_served_by(join());
    EXPECT_GT(port.fd, STDERR_FILENO);
    close();
    open_connected(listener).close();
    EXPECT_GT(port.fd, STDERR_FILENO);
    close();
    ::dup2(input, STDIN_FILENO);
    ::close(input);
}

} // namespace
} // namespace kiv::test
