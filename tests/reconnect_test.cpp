// Ports that get their connections anew: what a TCP server, a TCP client, a Unix port and a demultiplexer's
// port have in common; then what is a demultiplexer's alone.

#include <cerrno>
#include <fcntl.h>
#include <semaphore>
#include <string>
#include <vector>

#include "fixtures/resources.h"
#include "fixtures/signal.h"
#include "fixtures/stream_port.h"

using namespace kiv::test;

namespace {

class Reconnect : public StreamTest, public ::testing::WithParamInterface<Transport> {
  protected:
    const Transport transport = GetParam();
    const kiv_sim_call sends = transport == demultiplexer ? KIV_SIM_WRITE : KIV_SIM_SEND;
    std::unique_ptr<FarSide> far;
    std::string history; // of the callbacks
    int mutexes_before = 0;

    void SetUp() override {
        StreamTest::SetUp();
        far = far_side_of(transport, own_name("port"));
        mutexes_before = mutexes_alive;
    }
    // Only a demultiplexer's port calls back, and in turns.
    void TearDown() override {
        close();
        far.reset();
        StreamTest::TearDown();
        history += events.taken();
        if (transport != demultiplexer) {
            EXPECT_EQ(history, "");
        } else {
            EXPECT_EQ(mutexes_alive, mutexes_before);
            for (std::size_t i = 0; i < history.size(); ++i)
                EXPECT_EQ(history[i], i % 2 == 0 ? 'C' : 'D') << history;
        }
    }
    int open() {
        const int status = far->open(port, events.callbacks());
        EXPECT_EQ(reports().size(), transport == tcp_client && status == 0 ? 1U : 0U); // whom it tries
        return status;
    }
    // Opens the port, and gives the other end of a connection that it has.
    Peer connect() {
        far->start();
        EXPECT_EQ(open(), 0);
        if (transport == tcp_server)
            return connect_by_writing();
        return far->next();
    }
    // A write makes the next connection, or takes the one that is made.
    Peer connect_by_writing() {
        Peer peer;
        if (transport == tcp_server)
            peer = far->next();
        EXPECT_EQ(send("sent"), 0);
        if (transport != tcp_server)
            peer = far->next();
        EXPECT_EQ(peer.receive(4), "sent");
        return peer;
    }
    // A write fails on its connection, which is ended: the peer learns of it.
    void lose(const Peer &peer, int error = EPIPE) {
        fail(sends, error);
        EXPECT_EQ(send("lost"), 0);
        EXPECT_EQ(peer.receive(1), "") << "the old connection is still open";
    }
    static unsigned pauses() { return kiv_sim_calls(KIV_SIM_USLEEP) + delays; }
    static void expect_read_from(const Peer &peer, AsyncCall &read) {
        EXPECT_TRUE(peer.send("for the reader"));
        EXPECT_EQ(read.get(), "for the reader");
    }
};

INSTANTIATE_TEST_SUITE_P(, Reconnect, ::testing::Values(tcp_server, tcp_client, unix_client, demultiplexer),
                         transport_name);

TEST_P(Reconnect, AMutexThatFailedIsTriedAgainAndThenKept) {
    if (mutexes_made != 0)
        GTEST_SKIP() << "an earlier test in this process has made the mutex";
    far->start();
    mutex_init_status = 77;
    EXPECT_EQ(open(), 77);
    EXPECT_TRUE(port.fd == -1 && port.priv == nullptr && port.magic == 0);
    EXPECT_TRUE(port.read == nullptr && port.write == nullptr && port.close == nullptr);
    mutex_init_status = 0;
    far->stop(); // and with it the connection that came to nothing
    expect_served_by(connect());
    EXPECT_EQ(sup_uart_close(&port), 0);
    EXPECT_EQ(events.taken(), transport == demultiplexer ? "C" : "");
    expect_served_by(connect());
    EXPECT_EQ(mutexes_made, transport == demultiplexer ? 2 : 1);
}

TEST_P(Reconnect, AClosedPortIsClosedForItsPeerAndForGood) {
    const Peer peer = connect();
    EXPECT_EQ(port.flags & 3U, UART_FLAG_STREAM);
    EXPECT_EQ(sup_uart_close(&port), 0);
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(sup_uart_close(&port), 0); // by mistake
    errno = 0;
    EXPECT_EQ(error_of(port.write(&port, "x", 1)), EBADF);
    errno = 0;
    EXPECT_EQ(error_of(port.read(&port, nullptr, 1)), EBADF);
    EXPECT_TRUE(port.fd == -1 && port.fd_listen == 0 && port.priv == nullptr && port.writev == nullptr);
}

TEST_P(Reconnect, ShortTransfersAreContinued) {
    const Peer peer = connect();
    ASSERT_EQ(kiv_sim_shorten(sends, 1, 3, 2), 0);
    EXPECT_EQ(send("abcdefgh"), 0);
    EXPECT_EQ(peer.receive(8), "abcdefgh");
}

// Losing the peer -------------------------------------------------------------------------------------------

// The first attempt after a loss is immediate; from the second in a row without a byte, the reader pauses.
TEST_P(Reconnect, PeersThatLeaveAtOnceAreNotFollowedInHaste) {
    Peer peer = connect();
    const unsigned before = pauses();
    AsyncCall text([this] { return read_some(); });
    for (int lost = 0; lost < 4; ++lost) {
        peer.close();
        peer = far->next();
    }
    expect_read_from(peer, text);
    EXPECT_EQ(pauses(), before + 3);
    EXPECT_EQ(kiv_sim_faults_fired(), kiv_sim_calls(KIV_SIM_USLEEP)) << "a pause of another length";
}

// A demultiplexer's goes on with the next connection; the others are dropped, without a word to the caller.
TEST_P(Reconnect, AFailedWriteEndsItsConnection) {
    Peer peer = connect();
    for (const int error : {EPIPE, EINTR, EBADF, 0}) {
        SCOPED_TRACE(error);
        lose(peer, error);
        if (transport == demultiplexer) {
            peer = far->next();
            EXPECT_EQ(peer.receive(4), "lost");
        } else {
            EXPECT_EQ(fd(), -1);
            peer = connect_by_writing();
        }
    }
    expect_served_by(peer);
}

// The highest bits of the flags count the connections, and none of them is the first one again.
TEST_P(Reconnect, TheCountOfConnectionsGoesRound) {
    Peer peer = connect();
    port.flags |= 0xFFC00000;
    for (unsigned count = 1; count < 3; ++count) {
        fail(sends, EPIPE);
        if (transport == demultiplexer) {
            EXPECT_EQ(send("sent"), 0); // on the connection that it makes at once
            peer = far->next();
            EXPECT_EQ(peer.receive(4), "sent");
        } else {
            EXPECT_EQ(send("lost"), 0);
            peer = connect_by_writing();
        }
        EXPECT_EQ(port.flags >> 22, count);
    }
    expect_served_by(peer);
}

// Each time the reader, which is waiting, comes back with what the next peer sends.
TEST_P(Reconnect, AReaderOutlivesItsPeers) {
    constexpr int losses = 200;
    Peer peer = connect();
    std::counting_semaphore<> read(0);
    std::thread reader([&] {
        for (int expected = 1; expected <= losses; ++expected) {
            int number = 0;
            unsigned length = sizeof number;
            if (sup_uart_Read(&port, &number, &length) != 0 || number != expected)
                ADD_FAILURE() << "read " << number << " instead of " << expected;
            read.release();
        }
    });
    for (int number = 1; number <= losses; ++number) {
        far->stop(); // first, or the port connects again to the service that is about to go
        number % 2 == 0 ? peer.reset() : peer.close();
        far->start();
        peer = far->next();
        EXPECT_TRUE(peer.send(std::string(reinterpret_cast<const char *>(&number), sizeof number)));
        read.acquire();
    }
    reader.join();
    expect_served_by(peer);
    history = events.taken();
    EXPECT_EQ(history.size(), transport == demultiplexer ? 1U + 2 * losses : 0U);
}

// Transports that drop what they cannot send ----------------------------------------------------------------

class Dropping : public Reconnect {};

INSTANTIATE_TEST_SUITE_P(, Dropping, ::testing::Values(tcp_server, tcp_client, unix_client), transport_name);

TEST_P(Dropping, AWriterTriesOnceWhileNobodyIsThere) {
    const Peer peer = connect();
    far->stop();
    lose(peer);
    const unsigned attempts = kiv_sim_calls(KIV_SIM_CONNECT), sent = kiv_sim_calls(sends);
    EXPECT_EQ(send("dropped"), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CONNECT), attempts + (transport == tcp_server ? 0 : 1));
    EXPECT_EQ(kiv_sim_calls(sends), sent) << "nothing is sent on what is not connected";
    EXPECT_EQ(pauses(), 0U);
    far->start();
    expect_served_by(connect_by_writing());
}

