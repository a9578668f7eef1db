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
    std::uint16_t family, number, channel;
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

    // 0 or the errno.
    int bind(std::uint16_t number, socklen_t length = 4,
             Address address = {.family = AF_BLUETOOTH, .number = 0, .channel = 0}) {
        address.number = number;
        return ::bind(fd, reinterpret_cast<const sockaddr *>(&address), length) == 0 ? 0 : errno;
    }
    int filter(std::uint32_t types, std::uint32_t events, std::uint16_t opcode = 0) {
        const struct {
            std::uint32_t types, events[2];
            std::uint16_t opcode, padding;
        } value = {types, {events, events}, opcode, 0};
        return ::setsockopt(fd, 0, 2, &value, sizeof value) == 0 ? 0 : errno;
    }
    int request(unsigned long number, int argument = 0) {
        return ::ioctl(fd, number, argument) == 0 ? 0 : errno;
    }
    int write(const Bytes &packet) {
        return ::write(fd, packet.data(), packet.size()) == static_cast<ssize_t>(packet.size()) ? 0 : errno;
    }
    // The next packet; empty when there is none.
    Bytes read() {
        std::uint8_t packet[1029];
        const ssize_t length = ::read(fd, packet, sizeof packet);
        return Bytes(packet, packet + (length > 0 ? length : 0));
    }
    void connect() {
        ASSERT_EQ(bind(0), 0);
        ASSERT_EQ(filter(~0u, ~0u), 0);
    }
};

constexpr unsigned long up = 0x400448c9;
constexpr unsigned long down = 0x400448ca;
constexpr unsigned long raw = 0x400448dc;

TEST_F(SimHci, BindChecksItsAddress) {
    EXPECT_EQ(bind(0, 1), EINVAL);
    EXPECT_EQ(bind(0, 4, {AF_INET, 0, 0}), EINVAL);
    EXPECT_EQ(bind(0, 6, {AF_BLUETOOTH, 0, 1}), EINVAL);
    EXPECT_EQ(bind(2), ENODEV);
    EXPECT_EQ(bind(0xffff), 0) << "bound to none";
    EXPECT_EQ(request(raw, 1), EBADFD);
    EXPECT_EQ(write(hci_reset), EBADFD);
    EXPECT_EQ(bind(1, 6), 0);
    EXPECT_EQ(bind(0), EALREADY);
}

TEST_F(SimHci, RequestsFollowTheControllersState) {
    connect();
    EXPECT_EQ(request(up), EALREADY);
    EXPECT_EQ(request(down), 0);
    EXPECT_EQ(request(down), 0);
    EXPECT_EQ(write(hci_reset), ENETDOWN);
    EXPECT_EQ(request(raw, 1), 0);
    EXPECT_EQ(request(up), 0);
    EXPECT_EQ(state_of().raw, 1);
    EXPECT_EQ(request(raw, 0), 0);
    EXPECT_EQ(state_of().raw, 0);
    EXPECT_EQ(request(up, 2), ENODEV);
    EXPECT_EQ(request(0x5401), ENOTTY);
    configure([](auto &config) { config.set_raw_error = EOPNOTSUPP; });
    EXPECT_EQ(request(raw, 1), EOPNOTSUPP);
    configure([](auto &config) { config.capable = 0; });
    for (const unsigned long each : {up, down, raw})
        EXPECT_EQ(request(each), EPERM);
    EXPECT_EQ(write(hci_reset), EPERM);
    configure([](auto &config) {
        config.capable = 1;
        config.busy = 1;
    });
    for (const unsigned long each : {up, down, raw})
        EXPECT_EQ(request(each), EBUSY);
}

TEST_F(SimHci, WritesCheckLengthAndIndicator) {
    connect();
    EXPECT_EQ(write({1, 2, 3}), EINVAL);
    EXPECT_EQ(write(event(5)), EINVAL);
    EXPECT_EQ(write(acl(1024)), 0);
    EXPECT_EQ(write(acl(1025)), EINVAL);
    configure([](auto &config) { config.max_packet = 1028; });
    EXPECT_EQ(write(acl(1024)), EINVAL);
    EXPECT_EQ(packets_of_host(), std::vector<Bytes>{acl(1024)});
}

TEST_F(SimHci, AFilterLetsThroughWhatItNames) {
    ASSERT_EQ(bind(0), 0);
    controller_sends(reset_complete);
    EXPECT_EQ(read(), Bytes()) << "nothing at first";
    const struct {
        std::uint32_t types, events;
        std::uint16_t opcode;
        bool event, data;
    } rows[] = {{1u << 4, ~0u, 0, true, false}, {1u << 2, ~0u, 0, false, true},
                {~0u, 0, 0, false, true},       {~0u, 1u << 14, 0, true, true},
                {~0u, ~0u, 0x0c03, true, true}, {~0u, ~0u, 0x1001, false, true}};
    for (const auto &row : rows) {
        ASSERT_EQ(filter(row.types, row.events, row.opcode), 0);
        controller_sends(reset_complete);
        controller_sends(acl(2));
        const Bytes expected = (row.event ? reset_complete : Bytes()) + (row.data ? acl(2) : Bytes());
        Bytes got;
        for (Bytes packet = read(); !packet.empty(); packet = read())
            got = got + packet;
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, 2, "", 1), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
}

