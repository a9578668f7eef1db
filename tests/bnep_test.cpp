// The BNEP sender. The threads of kiv-core are the test's: it looks at what is asked of them, and it must not
// matter what deleting a thread does.

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <semaphore>
#include <thread>
#include <tuple>
#include <utility>

#include "fixtures/fault_sweep.h"
#include "fixtures/resources.h"
#include "fixtures/tap.h"
#include "kiv/core.h"

// kiv-core ------------------------------------------------------------------------------------------------

namespace {

// One thread at a time, as there is one sender.
struct {
    sup_thread_control_t *control;
    int priority;
    void *(*entry)(void *);
    void *argument;
    int options;
    std::string name;
    pthread_t id;
    bool is_running;
    bool goes_on; // after its deletion; else that waits for its end
    int resume_result;
    bool cannot_be_made, hangs;
    unsigned deleted, mutexes_initialised, mutexes_destroyed;
} core;
std::atomic<int> unlock_result;
std::atomic<bool> has_ended; // the thread, by itself
pthread_mutex_t mutex;

void *run(void *) {
    void *const result = core.entry(core.argument);
    has_ended = true;
    return result;
}

// Called on the thread of the control side, and on the sender's, where that is of interest.
struct {
    void (*before_lock)();
    void (*after_unlock)();
} hooks;

} // namespace

int sup_thread_create(sup_thread_t *handle, sup_thread_control_t *control, int priority,
                      void *(*entry)(void *), void *argument, int options, const char *name) {
    core.control = core.cannot_be_made ? nullptr : control;
    core.priority = priority;
    core.entry = entry;
    core.argument = argument;
    core.options = options;
    core.name = name;
    if (core.cannot_be_made)
        return ENOMEM; // and nobody's handle
    *handle = control;
    return 0;
}

int sup_thread_resume(sup_thread_t handle) {
    EXPECT_EQ(handle, core.control);
    core.is_running = core.resume_result == 0;
    has_ended = false;
    if (core.is_running) {
        EXPECT_EQ(::pthread_create(&core.id, nullptr, run, nullptr), 0);
    }
    return core.resume_result;
}

int sup_thread_delete(sup_thread_t handle) {
    EXPECT_EQ(handle, core.control);
    ++core.deleted;
    if (!core.is_running)
        return 0;
    kiv_sim_tap_state state;
    kiv_sim_tap_inspect("bnep", &state);
    EXPECT_EQ(state.exists, core.hangs ? 1 : 0) << "the thread has not come to its end";
    return core.goes_on ? ::pthread_detach(core.id) : ::pthread_join(core.id, nullptr);
}

int sup_mutex_init(sup_mutex_t *, int) {
    ++core.mutexes_initialised;
    return ::pthread_mutex_init(&mutex, nullptr);
}

int sup_mutex_destroy(sup_mutex_t *) {
    ++core.mutexes_destroyed;
    return ::pthread_mutex_destroy(&mutex);
}

int sup_mutex_lock(sup_mutex_t *) {
    if (hooks.before_lock != nullptr)
        hooks.before_lock();
    return ::pthread_mutex_lock(&mutex);
}

int sup_mutex_unlock(sup_mutex_t *) {
    ::pthread_mutex_unlock(&mutex);
    if (hooks.after_unlock != nullptr)
        hooks.after_unlock();
    return unlock_result;
}

// The two sides ------------------------------------------------------------------------------------------

