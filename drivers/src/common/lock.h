// Holding a kiv-core mutex for a scope, and making a module's mutex on first use.

#ifndef KIV_COMMON_LOCK_H
#define KIV_COMMON_LOCK_H

#include <cstdint>

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
// Two openings at the same time wait for each other, and one that failed leaves the next to try again.
// Returns 0 or what sup_mutex_init returned.
int ensure_mutex(uint32_t &initialized, sup_mutex_t &mutex) noexcept;

} // namespace kiv

#endif
