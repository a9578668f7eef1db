// Ports on Unix sockets, against a service in the same process.

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <vector>

#include "fixtures/unix_port.h"

using namespace kiv::test;

namespace {

constexpr char module[] = "posix/linux_uart_unix";

int callbacks_called = 0;

class UnixTest : public UnixPortTest {
  protected:
    int open_status(const std::string &name) override {
        UART_status_cb callbacks = {};
        callbacks.connected = callbacks.disconnected = [](UART_infos *, void *) { ++callbacks_called; };
        return sup_uart_Init2(&port, ("unix:" + name).c_str(), 0, 0, &callbacks);
    }
    int fd() const { return __atomic_load_n(&port.fd, __ATOMIC_RELAXED); }

    // The service closes its end, and a write notices.
    void lose(Peer &peer) {
        peer.close();
        EXPECT_EQ(send("lost"), 0);
        ASSERT_EQ(fd(), -1);
    }
    // A write makes the next connection.
    Peer connect_by_writing() {
        EXPECT_EQ(send("sent"), 0);
        Peer peer = service.accept();
        EXPECT_EQ(peer.receive(4), "sent");
        return peer;
    }
    static void expect_read_from(const Peer &peer, AsyncCall &read) {
        EXPECT_TRUE(peer.send("for the reader"));
        EXPECT_EQ(read.get(), "for the reader");
    }
};

// Opening -----------------------------------------------------------------------------------------------

TEST_F(UnixTest, NamesReachTheirService) {
    expect_names_lead_to_their_service();
}

TEST_F(UnixTest, RefusesWhatItIsNotGiven) {
    EXPECT_EQ(pos_open_unix(nullptr, "unix:@x", 0), EINVAL);
    EXPECT_EQ(pos_open_unix(&port, nullptr, 0), EINVAL);
    EXPECT_EQ(pos_open_unix(&port, "unix", 0), EINVAL);
    EXPECT_EQ(reports(), Reports({asserted(module, "pos_open_unix", "(UART_infos) != ((void *)0)"),
                                  asserted(module, "pos_open_unix", "(device_name) != ((void *)0)")}));
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
}

TEST_F(UnixTest, AFailedStepOfTheOpeningLeavesNothing) {
    connect().close(); // the module's mutex exists from here on
    ASSERT_EQ(sup_uart_close(&port), 0);
    const auto traced = [](const char *text, int error) {
        return Reports({trace(module, "pos_open_unix", text, error)});
    };
    fail_next(KIV_SIM_SOCKET, EMFILE);
    expect_opening_fails(EMFILE, traced("UART_infos->fd= socket(1, SOCK_STREAM, 0)", EMFILE));
    fail_next(KIV_SIM_SETSOCKOPT, ENOPROTOOPT);
    expect_opening_fails(ENOPROTOOPT,
                         traced("ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))", ENOPROTOOPT));
    if (kiv_sim_reaches(KIV_SIM_CALLOC) != 0) { // and no sanitizer's allocator
        fail_next(KIV_SIM_CALLOC, ENOMEM);
        expect_opening_fails(ENOMEM, {});
    }
}

TEST_F(UnixTest, AMutexThatFailedIsTriedAgainAndThenKept) {
    if (mutexes_made != 0)
        GTEST_SKIP() << "an earlier test in this process has made the mutex";
    mutex_init_status = 77;
    expect_opening_fails(77, {});
    mutex_init_status = 0;
    expect_served_by(connect());
    EXPECT_EQ(sup_uart_close(&port), 0);
    connect();
    EXPECT_EQ(mutexes_made, 1);
}

TEST_F(UnixTest, TheServiceMayComeLater) {
    expect_late_service_found();
}

// Losing the service ------------------------------------------------------------------------------------

// Which call fails how. Reads go on with the next connection, writes drop what they have: neither fails, and
// nobody is told.
TEST_F(UnixTest, AFailedTransferEndsItsConnection) {
    Peer peer = connect();
    for (const int error : {EINTR, ECONNRESET, EBADF, EPIPE, 0}) {
        SCOPED_TRACE(error);
        fail_next(KIV_SIM_READ, error, 2);
        AsyncCall text([this] { return read_some(); });
        service.accept(); // and lost again
        Peer next = service.accept();
        EXPECT_EQ(peer.receive(1), "") << "the old connection is still open";
        expect_read_from(next, text);
        fail_next(KIV_SIM_SEND, error);
        EXPECT_EQ(send("dropped"), 0);
        EXPECT_EQ(next.receive(1), "");
        peer = connect_by_writing();
    }
    expect_served_by(peer);
    EXPECT_EQ(callbacks_called, 0);
}

// A reconnection may fail at each of its steps, and says nothing.
TEST_F(UnixTest, AReconnectionThatFailsIsTriedAgain) {
    Peer peer = connect();
    for (const kiv_sim_call call : {KIV_SIM_SOCKET, KIV_SIM_SETSOCKOPT, KIV_SIM_CONNECT}) {
        SCOPED_TRACE(kiv_sim_call_name(call));
        const unsigned pauses = kiv_sim_calls(KIV_SIM_USLEEP);
        peer.close();
        fail_next(call, ENOBUFS, 3);
        AsyncCall text([this] { return read_some(); });
        peer = service.accept();
        expect_read_from(peer, text);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_USLEEP), pauses + 3);
        lose(peer);
        fail_next(call, ENOBUFS);
        EXPECT_EQ(send("lost too"), 0); // a write tries once
        peer = connect_by_writing();
    }
    expect_served_by(peer);
}