namespace kiv::test {
namespace {

// Bluetooth order: the reverse of 11:22:33:44:55:66 would be a group address, so these start with 12 and 13.
constexpr std::uint8_t device[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x12};
constexpr std::uint8_t group[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x13};
constexpr std::uint8_t everybody[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
const Reports no_interface = {logged(1, "TAP: failed to open TUN interface\n")};
const Bytes written_bytes = {0x12, 0x22, 0x33, 0x44, 0x55, 0x66};

// The arguments of one call of a sender callback; the payload's bytes, and whether there were any.
using Step = std::tuple<void *, std::uint16_t, bool, Bytes, std::int32_t>;
using Steps = std::vector<Step>;

Steps steps_of(std::uint16_t protocol, const Bytes &payload) {
    return {{nullptr, protocol, false, {}, KIV_BNEP_FRAME_START},
            {nullptr, 0, true, payload, KIV_BNEP_FRAME_DATA},
            {nullptr, 0, false, {}, KIV_BNEP_FRAME_END}};
}

// A callback has no context of its own, so there is one record a program.
std::mutex record_lock;
std::condition_variable recorded;
Steps record;

void record_step(void *context, std::uint16_t protocol, const std::uint8_t *payload, std::uint16_t length,
                 std::int32_t step) {
    const std::lock_guard<std::mutex> hold(record_lock);
    const Bytes bytes(payload, payload + length);
    record.emplace_back(context, protocol, payload != nullptr, bytes, step);
    recorded.notify_all();
}

// Waits for that many calls and takes all there are.
Steps take_steps(std::size_t count) {
    std::unique_lock<std::mutex> hold(record_lock);
    recorded.wait(hold, [&] { return record.size() >= count; });
    return std::exchange(record, {});
}

std::atomic<unsigned> delivered;

void count_step(void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t step) {
    delivered += step == KIV_BNEP_FRAME_END ? 1 : 0;
}

// Waits for a state of the sender's interface.
void wait_for_tap(int (*done)(const kiv_sim_tap_state *state, void *)) {
    kiv_sim_tap_wait("bnep", done, nullptr);
}

// While it lives, the simulated kernel sends frames out of "bnep", whenever there is such an interface that
// is up: the sender's thread does not sleep.
class Traffic {
    std::atomic<bool> stopped_{false};
    std::thread thread_{[this] {
        const Bytes frame = frame_of(60, experimental);
        while (!stopped_) {
            kiv_sim_tap_set_up("bnep", 1);
            kiv_sim_tap_send("bnep", frame.data(), frame.size());
            ::sched_yield();
        }
    }};

  public:
    Traffic() = default;
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;
    ~Traffic() {
        stopped_ = true;
        thread_.join();
    }
};

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
    void SetUp() override {
        TapBoardTest::SetUp();
        core = {};
        unlock_result = 0;
    }
    void TearDown() override {
        kiv_sim_clear_faults();
        stop();
        take_steps(0);
        TapBoardTest::TearDown();
    }
    // With the address the thread is past its set-up, or about to allocate its buffer.
    static void start(kiv_bnep_sender_cb sender = record_step) {
        ASSERT_EQ(kiv_bnep_set_sender(sender, device), 0);
        wait_for_tap([](const kiv_sim_tap_state *state, void *) {
            return address_in(*state) == written_bytes ? 1 : 0;
        });
        ASSERT_EQ(kiv_sim_tap_set_up("bnep", 1), 0);
        EXPECT_EQ(reports(), on_net_tun);
    }
    static void expect_delivery(std::size_t length = 98) {
        const Bytes frame = frame_of(length, experimental);
        send_from_kernel("bnep", frame);
        EXPECT_EQ(take_steps(3), steps_of(experimental, payload_of(frame)));
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
    EXPECT_EQ(take_steps(3), steps_of(0xfffe, payload_of(frame))) << "cut to the buffer's size";
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_READ), 5u);
    kiv_sim_fail(KIV_SIM_READ, 1, 2, EINTR); // it goes on, after an empty read too
    expect_delivery();
    kiv_sim_answer(KIV_SIM_READ, 1, 2, 0);
    expect_delivery();
    EXPECT_EQ(kiv_sim_faults_fired(), 4u);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1); // without traffic: within a second
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
        Steps steps = take_steps(3);
        steps.resize(3);
        EXPECT_EQ(steps, steps_of(experimental, payload_of(frame_of(60, experimental))));
        EXPECT_EQ(address_in(tap_state("bnep")), written_bytes);
    }
    EXPECT_EQ(calls_afterwards, 0);
}

INSTANTIATE_TEST_SUITE_P(, BnepChange, ::testing::Values(record_step, nullptr),
                         [](const auto &change) { return change.param == nullptr ? "Stop" : "Replacement"; });

// Start and end ------------------------------------------------------------------------------------------

TEST_F(Bnep, TriesBothDevices) {
    const struct {
        const char *what;
        kiv_sim_tun_node net_tun, dev_tun;
        const std::uint8_t *address;
        bool exists;
        Reports all;
    } rows[] = {
        {"the second device", absent, present, device, true, on_dev_tun},
        {"the name refused on the first", forbidden, present, device, true,
         joined({on_net_tun, refused_name, on_dev_tun})},
        {"the name refused on both", forbidden, forbidden, device, false,
         joined({on_net_tun, refused_name, on_dev_tun, refused_name, no_interface})},
        {"the address refused", present, absent, group, true,
         joined({on_net_tun, refused_address("BT address = ", "66 55 44 33 22 13 ")})},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        begin(row.net_tun, row.dev_tun);
        ASSERT_EQ(kiv_bnep_set_sender(record_step, row.address), 0);
        if (row.exists) { // carries on with the interface, whatever its address
            wait_for_tap([](const kiv_sim_tap_state *state, void *) { return state->exists; });
            ASSERT_EQ(kiv_sim_tap_set_up("bnep", 1), 0);
            expect_delivery();
        } else {
            kiv_sim_wait_calls(KIV_SIM_OPEN, 2);
        }
        EXPECT_EQ(stop(), -1);
        EXPECT_EQ(reports(), row.all);
        take_steps(0);
    }
}

