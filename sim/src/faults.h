// Counts calls, and decides which of them are changed. With nothing armed a call costs one addition.

#ifndef KIV_SIM_FAULTS_H
#define KIV_SIM_FAULTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kiv/sim.h"

namespace kiv::sim {

extern constinit std::atomic<std::uint32_t> armed_faults;
extern constinit std::atomic<std::uint32_t> call_counts[KIV_SIM_CALL_KINDS];
extern constinit std::atomic<std::uint32_t> count_watchers;

void wake_watchers(kiv_sim_call call);
bool find_due(kiv_sim_call call, unsigned long request, kiv_sim_fault &due);
void reset_faults();

// The fault, if any, that one call meets.
class fault {
    kiv_sim_fault due_ = {};
    bool due_now_ = false;

  public:
    // Counts the call.
    explicit fault(kiv_sim_call call, unsigned long request = 0) {
        call_counts[call].fetch_add(1);
        if (count_watchers.load() != 0)
            wake_watchers(call);
        if (armed_faults.load() != 0)
            due_now_ = find_due(call, request, due_);
    }

    // The call is not to be made: its answer is finish() instead.
    bool answers() const { return due_now_ && due_.action != KIV_SIM_SHORTEN; }
    bool fails() const { return due_now_ && due_.action == KIV_SIM_FAIL; }
    const kiv_sim_fault &what() const { return due_; }

    // The number of bytes that a transfer is to be asked for.
    size_t shortened(size_t length) const {
        return due_now_ && due_.action == KIV_SIM_SHORTEN && due_.length < length ? due_.length : length;
    }

    // The changed call's result; sets errno for a failure.
    long finish() const;
};

} // namespace kiv::sim

#endif
