#include "common/lock.h"

#include <pthread.h>

namespace kiv {
namespace {

// The C library's lock is not on any data path, and it needs no run-time help on processors without atomic
// instructions.
constinit pthread_mutex_t first_use_lock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

int ensure_mutex(uint32_t &initialized, sup_mutex_t &mutex) noexcept {
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
