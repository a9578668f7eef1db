// The BNEP sender, on the simulated board and on the machine's own kernel.

#include <cerrno>
#include <sys/resource.h>

#include "fixtures/bnep_traffic.h"
#include "fixtures/log_capture.h"
#include "fixtures/netns.h"
#include "fixtures/signal.h"
#include "kiv/network.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

// Bluetooth order: the reverse of 11:22:33:44:55:66 would be a group address, so these start with 12 and 13.
constexpr std::uint8_t device[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x12};
constexpr std::uint8_t group[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x13};
constexpr std::uint8_t written[] = {0x12, 0x22, 0x33, 0x44, 0x55, 0x66};
constexpr std::uint8_t everybody[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr std::uint16_t experimental = 0x88b5; // the kernel sends none of its own

const Bytes written_bytes(written, written + sizeof written);
const Reports on_net_tun = {logged(3, "bnep device is /dev/net/tun\n")};
const Reports on_dev_tun = {logged(3, "bnep device is /dev/tun\n")};
const Reports refused_name = {logged(1, "TAP: failed to set BNEP name\n")};
const Reports no_interface = {logged(1, "TAP: failed to open TUN interface\n")};

Reports refused_address(const std::string &bytes) {
    Reports lines = {logged(1, "TAP: failed to set MAC address\n"), logged(1, "BT address = ")};
    for (std::size_t i = 0; i < bytes.size(); i += 3)
        lines.push_back(logged(1, bytes.substr(i, 3)));
    lines.push_back(logged(1, "\n"));
    return lines;
}

Reports joined(std::initializer_list<Reports> parts) {
    Reports all;
    for (const Reports &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

void send_to_sender(const Bytes &frame) {
    ASSERT_EQ(kiv_sim_tap_send("bnep", frame.data(), frame.size()), 0);
}

// Up, and with the address: the thread is past its set-up, or about to allocate its buffer.
void wait_until_ready() {
    wait_for_tap("bnep", [](const kiv_sim_tap_state &state) {
        return Bytes(state.hardware_address, state.hardware_address + 6) == written_bytes;
    });
    ASSERT_EQ(kiv_sim_tap_set_up("bnep", 1), 0);
}

int stop() {
    const Traffic traffic;
    return kiv_bnep_set_sender(nullptr, nullptr);
}

class Bnep : public LoggedBoardTest {
  protected:
    void SetUp() override {
        LoggedBoardTest::SetUp();
        kiv_log_dyn_level_POS = 3;
        kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
        kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, KIV_SIM_TUN_ABSENT);
    }
    void TearDown() override {
        kiv_sim_clear_faults();
        stop();
        recorder.take(0);
        LoggedBoardTest::TearDown();
    }
    static void start(kiv_bnep_sender_cb sender = record_step) {
        ASSERT_EQ(kiv_bnep_set_sender(sender, device), 0);
        wait_until_ready();
        EXPECT_EQ(reports(), on_net_tun);
    }
    static void expect_delivery() {
        const Bytes frame = frame_of(98, experimental);
        send_to_sender(frame);
        EXPECT_EQ(recorder.take(3), steps_of(experimental, payload_of(frame)));
    }
};

// Outbound -----------------------------------------------------------------------------------------------

TEST_F(Bnep, HandsOutEachFrameInThreeSteps) {
    start();
    for (const std::size_t length : {1u, 12u, 13u}) // shorter than a header: dropped
        send_to_sender(frame_of(length, 0));
    for (const std::size_t length : {14u, 15u, 98u, 1514u, 1600u}) {
        const Bytes frame = frame_of(length, 0x0800);
        send_to_sender(frame);
        EXPECT_EQ(recorder.take(3), steps_of(0x0800, payload_of(frame)));
    }
    const unsigned reads = kiv_sim_calls(KIV_SIM_READ);
    Bytes frame = frame_of(1700, 0xfffe);
    send_to_sender(frame);
    frame.resize(1600);
    EXPECT_EQ(recorder.take(3), steps_of(0xfffe, payload_of(frame))) << "cut to the buffer's size";
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_READ), reads + 1);
}

