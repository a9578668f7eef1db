// Ports on a GPS demultiplexer, which is played by a service in the same process.

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <string>

#include "fixtures/unix_port.h"

using namespace kiv::test;

namespace {

constexpr char module[] = "posix/linux_uart_btgpsdemux";

// The callbacks that came: 'C' and 'D'. A callback finds no descriptor when the link is lost and one when it
// is there, and runs with the port's lock held; otherwise it notes '!'.
class Events {
    mutable std::mutex lock_;
    std::string events_;

    static void note(void *context, char event, bool fits) {
        auto *self = static_cast<Events *>(context);
        const std::lock_guard<std::mutex> hold(self->lock_);
        self->events_ += fits ? event : '!';
    }

  public:
    UART_status_cb callbacks() {
        return {[](UART_infos *port, void *context) { note(context, 'C', port->fd >= 0); },
                [](UART_infos *port, void *context) {
                    note(context, 'D', port->fd == -1 && mutexes_held() == 1);
                },
                this};
    }
    std::string taken() {
        const std::lock_guard<std::mutex> hold(lock_);
        return std::exchange(events_, std::string());
    }
};

class BtgpsdemuxTest : public UnixPortTest {
  protected:
    Events events;

    int open_status(const std::string &path) override {
        ::signal(SIGPIPE, SIG_IGN); // writes leave that to the application
        const UART_status_cb callbacks = events.callbacks();
        sup_uart_Prepare(&port, &callbacks);
        return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, path.c_str()));
    }
    Peer connect() {
        Peer peer = UnixPortTest::connect();
        EXPECT_EQ(events.taken(), "C");
        return peer;
    }
    void TearDown() override {
        UnixPortTest::TearDown();
        EXPECT_EQ(events.taken(), "");
        EXPECT_EQ(mutexes_alive, 0);
    }
};

// Opening -----------------------------------------------------------------------------------------------

TEST_F(BtgpsdemuxTest, PathsReachTheirService) {
    expect_names_lead_to_their_service();
    EXPECT_EQ(events.taken(), "CCCCCC");
}

TEST_F(BtgpsdemuxTest, RefusesWhatItIsNotGiven) {
    sup_uart_Prepare(&port, nullptr);
    EXPECT_EQ(pos_btgpsdemux_open(nullptr, "@gps"), -22);
    EXPECT_EQ(pos_btgpsdemux_open(&port, nullptr), -22);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
    EXPECT_EQ(mutexes_alive, 0);
}

TEST_F(BtgpsdemuxTest, AFailedStepOfTheOpeningLeavesNothing) {
    const auto traced = [](const char *text, int error) {
        return Reports({trace(module, "pos_btgpsdemux_open", text, error)});
    };
    fail_next(KIV_SIM_SOCKET, EMFILE);
    expect_opening_fails(EMFILE, traced("UART_infos->fd = socket(1, SOCK_STREAM, 0)", EMFILE));
    fail_nth(KIV_SIM_SOCKET, 2, ENFILE);
    expect_opening_fails(ENFILE, traced("fd = socket(1, SOCK_STREAM, 0)", ENFILE));
    mutex_init_status = 77;
    expect_opening_fails(77, {});
    mutex_init_status = 0;
    if (kiv_sim_reaches(KIV_SIM_CALLOC) != 0) { // and no sanitizer's allocator
        fail_next(KIV_SIM_CALLOC, ENOMEM);
        expect_opening_fails(ENOMEM, {});
    }
}

TEST_F(BtgpsdemuxTest, TheServiceMayComeLater) {
    expect_late_service_found();
    EXPECT_EQ(events.taken(), "C");
}

// Losing the service ------------------------------------------------------------------------------------

TEST_F(BtgpsdemuxTest, AFailedTransferIsMadeOnTheNextConnection) {
    const struct {
        kiv_sim_call call;
        std::function<std::string()> transfer;
    } rows[] = {{KIV_SIM_READ, [this] { return read_some(); }},
                {KIV_SIM_WRITE, [this] { return send("written") == 0 ? read_some() : "unwritten"; }}};
    Peer peer = connect();
    for (const int error : {EINTR, ECONNRESET, EBADF, 0}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(kiv_sim_call_name(row.call) + std::to_string(error));
            fail_next(row.call, error);
            AsyncCall transfer(row.transfer);
            Peer next = service.accept();
            EXPECT_EQ(peer.receive(1), "") << "the old connection is still open";
            EXPECT_TRUE(next.send("next"));
            EXPECT_EQ(transfer.get(), "next");
            EXPECT_EQ(events.taken(), "DC");
            peer = std::move(next);
        }
        EXPECT_EQ(peer.receive(7), "written");
    }
    expect_served_by(peer);
}