TEST_F(SimHci, TheControllerAnswersItsHost) {
    connect();
    ASSERT_EQ(kiv_sim_hci_refuse(0, 0x1005, 0x0c), 0);
    const struct {
        Bytes sent, answer;
    } rows[] = {
        {hci_reset, reset_complete},
        {{1, 0x01, 0x10, 0}, {4, 0x0e, 12, 1, 0x01, 0x10, 0, 4, 0, 1, 4, 0xff, 0xff, 1, 0}},
        {{1, 0x09, 0x10, 0}, {4, 0x0e, 10, 1, 0x09, 0x10, 0, 0, 0, 0xfe, 0xca, 0xde, 0xc2}},
        {{1, 0x05, 0x10, 0}, {4, 0x0e, 4, 1, 0x05, 0x10, 0x0c}},    // refused as told
        {{1, 0x45, 0xfc, 0}, {4, 0x0e, 4, 1, 0x45, 0xfc, 0x01}},    // unknown
        {{1, 0x05, 0x04, 0}, {4, 0x0f, 4, 0x01, 1, 0x05, 0x04}},    // unknown, of a group with a status
        {{1, 0x03, 0x0c, 1, 0}, {4, 0x0e, 4, 1, 0x03, 0x0c, 0x12}}, // no parameters expected
        {{1, 0x03, 0x0c, 7}, {4, 0x0e, 4, 1, 0x03, 0x0c, 0x12}},    // not as long as it says
    };
    for (const auto &row : rows) {
        ASSERT_EQ(write(row.sent), 0);
        EXPECT_EQ(read(), row.answer);
    }
    ASSERT_EQ(kiv_sim_hci_refuse(0, 0x1005, 0), 0);
    ASSERT_EQ(write({1, 0x05, 0x10, 0}), 0);
    EXPECT_EQ(read(), Bytes({4, 0x0e, 11, 1, 0x05, 0x10, 0, 0, 4, 64, 8, 0, 8, 0}));

    ASSERT_EQ(write(acl(6)), 0);
    EXPECT_EQ(read(), Bytes({4, 0x13, 5, 1, 0x2a, 0, 1, 0}));
    EXPECT_EQ(read(), acl(6));
    ASSERT_EQ(write(sco(6)), 0);
    ASSERT_EQ(write({2, 0, 0, 9, 9}), 0);
    EXPECT_EQ(read(), Bytes());
    const kiv_sim_hci_state state = state_of();
    EXPECT_EQ(state.commands, 9u);
    EXPECT_EQ(state.acl_packets, 2u);
    EXPECT_EQ(state.sco_packets, 1u);
    EXPECT_EQ(state.malformed, 2u);
}

TEST_F(SimHci, PacketsCanBeLateAndTooMany) {
    connect();
    configure([](auto &config) { config.hold = 1; });
    ASSERT_EQ(write(acl(1)), 0);
    ASSERT_EQ(write(hci_reset), 0);
    EXPECT_EQ(read(), Bytes());
    EXPECT_EQ(state_of().held, 3u);
    EXPECT_EQ(kiv_sim_hci_release(0, 2), 2u);
    EXPECT_EQ(read().size(), 8u);
    EXPECT_EQ(read(), acl(1));
    EXPECT_EQ(read(), Bytes());
    EXPECT_EQ(kiv_sim_hci_release(0, 9), 1u);
    EXPECT_EQ(read(), reset_complete);

    configure([](auto &config) { config.hold = 0; });
    while (state_of().lost == 0)
        controller_sends(acl(1024));
    EXPECT_EQ(read(), acl(1024)) << "the oldest ones are kept";
}

TEST_F(SimHci, GoingAwayIsToldOnceAheadOfTheData) {
    connect();
    controller_sends(event(1));
    ASSERT_EQ(kiv_sim_hci_unplug(0, EPIPE), 0);
    pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 1);
    EXPECT_EQ(entry.revents, POLLIN | POLLERR);
    EXPECT_EQ(read(), Bytes());
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(read(), event(1));
    EXPECT_EQ(read(), Bytes());
    EXPECT_EQ(errno, EAGAIN) << "a blocking read would wait";
    EXPECT_EQ(write(hci_reset), EPIPE);
    EXPECT_EQ(bind(0), ENODEV);
}

TEST_F(SimHci, AStreamThatEndsGivesWhatItHasFirst) {
    connect();
    controller_sends(event(1));
    ASSERT_EQ(kiv_sim_hci_unplug(0, 0), 0);
    EXPECT_EQ(read(), event(1));
    std::uint8_t byte;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(::read(fd, &byte, 1), 0);
}

} // namespace
} // namespace kiv::test