// A replacement or a stop that comes in the middle of a delivery returns after it.
class BnepChange : public Bnep, public ::testing::WithParamInterface<kiv_bnep_sender_cb> {};

std::atomic<bool> change_called, change_returned;
std::atomic<int> calls_afterwards;
std::thread changer;

// At the first step another thread makes the change; this one gives it every opportunity to return too early.
void change_during_delivery(void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t step) {
    constexpr int opportunities = 2000;
    calls_afterwards += change_returned ? 1 : 0;
    if (step != KIV_BNEP_FRAME_START || changer.joinable())
        return;
    changer = std::thread([] {
        change_called = true;
        kiv_bnep_set_sender(BnepChange::GetParam(), group); // the address is not looked at
        change_returned = true;
    });
    for (int i = 0; i < opportunities || !change_called; ++i)
        ::sched_yield();
}

TEST_P(BnepChange, ReturnsWhenTheOldCallbackIsThroughForGood) {
    change_called = change_returned = false;
    calls_afterwards = 0;
    start(change_during_delivery);
    const Traffic traffic;
    while (!change_returned)
        ::sched_yield();
    changer.join();
    if (GetParam() != nullptr) {
        Steps steps = recorder.take(3);
        steps.resize(3);
        EXPECT_EQ(steps, steps_of(experimental, payload_of(frame_of(60, experimental))));
        kiv_sim_tap_state state;
        kiv_sim_tap_inspect("bnep", &state);
        EXPECT_EQ(Bytes(state.hardware_address, state.hardware_address + 6), written_bytes);
    }
    EXPECT_EQ(calls_afterwards, 0);
}

INSTANTIATE_TEST_SUITE_P(, BnepChange, ::testing::Values(record_step, nullptr),
                         [](const auto &change) { return change.param == nullptr ? "Stop" : "Replacement"; });

// Start --------------------------------------------------------------------------------------------------

constexpr auto present = KIV_SIM_TUN_PRESENT, absent = KIV_SIM_TUN_ABSENT, forbidden = KIV_SIM_TUN_FORBIDDEN;

struct Beginning {
    const char *what;
    kiv_sim_tun_node net_tun, dev_tun;
    const std::uint8_t *address;
    bool exists;
    Reports all; // at level 3
};

const Beginning beginnings[] = {
    {"the second device", absent, present, device, true, on_dev_tun},
    {"the name refused on the first", forbidden, present, device, true,
     joined({on_net_tun, refused_name, on_dev_tun})},
    {"the name refused on both", forbidden, forbidden, device, false,
     joined({on_net_tun, refused_name, on_dev_tun, refused_name, no_interface})},
    {"the name refused on the only one", forbidden, absent, device, false,
     joined({on_net_tun, refused_name, no_interface})},
    {"no device", absent, absent, device, false, no_interface},
    {"the address refused", present, absent, group, true,
     joined({on_net_tun, refused_address("66 55 44 33 22 13 ")})},
};

// What of the reports is left at a level.
Reports at_level(int level, const Reports &all) {
    Reports left;
    for (const std::string &report : all)
        if (report[4] - '0' <= level) // "POS/3 ..."
            left.push_back(report);
    return left;
}

TEST_F(Bnep, TriesBothDevicesAndReportsByLevel) {
    for (const Beginning &row : beginnings)
        for (int level = 0; level <= 3; ++level) {
            SCOPED_TRACE(std::string(row.what) + ", level " + std::to_string(level));
            kiv_sim_reset();
            kiv_sim_tun_set_node(KIV_SIM_NET_TUN, row.net_tun);
            kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, row.dev_tun);
            kiv_log_dyn_level_POS = level;
            ASSERT_EQ(kiv_bnep_set_sender(record_step, row.address), 0);
            if (row.exists) { // carries on with the interface, whatever its address
                wait_for_tap("bnep", [](const kiv_sim_tap_state &state) { return state.exists != 0; });
                ASSERT_EQ(kiv_sim_tap_set_up("bnep", 1), 0);
                expect_delivery();
            } else {
                kiv_sim_wait_calls(KIV_SIM_OPEN, 2);
            }
            EXPECT_EQ(stop(), -1);
            EXPECT_EQ(reports(), at_level(level, row.all));
            recorder.take(0);
        }
}

