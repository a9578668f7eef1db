#include "faults.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>

#include "waiting.h"

namespace kiv::sim {

constinit std::atomic<std::uint32_t> armed_faults{0};
constinit std::atomic<std::uint32_t> call_counts[KIV_SIM_CALL_KINDS] = {};
constinit std::atomic<std::uint32_t> count_watchers{0};

namespace {

struct armed {
    kiv_sim_fault fault;
    pthread_t thread; // who armed it
    unsigned seen;    // matching calls so far
};

// Guards what follows. Taken inside malloc, so nothing is allocated while it is held.
constinit mutex faults_lock;
constinit armed slots[KIV_SIM_MAX_FAULTS] = {}; // the first armed_faults are in use, oldest first
constinit unsigned fired = 0;

constexpr const char *names[] = {
    "open",     "close",  "read",      "write",   "readv",      "writev",     "ioctl", "poll",
    "ppoll",    "select", "pselect",   "pipe",    "dup",        "dup2",       "fcntl", "socket",
    "bind",     "listen", "accept",    "connect", "setsockopt", "getsockopt", "send",  "recv",
    "shutdown", "usleep", "nanosleep", "fopen",   "malloc",     "calloc",
};
static_assert(sizeof names / sizeof *names == KIV_SIM_CALL_KINDS);

bool exists(kiv_sim_call call) {
    return call >= 0 && call < KIV_SIM_CALL_KINDS;
}

bool returns_pointer(kiv_sim_call call) {
    return call == KIV_SIM_FOPEN || call == KIV_SIM_MALLOC || call == KIV_SIM_CALLOC;
}

bool transfers_bytes(kiv_sim_call call) {
    return call == KIV_SIM_READ || call == KIV_SIM_WRITE || call == KIV_SIM_READV || call == KIV_SIM_WRITEV ||
           call == KIV_SIM_SEND || call == KIV_SIM_RECV;
}

bool makes_sense(const kiv_sim_fault &fault) {
    const bool has_request = fault.call == KIV_SIM_IOCTL || fault.call == KIV_SIM_USLEEP;
    if (!exists(fault.call) || fault.nth == 0 || (fault.request != 0 && !has_request))
        return false;
    switch (fault.action) {
    case KIV_SIM_FAIL:
        return fault.error > 0;
    case KIV_SIM_ANSWER:
        return !returns_pointer(fault.call);
    case KIV_SIM_SHORTEN:
        return transfers_bytes(fault.call);
    case KIV_SIM_REVENTS:
        return fault.call == KIV_SIM_POLL || fault.call == KIV_SIM_PPOLL;
    }
    return false;
}

bool matches(const armed &slot, kiv_sim_call call, unsigned long request) {
    return slot.fault.call == call && (slot.fault.request == 0 || slot.fault.request == request) &&
           (slot.fault.this_thread == 0 || ::pthread_equal(slot.thread, ::pthread_self()) != 0);
}

// Whether the call that has just been counted falls into the fault's window, and is changed by it.
bool is_due(const armed &slot, size_t length) {
    const bool changes = slot.fault.action != KIV_SIM_SHORTEN || slot.fault.length < length;
    return changes && slot.seen >= slot.fault.nth &&
           (slot.fault.times == KIV_SIM_ALWAYS || slot.seen - slot.fault.nth < slot.fault.times);
}

int arm_simple(kiv_sim_call call, unsigned nth, unsigned times, kiv_sim_action action, int error, long result,
               size_t length) {
    kiv_sim_fault fault = {};
    fault.call = call;
    fault.nth = nth;
    fault.times = times;
    fault.action = action;
    fault.error = error;
    fault.result = result;
    fault.length = length;
    return kiv_sim_arm(&fault);
}

} // namespace

bool find_due(kiv_sim_call call, unsigned long request, size_t length, kiv_sim_fault &due) {
    const errno_keeper keeper;
    const guard hold(faults_lock);
    bool found = false;
    for (unsigned i = 0; i < armed_faults.load(); ++i) {
        if (!matches(slots[i], call, request))
            continue;
        ++slots[i].seen;
        if (!found && is_due(slots[i], length)) {
            due = slots[i].fault;
            found = true;
            ++fired;
        }
    }
    return found;
}

void wake_watchers(kiv_sim_call call) {
    const errno_keeper keeper;
    futex_wake_all(call_counts[call]);
}

void reset_faults() {
    kiv_sim_clear_faults();
    const guard hold(faults_lock);
    fired = 0;
    for (auto &count : call_counts)
        count.store(0);
}

long fault::finish() const {
    if (due_.action == KIV_SIM_FAIL) {
        errno = due_.error;
        return -1;
    }
    return due_.result;
}

} // namespace kiv::sim

