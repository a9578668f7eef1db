// The BNEP sender, on the simulated board and on the machine's own kernel.

#include <cerrno>
#include <cstdlib>

#include "fixtures/bnep_traffic.h"
#include "fixtures/netns.h"
#include "fixtures/resources.h"

namespace kiv::test {
namespace {

// Bluetooth order: the reverse of 11:22:33:44:55:66 would be a group address, so these start with 12 and 13.
constexpr std::uint8_t device[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x12};
constexpr std::uint8_t group[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x13};
constexpr std::uint8_t everybody[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
const Bytes written_bytes = {0x12, 0x22, 0x33, 0x44, 0x55, 0x66};

int stop() {
    const Traffic traffic;
    return kiv_bnep_set_sender(nullptr, nullptr);
}

int inject(std::uint16_t protocol, const Bytes &payload) {
    return kiv_bnep_data_available(nullptr, protocol, payload.data(), static_cast<unsigned>(payload.size()),
                                   everybody, device);
}

// What the kernel gets of an injected frame.
Bytes injected(const Bytes &frame) {
    Bytes expected(everybody, everybody + 6);
    expected.insert(expected.end(), written_bytes.begin(), written_bytes.end());
    expected.insert(expected.end(), frame.begin() + 12, frame.end());
    return expected;
}

class Bnep : public TapBoardTest {
  protected:
    void TearDown() override {
        kiv_sim_clear_faults();
        stop();
        recorder.take(0);
        TapBoardTest::TearDown();
    }
    // With the address the thread is past its set-up, or about to allocate its buffer.
    static void start(kiv_bnep_sender_cb sender = record_step) {
        ASSERT_EQ(kiv_bnep_set_sender(sender, device), 0);
        wait_for_tap([](const kiv_sim_tap_state *state, void *) {
            return address_in(*state) == written_bytes ? 1 : 0;
        });
        ASSERT_EQ(kiv_sim_tap_set_up("bnep", 1), 0);
        EXPECT_EQ(reports(), at_level(kiv_log_dyn_level_POS, on_net_tun));
    }
    static void expect_delivery(std::size_t length = 98) {
        const Bytes frame = frame_of(length, experimental);
        send_from_kernel("bnep", frame);
        EXPECT_EQ(recorder.take(3), steps_of(experimental, payload_of(frame)));
    }
};

// Outbound -----------------------------------------------------------------------------------------------

TEST_F(Bnep, HandsOutEachFrameInThreeSteps) {
    start();
    send_from_kernel("bnep", frame_of(13, 0)); // shorter than a header: dropped
    for (const std::size_t length : {14u, 98u, 1600u})
        expect_delivery(length);
    Bytes frame = frame_of(1700, 0xfffe);
    send_from_kernel("bnep", frame);
    frame.resize(1600);
    EXPECT_EQ(recorder.take(3), steps_of(0xfffe, payload_of(frame))) << "cut to the buffer's size";
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_READ), 5u);
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
        EXPECT_EQ(address_in(tap_state("bnep")), written_bytes);
    }
    EXPECT_EQ(calls_afterwards, 0);
}

INSTANTIATE_TEST_SUITE_P(, BnepChange, ::testing::Values(record_step, nullptr),
                         [](const auto &change) { return change.param == nullptr ? "Stop" : "Replacement"; });

// Start and end ------------------------------------------------------------------------------------------

TEST_F(Bnep, TriesBothDevicesAndReportsByLevel) {
    const Reports no_interface = {logged(1, "TAP: failed to open TUN interface\n")};
    const struct {
        const char *what;
        kiv_sim_tun_node net_tun, dev_tun;
        const std::uint8_t *address;
        bool exists;
        Reports all; // at level 3
    } rows[] = {
        {"the second device", absent, present, device, true, on_dev_tun},
        {"the name refused on the first", forbidden, present, device, true,
         joined({on_net_tun, refused_name, on_dev_tun})},
        {"the name refused on both", forbidden, forbidden, device, false,
         joined({on_net_tun, refused_name, on_dev_tun, refused_name, no_interface})},
        {"the address refused", present, absent, group, true,
         joined({on_net_tun, refused_address("BT address = ", "66 55 44 33 22 13 ")})},
    };
    for (const auto &row : rows)
        for (int level = 0; level <= 3; ++level) {
            SCOPED_TRACE(std::string(row.what) + ", level " + std::to_string(level));
            begin(row.net_tun, row.dev_tun, level);
            ASSERT_EQ(kiv_bnep_set_sender(record_step, row.address), 0);
            if (row.exists) { // carries on with the interface, whatever its address
                wait_for_tap([](const kiv_sim_tap_state *state, void *) { return state->exists; });
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
    const auto count = [](void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t step) {
        delivered += step == KIV_BNEP_FRAME_END ? 1 : 0;
    };
    const Traffic traffic;
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0) << "there is nothing to stop";
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(kiv_bnep_set_sender(count, device), 0);
        const unsigned before = delivered;
        while (i % 2 == 0 && delivered == before) // every other run is stopped wherever it is
            inject(experimental, Bytes(28));
        ASSERT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        const unsigned after = delivered;
        ASSERT_EQ(inject(experimental, Bytes(28)), -1);
        ASSERT_EQ(tap_state("bnep").exists, 0);
        ASSERT_EQ(delivered, after);
    }
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), kiv_sim_calls(KIV_SIM_OPEN));
    for (const std::string &report : reports())
        EXPECT_EQ(report, on_net_tun[0]);
}

