// The board's TUN clone devices, used as a program uses them; what the kernel refuses is refused here too.

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "fixtures/board.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Interface {
    int fd = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK);
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
    int address(char first, char last, unsigned short family = ARPHRD_ETHER) {
        request.ifr_hwaddr = {};
        request.ifr_hwaddr.sa_family = family;
        request.ifr_hwaddr.sa_data[0] = first;
        request.ifr_hwaddr.sa_data[5] = last;
        return ask(SIOCSIFHWADDR);
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

TEST_F(SimTun, GivesNamesAndAddressesAsTheKernelDoes) {
    Interface first, second;
    EXPECT_EQ(first.ask(SIOCGIFHWADDR), EBADFD) << "not an interface yet";
    EXPECT_EQ(first.name("lan/1"), EINVAL);
    EXPECT_EQ(first.name("kiv0", IFF_TAP), EINVAL) << "with packet information";
    EXPECT_EQ(first.name("kiv0"), 0);
    EXPECT_EQ(first.name("kiv1"), EEXIST);
    EXPECT_EQ(second.name("kiv0"), EBUSY);
    EXPECT_EQ(second.name("kiv%d"), 0);
    EXPECT_STREQ(second.request.ifr_name, "kiv1");
    EXPECT_EQ(first.address(3, 9), EADDRNOTAVAIL) << "of a group";
    EXPECT_EQ(first.address(0, 0), EADDRNOTAVAIL);
    EXPECT_EQ(first.address(2, 9, ARPHRD_LOOPBACK), EINVAL);
}

TEST_F(SimTun, RefusesFramesAsTheKernelDoes) {
    Interface one;
    ASSERT_EQ(one.name("kiv0"), 0);
    const Bytes frame(60);
    EXPECT_EQ(one.write(frame), EIO) << "while it is down";
    EXPECT_EQ(kiv_sim_tap_send("kiv0", frame.data(), frame.size()), ENETDOWN);
    EXPECT_EQ(kiv_sim_tap_set_up("kiv0", 1), 0);
    EXPECT_EQ(one.write(Bytes(13)), EINVAL);
    EXPECT_EQ(one.write(frame), 0);
    EXPECT_EQ(kiv_sim_tap_delete("kiv0"), 0);
    EXPECT_EQ(one.write(frame), EBADFD);
    EXPECT_EQ(one.address(2, 9), EBADFD);
}

// Two hosts, the frames of each carried to the other by hand.
TEST_F(SimTun, HostsFindEachOtherAndPing) {
    Interface pinging, answering;
    ASSERT_EQ(pinging.name("kiv0"), 0);
    ASSERT_EQ(answering.name("kiv1"), 0);
    kiv_sim_host host = {.address = 0x0a000002, .peer = 0, .pings = 0, .ping_size = 0};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(answering.address(2, 2), 0);
    host = {.address = 0x0a000001, .peer = 0x0a000002, .pings = 1, .ping_size = 31};
    kiv_sim_tun_set_host(&host);
    ASSERT_EQ(pinging.address(2, 1), 0);
    EXPECT_EQ(answering.write(pinging.read()), 0) << "it asks for its peer's address by itself";
    EXPECT_EQ(pinging.write(answering.read()), 0);
    const Bytes ping = pinging.read();
    Bytes damaged = ping;
    damaged.back() ^= 1;
    EXPECT_EQ(answering.write(damaged), 0);
    EXPECT_EQ(answering.read(), Bytes()) << "a damaged ping was answered";
    EXPECT_EQ(answering.write(ping), 0);
    EXPECT_EQ(pinging.write(answering.read()), 0);
    kiv_sim_tap_state state;
    kiv_sim_tap_inspect("kiv0", &state);
    EXPECT_EQ(state.replies, 1u);
}

} // namespace
} // namespace kiv::test
