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
        const UART_status_cb callbacks = events.callbacks();
        sup_uart_Prepare(&port, &callbacks);
        return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, path.c_str()));
    }
    Peer connect() {
        Peer peer = UnixPortTest::connect();
        EXPECT_EQ(events.taken(), "C");
        return peer;
    }
    void SetUp() override {
        UnixPortTest::SetUp();
        ::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        UnixPortTest::TearDown();
        EXPECT_EQ(events.taken(), "");
        EXPECT_EQ(mutexes_alive, 0);
        ::signal(SIGPIPE, SIG_DFL);
    }
};

// Opening -----------------------------------------------------------------------------------------------

TEST_F(BtgpsdemuxTest, PathsReachTheirService) {
    const std::string paths[] = {own_path(), own_name("g"), own_path(108), own_path(120)};
    for (const std::string &path : paths) {
        SCOPED_TRACE(path);
        UnixService named(path);
        named.start();
        ASSERT_EQ(open_status(path), 0);
        EXPECT_EQ(events.taken(), "C");
        EXPECT_EQ(port.flags & 3u, 1u);
        expect_served_by(named.accept(), named);
        EXPECT_EQ(sup_uart_close(&port), 0);
        EXPECT_EQ(sup_uart_close(&port), 0); // by mistake
        EXPECT_EQ(port.fd, -1);
        EXPECT_EQ(port.priv, nullptr);
    }
}

TEST_F(BtgpsdemuxTest, RefusesWhatItIsNotGiven) {
    sup_uart_Prepare(&port, nullptr);
    EXPECT_EQ(pos_btgpsdemux_open(nullptr, "@gps"), -22);
    EXPECT_EQ(pos_btgpsdemux_open(&port, nullptr), -22);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
    EXPECT_EQ(mutexes_alive, 0);
}

// The mutex is refused where no call is: see the last row.
TEST_F(BtgpsdemuxTest, AFailedStepOfTheOpeningLeavesNothing) {
    const struct {
        kiv_sim_call call;
        unsigned nth;
        int error;
        const char *text; // of the trace, if there is one
    } faults[] = {
        {KIV_SIM_CALLOC, 1, ENOMEM, nullptr},
        {KIV_SIM_SOCKET, 1, EMFILE, "UART_infos->fd = socket(1, SOCK_STREAM, 0)"},
        {KIV_SIM_SOCKET, 2, ENFILE, "fd = socket(1, SOCK_STREAM, 0)"},
        {KIV_SIM_CALL_KINDS, 1, 77, nullptr},
    };
    service.start();
    for (const auto &fault : faults) {
        SCOPED_TRACE(fault.error);
        if (fault.call == KIV_SIM_CALL_KINDS) {
            mutex_init_status = fault.error;
        } else if (kiv_sim_reaches(fault.call) != 0) {
            ASSERT_EQ(kiv_sim_fail(fault.call, fault.nth, 1, fault.error), 0);
            ++other_faults;
        } else {
            continue; // a sanitizer's allocator
        }
        const auto before = open_descriptors();
        EXPECT_EQ(open_status(service.name()), fault.error);
        mutex_init_status = 0;
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(mutexes_alive, 0);
        EXPECT_TRUE(port.fd == -1 && port.priv == nullptr && port.read == nullptr && port.write == nullptr &&
                    port.close == nullptr);
        EXPECT_EQ(reports(), fault.text == nullptr
                                 ? Reports()
                                 : Reports({trace(module, "pos_btgpsdemux_open", fault.text, fault.error)}));
    }
}

TEST_F(BtgpsdemuxTest, TheServiceMayComeLater) {
    ASSERT_EQ(open_status(service.name()), 0);
    EXPECT_GE(port.fd, 0);
    EXPECT_EQ(events.taken(), "");
    AsyncRead text([this] { return read_some(); });
    kiv_sim_wait_calls(KIV_SIM_USLEEP, 3);
    service.start();
    const Peer peer = service.accept();
    EXPECT_TRUE(peer.send("here"));
    EXPECT_EQ(text.get(), "here");
    EXPECT_EQ(events.taken(), "C");
    expect_served_by(peer);
}

// Losing the service ------------------------------------------------------------------------------------

TEST_F(BtgpsdemuxTest, AFailedTransferIsMadeOnTheNextConnection) {
    Peer peer = connect();
    for (const int error : {EINTR, ECONNRESET, EBADF, 0}) {
        SCOPED_TRACE(error);
        for (const kiv_sim_call call : {KIV_SIM_READ, KIV_SIM_WRITE}) {
            SCOPED_TRACE(kiv_sim_call_name(call));
            fail_next(call, error);
            AsyncRead text([&] {
                return call == KIV_SIM_READ ? read_some() : "status " + std::to_string(send("again"));
            });
            Peer next = service.accept();
            EXPECT_EQ(peer.receive(1), "") << "the old connection is still open";
            EXPECT_TRUE(next.send("next"));
            EXPECT_EQ(text.get(), call == KIV_SIM_READ ? "next" : "status 0");
            EXPECT_EQ(events.taken(), "DC");
            EXPECT_EQ(call == KIV_SIM_READ ? "next" : read_some(), "next");
            EXPECT_EQ(call == KIV_SIM_READ ? "again" : next.receive(5), "again");
            peer = std::move(next);
        }
    }
    expect_served_by(peer);
}

