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
        return sup_uart_Init2(&port, ("unix:" + name).c_str(), 0, 0, nullptr);
    }
    int fd() const { return __atomic_load_n(&port.fd, __ATOMIC_RELAXED); }
};

// Opening -----------------------------------------------------------------------------------------------

// The service binds the whole address; a name of any length must lead there.
TEST_F(UnixTest, NamesReachTheirService) {
    const std::string names[] = {own_path(),    own_name("a"), own_path(107),
                                 own_path(108), own_path(120), own_name(std::string(200, 'n'))};
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        UnixService named(name);
        named.start();
        ASSERT_EQ(open_status(name), 0);
        EXPECT_EQ(port.flags & 3u, 1u);
        expect_served_by(named.accept(), named);
        EXPECT_EQ(sup_uart_close(&port), 0);
    }
}

TEST_F(UnixTest, RefusesWhatItIsNotGiven) {
    EXPECT_EQ(pos_open_unix(nullptr, "unix:@x", 0), 22);
    EXPECT_EQ(pos_open_unix(&port, nullptr, 0), 22);
    EXPECT_EQ(pos_open_unix(&port, "unix", 0), 22);
    EXPECT_EQ(reports(), Reports({asserted(module, "pos_open_unix", "(UART_infos) != ((void *)0)"),
                                  asserted(module, "pos_open_unix", "(device_name) != ((void *)0)")}));
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
}

TEST_F(UnixTest, AFailedStepOfTheOpeningLeavesNothing) {
    const struct {
        kiv_sim_call call;
        int error;
        const char *text; // of the trace, if there is one
    } faults[] = {
        {KIV_SIM_SOCKET, EMFILE, "UART_infos->fd= socket(1, SOCK_STREAM, 0)"},
        {KIV_SIM_SETSOCKOPT, ENOPROTOOPT, "ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))"},
        {KIV_SIM_CALLOC, ENOMEM, nullptr},
    };
    service.start();
    // The module's mutex exists from here on.
    ASSERT_EQ(open_status(service.name()), 0);
    ASSERT_EQ(sup_uart_close(&port), 0);
    for (const auto &fault : faults) {
        SCOPED_TRACE(kiv_sim_call_name(fault.call));
        if (kiv_sim_reaches(fault.call) == 0)
            continue; // a sanitizer's allocator
        fail_next(fault.call, fault.error);
        const auto before = open_descriptors();
        EXPECT_EQ(open_status(service.name()), fault.error);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(port.magic, 0u);
        EXPECT_TRUE(port.fd == -1 && port.priv == nullptr && port.read == nullptr && port.write == nullptr);
        EXPECT_EQ(reports(), fault.text == nullptr
                                 ? Reports()
                                 : Reports({trace(module, "pos_open_unix", fault.text, fault.error)}));
    }
}

TEST_F(UnixTest, AMutexThatFailedIsTriedAgainAndThenKept) {
    if (mutexes_made != 0)
        GTEST_SKIP() << "an earlier test in this process has made the mutex";
    mutex_init_status = 77;
    EXPECT_EQ(open_status(service.name()), 77);
    mutex_init_status = 0;
    EXPECT_EQ(mutexes_made, 0);
    expect_served_by(connect());
    UART_infos second;
    EXPECT_EQ(sup_uart_Init(&second, ("unix:" + service.name()).c_str(), 0, 0), 0);
    EXPECT_EQ(sup_uart_close(&second), 0);
    EXPECT_EQ(mutexes_made, 1);
}

TEST_F(UnixTest, TheServiceMayComeLater) {
    ASSERT_EQ(open_status(service.name()), 0);
    EXPECT_GE(fd(), 0);
    EXPECT_EQ(send(std::string(100, 'l')), 0);
    EXPECT_EQ(fd(), -1);
    EXPECT_EQ(send("lost"), 0);
    AsyncRead text([this] { return read_some(); });
    kiv_sim_wait_calls(KIV_SIM_USLEEP, 3);
    service.start();
    const Peer peer = service.accept();
    EXPECT_TRUE(peer.send("here"));
    EXPECT_EQ(text.get(), "here");
    expect_served_by(peer);
}

// Losing the service ------------------------------------------------------------------------------------

// Which call fails how. Reads go on with the next connection, writes drop what they have: neither fails, and
// nobody is told.
TEST_F(UnixTest, AFailedTransferEndsItsConnection) {
    UART_status_cb callbacks = {};
    callbacks.connected = callbacks.disconnected = [](UART_infos *, void *) { ++callbacks_called; };
    service.start();
    ASSERT_EQ(sup_uart_Init2(&port, ("unix:" + service.name()).c_str(), 0, 0, &callbacks), 0);
    Peer peer = service.accept();
    for (const int error : {EINTR, ECONNRESET, EBADF, 0}) {
        SCOPED_TRACE(error);
        fail_next(KIV_SIM_READ, error);
        AsyncRead text([this] { return read_some(); });
        Peer next = service.accept();
        EXPECT_EQ(peer.receive(1), "") << "the old connection is still open";
        EXPECT_TRUE(next.send("next"));
        EXPECT_EQ(text.get(), "next");
        peer = std::move(next);
    }
    for (const int error : {EPIPE, ECONNRESET, EINTR, 0}) {
        SCOPED_TRACE(error);
        fail_next(KIV_SIM_SEND, error);
        EXPECT_EQ(send("dropped"), 0);
        EXPECT_EQ(peer.receive(1), "");
        EXPECT_EQ(send("taken"), 0);
        peer = service.accept();
        EXPECT_EQ(peer.receive(5), "taken");
    }
    expect_served_by(peer);
    EXPECT_EQ(callbacks_called, 0);
}

