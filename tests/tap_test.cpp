// TAP interfaces, on the simulated board and on the machine's own kernel.

#include <cerrno>
#include <cstdlib>

#include "fixtures/fault_sweep.h"
#include "fixtures/netns.h"
#include "fixtures/tap.h"

namespace kiv::test {
namespace {

constexpr std::uint8_t station[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0xaf};
constexpr std::uint8_t group[] = {0x03, 0x11, 0x22, 0x33, 0x44, 0xaf};
constexpr std::int32_t untouched = -77;

const Bytes station_bytes(station, station + sizeof station);
const Reports refused_group = refused_address("MAC address = ", "03 11 22 33 44 AF ");

class Tap : public TapBoardTest {
  protected:
    std::int32_t fd_ = untouched;
    std::uint8_t header_[KIV_ETH_HEADER_SIZE] = {}, payload_[2000] = {};

    void open_up() {
        ASSERT_EQ(kiv_eth_open(&fd_, "kiv0", station), 0);
        ASSERT_EQ(kiv_sim_tap_set_up("kiv0", 1), 0);
        EXPECT_EQ(reports(), on_net_tun);
    }
    void TearDown() override {
        if (fd_ != untouched) {
            EXPECT_EQ(kiv_eth_close(&fd_), 0);
        }
        TapBoardTest::TearDown();
    }
    int read(unsigned room = 2000) { return kiv_eth_read(&fd_, header_, payload_, room); }
    int write(unsigned length = 46) { return kiv_eth_write(&fd_, header_, payload_, length); }
};

// Opening ------------------------------------------------------------------------------------------------

TEST_F(Tap, OpensTheFirstDeviceThatThereIs) {
    const struct {
        const char *what;
        kiv_sim_tun_node net_tun, dev_tun;
        const std::uint8_t *address;
        int result;
        unsigned opens;
        Reports reported;
    } rows[] = {
        {"first", present, present, station, 0, 1, on_net_tun},
        {"second", absent, present, station, 0, 2, on_dev_tun},
        {"neither", absent, absent, station, -19, 2, {}},
        {"a refused name", forbidden, present, station, -19, 1, joined({on_net_tun, refused_name})},
        {"a refused address", present, absent, group, -19, 1, joined({on_net_tun, refused_group})},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        begin(row.net_tun, row.dev_tun);
        std::int32_t fd = untouched;
        EXPECT_EQ(kiv_eth_open(&fd, "kiv0", row.address), row.result);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), row.opens);
        EXPECT_EQ(reports(), row.reported);
        if (row.result == 0) {
            EXPECT_EQ(address_in(tap_state("kiv0")), station_bytes);
            EXPECT_EQ(kiv_eth_close(&fd), 0);
        } else {
            EXPECT_EQ(fd, untouched);
        }
    }
}

TEST_F(Tap, CutsLongNamesAndRefusesTakenOnes) {
    std::int32_t first = untouched;
    EXPECT_EQ(kiv_eth_open(&first, "abcdefghijklmnopq", station), 0);
    EXPECT_EQ(tap_state("abcdefghijklmno").exists, 1);
    EXPECT_EQ(kiv_eth_open(&fd_, "abcdefghijklmnoX", station), -19);
    EXPECT_EQ(reports(), joined({on_net_tun, on_net_tun, refused_name}));
    EXPECT_EQ(kiv_eth_close(&first), 0);
    EXPECT_EQ(tap_state("abcdefghijklmno").exists, 0);
}

// Frames -------------------------------------------------------------------------------------------------

TEST_F(Tap, SplitsEachFrameIntoHeaderAndPayload) {
    open_up();
    const struct {
        std::size_t frame;
        unsigned room;
        int result;
    } rows[] = {{60, 2000, 46}, {14, 2000, 0}, {1514, 1500, 1500}, {60, 10, 10}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.frame);
        const Bytes frame = frame_of(row.frame, experimental);
        send_from_kernel("kiv0", frame);
        Bytes got(KIV_ETH_HEADER_SIZE + row.room + 1, 0xee);
        EXPECT_EQ(kiv_eth_read(&fd_, got.data(), got.data() + KIV_ETH_HEADER_SIZE, row.room), row.result);
        Bytes expected = frame;
        expected.resize(static_cast<std::size_t>(KIV_ETH_HEADER_SIZE + row.result));
        expected.resize(got.size(), 0xee);
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_READV), 4u) << "a frame is one system call";
}

TEST_F(Tap, WritesHeaderAndPayloadAsOneFrame) {
    open_up();
    for (const unsigned length : {0u, 1500u}) {
        const Bytes frame = frame_of(KIV_ETH_HEADER_SIZE + length, experimental);
        EXPECT_EQ(kiv_eth_write(&fd_, frame.data(), frame.data() + KIV_ETH_HEADER_SIZE, length),
                  static_cast<int>(length));
        EXPECT_EQ(received_by_kernel("kiv0"), frame);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 2u);
}