TEST_F(Bnep, StaysEndedUntilItIsStopped) {
    const Reports failed_wait = {logged(1, "bnep_sender: select failed\n")};
    const struct {
        const char *what;
        kiv_sim_call call;
        int error; // none: the interface is deleted
        Reports reported;
    } rows[] = {
        {"interrupted wait", KIV_SIM_SELECT, EINTR, failed_wait},
        {"failed read", KIV_SIM_READ, EIO, {}},
        {"interface deleted", KIV_SIM_READ, 0, {}},
    };
    kiv_log_dyn_level_POS = 1;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        start(ignore_step);
        const unsigned opened = kiv_sim_calls(KIV_SIM_OPEN), closed = kiv_sim_calls(KIV_SIM_CLOSE);
        if (row.error != 0) {
            kiv_sim_fail(row.call, 1, 1, row.error);
            send_from_kernel("bnep", frame_of(60, experimental)); // it may be waiting already
        } else {
            kiv_sim_tap_delete("bnep");
        }
        kiv_sim_wait_calls(KIV_SIM_CLOSE, closed + 1);
        EXPECT_EQ(inject(experimental, Bytes(6)), -1);
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
    const NumbersTaken taken(FD_SETSIZE);
    start();
    expect_delivery();
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0u);
    EXPECT_GT(kiv_sim_calls(KIV_SIM_PPOLL), 0u);
    EXPECT_EQ(stop(), -1);
}

// Inbound ------------------------------------------------------------------------------------------------

TEST_F(Bnep, InjectsAFrameInOneCall) {
    start();
    for (const std::size_t length : {14u, 1514u}) {
        const Bytes frame = frame_of(length, 0x0806);
        EXPECT_EQ(inject(0x0806, payload_of(frame)), static_cast<int>(length));
        EXPECT_EQ(received_by_kernel("bnep"), injected(frame));
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 2u);
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
    for (const int error : {EINTR, ENOBUFS}) {
        kiv_sim_fail(KIV_SIM_WRITEV, 1, 1, error);
        EXPECT_EQ(refusal(), error);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 2u) << "none is repeated";
    EXPECT_EQ(stop(), -1);
    EXPECT_EQ(refusal(), ENODEV);
}

// The machine's kernel -----------------------------------------------------------------------------------

TEST_F(Bnep, CarriesFramesBetweenTheLinkAndTheMachinesKernel) {
    kiv_sim_reset(); // both devices are the machine's
    const std::string refusal = enter_network_namespace();
    if (!refusal.empty())
        GTEST_SKIP() << refusal;
    silence_ipv6();
    ASSERT_EQ(kiv_bnep_set_sender(record_step, device), 0);
    while (hardware_address("bnep") != written_bytes)
        ::sched_yield();
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
        EXPECT_EQ(kernel.receive(), injected(frame));
    }
    const unsigned closed = kiv_sim_calls(KIV_SIM_CLOSE);
    if (std::system("ip link delete bnep") == 0) {
        kiv_sim_wait_calls(KIV_SIM_CLOSE, closed + 1); // the sender has ended with its interface
        EXPECT_EQ(inject(experimental, Bytes(46)), -1);
        EXPECT_EQ(errno, ENODEV);
    }
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1); // without traffic: within a second
    EXPECT_EQ(hardware_address("bnep"), Bytes());
}

} // namespace
} // namespace kiv::test
