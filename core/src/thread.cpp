// Threads: created at once, but held at a gate until they are resumed.

#include <cerrno>
#include <cstring>
#include <ctime>
#include <pthread.h>

#include "kiv/core.h"

namespace {

enum class gate { closed, open, cancelled };

// Lives in the creator's control block.
struct thread_state {
    pthread_t id;
    void *(*entry)(void *);
    void *argument;
    gate where;
    char name[16]; // what the kernel keeps: 15 characters
};
static_assert(sizeof(thread_state) <= sizeof(sup_thread_control_t));

// One pair for all threads: each passes its gate once in its life.
pthread_mutex_t gate_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gate_moved = PTHREAD_COND_INITIALIZER;

// Moves a gate that is still closed; false when it has moved before.
bool move_gate(thread_state *thread, gate to) {
    pthread_mutex_lock(&gate_lock);
    const bool was_closed = thread->where == gate::closed;
    if (was_closed)
        thread->where = to;
    pthread_cond_broadcast(&gate_moved);
    pthread_mutex_unlock(&gate_lock);
    return was_closed;
}

gate wait_at_gate(const thread_state *thread) {
    pthread_mutex_lock(&gate_lock);
    while (thread->where == gate::closed)
        pthread_cond_wait(&gate_moved, &gate_lock);
    const gate where = thread->where;
    pthread_mutex_unlock(&gate_lock);
    return where;
}

void *run(void *argument) {
    auto *thread = static_cast<thread_state *>(argument);
    if (wait_at_gate(thread) == gate::cancelled)
        return nullptr;
    return thread->entry(thread->argument);
}

} // namespace

int sup_thread_create(sup_thread_t *handle, sup_thread_control_t *control, int, void *(*entry)(void *),
                      void *argument, int, const char *name) {
    auto *thread = reinterpret_cast<thread_state *>(control);
    *thread = thread_state{.id = {}, .entry = entry, .argument = argument, .where = gate::closed, .name = {}};
    ::strncpy(thread->name, name, sizeof thread->name - 1);
    *handle = nullptr;
    const int status = ::pthread_create(&thread->id, nullptr, run, thread);
    if (status != 0)
        return status;
    ::pthread_setname_np(thread->id, thread->name);
    *handle = thread;
    return 0;
}

int sup_thread_resume(sup_thread_t handle) {
    auto *thread = static_cast<thread_state *>(handle);
    return thread != nullptr && move_gate(thread, gate::open) ? 0 : EINVAL;
}

int sup_thread_delete(sup_thread_t handle) {
    auto *thread = static_cast<thread_state *>(handle);
    if (thread == nullptr || ::pthread_equal(thread->id, ::pthread_self()))
        return EINVAL;
    move_gate(thread, gate::cancelled);
    return ::pthread_join(thread->id, nullptr);
}

// Until a point in time, and not for what is left after each signal: the kernel rounds that up, so that
// signals in quick succession would keep the thread asleep for ever.
int sup_thread_delay(unsigned int milliseconds, int) {
    constexpr long second_ns = 1000000000L;
    timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(milliseconds / 1000);
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (end.tv_nsec >= second_ns) {
        end.tv_nsec -= second_ns;
        ++end.tv_sec;
    }
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
    return 0;
}
