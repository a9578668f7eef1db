// The BNEP sender under a kiv-core whose threads are the test's: what it asks of them, and that it does not
// matter whether deleting a thread waits for its end or ends it where it stands.

#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/select.h>
#include <tuple>
#include <unistd.h>

#include "fixtures/bnep_traffic.h"
#include "fixtures/log_capture.h"
#include "fixtures/netns.h"
#include "kiv/core.h"
#include "kiv/network.h"

#if defined(__SANITIZE_THREAD__)
#    define KIV_THREAD_SANITIZER 1
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define KIV_THREAD_SANITIZER 1
#    endif
#endif

// kiv-core ------------------------------------------------------------------------------------------------

namespace {

enum class deletion { waits, cancels, stops_at_any_instruction };

// One thread at a time, as there is one sender.
struct {
    sup_thread_t *handle;
    sup_thread_control_t *control;
    int priority;
    void *(*entry)(void *);
    void *argument;
    int options;
    std::string name;
    pthread_t id;
    deletion how;
    void (*first)(); // run on the thread before its entry
    std::atomic<bool> at_rest;
    std::atomic<unsigned> deleted, mutexes_initialised, mutexes_destroyed;
    std::atomic<int> resume_result, unlock_result;
} threads;

// Does not run any further. Of the calls that a signal handler may make.
[[noreturn]] void rest() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    threads.at_rest = true;
    for (;;)
        ::pause();
}

void *run(void *) {
    int before;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    if (threads.first != nullptr)
        threads.first();
    threads.entry(threads.argument);
    if (threads.how == deletion::stops_at_any_instruction)
        rest();
    return nullptr;
}

template <typename Function>
Function next(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

int sup_thread_create(sup_thread_t *handle, sup_thread_control_t *control, int priority,
                      void *(*entry)(void *), void *argument, int options, const char *name) {
    std::tie(threads.handle, threads.control, threads.priority, threads.entry, threads.argument) =
        std::tie(handle, control, priority, entry, argument);
    threads.options = options;
    threads.name = name;
    *handle = control;
    return 0;
}

int sup_thread_resume(sup_thread_t handle) {
    constexpr std::size_t stack = 512 * 1024; // those that rest keep theirs
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, stack);
    threads.at_rest = false;
    EXPECT_EQ(handle, threads.control);
    EXPECT_EQ(::pthread_create(&threads.id, &attributes, run, nullptr), 0);
    ::pthread_attr_destroy(&attributes);
    return threads.resume_result;
}

int sup_thread_delete(sup_thread_t handle) {
    EXPECT_EQ(handle, threads.control);
    ++threads.deleted;
    if (threads.how == deletion::stops_at_any_instruction) {
        ::pthread_kill(threads.id, SIGUSR2);
        while (!threads.at_rest)
            ::sched_yield();
        return 0;
    }
    if (threads.how == deletion::cancels)
        ::pthread_cancel(threads.id);
    return ::pthread_join(threads.id, nullptr);
}

// A mutex of a stopped thread may be destroyed while that holds it, so none is ever used again.
pthread_mutex_t mutexes[256];

int sup_mutex_init(sup_mutex_t *, int) {
    return ::pthread_mutex_init(&mutexes[++threads.mutexes_initialised], nullptr);
}

int sup_mutex_destroy(sup_mutex_t *) {
    ++threads.mutexes_destroyed;
    return 0;
}

int sup_mutex_lock(sup_mutex_t *) {
    return ::pthread_mutex_lock(&mutexes[threads.mutexes_initialised]);
}

int sup_mutex_unlock(sup_mutex_t *) {
    ::pthread_mutex_unlock(&mutexes[threads.mutexes_initialised]);
    return threads.unlock_result;
}

// Looked up before any thread can be stopped in the middle of that.
const auto real_select = next<decltype(&::select)>("select");

// Where, and only where, the sender's thread can be cancelled: the board's work behind other calls would not
// be undone.
extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
    int before, ignored;
    const bool senders = threads.how == deletion::cancels && ::pthread_equal(threads.id, ::pthread_self());
    if (senders)
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    const int result = real_select(count, readable, writable, exceptional, timeout);
    if (senders) {
        ::pthread_testcancel();
        ::pthread_setcancelstate(before, &ignored);
    }
    return result;
}

// Tests ----------------------------------------------------------------------------------------------------

