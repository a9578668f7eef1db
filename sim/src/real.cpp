#include "real.h"

#include <atomic>
#include <dlfcn.h>

#include "waiting.h"

namespace kiv::sim {
namespace {

constinit real_calls found = {};
constinit std::atomic<bool> looked_up{false};

template <class Function>
void look_up(Function &to, const char *name) {
    to = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// Two threads may do this at the same time: both write the same values.
void look_all_up() {
    const errno_keeper keeper;
    real_calls fresh;
#define KIV_SIM_REAL_LOOK_UP(name) look_up(fresh.name, #name);
    KIV_SIM_REAL_CALLS(KIV_SIM_REAL_LOOK_UP)
#undef KIV_SIM_REAL_LOOK_UP
    found = fresh;
    looked_up.store(true, std::memory_order_release);
}

// Before the program runs, so that the first call from a signal handler finds the work done.
[[gnu::constructor]] void look_up_early() {
    real();
}

} // namespace

// Constructors of other libraries may call in before the board's own has run.
const real_calls &real() {
    if (!looked_up.load(std::memory_order_acquire))
        look_all_up();
    return found;
}

int own(int fd) {
    constexpr int first = 3;
    if (fd < 0 || fd >= first)
        return fd;
    const int moved = real().fcntl(fd, F_DUPFD_CLOEXEC, first);
    const errno_keeper keeper;
    real().close(fd);
    return moved;
}

} // namespace kiv::sim
