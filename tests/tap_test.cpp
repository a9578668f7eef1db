// TAP interfaces, on the simulated board and on the machine's own kernel.

#include <cerrno>
#include <csignal>
#include <sys/uio.h>

#include "fixtures/bnep_traffic.h"
#include "fixtures/log_capture.h"
#include "fixtures/netns.h"
#include "fixtures/signal.h"
#include "kiv/network.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

constexpr std::uint8_t station[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0xaf};
constexpr std::uint8_t group[] = {0x03, 0x11, 0x22, 0x33, 0x44, 0xaf};
constexpr std::uint16_t experimental = 0x88b5; // the kernel sends none of its own
constexpr int untouched = -77;

const Reports on_net_tun = {logged(3, "bnep device is /dev/net/tun\n")};
const Reports refused_name = {logged(1, "TAP: failed to set BNEP name\n")};
const Bytes station_bytes(station, station + sizeof station);

class Tap : public LoggedBoardTest {
  protected:
    std::int32_t fd_ = untouched;

    void SetUp() override {
        LoggedBoardTest::SetUp();
        kiv_log_dyn_level_POS = 3;
        kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
        kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, KIV_SIM_TUN_ABSENT);
    }
    void open_up(const char *name) {
        ASSERT_EQ(kiv_eth_open(&fd_, name, station), 0);
        ASSERT_EQ(kiv_sim_tap_set_up(name, 1), 0);
        EXPECT_EQ(reports(), on_net_tun);
    }
};

// Opening ------------------------------------------------------------------------------------------------

Reports refused_address(const std::string &bytes) {
    Reports lines = {logged(1, "TAP: failed to set MAC address\n"), logged(1, "MAC address = ")};
    for (std::size_t i = 0; i < bytes.size(); i += 3)
        lines.push_back(logged(1, bytes.substr(i, 3)));
    lines.push_back(logged(1, "\n"));
    return lines;
}

Reports joined(Reports first, const Reports &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

struct Opening {
    const char *what;
    kiv_sim_tun_node net_tun, dev_tun;
    const std::uint8_t *address;
    int result;
    unsigned opens;
    Reports information, failures; // levels 3 and 1
};

constexpr auto present = KIV_SIM_TUN_PRESENT, absent = KIV_SIM_TUN_ABSENT, forbidden = KIV_SIM_TUN_FORBIDDEN;

const Opening openings[] = {
    {"first", present, present, station, 0, 1, on_net_tun, {}},
    {"second", absent, present, station, 0, 2, {logged(3, "bnep device is /dev/tun\n")}, {}},
    {"neither", absent, absent, station, -19, 2, {}, {}},
    {"a refused name ends it", forbidden, present, station, -19, 1, on_net_tun, refused_name},
    {"a refused address", present, absent, group, -19, 1, on_net_tun, refused_address("03 11 22 33 44 AF ")},
};

TEST_F(Tap, OpensTheFirstDeviceThatThereIsAndReportsByLevel) {
    for (const Opening &row : openings)
        for (int level = 0; level <= 3; ++level) {
            SCOPED_TRACE(std::string(row.what) + ", level " + std::to_string(level));
            kiv_sim_reset();
            kiv_sim_tun_set_node(KIV_SIM_NET_TUN, row.net_tun);
            kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, row.dev_tun);
            kiv_log_dyn_level_POS = level;
            std::int32_t fd = untouched;
            EXPECT_EQ(kiv_eth_open(&fd, "kiv0", row.address), row.result);
            EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), row.opens);
            EXPECT_EQ(reports(), joined(level >= 3 ? row.information : Reports(),
                                        level >= 1 ? row.failures : Reports()));
            kiv_sim_tap_state state;
            kiv_sim_tap_inspect("kiv0", &state);
            EXPECT_EQ(state.exists, row.result == 0 ? 1 : 0);
            if (row.result == 0) {
                EXPECT_EQ(Bytes(state.hardware_address, state.hardware_address + 6), station_bytes);
                EXPECT_EQ(kiv_eth_close(&fd), 0);
            } else {
                EXPECT_EQ(fd, untouched);
            }
        }
}