using namespace kiv::sim;

const char *kiv_sim_call_name(kiv_sim_call call) {
    return exists(call) ? names[call] : "?";
}

int kiv_sim_reaches(kiv_sim_call call) {
    const errno_keeper keeper;
    if (!exists(call))
        return 0;
    if (call != KIV_SIM_MALLOC && call != KIV_SIM_CALLOC)
        return 1;
    // A sanitizer's allocator comes first and does not call on; where ours comes first, it is in this
    // library.
    Dl_info first;
    Dl_info ours;
    void *const allocator = ::dlsym(RTLD_DEFAULT, names[call]);
    return allocator != nullptr && ::dladdr(allocator, &first) != 0 &&
                   ::dladdr(reinterpret_cast<void *>(&kiv_sim_reaches), &ours) != 0 &&
                   first.dli_fbase == ours.dli_fbase
               ? 1
               : 0;
}

int kiv_sim_arm(const kiv_sim_fault *fault) {
    const errno_keeper keeper;
    if (fault == nullptr || !makes_sense(*fault))
        return EINVAL;
    if (kiv_sim_reaches(fault->call) == 0)
        return ENOSYS;
    const guard hold(faults_lock);
    const unsigned count = armed_faults.load();
    if (count == KIV_SIM_MAX_FAULTS)
        return ENOSPC;
    slots[count] = armed{.fault = *fault, .thread = ::pthread_self(), .seen = 0};
    armed_faults.store(count + 1);
    return 0;
}

int kiv_sim_fail(kiv_sim_call call, unsigned nth, unsigned times, int error) {
    return arm_simple(call, nth, times, KIV_SIM_FAIL, error, 0, 0);
}

int kiv_sim_fail_ioctl(unsigned long request, unsigned nth, unsigned times, int error) {
    kiv_sim_fault fault = {};
    fault.call = KIV_SIM_IOCTL;
    fault.nth = nth;
    fault.times = times;
    fault.action = KIV_SIM_FAIL;
    fault.error = error;
    fault.request = request;
    return kiv_sim_arm(&fault);
}

int kiv_sim_answer(kiv_sim_call call, unsigned nth, unsigned times, long result) {
    return arm_simple(call, nth, times, KIV_SIM_ANSWER, 0, result, 0);
}

int kiv_sim_shorten(kiv_sim_call call, unsigned nth, unsigned times, size_t length) {
    return arm_simple(call, nth, times, KIV_SIM_SHORTEN, 0, 0, length);
}

int kiv_sim_answer_poll(unsigned nth, unsigned times, const short *revents, unsigned count) {
    if (count > KIV_SIM_MAX_REVENTS)
        return EINVAL;
    kiv_sim_fault fault = {};
    fault.call = KIV_SIM_POLL;
    fault.nth = nth;
    fault.times = times;
    fault.action = KIV_SIM_REVENTS;
    for (unsigned i = 0; i < count; ++i)
        fault.revents[i] = revents[i];
    return kiv_sim_arm(&fault);
}

void kiv_sim_clear_faults() {
    const guard hold(faults_lock);
    armed_faults.store(0);
}

unsigned kiv_sim_faults_fired() {
    const guard hold(faults_lock);
    return fired;
}

unsigned kiv_sim_calls(kiv_sim_call call) {
    return exists(call) ? call_counts[call].load() : 0;
}

void kiv_sim_wait_calls(kiv_sim_call call, unsigned count) {
    const errno_keeper keeper;
    if (!exists(call))
        return;
    count_watchers.fetch_add(1);
    for (std::uint32_t seen = call_counts[call].load(); seen < count; seen = call_counts[call].load())
        futex_sleep(call_counts[call], seen);
    count_watchers.fetch_sub(1);
}