TEST_F(Bnep, AsksForAThreadAsKivCoreExpectsAndAnswersForIt) {
    core.resume_result = 17;
    EXPECT_EQ(kiv_bnep_set_sender_priority(count_step, device, -3), 17);
    EXPECT_EQ(core.priority, -3);
    EXPECT_EQ(core.argument, device);
    EXPECT_EQ(core.options, 0);
    EXPECT_EQ(core.name, "BNEP sender");
    unlock_result = 18;
    EXPECT_EQ(kiv_bnep_set_sender_priority(record_step, device, 9), 18);
    EXPECT_EQ(core.priority, -3);
    EXPECT_EQ(core.mutexes_destroyed, 0u);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
    EXPECT_EQ(core.deleted, 1u);
    EXPECT_EQ(core.mutexes_initialised, 1u);
    EXPECT_EQ(core.mutexes_destroyed, 1u);

    EXPECT_EQ(kiv_bnep_set_sender(count_step, device), 17);
    EXPECT_EQ(core.priority, KIV_BNEP_DEFAULT_PRIORITY);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_USLEEP), 0u) << "a thread that does not run was waited for";

    core.cannot_be_made = true; // and the one before is not taken for it
    EXPECT_EQ(kiv_bnep_set_sender(count_step, device), 17);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
}

// It hangs with a frame that it is about to hand out, and keeps its interface.
TEST_F(Bnep, AThreadThatComesToNoEndIsNotWaitedForForEver) {
    static const std::thread::id own = std::this_thread::get_id();
    static std::counting_semaphore<> has_frame(0), never(0);
    core.hangs = core.goes_on = true;
    hooks.before_lock = [] {
        if (std::this_thread::get_id() != own) {
            has_frame.release();
            never.acquire();
        }
    };
    start();
    send_from_kernel("bnep", frame_of(98, experimental));
    has_frame.acquire();
    kiv_sim_answer(KIV_SIM_USLEEP, 1, KIV_SIM_ALWAYS, 0);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    hooks.before_lock = nullptr;
    EXPECT_GT(kiv_sim_calls(KIV_SIM_USLEEP), 0u);
    EXPECT_EQ(core.deleted, 1u);
    EXPECT_EQ(tap_state("bnep").exists, 0);
}

// Starts and stops, every other time wherever the thread stands: in its set-up, waiting, reading, delivering.
// After the stop nothing is delivered, and there is no interface.
TEST_F(Bnep, SurvivesTwoHundredStartsAndStopsUnderTraffic) {
    const Traffic traffic;
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0) << "there is nothing to stop";
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        core.goes_on = i % 4 > 1;
        ASSERT_EQ(kiv_bnep_set_sender(count_step, device), 0);
        const unsigned before = delivered;
        while (i % 2 == 0 && delivered == before)
            inject(experimental, Bytes(28));
        ASSERT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        const unsigned after = delivered;
        ASSERT_EQ(inject(experimental, Bytes(28)), -1);
        ASSERT_EQ(tap_state("bnep").exists, 0);
        ASSERT_EQ(delivered, after);
    }
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), 0);
    EXPECT_EQ(reports(), times(200, on_net_tun[0]));
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), kiv_sim_calls(KIV_SIM_OPEN));
}

TEST_F(Bnep, StaysEndedUntilItIsStopped) {
    start(count_step);
    const unsigned opened = kiv_sim_calls(KIV_SIM_OPEN), closed = kiv_sim_calls(KIV_SIM_CLOSE);
    kiv_sim_tap_delete("bnep");
    kiv_sim_wait_calls(KIV_SIM_CLOSE, closed + 1);
    EXPECT_EQ(inject(experimental, Bytes(6)), -1);
    EXPECT_EQ(kiv_bnep_set_sender(record_step, device), 0) << "stored, and never called";
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), opened);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    EXPECT_EQ(take_steps(0), Steps());
    start();
    expect_delivery();
}

TEST_F(Bnep, WaitsForDescriptorsThatASetCannotHold) {
    const NumbersTaken taken(FD_SETSIZE);
    start();
    expect_delivery();
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SELECT), 0u);
    EXPECT_GT(kiv_sim_calls(KIV_SIM_PPOLL), 0u);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1); // here too
}

// Inbound ------------------------------------------------------------------------------------------------

TEST_F(Bnep, InjectsAFrameInOneCallOrTellsWhyNot) {
    EXPECT_EQ(inject(0x0800, Bytes(28)), -1);
    EXPECT_EQ(errno, ENODEV);
    start();
    for (const std::size_t length : {14u, 1514u}) {
        const Bytes frame = frame_of(length, 0x0806);
        EXPECT_EQ(inject(0x0806, payload_of(frame)), static_cast<int>(length));
        EXPECT_EQ(received_by_kernel("bnep"), injected(frame));
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITEV), 2u) << "none without an interface";
    EXPECT_EQ(stop(), -1);
    EXPECT_EQ(inject(0x0800, Bytes(28)), -1);
    EXPECT_EQ(errno, ENODEV);
}