TEST_F(Tap, GivesNothingButMinusNineteenWhateverStepFails) {
    const struct {
        unsigned long request;
        Reports failures;
    } rows[] = {{0x400454ca, refused_name}, {0x8924, refused_address("02 11 22 33 44 AF ")}};
    kiv_sim_fail(KIV_SIM_OPEN, 1, 2, EMFILE);
    EXPECT_EQ(kiv_eth_open(&fd_, "kiv0", station), -19);
    EXPECT_EQ(reports(), Reports());
    for (const auto &row : rows)
        for (const int error : {EPERM, EBUSY, EINTR, ENOMEM}) {
            kiv_sim_fail_ioctl(row.request, 1, 1, error);
            EXPECT_EQ(kiv_eth_open(&fd_, "kiv0", station), -19);
            EXPECT_EQ(reports(), joined(on_net_tun, row.failures));
        }
    EXPECT_EQ(fd_, untouched);
}

TEST_F(Tap, CutsLongNamesAndRefusesTakenOnes) {
    std::int32_t second = untouched;
    EXPECT_EQ(kiv_eth_open(&fd_, "abcdefghijklmnopq", station), 0);
    kiv_sim_tap_state state;
    kiv_sim_tap_inspect("abcdefghijklmno", &state);
    EXPECT_EQ(state.exists, 1);
    EXPECT_EQ(kiv_eth_open(&second, "abcdefghijklmnoX", station), -19);
    const std::string &opened = on_net_tun[0];
    EXPECT_EQ(reports(), Reports({opened, opened, refused_name[0]}));

    kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO);
    errno = 0;
    EXPECT_EQ(kiv_eth_close(&fd_), -1);
    EXPECT_EQ(errno, EIO);
    kiv_sim_tap_inspect("abcdefghijklmno", &state);
    EXPECT_EQ(state.exists, 0);
}

// Frames -------------------------------------------------------------------------------------------------

TEST_F(Tap, SplitsEachFrameIntoHeaderAndPayload) {
    open_up("kiv0");
    const struct {
        std::size_t frame, room;
        int result;
    } rows[] = {{60, 2000, 46}, {14, 2000, 0}, {1514, 1500, 1500}, {60, 10, 10}, {60, 0, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.frame);
        const Bytes frame = frame_of(row.frame, experimental);
        ASSERT_EQ(kiv_sim_tap_send("kiv0", frame.data(), frame.size()), 0);
        Bytes got(KIV_ETH_HEADER_SIZE + row.room + 1, 0xee);
        EXPECT_EQ(
            kiv_eth_read(&fd_, got.data(), got.data() + KIV_ETH_HEADER_SIZE, static_cast<unsigned>(row.room)),
            row.result);
        Bytes expected = frame;
        expected.resize(static_cast<std::size_t>(KIV_ETH_HEADER_SIZE + row.result));
        expected.resize(got.size(), 0xee);
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_READV), 5u) << "a frame is one system call";
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
}

TEST_F(Tap, WritesHeaderAndPayloadAsOneFrame) {
    open_up("kiv0");
    for (const unsigned payload : {0u, 1u, 46u, 1500u}) {
        const Bytes frame = frame_of(KIV_ETH_HEADER_SIZE + payload, experimental);
        EXPECT_EQ(kiv_eth_write(&fd_, frame.data(), frame.data() + KIV_ETH_HEADER_SIZE, payload),
                  static_cast<int>(payload));
        Bytes got(2000);
        got.resize(kiv_sim_tap_receive("kiv0", got.data(), got.size()));
        EXPECT_EQ(got, frame);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 4u);
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
}

TEST_F(Tap, RepeatsInterruptedTransfersAndNamesOtherErrors) {
    open_up("kiv0");
    const Bytes frame = frame_of(60, experimental);
    std::uint8_t header[KIV_ETH_HEADER_SIZE], payload[100];
    const auto read = [&] { return kiv_eth_read(&fd_, header, payload, sizeof payload); };
    const auto write = [&] { return kiv_eth_write(&fd_, header, payload, 46); };
    ASSERT_EQ(kiv_sim_tap_send("kiv0", frame.data(), frame.size()), 0);
    kiv_sim_fail(KIV_SIM_READV, 1, 3, EINTR);
    kiv_sim_fail(KIV_SIM_WRITEV, 1, 3, EINTR);
    EXPECT_EQ(read(), 46);
    EXPECT_EQ(write(), 46);
    EXPECT_EQ(kiv_sim_faults_fired(), 6u);

    for (const int error : {EIO, EBADFD, EAGAIN, EFAULT}) {
        kiv_sim_fail(KIV_SIM_READV, 1, 1, error);
        kiv_sim_fail(KIV_SIM_WRITEV, 1, 1, error);
        EXPECT_EQ(read(), -error);
        EXPECT_EQ(write(), -error);
    }
    kiv_sim_tap_set_up("kiv0", 0);
    EXPECT_EQ(write(), -EIO);
    kiv_sim_tap_delete("kiv0");
    EXPECT_EQ(read(), -EBADFD);
    EXPECT_EQ(write(), -EBADFD);
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
}

