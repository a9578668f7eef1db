// An input as a script: its bytes become operations, data and faults.

#ifndef KIV_FUZZ_SCRIPT_H
#define KIV_FUZZ_SCRIPT_H

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>
#include <vector>

#include "kiv/sim.h"
#include "require.h"

using Bytes = std::vector<std::uint8_t>;

class Input {
    const std::uint8_t *at_, *end_;

  public:
    Input(const std::uint8_t *data, std::size_t size) : at_(data), end_(data + size) {}
    bool empty() const { return at_ == end_; }
    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
    unsigned below(unsigned count) { return byte() % count; }
    std::uint32_t word() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | byte();
        return value;
    }
    // An exact copy, so that a read past its end is noticed.
    Bytes bytes(std::size_t most) {
        const auto length = std::min(most, static_cast<std::size_t>(end_ - at_));
        Bytes taken(at_, at_ + length);
        at_ += length;
        return taken;
    }
    // So many bytes, of which an input need not hold all.
    Bytes exactly(std::size_t size) {
        Bytes taken = bytes(size);
        const std::size_t held = taken.size();
        taken.resize(size);
        for (std::size_t i = held; i < size; ++i)
            taken[i] = static_cast<std::uint8_t>(i * 7);
        return taken;
    }
};

// One call of an operation that fails or is shortened, and the account of the calls that a model makes.
class Fault {
    bool armed_ = false, shortens_ = false;
    kiv_sim_call call_{};
    unsigned nth_ = 0, calls_ = 0;
    int error_ = 0;
    std::size_t length_ = 0;

  public:
    Fault() = default;
    // Seven inputs in eight are faults, of one of these calls; which of them are shortened comes last.
    Fault(Input &input, std::initializer_list<kiv_sim_call> calls, std::initializer_list<int> errors,
          std::size_t shortest) {
        const unsigned what = input.byte(), how = input.byte();
        armed_ = what % 8 != 0;
        call_ = calls.begin()[what / 8 % calls.size()];
        nth_ = 1 + how % 3;
        error_ = errors.begin()[how / 3 % errors.size()];
        shortens_ = (call_ == KIV_SIM_READ || call_ == KIV_SIM_WRITE || call_ == KIV_SIM_SEND) &&
                    (what >= 128 || error_ == 0);
        length_ = shortest + how / 16;
        armed_ = armed_ && (shortens_ || error_ != 0);
    }
    void arm() const {
        kiv_sim_fault fault = {};
        fault.call = call_;
        fault.nth = nth_;
        fault.times = 1;
        fault.action = shortens_ ? KIV_SIM_SHORTEN : KIV_SIM_FAIL;
        fault.error = error_;
        fault.length = length_;
        fault.this_thread = 1;
        if (armed_)
            require_equal(kiv_sim_arm(&fault), 0, "arming");
    }
    bool fails_ever() const { return armed_ && !shortens_; }

    // A call of the model: the errno that it fails with, or 0; and how much it moves of what it could.
    int next(kiv_sim_call call, std::size_t &length) {
        if (!armed_ || call != call_ || ++calls_ != nth_)
            return 0;
        if (shortens_)
            length = std::min(length, length_);
        return shortens_ ? 0 : error_;
    }
    int next(kiv_sim_call call) {
        std::size_t nothing = 0;
        return next(call, nothing);
    }
};

// libFuzzer's clock ticks by a signal, which is a failed call to those that are not made again.
class Undisturbed {
    sigset_t before_ = {};

  public:
    Undisturbed() {
        sigset_t ticks;
        sigemptyset(&ticks);
        sigaddset(&ticks, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &ticks, &before_);
    }
    Undisturbed(const Undisturbed &) = delete;
    Undisturbed &operator=(const Undisturbed &) = delete;
    ~Undisturbed() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
};

// A scope that leaves no descriptor open.
class KeepsDescriptors {
    const int before_ = lowest_free();

    static int lowest_free() {
        const int fd = ::open("/dev/null", O_RDONLY);
        ::close(fd);
        return fd;
    }

  public:
    KeepsDescriptors() = default;
    KeepsDescriptors(const KeepsDescriptors &) = delete;
    KeepsDescriptors &operator=(const KeepsDescriptors &) = delete;
    ~KeepsDescriptors() { require_equal(lowest_free(), before_, "a descriptor is left open"); }
};

#endif