namespace kiv::test {
namespace {

constexpr std::uint8_t device[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x12};
const std::string on_net_tun = logged(3, "bnep device is /dev/net/tun\n");

class BnepThreads : public LoggedBoardTest {
  protected:
    void SetUp() override {
        LoggedBoardTest::SetUp();
        kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
        kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, KIV_SIM_TUN_ABSENT);
        threads.how = deletion::waits;
        threads.first = nullptr;
        threads.resume_result = 0;
        threads.unlock_result = 0;
        threads.deleted = 0;
        threads.mutexes_initialised = 0;
        threads.mutexes_destroyed = 0;
    }
};

TEST_F(BnepThreads, AreAskedForAsKivCoreExpectsAndAnswerForTheSender) {
    const Traffic traffic;
    threads.resume_result = 17;
    EXPECT_EQ(kiv_bnep_set_sender_priority(ignore_step, device, -3), 17);
    EXPECT_EQ(threads.priority, -3);
    EXPECT_EQ(threads.argument, device);
    EXPECT_EQ(threads.options, 0);
    EXPECT_EQ(threads.name, "BNEP sender");
    EXPECT_EQ(*threads.handle, threads.control);
    threads.unlock_result = 18;
    EXPECT_EQ(kiv_bnep_set_sender_priority(record_step, device, 9), 18);
    EXPECT_EQ(threads.priority, -3);
    EXPECT_EQ(threads.mutexes_destroyed, 0u);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
    EXPECT_EQ(threads.deleted, 1u);
    EXPECT_EQ(threads.mutexes_initialised, 1u);
    EXPECT_EQ(threads.mutexes_destroyed, 1u);

    EXPECT_EQ(kiv_bnep_set_sender(ignore_step, device), 17);
    EXPECT_EQ(threads.priority, KIV_BNEP_DEFAULT_PRIORITY);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
    recorder.take(0);
    reports();
}

TEST_F(BnepThreads, EndAtTheFirstReadWithoutABuffer) {
    if (kiv_sim_reaches(KIV_SIM_CALLOC) == 0)
        GTEST_SKIP() << "allocation cannot be made to fail under this sanitizer";
    threads.first = [] {
        kiv_sim_fault fault = {};
        fault.call = KIV_SIM_CALLOC;
        fault.nth = fault.times = 1;
        fault.error = ENOMEM;
        fault.this_thread = 1;
        EXPECT_EQ(kiv_sim_arm(&fault), 0);
    };
    ASSERT_EQ(kiv_bnep_set_sender(record_step, device), 0);
    wait_for_tap("bnep", [](const kiv_sim_tap_state &state) { return state.exists != 0; });
    {
        const Traffic traffic;
        wait_for_tap("bnep", [](const kiv_sim_tap_state &state) { return state.exists == 0; });
        EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    }
    EXPECT_EQ(recorder.take(0), Steps());
    EXPECT_EQ(reports(),
              Reports({on_net_tun, asserted("linux/bnep", "bnep_sender", "drv.buffer != ((void *)0)")}));
}

// However a thread is ended, and wherever it stands: in its set-up, waiting, reading, delivering, or on its
// way out because the interface has failed. The last is made by a fault of the board, which locks it for a
// moment: not where threads are stopped for good.
void start_and_stop(int run, bool may_fail) {
    static std::atomic<unsigned> delivered;
    const unsigned before = delivered;
    ASSERT_EQ(kiv_bnep_set_sender([](void *, std::uint16_t, const std::uint8_t *, std::uint16_t,
                                     std::int32_t) { ++delivered; },
                                  device),
              0);
    while (run % 4 != 0 && delivered == before)
        ::sched_yield();
    if (may_fail && run % 4 == 3)
        kiv_sim_fail(KIV_SIM_READ, 1, 1, EIO);
    ASSERT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    if (may_fail)
        kiv_sim_clear_faults();
    const unsigned after = delivered;
    ASSERT_EQ(kiv_bnep_data_available(nullptr, 0, device, 6, device, device), -1);
    ASSERT_EQ(delivered, after);
}

TEST_F(BnepThreads, MayBeEndedAtOnceAndNothingIsReleasedTwiceOrLeft) {
    threads.how = deletion::cancels;
    const Traffic traffic;
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        ASSERT_NO_FATAL_FAILURE(start_and_stop(i, true));
        kiv_sim_tap_state state;
        kiv_sim_tap_inspect("bnep", &state);
        ASSERT_EQ(state.exists, 0);
        ASSERT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), kiv_sim_calls(KIV_SIM_OPEN));
    }
    reports();
}

// The machine's own TUN device, because the board must not be stopped inside.
TEST_F(BnepThreads, MayBeStoppedAtAnyInstruction) {
#ifdef KIV_THREAD_SANITIZER
    GTEST_SKIP() << "the thread sanitizer's own locks would be held by stopped threads";
#endif
    const std::string refusal = enter_network_namespace();
    if (!refusal.empty())
        GTEST_SKIP() << refusal;
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_REAL);
    struct sigaction handler = {};
    handler.sa_handler = [](int) { rest(); };
    ::sigaction(SIGUSR2, &handler, nullptr);
    threads.how = deletion::stops_at_any_instruction;

    std::atomic<bool> stopped{false};
    std::thread kernel([&] { // in the same namespace; IPv6 sends when the interface comes up, and this after
        const Bytes frame = frame_of(60, 0x88b5);
        while (!stopped)
            if (bring_up("bnep"))
                PacketSocket("bnep", 0x88b5).send(frame);
    });
    for (int i = 0; i < 100; ++i) {
        SCOPED_TRACE(i);
        ASSERT_NO_FATAL_FAILURE(start_and_stop(i, false));
        ASSERT_EQ(hardware_address("bnep"), Bytes());
    }
    stopped = true;
    kernel.join();
    reports();
}

} // namespace
} // namespace kiv::test
