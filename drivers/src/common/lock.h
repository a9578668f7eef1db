// Holding a kiv-core mutex for a scope, and making a module's mutex on first use.

#ifndef KIV_COMMON_LOCK_H
#define KIV_COMMON_LOCK_H

#include <cstdint>
#include <pthread.h>

#include "kiv/core.h"

namespace kiv {

class mutex_hold {
  public:
    explicit mutex_hold(sup_mutex_t &mutex) noexcept : mutex_(mutex) { sup_mutex_lock(&mutex_); }
    ~mutex_hold() { sup_mutex_unlock(&mutex_); }
    mutex_hold(const mutex_hold &) = delete;
    mutex_hold &operator=(const mutex_hold &) = delete;

  private:
    sup_mutex_t &mutex_;
};

// Initialises a module's mutex when this is the first to need it; initialized is the module's word for that.
// Two openings at the same time wait for each other, and one that failed leaves the next to try again. The
// C library's lock is not on any data path, and it needs no run-time help on processors without atomic
// instructions. Returns 0 or what sup_mutex_init returned.
inline constinit pthread_mutex_t first_use_lock = PTHREAD_MUTEX_INITIALIZER;

inline int ensure_mutex(uint32_t &initialized, sup_mutex_t &mutex) noexcept {
    ::pthread_mutex_lock(&first_use_lock);
    int status = 0;
    if (initialized == 0) {
        initialized = 1;
        status = sup_mutex_init(&mutex, 0);
        if (status != 0)
            initialized = 0;
    }
    ::pthread_mutex_unlock(&first_use_lock);
    return status;
}

} // namespace kiv

#endif