TEST_F(Bnep, SurvivesTwoHundredStartsAndStopsUnderTraffic) {
    static std::atomic<unsigned> delivered;
    delivered = 0;
    const auto count = [](void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t step) {
        delivered += step == KIV_BNEP_FRAME_END ? 1 : 0;
    };
    const Traffic traffic;
    const std::uint8_t payload[28] = {};
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0) << "there is nothing to stop";
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(kiv_bnep_set_sender(count, device), 0);
        const unsigned before = delivered;
        while (i % 2 == 0 && delivered == before) // every other run is stopped wherever it is
            kiv_bnep_data_available(nullptr, experimental, payload, sizeof payload, everybody, device);
        ASSERT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        const unsigned after = delivered;
        ASSERT_EQ(kiv_bnep_data_available(nullptr, experimental, payload, 28, everybody, device), -1);
        kiv_sim_tap_state state;
        kiv_sim_tap_inspect("bnep", &state);
        ASSERT_EQ(state.exists, 0) << "run " << i;
        ASSERT_EQ(delivered, after) << "run " << i;
    }
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), kiv_sim_calls(KIV_SIM_OPEN));
    for (const std::string &report : reports())
        EXPECT_EQ(report, on_net_tun[0]);
}

// The end by itself --------------------------------------------------------------------------------------

const Reports failed_wait = {logged(1, "bnep_sender: select failed\n")};

const struct {
    const char *what;
    kiv_sim_call call;
    int error; // none: the interface is deleted
    Reports reported;
} endings[] = {
    {"interrupted wait", KIV_SIM_SELECT, EINTR, failed_wait},
    {"failed wait", KIV_SIM_SELECT, ENOMEM, failed_wait},
    {"failed read", KIV_SIM_READ, EIO, {}},
    {"interface deleted", KIV_SIM_READ, 0, {}},
};

TEST_F(Bnep, StaysEndedUntilItIsStopped) {
    for (const auto &row : endings) {
        SCOPED_TRACE(row.what);
        start(ignore_step);
        const unsigned opened = kiv_sim_calls(KIV_SIM_OPEN), closed = kiv_sim_calls(KIV_SIM_CLOSE);
        if (row.error != 0) {
            kiv_sim_fail(row.call, 1, 1, row.error);
            send_to_sender(frame_of(60, experimental)); // it may be waiting already
        } else {
            kiv_sim_tap_delete("bnep");
        }
        kiv_sim_wait_calls(KIV_SIM_CLOSE, closed + 1);
        EXPECT_EQ(kiv_bnep_data_available(nullptr, experimental, written, 6, everybody, device), -1);
        EXPECT_EQ(kiv_bnep_set_sender(record_step, device), 0) << "stored, and never called";
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), opened);
        EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        EXPECT_EQ(recorder.take(0), Steps());
        EXPECT_EQ(reports(), row.reported);
        start();
        expect_delivery();
        EXPECT_EQ(stop(), -1);
        recorder.take(0);
    }
}

TEST_F(Bnep, GoesOnAfterAnInterruptedReadAndAnEmptyOne) {
    start();
    kiv_sim_fail(KIV_SIM_READ, 1, 2, EINTR);
    expect_delivery();
    kiv_sim_answer(KIV_SIM_READ, 1, 2, 0);
    expect_delivery();
    EXPECT_EQ(kiv_sim_faults_fired(), 4u);
}

TEST_F(Bnep, WaitsForDescriptorsThatASetCannotHold) {
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < FD_SETSIZE)
        fillers.push_back(::dup(0));
    start();
    expect_delivery();
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0u);
    EXPECT_GT(kiv_sim_calls(KIV_SIM_PPOLL), 0u);
    EXPECT_EQ(stop(), -1);
    for (const int fd : fillers)
        ::close(fd);
}

// Inbound ------------------------------------------------------------------------------------------------

int inject(std::uint16_t protocol, const Bytes &payload) {
    return kiv_bnep_data_available(nullptr, protocol, payload.data(), static_cast<unsigned>(payload.size()),
                                   everybody, device);
}