// The one failure that reaches the caller; the next call begins another reconnection.
// The lost number stays the port's meanwhile, for a thread that is late with it.
TEST_F(BtgpsdemuxTest, AReconnectionWithoutASocketFails) {
    const std::string text = "fd = socket(1, SOCK_STREAM, 0)";
    connect().close();
    const int number = port.fd;
    fail_next(KIV_SIM_SOCKET, ENOBUFS, 2);
    for (const bool reads : {true, false}) {
        EXPECT_EQ(reads ? read_some() : "status " + std::to_string(send("unsent")), "status 105");
        EXPECT_EQ(port.fd, -1);
        EXPECT_EQ(events.taken(), "D");
        const Reports seen = reports();
        ASSERT_EQ(seen.size(), 3u) << "the last two are the caller's";
        EXPECT_EQ(seen.front(), trace(module, "btgpsdemux_reconnect", text, ENOBUFS));
    }
    const int other = ::dup(0);
    EXPECT_NE(other, number);
    ::close(other);
    EXPECT_EQ(send("sent"), 0);
    EXPECT_EQ(port.fd, number);
    EXPECT_EQ(events.taken(), "DC");
    Peer peer = service.accept();
    EXPECT_EQ(peer.receive(4), "sent");

    // When it cannot be taken over, the connection keeps the number that it has.
    fail_next(KIV_SIM_DUP2, EBUSY);
    fail_next(KIV_SIM_WRITE, EPIPE);
    EXPECT_EQ(send("sent"), 0);
    EXPECT_NE(port.fd, number);
    EXPECT_EQ(events.taken(), "DC");
    peer = service.accept();
    EXPECT_EQ(peer.receive(4), "sent");
    expect_served_by(peer);

    // And a port that is closed before lets go of it.
    peer.close();
    fail_next(KIV_SIM_SOCKET, ENOBUFS);
    EXPECT_EQ(read_some(), "status 105");
    EXPECT_EQ(events.taken(), "D");
    reports();
}

TEST_F(BtgpsdemuxTest, ASignalMakesAReaderConnectAgain) {
    expect_signal_makes_reader_connect_again();
    const std::string seen = events.taken();
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], i % 2 == 0 ? 'C' : 'D') << seen;
}

// Several threads ---------------------------------------------------------------------------------------

// Both make a connection, one after the other, and the later one stays. The reader has been waiting on the
// earlier one: it goes on with the later one and does not make a third.
TEST_F(BtgpsdemuxTest, ALossSeenByBothMakesTwoConnections) {
    for (int i = 0; i < 20; ++i) {
        Peer first = connect();
        LockGate gate;
        fail_next(KIV_SIM_WRITE, EPIPE);
        AsyncCall writer([&] {
            gate.stop_me_at(2); // the first lock is the look at fd
            return std::to_string(send("written"));
        });
        gate.wait_reached();
        const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
        AsyncCall text([this] { return read_some(); });
        first.close();
        const Peer second = service.accept();
        text.wait_blocked(reads + 2); // on the second connection
        EXPECT_EQ(events.taken(), "DC");
        gate.open();
        const Peer third = service.accept();
        EXPECT_EQ(second.receive(1), "");
        EXPECT_EQ(writer.get(), "0");
        EXPECT_EQ(third.receive(7), "written");
        EXPECT_TRUE(third.send("read"));
        EXPECT_EQ(text.get(), "read");
        EXPECT_EQ(events.taken(), "DC");
        expect_served_by(third);
        EXPECT_EQ(sup_uart_close(&port), 0);
    }
}

// The callbacks come in pairs.
TEST_F(BtgpsdemuxTest, AReaderOutlivesItsService) {
    constexpr int restarts = 500;
    expect_reader_outlives_service(restarts);
    std::string pairs = "C";
    for (int i = 0; i < restarts; ++i)
        pairs += "DC";
    EXPECT_EQ(events.taken(), pairs);
}

} // namespace
