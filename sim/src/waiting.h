// Locks, and a wait that a signal ends: what a device model needs to block as a kernel driver does.

#ifndef KIV_SIM_WAITING_H
#define KIV_SIM_WAITING_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kiv::sim {

// Keeps errno over work that is nobody's business outside.
class errno_keeper {
    const int saved_ = errno;

  public:
    errno_keeper() = default;
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;
    ~errno_keeper() { errno = saved_; }
};

// The thread sanitizer does not look at what happens inside the calls that it takes over, and all of the
// board runs inside them: it has to be told of the order that a lock makes.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
inline void after_lock(void *lock) {
    __tsan_acquire(lock);
}
inline void before_unlock(void *lock) {
    __tsan_release(lock);
}
#else
inline void after_lock(void *) {}
inline void before_unlock(void *) {}
#endif

// Usable before any constructor has run, and never destroyed: calls arrive until the process ends.
class mutex {
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;

  public:
    void lock() {
        ::pthread_mutex_lock(&native_);
        after_lock(this);
    }
    void unlock() {
        before_unlock(this);
        ::pthread_mutex_unlock(&native_);
    }
};

class guard {
    mutex &held_;

  public:
    explicit guard(mutex &lock) : held_(lock) { held_.lock(); }
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;
    ~guard() { held_.unlock(); }
};

// Sleeps while `word` holds `seen`. False with errno EINTR when a signal came whose handler does not ask
// for a restart; true otherwise, also without cause.
inline bool futex_sleep(std::atomic<std::uint32_t> &word, std::uint32_t seen) {
    static_assert(sizeof word == sizeof(std::uint32_t));
    const long result = ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
    return result == 0 || errno != EINTR;
}

inline void futex_wake_all(std::atomic<std::uint32_t> &word) {
    constexpr int everyone = 0x7fffffff;
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, everyone, nullptr, nullptr, 0);
}

// A condition variable whose wait a signal interrupts; pthread_cond_wait would go on sleeping, where a
// driver's wait gives EINTR.
class event {
    std::atomic<std::uint32_t> sequence_{0};

  public:
    // With `held` locked: unlocks it, sleeps until the next notify, locks it again. False with errno EINTR
    // when a signal ended the sleep. Test the condition in a loop.
    bool wait(mutex &held) {
        const std::uint32_t seen = sequence_.load();
        held.unlock();
        const bool woken = futex_sleep(sequence_, seen);
        held.lock();
        return woken;
    }

    // With the lock held that guards the condition.
    void notify_all() {
        const errno_keeper keeper;
        sequence_.fetch_add(1);
        futex_wake_all(sequence_);
    }
};

} // namespace kiv::sim

#endif