TEST_F(Bnep, InjectsAFrameInOneCall) {
    start();
    for (const std::size_t length : {0u, 1u, 28u, 1500u}) {
        Bytes payload(length);
        for (std::size_t i = 0; i < length; ++i)
            payload[i] = static_cast<std::uint8_t>(i + 1);
        EXPECT_EQ(inject(0x0806, payload), static_cast<int>(length) + KIV_ETH_HEADER_SIZE);
        Bytes expected(everybody, everybody + 6);
        expected.insert(expected.end(), written_bytes.begin(), written_bytes.end());
        expected.insert(expected.end(), {0x08, 0x06});
        expected.insert(expected.end(), payload.begin(), payload.end());
        Bytes got(2000);
        got.resize(kiv_sim_tap_receive("bnep", got.data(), got.size()));
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 4u);
}

TEST_F(Bnep, TellsWhyAFrameWasNotInjected) {
    const auto refusal = [] {
        errno = 0;
        EXPECT_EQ(inject(0x0800, Bytes(28)), -1);
        return errno;
    };
    EXPECT_EQ(refusal(), ENODEV);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 0u) << "nothing is written without an interface";
    start();
    for (const int error : {EINTR, EIO, ENOBUFS}) {
        kiv_sim_fail(KIV_SIM_WRITEV, 1, 1, error);
        EXPECT_EQ(refusal(), error);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 3u) << "none is repeated";
    kiv_sim_tap_set_up("bnep", 0);
    EXPECT_EQ(refusal(), EIO);
    EXPECT_EQ(stop(), -1);
    EXPECT_EQ(refusal(), ENODEV);
}

// The machine's kernel -----------------------------------------------------------------------------------

class KernelBnep : public Bnep {
  protected:
    void SetUp() override {
        Bnep::SetUp();
        kiv_sim_reset(); // both devices are the machine's
        const std::string refusal = enter_network_namespace();
        if (!refusal.empty())
            GTEST_SKIP() << refusal;
        silence_ipv6();
        ASSERT_EQ(kiv_bnep_set_sender(record_step, device), 0);
        while (hardware_address("bnep") != written_bytes)
            ::sched_yield();
    }
};

TEST_F(KernelBnep, CarriesFramesBetweenTheLinkAndTheKernel) {
    EXPECT_EQ(reports(), on_net_tun);
    EXPECT_EQ(inject(experimental, Bytes(46)), -1);
    EXPECT_EQ(errno, EIO) << "the interface is down";
    ASSERT_TRUE(bring_up("bnep"));
    const PacketSocket kernel("bnep", experimental);
    for (const std::size_t length : {60u, 1514u}) {
        const Bytes frame = frame_of(length, experimental);
        ASSERT_TRUE(kernel.send(frame));
        EXPECT_EQ(recorder.take(3), steps_of(experimental, payload_of(frame)));

        EXPECT_EQ(inject(experimental, payload_of(frame)), static_cast<int>(length));
        Bytes expected(everybody, everybody + 6);
        expected.insert(expected.end(), written_bytes.begin(), written_bytes.end());
        expected.insert(expected.end(), frame.begin() + 12, frame.end());
        EXPECT_EQ(kernel.receive(), expected);
    }
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1); // without traffic: within a second
    EXPECT_EQ(hardware_address("bnep"), Bytes());
}

TEST_F(KernelBnep, EndsWithItsInterface) {
    ASSERT_TRUE(bring_up("bnep"));
    const unsigned closed = kiv_sim_calls(KIV_SIM_CLOSE);
    ASSERT_TRUE(delete_interface("bnep"));
    kiv_sim_wait_calls(KIV_SIM_CLOSE, closed + 2); // delete_interface's own, and the sender's
    EXPECT_EQ(inject(experimental, Bytes(46)), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    ASSERT_EQ(kiv_bnep_set_sender(record_step, device), 0);
    while (hardware_address("bnep") != written_bytes)
        ::sched_yield();
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    EXPECT_EQ(reports(), joined({on_net_tun, on_net_tun}));
}

} // namespace
} // namespace kiv::test
