// Mutexes: the 28 bytes of the caller hold a pointer to a pthread mutex, which is larger than that on
// 64-bit hosts.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "kiv/core.h"

static_assert(sizeof(sup_mutex_t) == 28, "kiv-drivers keeps 28 bytes for a mutex");

namespace {

// The pointer lies at the first naturally aligned place inside the object, where leak checkers look for
// pointers; the object itself is aligned to its 32-bit words only.
pthread_mutex_t *&pointer_in(sup_mutex_t *mutex) {
    constexpr std::uintptr_t mask = alignof(void *) - 1;
    static_assert(sizeof(sup_mutex_t) >= sizeof(void *) + mask);
    const auto place = (reinterpret_cast<std::uintptr_t>(mutex) + mask) & ~mask;
    return *reinterpret_cast<pthread_mutex_t **>(place);
}

} // namespace

int sup_mutex_init(sup_mutex_t *mutex, int) {
    ::memset(mutex, 0, sizeof *mutex);
    auto *made = static_cast<pthread_mutex_t *>(::malloc(sizeof(pthread_mutex_t)));
    if (made == nullptr)
        return ENOMEM;
    const int status = ::pthread_mutex_init(made, nullptr);
    if (status != 0) {
        ::free(made);
        return status;
    }
    pointer_in(mutex) = made;
    return 0;
}

int sup_mutex_lock(sup_mutex_t *mutex) {
    pthread_mutex_t *held = pointer_in(mutex);
    return held == nullptr ? EINVAL : ::pthread_mutex_lock(held);
}

int sup_mutex_unlock(sup_mutex_t *mutex) {
    pthread_mutex_t *held = pointer_in(mutex);
    return held == nullptr ? EINVAL : ::pthread_mutex_unlock(held);
}

int sup_mutex_destroy(sup_mutex_t *mutex) {
    pthread_mutex_t *held = pointer_in(mutex);
    if (held == nullptr)
        return EINVAL;
    const int status = ::pthread_mutex_destroy(held);
    if (status == 0) {
        ::free(held);
        pointer_in(mutex) = nullptr;
    }
    return status;
}