// A reader or a writer has seen its connection fail, and before it can say so, another thread has made the
// next one under the same number. That one must live.
TEST_P(Dropping, ALateThreadSparesTheNextConnection) {
    Peer peer = connect();
    for (const bool late_is_reader : {true, false}) {
        const int number = fd();
        LockGate gate;
        AsyncCall late([&] {
            kiv_sim_fault fault{};
            fault.call = late_is_reader ? KIV_SIM_READ : sends;
            fault.nth = fault.times = 1;
            fault.error = ECONNRESET;
            fault.this_thread = 1;
            EXPECT_EQ(kiv_sim_arm(&fault), 0);
            gate.stop_me_after_failure();
            return late_is_reader ? read_some() : std::to_string(send("lost"));
        });
        gate.wait_reached();
        lose(peer);
        peer = connect_by_writing();
        ASSERT_EQ(fd(), number);
        const unsigned before = pauses();
        gate.open();
        if (late_is_reader) {
            expect_read_from(peer, late);
            EXPECT_EQ(pauses(), before + (transport == unix_client ? 1 : 0)) << "which looks after a pause";
        } else {
            EXPECT_EQ(late.get(), "0");
        }
        expect_served_by(peer);
    }
}

// A writer that ends the connection brings back the reader that is blocked on it.
TEST_P(Dropping, ABlockedReaderFollowsTheWriter) {
    const Peer peer = connect();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncCall text([this] { return read_some(); });
    text.wait_blocked(reads + 1);
    lose(peer);
    const Peer next = far->next();
    expect_read_from(next, text);
    expect_served_by(next);
}