TEST_F(BtgpsdemuxTest, ARefusedConnectionIsTriedAgain) {
    Peer peer = connect();
    peer.close();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CONNECT, 1, 5, ECONNREFUSED), 0);
    other_faults = 5;
    AsyncRead text([this] { return read_some(); });
    peer = service.accept();
    EXPECT_TRUE(peer.send("back"));
    EXPECT_EQ(text.get(), "back");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_USLEEP), 5u);
    EXPECT_EQ(events.taken(), "DC");
}

// The one failure that reaches the caller; the next call begins another reconnection.
TEST_F(BtgpsdemuxTest, AReconnectionWithoutASocketFails) {
    const std::string text = "fd = socket(1, SOCK_STREAM, 0)";
    Peer peer = connect();
    peer.close();
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_SOCKET, 1, 2, EMFILE), 0);
    other_faults = 2;
    EXPECT_EQ(read_some(), "status 24");
    EXPECT_EQ(port.fd, -1);
    EXPECT_EQ(events.taken(), "D");
    EXPECT_EQ(reports(), Reports({trace(module, "btgpsdemux_reconnect", text, EMFILE),
                                  trace("posix/linux_uart", "sup_uart_Read_partial",
                                        "ret = pos_read(UART_infos, buffer, remaining)", EMFILE),
                                  warned("posix/linux_uart", "sup_uart_Read_partial")}));
    EXPECT_EQ(send("unsent"), EMFILE);
    EXPECT_EQ(events.taken(), "D");
    EXPECT_EQ(reports(),
              Reports({trace(module, "btgpsdemux_reconnect", text, EMFILE),
                       trace("posix/linux_uart", "sup_uart_Send",
                             "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)", EMFILE),
                       warned("posix/linux_uart", "sup_uart_Send")}));
    EXPECT_EQ(send("sent"), 0);
    EXPECT_EQ(events.taken(), "DC");
    peer = service.accept();
    EXPECT_EQ(peer.receive(4), "sent");
    expect_served_by(peer);
}

TEST_F(BtgpsdemuxTest, ASignalMakesAReaderConnectAgain) {
    service.start();
    ASSERT_EQ(open_status(service.name()), 0);
    interrupt_reader(service, [this] { return read_some(1); });
    const std::string seen = events.taken();
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], i % 2 == 0 ? 'C' : 'D') << seen;
}

// Several threads ---------------------------------------------------------------------------------------

// Both make a connection, one after the other, and the later one stays. The reader has been waiting on the
// earlier one: it goes on with the later one and does not make a third.
TEST_F(BtgpsdemuxTest, ALossSeenByBothMakesTwoConnections) {
    for (int i = 0; i < 20; ++i) {
        Peer first = i == 0 ? connect() : [this] {
            EXPECT_EQ(open_status(service.name()), 0);
            EXPECT_EQ(events.taken(), "C");
            return service.accept();
        }();
        LockGate gate;
        auto status = std::async(std::launch::async, [&] {
            gate.stop_me_at(2); // the first lock is the look at fd
            kiv_sim_fault fault = {};
            fault.call = KIV_SIM_WRITE;
            fault.nth = fault.times = 1;
            fault.error = EPIPE;
            fault.this_thread = 1;
            EXPECT_EQ(kiv_sim_arm(&fault), 0);
            return send("written");
        });
        ++other_faults;
        gate.wait_reached();
        const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
        AsyncRead text([this] { return read_some(); });
        first.close();
        const Peer second = service.accept();
        text.wait_blocked(reads + 2); // on the second connection
        EXPECT_EQ(events.taken(), "DC");
        gate.open();
        const Peer third = service.accept();
        EXPECT_EQ(second.receive(1), "");
        EXPECT_EQ(status.get(), 0);
        EXPECT_EQ(third.receive(7), "written");
        EXPECT_TRUE(third.send("read"));
        EXPECT_EQ(text.get(), "read");
        EXPECT_EQ(events.taken(), "DC");
        expect_served_by(third);
        EXPECT_EQ(sup_uart_close(&port), 0);
        kiv_sim_clear_faults();
        skip_pauses();
    }
}

// The callbacks come in pairs.
TEST_F(BtgpsdemuxTest, AReaderOutlivesItsService) {
    constexpr int restarts = 500;
    outlive_the_service(restarts);
    std::string pairs = "C";
    for (int i = 0; i < restarts; ++i)
        pairs += "DC";
    EXPECT_EQ(events.taken(), pairs);
}

} // namespace