// The machine's kernel -----------------------------------------------------------------------------------

TEST_F(Tap, IsAnInterfaceOfTheMachinesKernel) {
    kiv_sim_reset(); // both devices are the machine's
    const std::string refusal = enter_network_namespace();
    if (!refusal.empty())
        GTEST_SKIP() << refusal;
    silence_ipv6();
    std::int32_t second = untouched;
    ASSERT_EQ(kiv_eth_open(&fd_, "kivtap%d", station), 0);
    ASSERT_EQ(kiv_eth_open(&second, "abcdefghijklmnopq", station), 0);
    EXPECT_EQ(hardware_address("kivtap0"), station_bytes);
    EXPECT_EQ(hardware_address("abcdefghijklmno"), station_bytes);
    EXPECT_EQ(kiv_eth_close(&second), 0);
    EXPECT_EQ(hardware_address("abcdefghijklmno"), Bytes()) << "the interface outlived its descriptor";
    EXPECT_EQ(kiv_eth_open(&second, "kivtap0", station), -19);
    EXPECT_EQ(kiv_eth_open(&second, "other", group), -19);
    EXPECT_EQ(reports(),
              joined({on_net_tun, on_net_tun, on_net_tun, refused_name, on_net_tun, refused_group}));

    EXPECT_EQ(write(), -EIO) << "the interface is down";
    ASSERT_TRUE(bring_up("kivtap0"));
    const PacketSocket kernel("kivtap0", experimental);
    for (const unsigned length : {46u, 1500u}) {
        const Bytes frame = frame_of(KIV_ETH_HEADER_SIZE + length, experimental);
        ASSERT_TRUE(kernel.send(frame));
        ASSERT_EQ(read(), static_cast<int>(length));
        EXPECT_EQ(Bytes(payload_, payload_ + length), payload_of(frame));
        ASSERT_EQ(write(length), static_cast<int>(length));
        EXPECT_EQ(kernel.receive(), frame);
    }
    if (std::system("ip link delete kivtap0") == 0) {
        EXPECT_EQ(read(), -EBADFD);
    }
}

// Whatever goes wrong ------------------------------------------------------------------------------------

std::int32_t swept;
std::uint8_t room[KIV_ETH_HEADER_SIZE + 46];

void set_up_board() {
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, present);
    kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, absent);
    kiv_log_dyn_level_POS = 1;
    swept = untouched;
}
int open_tap() {
    return kiv_eth_open(&swept, "kiv0", station);
}
void open_with_frame() {
    set_up_board();
    EXPECT_EQ(open_tap(), 0);
    kiv_sim_tap_set_up("kiv0", 1);
    send_from_kernel("kiv0", frame_of(60, experimental));
}
void close_tap() {
    if (swept != untouched)
        kiv_eth_close(&swept);
    kiv_log_dyn_level_POS = 3;
}

Outcome failed_opening(const Point &at) {
    if (at.is(KIV_SIM_CLOSE)) // of a number that is not to be kept
        return {0};
    if (!at.is(KIV_SIM_IOCTL))
        return {-ENODEV};
    return {-ENODEV, at.nth == 1 ? refused_name : refused_address("MAC address = ", "02 11 22 33 44 AF ")};
}
constexpr std::size_t part_of_frame = 20;

Outcome failed_closing(const Point &) {
    return {-1};
}
// A frame's beginning is a success, and counted without the header.
Outcome failed_transfer(const Point &at) {
    return {at.is(Fault::moves_less) ? static_cast<int>(part_of_frame) - KIV_ETH_HEADER_SIZE : -at.error};
}
int moved(int payload) {
    return payload == 46 ? 0 : payload;
}

const Scene fresh = {set_up_board, close_tap};
const Scene closing = {open_with_frame, [] { kiv_log_dyn_level_POS = 3; }};
const Scene opened = {open_with_frame, close_tap};

const SweptOperation rows[] = {
    {"kiv_eth_open", "", fresh, failed_opening, open_tap},
    {"kiv_eth_open", "without_input", without_input(fresh), failed_opening, open_tap},
    {"kiv_eth_close", "", closing, failed_closing, [] { return kiv_eth_close(&swept); }},
    {"kiv_eth_read", "", opened, repeating(failed_transfer),
     [] { return moved(kiv_eth_read(&swept, room, room + KIV_ETH_HEADER_SIZE, 46)); }, part_of_frame},
    {"kiv_eth_write", "", opened, repeating(failed_transfer),
     [] { return moved(kiv_eth_write(&swept, room, room + KIV_ETH_HEADER_SIZE, 46)); }, part_of_frame},
};

INSTANTIATE_TEST_SUITE_P(Tap, FaultSweep, ::testing::ValuesIn(rows), row_name);

} // namespace
} // namespace kiv::test