// A thread that is late with a lost connection's number must not meet somebody else's descriptor under it;
// once the port is closed, the number is whoever's has it next.
class Keeping : public Reconnect {};

INSTANTIATE_TEST_SUITE_P(, Keeping, ::testing::Values(tcp_server, tcp_client, unix_client), transport_name);

TEST_P(Keeping, ALostNumberStaysThePortsUntilItIsClosed) {
    Peer peer = connect();
    const int number = fd();
    lose(peer);
    EXPECT_NE(::fcntl(number, F_GETFD), -1);
    peer = connect_by_writing();
    EXPECT_EQ(fd(), number);
    lose(peer);
    EXPECT_EQ(sup_uart_close(&port), 0); // while there is no connection
    EXPECT_EQ(::fcntl(number, F_GETFD), -1);
    ::dup2(STDERR_FILENO, number);
    EXPECT_EQ(sup_uart_close(&port), 0); // by mistake
    EXPECT_NE(::fcntl(number, F_GETFD), -1);
    ::close(number);
}

// Transports that look for a service ------------------------------------------------------------------------

class Searching : public Reconnect {};

INSTANTIATE_TEST_SUITE_P(, Searching, ::testing::Values(tcp_client, unix_client, demultiplexer),
                         transport_name);

TEST_P(Searching, AReaderTriesUntilTheServiceIsBack) {
    Peer peer = connect();
    std::vector<kiv_sim_call> steps = {KIV_SIM_CONNECT};
    if (transport != demultiplexer)
        steps.push_back(KIV_SIM_SOCKET);
    if (transport == unix_client)
        steps.push_back(KIV_SIM_SETSOCKOPT);
    for (const kiv_sim_call step : steps) {
        SCOPED_TRACE(kiv_sim_call_name(step));
        const unsigned before = pauses();
        fail(step, ENOMEM, 3);
        peer.close();
        AsyncCall text([this] { return read_some(); });
        peer = far->next();
        expect_read_from(peer, text);
        EXPECT_EQ(pauses(), before + 3);
    }
    EXPECT_EQ(reports().size(), transport == tcp_client ? 3U : 0U); // of each socket that could not be made
    expect_served_by(peer);
}