TEST_F(UnixTest, ASignalMakesAReaderConnectAgain) {
    expect_signal_makes_reader_connect_again();
}

TEST_F(UnixTest, ShortTransfersAreContinued) {
    const Peer peer = connect();
    ASSERT_EQ(kiv_sim_shorten(KIV_SIM_SEND, 1, 3, 2), 0);
    other_faults += 3;
    iovec pieces[] = {{const_cast<char *>("abcde"), 5}, {const_cast<char *>("fgh"), 3}};
    unsigned sent = 0;
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 2, &sent), 0);
    EXPECT_EQ(sent, 8u);
    EXPECT_EQ(peer.receive(8), "abcdefgh");
}

// A thread that is late with a lost connection's number must not meet somebody else's descriptor under it;
// once the port is closed, the number is whoever's has it next.
TEST_F(UnixTest, ALostNumberStaysThePortsUntilItIsClosed) {
    Peer peer = connect();
    const int number = fd();
    lose(peer);
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_NE(other, number);
    peer = connect_by_writing();
    EXPECT_EQ(fd(), number);
    lose(peer);
    EXPECT_EQ(sup_uart_close(&port), 0); // while there is no connection
    const int another = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(another, number);
    EXPECT_EQ(sup_uart_close(&port), 0); // by mistake
    EXPECT_NE(::fcntl(another, F_GETFD), -1);
    ::close(other);
    ::close(another);
}

TEST_F(UnixTest, AReaderOutlivesItsService) {
    expect_reader_outlives_service(500);
}

// Several threads ---------------------------------------------------------------------------------------

// A reader has seen its connection fail, and before it can say so, a writer has made the next one under the
// same number. That one must live.
TEST_F(UnixTest, ALateReaderSparesTheNextConnection) {
    Peer peer = connect();
    const int number = fd();
    LockGate gate;
    AsyncCall text([&] {
        gate.stop_me_at(1);
        return read_some();
    });
    peer.close();
    gate.wait_reached();
    EXPECT_EQ(send("lost"), 0);
    peer = connect_by_writing();
    ASSERT_EQ(fd(), number);
    gate.open();
    kiv_sim_wait_calls(KIV_SIM_USLEEP, 1); // the reader has found the writer's connection
    expect_read_from(peer, text);
    expect_served_by(peer);
}

TEST_F(UnixTest, ALateWriterSparesTheNextConnection) {
    Peer peer = connect();
    const int number = fd();
    LockGate gate;
    peer.close();
    AsyncCall writer([&] {
        gate.stop_me_at(1);
        return std::to_string(send("lost"));
    });
    gate.wait_reached();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncCall text([this] { return read_some(); });
    peer = service.accept();
    text.wait_blocked(reads + 2); // on the new connection
    ASSERT_EQ(fd(), number);
    gate.open();
    EXPECT_EQ(writer.get(), "0");
    expect_read_from(peer, text);
    expect_served_by(peer);
}

// A writer that ends the connection brings back the reader that is blocked on it.
TEST_F(UnixTest, ABlockedReaderFollowsTheWriter) {
    Peer peer = connect();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncCall text([this] { return read_some(); });
    text.wait_blocked(reads + 1);
    fail_next(KIV_SIM_SEND, EPIPE);
    EXPECT_EQ(send("lost"), 0);
    const Peer next = service.accept();
    EXPECT_EQ(peer.receive(1), "");
    expect_read_from(next, text);
    expect_served_by(next);
}

TEST_F(UnixTest, ALossSeenByBothMakesOneConnection) {
    constexpr int losses = 200;
    Peer peer = connect();
    std::atomic<bool> over{false};
    std::atomic<int> read{0};
    std::thread reader([&] {
        while (read_some(1) == "r") {
            ++read;
            read.notify_all();
        }
    });
    std::thread writer([&] {
        while (!over)
            EXPECT_EQ(send("w"), 0);
    });
    for (int i = 0; i < losses; ++i) {
        peer.close();
        peer = service.accept();
        EXPECT_EQ(peer.receive(1), "w");
        EXPECT_TRUE(peer.send("r"));
        read.wait(i);
        while (!service.nobody_waits()) {
            ADD_FAILURE() << "one connection too many";
            peer = service.accept();
        }
    }
    EXPECT_TRUE(peer.send("E"));
    reader.join();
    over = true;
    peer.close(); // the writer may be blocked
    writer.join();
}

} // namespace
