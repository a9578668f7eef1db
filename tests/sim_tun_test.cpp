// The board's TUN clone devices, used as a program uses them; what the kernel refuses is refused here too.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "fixtures/bnep_traffic.h"
#include "fixtures/board.h"

namespace kiv::test {
namespace {

constexpr std::uint32_t here = 0x0a000001;
constexpr std::uint32_t there = 0x0a000002;

struct Interface {
    int fd = ::open("/dev/net/tun", O_RDWR);
    ifreq request = {};

    Interface() = default;
    Interface(const Interface &) = delete;
    Interface &operator=(const Interface &) = delete;
    ~Interface() { ::close(fd); }

    // 0 or errno.
    int ask(unsigned long what) { return ::ioctl(fd, what, &request) == 0 ? 0 : errno; }
    int name(const char *name, int flags = IFF_TAP | IFF_NO_PI) {
        request = {};
        std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
        request.ifr_flags = static_cast<short>(flags);
        return ask(TUNSETIFF);
    }
    int address(std::uint8_t first, std::uint8_t last, unsigned short family = ARPHRD_ETHER) {
        request.ifr_hwaddr = {};
        request.ifr_hwaddr.sa_family = family;
        request.ifr_hwaddr.sa_data[0] = static_cast<char>(first);
        request.ifr_hwaddr.sa_data[5] = static_cast<char>(last);
        return ask(SIOCSIFHWADDR);
    }
    int readable() const {
        pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
        return ::poll(&entry, 1, 0);
    }
    Bytes read() const {
        Bytes frame(3000);
        const ssize_t length = ::read(fd, frame.data(), frame.size());
        frame.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return frame;
    }
    int write(const Bytes &frame) const {
        return ::write(fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()) ? 0 : errno;
    }
};

class SimTun : public BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
    }
};

TEST_F(SimTun, GivesNamesAsTheKernelDoes) {
    Interface first, second, third;
    EXPECT_EQ(first.ask(SIOCGIFHWADDR), EBADFD) << "not an interface yet";
    EXPECT_EQ(first.name("lan/1"), EINVAL);
    EXPECT_EQ(first.name("kiv0", IFF_TAP), EINVAL) << "with packet information";
    EXPECT_EQ(first.name("kiv0"), 0);
    EXPECT_EQ(first.name("kiv1"), EEXIST);
    EXPECT_EQ(second.name("kiv0"), EBUSY);
    EXPECT_EQ(second.name("kiv%d"), 0);
    EXPECT_STREQ(second.request.ifr_name, "kiv1");
    EXPECT_EQ(third.name(""), 0);
    EXPECT_STREQ(third.request.ifr_name, "tap0");
    EXPECT_EQ(third.ask(SIOCGIFMTU), EINVAL) << "a request that is not modelled";
    EXPECT_EQ(first.address(3, 9), EADDRNOTAVAIL) << "of a group";
    EXPECT_EQ(first.address(0, 0), EADDRNOTAVAIL);
    EXPECT_EQ(first.address(2, 9, ARPHRD_LOOPBACK), EINVAL);
}

TEST_F(SimTun, RefusesFramesAsTheKernelDoesAndHoldsSoMany) {
    Interface one;
    ASSERT_EQ(one.name("kiv0"), 0);
    const Bytes longer = frame_of(60, 0x88b5), shorter = frame_of(20, 0x88b5);
    EXPECT_EQ(one.write(longer), EIO) << "while it is down";
    EXPECT_EQ(kiv_sim_tap_send("kiv0", longer.data(), longer.size()), ENETDOWN);
    EXPECT_EQ(kiv_sim_tap_set_up("kiv0", 1), 0);
    EXPECT_EQ(one.write(frame_of(13, 0)), EINVAL);
    for (unsigned i = 0; i < KIV_SIM_TAP_FRAMES + 2; ++i)
        EXPECT_EQ(one.write(i % 2 == 0 ? longer : shorter), 0);
    kiv_sim_tap_state state;
    kiv_sim_tap_inspect("kiv0", &state);
    EXPECT_EQ(state.received, KIV_SIM_TAP_FRAMES + 2u);
    EXPECT_EQ(state.uncollected, static_cast<unsigned>(KIV_SIM_TAP_FRAMES));
    while (kiv_sim_tap_send("kiv0", longer.data(), longer.size()) == 0) {
    }
    EXPECT_EQ(kiv_sim_tap_send("kiv0", longer.data(), longer.size()), ENOBUFS);
    EXPECT_EQ(kiv_sim_tap_delete("kiv0"), 0);
    EXPECT_EQ(one.write(longer), EBADFD);
    EXPECT_EQ(one.readable(), 1);
    EXPECT_EQ(one.address(2, 9), EBADFD);
}

TEST_F(SimTun, PassesOnNodesThatItWasNotGiven) {
    const int real = ::open("/dev/tun", O_RDWR);
    EXPECT_TRUE(real != -1 || errno == ENOENT || errno == EACCES || errno == EPERM);
    ::close(real);
    EXPECT_EQ(kiv_sim_tun_set_node(KIV_SIM_TUN_NODES, KIV_SIM_TUN_PRESENT), EINVAL);
}

// Two hosts, the frames of each carried to the other by hand, with every byte changed once on the way.
TEST_F(SimTun, HostsFindEachOtherAndPing) {
    constexpr unsigned pings = 3;
    Interface pinging, answering;
    ASSERT_EQ(pinging.name("kiv0"), 0);
    ASSERT_EQ(answering.name("kiv1"), 0);
    kiv_sim_host host = {.address = there, .peer = 0, .pings = 0, .ping_size = 0};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(answering.address(2, 2), 0);
    host = {.address = here, .peer = there, .pings = pings, .ping_size = 31};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(pinging.address(2, 1), 0);
    const auto replies = [] {
        kiv_sim_tap_state state;
        kiv_sim_tap_inspect("kiv0", &state);
        return state.replies;
    };
    ASSERT_EQ(pinging.readable(), 1) << "it asks for its peer's address by itself";
    EXPECT_EQ(answering.write(pinging.read()), 0);
    EXPECT_EQ(pinging.write(answering.read()), 0);
    for (unsigned i = 0; i < pings; ++i) {
        const Bytes ping = pinging.read();
        ASSERT_EQ(ping.size(), 14u + 20 + 8 + 31);
        for (std::size_t at = 34; at < ping.size(); ++at) {
            Bytes damaged = ping;
            damaged[at] ^= 0x10;
            EXPECT_EQ(answering.write(damaged), 0);
        }
        EXPECT_EQ(answering.readable(), 0) << "a damaged ping was answered";
        EXPECT_EQ(answering.write(ping), 0);
        const Bytes reply = answering.read();
        Bytes damaged = reply;
        damaged.back() ^= 1;
        EXPECT_EQ(pinging.write(damaged), 0);
        EXPECT_EQ(replies(), i);
        EXPECT_EQ(pinging.write(reply), 0);
        EXPECT_EQ(replies(), i + 1);
    }
    EXPECT_EQ(pinging.readable(), 0);
}

} // namespace
} // namespace kiv::test
