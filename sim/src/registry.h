// Which descriptors belong to simulated devices. A descriptor that does not costs one load.

#ifndef KIV_SIM_REGISTRY_H
#define KIV_SIM_REGISTRY_H

#include <atomic>

#include "device.h"

namespace kiv::sim {

// One opening of a device: what descriptors made by dup share.
struct open_file {
    const operations *ops;
    void *state;
    unsigned references; // descriptors, and calls under way
};

inline constexpr int descriptor_limit = 65536;
extern constinit std::atomic<open_file *> descriptor_table[descriptor_limit];

inline bool is_simulated(int fd) {
    return fd >= 0 && fd < descriptor_limit &&
           descriptor_table[fd].load(std::memory_order_relaxed) != nullptr;
}

// Makes fd a descriptor of a new open file. On failure false with errno; the file is then not released.
bool attach(int fd, const opened &made);

// `copy` has become another descriptor of what `fd` is: of its device, or of no device.
void share(int fd, int copy);

// While it lives, fd stands for no device any more, and the open file is still there. Made before the
// descriptor is closed, since its number may be given away at once; and for a fresh descriptor, in case an
// old one of its number was closed behind the board's back.
class detached {
    open_file *file_ = nullptr;

    void take(int fd);
    void release();

  public:
    explicit detached(int fd) {
        if (is_simulated(fd))
            take(fd);
    }
    detached(const detached &) = delete;
    detached &operator=(const detached &) = delete;
    ~detached() {
        if (file_ != nullptr)
            release();
    }
};

// The open file behind a descriptor, for one call.
class held_file {
    open_file *file_ = nullptr;

    void acquire(int fd);
    void release();

  public:
    explicit held_file(int fd) {
        if (is_simulated(fd))
            acquire(fd);
    }
    held_file(const held_file &) = delete;
    held_file &operator=(const held_file &) = delete;
    ~held_file() {
        if (file_ != nullptr)
            release();
    }
    explicit operator bool() const { return file_ != nullptr; }
    const operations &ops() const { return *file_->ops; }
    void *state() const { return file_->state; }
};

} // namespace kiv::sim

#endif
