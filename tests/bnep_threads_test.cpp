// The BNEP sender under a kiv-core whose threads are the test's: what it asks of them, and that it does not
// matter whether deleting a thread waits for its end or ends it where it stands.

#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <unistd.h>

#include "fixtures/bnep_traffic.h"
#include "fixtures/netns.h"
#include "kiv/core.h"

#if defined(__SANITIZE_THREAD__)
#    define KIV_THREAD_SANITIZER 1
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define KIV_THREAD_SANITIZER 1
#    endif
#endif

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
    bool is_stopped; // by its deletion, at any instruction; else that waits for its end
    void (*first)(); // run on the thread before its entry
    int resume_result;
    unsigned deleted, mutexes_initialised, mutexes_destroyed;
} core;
std::atomic<int> unlock_result;
std::atomic<bool> at_rest;

// Does not run any further. Of the calls that a signal handler may make.
[[noreturn]] void rest() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    at_rest = true;
    for (;;)
        ::pause();
}

void *run(void *) {
    if (core.first != nullptr)
        core.first();
    core.entry(core.argument);
    if (core.is_stopped)
        rest();
    return nullptr;
}

// A mutex of a stopped thread may be destroyed while that holds it, so none is used twice.
pthread_mutex_t mutexes[256];

} // namespace

int sup_thread_create(sup_thread_t *handle, sup_thread_control_t *control, int priority,
                      void *(*entry)(void *), void *argument, int options, const char *name) {
    core.control = control;
    core.priority = priority;
    core.entry = entry;
    core.argument = argument;
    core.options = options;
    core.name = name;
    *handle = control;
    return 0;
}

int sup_thread_resume(sup_thread_t handle) {
    constexpr std::size_t stack = 512 * 1024; // those that rest keep theirs
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, stack);
    at_rest = false;
    EXPECT_EQ(handle, core.control);
    EXPECT_EQ(::pthread_create(&core.id, &attributes, run, nullptr), 0);
    ::pthread_attr_destroy(&attributes);
    return core.resume_result;
}

int sup_thread_delete(sup_thread_t handle) {
    EXPECT_EQ(handle, core.control);
    ++core.deleted;
    if (!core.is_stopped)
        return ::pthread_join(core.id, nullptr);
    ::pthread_kill(core.id, SIGUSR2);
    while (!at_rest)
        ::sched_yield();
    return 0;
}

int sup_mutex_init(sup_mutex_t *, int) {
    return ::pthread_mutex_init(&mutexes[++core.mutexes_initialised], nullptr);
}

int sup_mutex_destroy(sup_mutex_t *) {
    ++core.mutexes_destroyed;
    return 0;
}

int sup_mutex_lock(sup_mutex_t *) {
    return ::pthread_mutex_lock(&mutexes[core.mutexes_initialised]);
}

int sup_mutex_unlock(sup_mutex_t *) {
    ::pthread_mutex_unlock(&mutexes[core.mutexes_initialised]);
    return unlock_result;
}

// Tests ----------------------------------------------------------------------------------------------------

namespace kiv::test {
namespace {

constexpr std::uint8_t device[] = {0x66, 0x55, 0x44, 0x33, 0x22, 0x12};

class BnepThreads : public TapBoardTest {
  protected:
    void SetUp() override {
        TapBoardTest::SetUp();
        core = {};
        unlock_result = 0;
    }
};

TEST_F(BnepThreads, AreAskedForAsKivCoreExpectsAndAnswerForTheSender) {
    const Traffic traffic;
    core.resume_result = 17;
    EXPECT_EQ(kiv_bnep_set_sender_priority(ignore_step, device, -3), 17);
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

    EXPECT_EQ(kiv_bnep_set_sender(ignore_step, device), 17);
    EXPECT_EQ(core.priority, KIV_BNEP_DEFAULT_PRIORITY);
    EXPECT_EQ(kiv_bnep_set_sender(nullptr, device), -1);
    recorder.take(0);
    reports();
}

TEST_F(BnepThreads, EndAtTheFirstReadWithoutABuffer) {
    if (kiv_sim_reaches(KIV_SIM_CALLOC) == 0)
        GTEST_SKIP() << "allocation cannot be made to fail under this sanitizer";
    core.first = [] {
        kiv_sim_fault fault = {};
        fault.call = KIV_SIM_CALLOC;
        fault.nth = fault.times = 1;
        fault.error = ENOMEM;
        fault.this_thread = 1;
        EXPECT_EQ(kiv_sim_arm(&fault), 0);
    };
    ASSERT_EQ(kiv_bnep_set_sender(record_step, device), 0);
    wait_for_tap([](const kiv_sim_tap_state *state, void *) { return state->exists; });
    {
        const Traffic traffic;
        wait_for_tap([](const kiv_sim_tap_state *state, void *) { return 1 - state->exists; });
        EXPECT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
    }
    EXPECT_EQ(recorder.take(0), Steps());
    EXPECT_EQ(reports(),
              joined({on_net_tun, {asserted("linux/bnep", "bnep_sender", "drv.buffer != ((void *)0)")}}));
}

// Wherever the thread stands: in its set-up, waiting, reading, delivering. With the machine's own TUN device,
// because the board must not be stopped inside.
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
    core.is_stopped = true;

    std::atomic<bool> ended{false};
    std::thread kernel([&] { // in the same namespace; IPv6 sends when the interface comes up, and this after
        while (!ended)
            if (bring_up("bnep"))
                PacketSocket("bnep", experimental).send(frame_of(60, experimental));
    });
    static std::atomic<unsigned> delivered;
    const auto count = [](void *, std::uint16_t, const std::uint8_t *, std::uint16_t, std::int32_t) {
        ++delivered;
    };
    for (int i = 0; i < 100; ++i) {
        SCOPED_TRACE(i);
        const unsigned before = delivered;
        ASSERT_EQ(kiv_bnep_set_sender(count, device), 0);
        while (i % 4 != 0 && delivered == before)
            ::sched_yield();
        ASSERT_EQ(kiv_bnep_set_sender(nullptr, nullptr), -1);
        const unsigned after = delivered;
        ASSERT_EQ(kiv_bnep_data_available(nullptr, 0, device, 6, device, device), -1);
        ASSERT_EQ(hardware_address("bnep"), Bytes());
        ASSERT_EQ(delivered, after);
    }
    ended = true;
    kernel.join();
    reports();
}

} // namespace
} // namespace kiv::test