// Whatever goes wrong ------------------------------------------------------------------------------------

// A start, the delivery of one frame and a stop, always in the same steps: the delivery lasts until the stop
// waits for the mutex, and the sender goes on when the stop has had it.
std::atomic<bool> delivers, stop_waits, stop_is_through;

bool on_control_side() {
    return ::gettid() == ::getpid();
}
void send_swept_frame() {
    const std::uint8_t frame[60] = {};
    kiv_sim_tap_set_up("bnep", 1);
    kiv_sim_tap_send("bnep", frame, sizeof frame);
}
void deliver_until_stop(void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t) {
    delivers = true;
    while (!stop_waits)
        ::sched_yield();
}
void set_up_swept() {
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, present);
    kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, absent);
    kiv_log_dyn_level_POS = 1;
    core = {};
    delivers = stop_waits = stop_is_through = false;
    hooks.before_lock = [] {
        if (on_control_side())
            stop_waits = true;
    };
    hooks.after_unlock = [] {
        if (on_control_side()) {
            stop_is_through = true;
            send_swept_frame(); // for a sender that waits
        }
        while (!stop_is_through)
            ::sched_yield();
    };
}
// Until the sender waits for frames, or is at its end.
void start_swept(int (*start)(kiv_bnep_sender_cb sender)) {
    const unsigned waits = kiv_sim_calls(KIV_SIM_SELECT);
    EXPECT_EQ(start(deliver_until_stop), 0);
    while (kiv_sim_calls(KIV_SIM_SELECT) == waits && !has_ended)
        ::sched_yield();
}
void stop_swept() {
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    kiv_log_dyn_level_POS = 3;
    hooks = {};
}
template <int (*start)(kiv_bnep_sender_cb sender)>
int serve() {
    start_swept(start);
    send_swept_frame();
    while (!delivers && !has_ended)
        ::sched_yield();
    const int stopped = kiv_bnep_set_sender(nullptr, nullptr);
    return stopped == -1 && kiv_bnep_set_sender(nullptr, nullptr) == 0 ? 0 : -1;
}
int start_plain(kiv_bnep_sender_cb sender) {
    return kiv_bnep_set_sender(sender, device);
}
int start_with_priority(kiv_bnep_sender_cb sender) {
    return kiv_bnep_set_sender_priority(sender, device, 9);
}
int inject_swept() {
    const std::uint8_t payload[28] = {};
    const int count =
        kiv_bnep_data_available(nullptr, experimental, payload, sizeof payload, everybody, device);
    return count == KIV_ETH_HEADER_SIZE + 28 ? 0 : count == -1 ? errno : count;
}

// The sender ends by itself, and says why where that is promised; it goes on without its address.
Outcome ended(const Point &at) {
    switch (at.call) {
    case KIV_SIM_OPEN:
        return {0, no_interface};
    case KIV_SIM_IOCTL:
        return {0, at.nth == 1 ? joined({refused_name, no_interface})
                               : refused_address("BT address = ", "66 55 44 33 22 12 ")};
    case KIV_SIM_CALLOC:
        return {0, {asserted("linux/bnep", "bnep_sender", "drv.buffer != ((void *)0)")}};
    case KIV_SIM_SELECT:
        return {0, {logged(1, "bnep_sender: select failed\n")}};
    default:
        return {0, {}, at.is(KIV_SIM_READ) && at.error == EINTR};
    }
}

constexpr std::size_t part_of_frame = 20;
const Scene stopped = {set_up_swept, [] {
                           kiv_log_dyn_level_POS = 3;
                           hooks = {};
                       }};
const Scene started = {[] {
                           set_up_swept();
                           start_swept(start_plain);
                           kiv_sim_tap_set_up("bnep", 1);
                       },
                       stop_swept};

const SweptOperation rows[] = {
    {"kiv_bnep_set_sender", "", stopped, ended, serve<start_plain>, part_of_frame},
    {"kiv_bnep_set_sender_priority", "", stopped, ended, serve<start_with_priority>, part_of_frame},
    {"kiv_bnep_data_available", "", started,
     [](const Point &at) { return Outcome{at.is(Fault::moves_less) ? int{part_of_frame} : at.error}; },
     inject_swept, part_of_frame},
};

INSTANTIATE_TEST_SUITE_P(BnepSender, FaultSweep, ::testing::ValuesIn(rows), row_name);

} // namespace
} // namespace kiv::test
