// The simulated controllers themselves: that they answer as a kernel and a controller would.

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fixtures/board.h"
#include "fixtures/hci.h"

namespace kiv::test {
namespace {

struct Address {
    std::uint16_t family, number = 0, channel = 0;
};

class SimHci : public BoardTest {
  protected:
    int fd = -1;

    void SetUp() override {
        BoardTest::SetUp();
        fd = ::socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 1);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        ::close(fd);
        BoardTest::TearDown();
    }

    int bind(std::uint16_t number, socklen_t length = 4, Address address = {.family = AF_BLUETOOTH}) {
        address.number = number;
        return error_of(::bind(fd, reinterpret_cast<const sockaddr *>(&address), length));
    }
    void filter(std::uint32_t types, std::uint32_t events, std::uint16_t opcode = 0) {
        const std::uint32_t value[] = {types, events, events, opcode};
        EXPECT_EQ(::setsockopt(fd, 0, 2, value, sizeof value), 0);
    }
    int request(unsigned long number, int argument = 0) { return error_of(::ioctl(fd, number, argument)); }
    int write(const Bytes &packet) { return error_of(::write(fd, packet.data(), packet.size())); }
    // The next packet; empty when there is none.
    Bytes read() {
        std::uint8_t packet[1029];
        const ssize_t length = ::read(fd, packet, sizeof packet);
        return Bytes(packet, packet + (length > 0 ? length : 0));
    }
    Bytes read_all() {
        Bytes all;
        for (Bytes packet = read(); !packet.empty(); packet = read())
            all = all + packet;
        return all;
    }
    void connect() {
        ASSERT_EQ(bind(0), 0);
        filter(~0u, ~0u);
    }
};

TEST_F(SimHci, BindChecksItsAddress) {
    EXPECT_EQ(bind(0, 1), EINVAL);
    EXPECT_EQ(bind(0, 4, {.family = AF_INET}), EINVAL);
    EXPECT_EQ(bind(0, 6, {.family = AF_BLUETOOTH, .number = 0, .channel = 1}), EINVAL);
    EXPECT_EQ(bind(2), ENODEV);
    EXPECT_EQ(bind(0xffff), 0) << "bound to none";
    EXPECT_EQ(request(hci_raw, 1), EBADFD);
    EXPECT_EQ(write(hci_reset), EBADFD);
    EXPECT_EQ(bind(1, 6), 0);
    EXPECT_EQ(bind(0), EALREADY);
}

TEST_F(SimHci, RequestsAndWritesFollowTheControllersState) {
    connect();
    EXPECT_EQ(request(hci_up), EALREADY);
    EXPECT_EQ(request(hci_down), 0);
    EXPECT_EQ(write(hci_reset), ENETDOWN);
    EXPECT_EQ(request(hci_up), 0);
    EXPECT_EQ(request(hci_up, 2), ENODEV);
    EXPECT_EQ(request(0x5401), ENOTTY);
    EXPECT_EQ(write(acl(1025)), EINVAL);
    EXPECT_EQ(write({1, 2, 3}), EINVAL);
    configure([](auto &config) { config.busy = 1; });
    EXPECT_EQ(request(hci_raw, 1), EBUSY);
    configure([](auto &config) { config.capable = config.busy = 0; });
    EXPECT_EQ(request(hci_up), EPERM);
    EXPECT_EQ(write(hci_reset), EPERM);
}

TEST_F(SimHci, AFilterLetsThroughWhatItNames) {
    ASSERT_EQ(bind(0), 0);
    controller_sends(reset_complete);
    EXPECT_EQ(read(), Bytes()) << "nothing at first";
    const struct {
        std::uint32_t types, events;
        std::uint16_t opcode;
        Bytes passed;
    } rows[] = {{1u << 4, ~0u, 0, reset_complete},
                {~0u, 0, 0, acl(2)},
                {~0u, 1u << 14, 0x0c03, reset_complete + acl(2)},
                {~0u, ~0u, 0x1001, acl(2)}};
    for (const auto &row : rows) {
        filter(row.types, row.events, row.opcode);
        controller_sends(reset_complete);
        controller_sends(acl(2));
        EXPECT_EQ(read_all(), row.passed);
    }
}

TEST_F(SimHci, TheControllerAnswersItsHost) {
    connect();
    ASSERT_EQ(kiv_sim_hci_refuse(0, 0x1005, 0x0c), 0);
    const struct {
        Bytes sent, answer;
    } rows[] = {
        {{1, 0x01, 0x10, 0}, {4, 0x0e, 12, 1, 0x01, 0x10, 0, 4, 0, 1, 4, 0xff, 0xff, 1, 0}},
        {{1, 0x05, 0x10, 0}, {4, 0x0e, 4, 1, 0x05, 0x10, 0x0c}},    // refused as told
        {{1, 0x45, 0xfc, 0}, {4, 0x0e, 4, 1, 0x45, 0xfc, 0x01}},    // unknown
        {{1, 0x05, 0x04, 0}, {4, 0x0f, 4, 0x01, 1, 0x05, 0x04}},    // unknown, of a group with a status
        {{1, 0x03, 0x0c, 1, 0}, {4, 0x0e, 4, 1, 0x03, 0x0c, 0x12}}, // no parameters expected
        {{1, 0x03, 0x0c, 7}, {4, 0x0e, 4, 1, 0x03, 0x0c, 0x12}},    // not as long as it says
        {{2, 0, 0, 9, 9}, {}},                                      // likewise
        {acl(6), Bytes({4, 0x13, 5, 1, 0x2a, 0, 1, 0}) + acl(6)},   // its buffer is free, and it comes back
    };
    for (const auto &row : rows) {
        ASSERT_EQ(write(row.sent), 0);
        EXPECT_EQ(read_all(), row.answer);
    }
    EXPECT_EQ(state_of().malformed, 2u);
}

TEST_F(SimHci, PacketsCanBeLateAndTooMany) {
    connect();
    configure([](auto &config) { config.hold = 1; });
    controller_sends(event(1));
    EXPECT_EQ(read(), Bytes());
    EXPECT_EQ(kiv_sim_hci_release(0, 9), 1u);
    configure([](auto &config) { config.hold = 0; });
    while (state_of().lost == 0)
        controller_sends(acl(1024));
    EXPECT_EQ(read(), event(1)) << "the oldest ones are kept";
}

TEST_F(SimHci, GoingAwayIsToldOnceAheadOfTheData) {
    connect();
    controller_sends(event(1));
    ASSERT_EQ(kiv_sim_hci_unplug(0, EPIPE), 0);
    pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 1);
    EXPECT_EQ(entry.revents, POLLIN | POLLERR);
    EXPECT_EQ(error_of(::read(fd, &entry, 1)), EPIPE);
    EXPECT_EQ(read(), event(1));
    EXPECT_EQ(error_of(::read(fd, &entry, 1)), EAGAIN) << "a blocking read would wait";
    EXPECT_EQ(bind(0), ENODEV);
}

} // namespace
} // namespace kiv::test