TEST_F(Tap, GoesOnWaitingAfterARealSignal) {
    open_up("kiv0");
    std::uint8_t header[KIV_ETH_HEADER_SIZE], payload[100];
    int result = 0;
    std::thread reader([&] { result = kiv_eth_read(&fd_, header, payload, sizeof payload); });
    kiv_sim_wait_calls(KIV_SIM_READV, 1);
    Interrupter signals(reader.native_handle());
    kiv_sim_wait_calls(KIV_SIM_READV, 3); // it came back and was made again
    signals.stop();
    const Bytes frame = frame_of(60, experimental);
    ASSERT_EQ(kiv_sim_tap_send("kiv0", frame.data(), frame.size()), 0);
    reader.join();
    EXPECT_EQ(result, 46);
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
}

// The machine's kernel -----------------------------------------------------------------------------------

class KernelTap : public Tap {
  protected:
    void SetUp() override {
        Tap::SetUp();
        kiv_sim_reset(); // both devices are the machine's
        const std::string refusal = enter_network_namespace();
        if (!refusal.empty())
            GTEST_SKIP() << refusal;
        silence_ipv6();
    }
};

TEST_F(KernelTap, IsAnInterfaceWithTheGivenNameAndAddress) {
    ASSERT_EQ(kiv_eth_open(&fd_, "kivtap%d", station), 0);
    std::int32_t long_name = untouched, refused = untouched;
    ASSERT_EQ(kiv_eth_open(&long_name, "abcdefghijklmnopq", station), 0);
    EXPECT_EQ(hardware_address("kivtap0"), station_bytes);
    EXPECT_EQ(hardware_address("abcdefghijklmno"), station_bytes);
    EXPECT_EQ(kiv_eth_open(&refused, "kivtap0", station), -19);
    EXPECT_EQ(kiv_eth_open(&refused, "other", group), -19);
    EXPECT_EQ(hardware_address("other"), Bytes());
    const std::string &opened = on_net_tun[0];
    EXPECT_EQ(reports(), joined({opened, opened, opened, refused_name[0], opened},
                                refused_address("03 11 22 33 44 AF ")));
    EXPECT_EQ(refused, untouched);
    EXPECT_EQ(kiv_eth_close(&long_name), 0);
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
    EXPECT_EQ(hardware_address("kivtap0"), Bytes()) << "the interface outlived its descriptor";
}

TEST_F(KernelTap, CarriesFramesBothWays) {
    ASSERT_EQ(kiv_eth_open(&fd_, "kiv0", station), 0);
    reports();
    std::uint8_t header[KIV_ETH_HEADER_SIZE], payload[2000];
    EXPECT_EQ(kiv_eth_write(&fd_, header, payload, 46), -EIO) << "the interface is down";
    ASSERT_TRUE(bring_up("kiv0"));
    const PacketSocket kernel("kiv0", experimental);
    for (const std::size_t length : {14u, 60u, 1514u}) {
        SCOPED_TRACE(length);
        const Bytes frame = frame_of(length, experimental);
        const auto payload_length = static_cast<unsigned>(length) - KIV_ETH_HEADER_SIZE;
        ASSERT_EQ(kiv_eth_write(&fd_, frame.data(), frame.data() + KIV_ETH_HEADER_SIZE, payload_length),
                  static_cast<int>(payload_length));
        EXPECT_EQ(kernel.receive(), frame);
        if (length > KIV_ETH_HEADER_SIZE) { // some kernels let nobody send a bare header
            ASSERT_TRUE(kernel.send(frame));
            EXPECT_EQ(kiv_eth_read(&fd_, header, payload, sizeof payload), static_cast<int>(payload_length));
            EXPECT_EQ(Bytes(header, header + sizeof header), Bytes(frame.begin(), frame.begin() + 14));
            EXPECT_EQ(Bytes(payload, payload + payload_length), payload_of(frame));
        }
    }
    EXPECT_EQ(kiv_eth_close(&fd_), 0);
}

} // namespace
} // namespace kiv::test
