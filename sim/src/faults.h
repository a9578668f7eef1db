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
bool find_due(kiv_sim_call call, unsigned long request, size_t length, kiv_sim_fault &due);
void reset_faults();

// The fault, if any, that one call meets.
class fault {
    kiv_sim_fault due_ = {};
    bool due_now_ = false;

  public:
    // Counts the call. length is what a transfer asks for.
    explicit fault(kiv_sim_call call, unsigned long request = 0, size_t length = SIZE_MAX) {
        call_counts[call].fetch_add(1);
        if (count_watchers.load() != 0)
            wake_watchers(call);
        if (armed_faults.load() != 0)
            due_now_ = find_due(call, request, length, due_);
    }

    // The call is not to be made: its answer is finish() instead.
    bool answers() const { return due_now_ && due_.action != KIV_SIM_SHORTEN; }
    bool fails() const { return due_now_ && due_.action == KIV_SIM_FAIL; }
    const kiv_sim_fault &what() const { return due_; }

    // The call is to be made for fewer bytes: what().length.
    bool shortens() const { return due_now_ && due_.action == KIV_SIM_SHORTEN; }

    // The changed call's result; sets errno for a failure.
    long finish() const;
};

} // namespace kiv::sim

#endif