// A reconnection may fail at each of its steps, and says nothing.
TEST_F(UnixTest, AReconnectionThatFailsIsTriedAgain) {
    Peer peer = connect();
    unsigned pauses = 0;
    for (const kiv_sim_call call : {KIV_SIM_SOCKET, KIV_SIM_SETSOCKOPT, KIV_SIM_CONNECT}) {
        SCOPED_TRACE(kiv_sim_call_name(call));
        peer.close();
        kiv_sim_clear_faults();
        skip_pauses();
        ASSERT_EQ(kiv_sim_fail(call, 1, 3, EMFILE), 0);
        other_faults += 3;
        AsyncRead text([this] { return read_some(); });
        peer = service.accept();
        EXPECT_TRUE(peer.send("back"));
        EXPECT_EQ(text.get(), "back");
        pauses += 3;
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_USLEEP), pauses);
        // A write tries once.
        kiv_sim_clear_faults();
        skip_pauses();
        fail_next(KIV_SIM_SEND, EPIPE);
        fail_next(call, EMFILE);
        EXPECT_EQ(send("lost"), 0);
        EXPECT_EQ(send("lost too"), 0);
        EXPECT_EQ(send("sent"), 0);
        peer = service.accept();
        EXPECT_EQ(peer.receive(4), "sent");
    }
    expect_served_by(peer);
}

TEST_F(UnixTest, ASignalMakesAReaderConnectAgain) {
    service.start();
    ASSERT_EQ(open_status(service.name()), 0);
    interrupt_reader(service, [this] { return read_some(1); });
}

TEST_F(UnixTest, ShortTransfersAreContinued) {
    const Peer peer = connect();
    ASSERT_EQ(kiv_sim_shorten(KIV_SIM_SEND, 1, 3, 2), 0);
    other_faults = 3;
    iovec pieces[] = {{const_cast<char *>("abcde"), 5}, {const_cast<char *>("fgh"), 3}};
    unsigned sent = 0;
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 2, &sent), 0);
    EXPECT_EQ(sent, 8u);
    EXPECT_EQ(peer.receive(8), "abcdefgh");
    EXPECT_TRUE(peer.send("xy"));
    char text[4] = {};
    unsigned length = 4;
    auto whole = std::async(std::launch::async, [&] { return sup_uart_Read(&port, text, &length); });
    EXPECT_TRUE(peer.send("zw"));
    EXPECT_EQ(whole.get(), 0);
    EXPECT_EQ(std::string(text, 4), "xyzw");
}

// A thread that is late with a lost connection's number must not meet somebody else's descriptor under it;
// once the port is closed, the number is whoever's has it next.
TEST_F(UnixTest, ALostNumberStaysThePortsUntilItIsClosed) {
    Peer peer = connect();
    const int number = fd();
    peer.close();
    EXPECT_EQ(send("lost"), 0);
    ASSERT_EQ(fd(), -1);
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_NE(other, number);
    EXPECT_EQ(send("sent"), 0);
    peer = service.accept();
    EXPECT_EQ(peer.receive(4), "sent");
    EXPECT_EQ(fd(), number);
    peer.close();
    EXPECT_EQ(send("lost"), 0);
    ASSERT_EQ(fd(), -1);
    EXPECT_EQ(sup_uart_close(&port), 0); // while there is no connection
    const int another = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(another, number);
    EXPECT_EQ(sup_uart_close(&port), 0); // by mistake
    EXPECT_NE(::fcntl(another, F_GETFD), -1);
    ::close(other);
    ::close(another);
}

TEST_F(UnixTest, AReaderOutlivesItsService) {
    outlive_the_service(500);
}

// Several threads ---------------------------------------------------------------------------------------

// A reader has seen its connection fail, and before it can say so, a writer has made the next one under the
// same number. That one must live.
TEST_F(UnixTest, ALateReaderSparesTheNextConnection) {
    Peer peer = connect();
    const int number = fd();
    LockGate gate;
    AsyncRead text([&] {
        gate.stop_me_at(1);
        return read_some();
    });
    peer.close();
    gate.wait_reached();
    EXPECT_EQ(send("lost"), 0);
    EXPECT_EQ(send("sent"), 0);
    ASSERT_EQ(fd(), number);
    peer = service.accept();
    EXPECT_EQ(peer.receive(4), "sent");
    gate.open();
    kiv_sim_wait_calls(KIV_SIM_USLEEP, 1); // the reader has found the writer's connection
    EXPECT_TRUE(peer.send("for the reader"));
    EXPECT_EQ(text.get(), "for the reader");
    expect_served_by(peer);
}

TEST_F(UnixTest, ALateWriterSparesTheNextConnection) {
    Peer peer = connect();
    const int number = fd();
    LockGate gate;
    peer.close();
    auto status = std::async(std::launch::async, [&] {
        gate.stop_me_at(1);
        return send("lost");
    });
    gate.wait_reached();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncRead text([this] { return read_some(); });
    peer = service.accept();
    text.wait_blocked(reads + 2); // on the new connection
    ASSERT_EQ(fd(), number);
    gate.open();
    EXPECT_EQ(status.get(), 0);
    EXPECT_TRUE(peer.send("for the reader"));
    EXPECT_EQ(text.get(), "for the reader");
    expect_served_by(peer);
}

// A writer that ends the connection brings back the reader that is blocked on it.
TEST_F(UnixTest, ABlockedReaderFollowsTheWriter) {
    Peer peer = connect();
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    AsyncRead text([this] { return read_some(); });
    text.wait_blocked(reads + 1);
    fail_next(KIV_SIM_SEND, EPIPE);
    EXPECT_EQ(send("lost"), 0);
    const Peer next = service.accept();
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_TRUE(next.send("found"));
    EXPECT_EQ(text.get(), "found");
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