// Interrupted by real signals until it has made a second connection. Every connection gets the same byte, and
// the reader must come back with it.
TEST_P(Searching, ASignalMakesAReaderConnectAgain) {
    Peer peer = connect();
    AsyncCall text([this] { return read_some(1); });
    {
        const Interrupter interrupter(text.thread());
        peer = far->next();
    }
    peer.send("x"); // fails where the reader has moved on already
    while (!text.done()) {
        if (far->nobody_waits())
            continue;
        peer = far->next();
        peer.send("x");
    }
    EXPECT_EQ(text.get(), "x");
}

// On a Unix socket ------------------------------------------------------------------------------------------

class Local : public Reconnect {};

INSTANTIATE_TEST_SUITE_P(, Local, ::testing::Values(unix_client, demultiplexer), transport_name);

// The service binds the whole address; a name of any length must lead there.
TEST_P(Local, NamesReachTheirService) {
    for (const std::string &name : {own_path(), own_name("a"), own_path(107), own_path(108), own_path(120),
                                    own_name(std::string(200, 'n'))}) {
        SCOPED_TRACE(name);
        far = far_side_of(transport, name);
        expect_served_by(connect());
        EXPECT_TRUE(far->nobody_waits());
        close();
    }
    EXPECT_EQ(events.taken(), transport == demultiplexer ? "CCCCCC" : "");
    EXPECT_EQ(pos_open_unix(&port, "unix", 0), EINVAL);
}

TEST_P(Local, TheServiceMayComeLater) {
    ASSERT_EQ(open(), 0);
    EXPECT_GE(fd(), 0);
    AsyncCall text([this] { return read_some(); });
    kiv_sim_wait_calls(KIV_SIM_USLEEP, 3);
    far->start();
    const Peer peer = far->next();
    expect_read_from(peer, text);
    expect_served_by(peer);
    EXPECT_EQ(kiv_sim_faults_fired(), kiv_sim_calls(KIV_SIM_USLEEP)) << "a pause of another length";
}

// Demultiplexers --------------------------------------------------------------------------------------------

class Demultiplexer : public Reconnect {};

INSTANTIATE_TEST_SUITE_P(, Demultiplexer, ::testing::Values(demultiplexer), transport_name);

// What a record that was not prepared holds is somebody else's.
TEST_P(Demultiplexer, AFailedOpeningReleasesOnlyItsOwn) {
    for (const kiv_sim_call step : {KIV_SIM_CALLOC, KIV_SIM_SOCKET}) {
        if (kiv_sim_reaches(step) == 0)
            continue; // under a sanitizer's allocator
        const int others = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        port = {};
        port.fd = others;
        port.priv = &port;
        fail(step, ENOMEM);
        EXPECT_EQ(pos_btgpsdemux_open(&port, "@gps"), ENOMEM);
        EXPECT_TRUE(port.fd == -1 && port.priv == nullptr);
        EXPECT_EQ(::close(others), 0);
        reports();
    }
}

// The one failure that reaches the caller; the next call begins another reconnection.
// The lost number stays the port's meanwhile, for a thread that is late with it.
TEST_P(Demultiplexer, AReconnectionWithoutASocketFails) {
    connect().close();
    const int number = fd();
    fail(KIV_SIM_SOCKET, ENOMEM, 2);
    for (const bool reads : {true, false}) {
        EXPECT_EQ(reads ? read_some() : "status " + std::to_string(send("unsent")), "status 12");
        EXPECT_EQ(fd(), -1);
        EXPECT_EQ(reports().size(), 3U) << "the last two are the caller's";
    }
    EXPECT_NE(::fcntl(number, F_GETFD), -1);
    EXPECT_EQ(send("sent"), 0);
    EXPECT_EQ(fd(), number);
    Peer peer = far->next();
    EXPECT_EQ(peer.receive(4), "sent");

    // And a port that is closed before lets go of it.
    peer.close();
    fail(KIV_SIM_SOCKET, ENOMEM);
    EXPECT_EQ(read_some(), "status 12");
    reports();
    EXPECT_EQ(events.taken(), "CDDDCD");
}

// The reader has found none, and is about to make one.
TEST_P(Demultiplexer, AReaderTakesTheConnectionThatAWriterHasMadeMeanwhile) {
    connect().close();
    LockGate gate;
    AsyncCall late([&] {
        fail(KIV_SIM_SOCKET, ENOMEM);
        gate.stop_me_after_failure(1);
        EXPECT_EQ(read_some(), "status 12");
        return read_some();
    });
    gate.wait_reached();
    EXPECT_EQ(send("sent"), 0);
    const Peer peer = far->next();
    EXPECT_EQ(peer.receive(4), "sent");
    gate.open();
    EXPECT_TRUE(peer.send("data"));
    EXPECT_EQ(late.get(), "data");
    reports();
    EXPECT_EQ(events.taken(), "CDDC");
}

// A loss that one call sees makes one connection.
TEST_P(Demultiplexer, ABlockedReaderFollowsTheWriter) {
    const Peer peer = connect();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncCall text([this] { return read_some(); });
    text.wait_blocked(reads + 1);
    lose(peer);
    const Peer next = far->next();
    EXPECT_EQ(next.receive(4), "lost");
    expect_read_from(next, text);
    EXPECT_TRUE(far->nobody_waits());
    EXPECT_EQ(events.taken(), "CDC");
    expect_served_by(next);
}

// Both make a connection, one after the other, and the later one stays. The reader has been waiting on the
// earlier one: it goes on with the later one and does not make a third.
TEST_P(Demultiplexer, ALossSeenByBothMakesTwoConnections) {
    for (int i = 0; i < 20; ++i) {
        Peer first = connect();
        LockGate gate;
        fail(KIV_SIM_WRITE, EPIPE);
        AsyncCall writer([&] {
            gate.stop_me_after_failure();
            return std::to_string(send("written"));
        });
        gate.wait_reached();
        const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
        AsyncCall text([this] { return read_some(); });
        first.close();
        const Peer second = far->next();
        text.wait_blocked(reads + 2); // on the second connection
        gate.open();
        const Peer third = far->next();
        EXPECT_EQ(second.receive(1), "");
        EXPECT_EQ(writer.get(), "0");
        EXPECT_EQ(third.receive(7), "written");
        EXPECT_TRUE(third.send("read"));
        EXPECT_EQ(text.get(), "read");
        expect_served_by(third);
        EXPECT_EQ(events.taken(), "CDCDC");
        EXPECT_EQ(sup_uart_close(&port), 0);
    }
}

} // namespace
