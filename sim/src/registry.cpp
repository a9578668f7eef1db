#include "registry.h"

#include <cerrno>
#include <cstdlib>

#include "memory.h"
#include "waiting.h"

namespace kiv::sim {

constinit std::atomic<open_file *> descriptor_table[descriptor_limit] = {};

namespace {

// Guards the table's writers and every reference count; never held while a model runs.
constinit mutex table_lock;

// Gives a reference back; the last one ends the file. Only without the lock.
void drop(open_file *file) {
    {
        const guard hold(table_lock);
        if (--file->references > 0)
            return;
    }
    const errno_keeper keeper;
    if (file->ops->release != nullptr)
        file->ops->release(file->state);
    ::free(file);
}

// Puts `next` into the table, with a reference of its own; the one of what was there is the caller's.
open_file *exchange(int fd, open_file *next) {
    const guard hold(table_lock);
    if (next != nullptr)
        ++next->references;
    return descriptor_table[fd].exchange(next);
}

void replace(int fd, open_file *next) {
    if (open_file *previous = exchange(fd, next))
        drop(previous);
}

} // namespace

bool attach(int fd, const opened &made) {
    if (fd >= descriptor_limit) {
        errno = EMFILE;
        return false;
    }
    auto *file = allocate<open_file>();
    if (file == nullptr)
        return false;
    *file = open_file{.ops = made.ops, .state = made.state, .references = 0};
    replace(fd, file);
    return true;
}

void share(int fd, int copy) {
    if (copy < 0 || copy >= descriptor_limit || fd == copy)
        return;
    open_file *file = nullptr;
    if (is_simulated(fd)) {
        const guard hold(table_lock);
        file = descriptor_table[fd].load();
        if (file != nullptr)
            ++file->references; // until `copy` has its own
    }
    if (file != nullptr || is_simulated(copy))
        replace(copy, file);
    if (file != nullptr)
        drop(file);
}

void detached::take(int fd) {
    file_ = exchange(fd, nullptr);
}

void detached::release() {
    drop(file_);
}

void held_file::acquire(int fd) {
    const guard hold(table_lock);
    file_ = descriptor_table[fd].load();
    if (file_ != nullptr)
        ++file_->references;
}

void held_file::release() {
    drop(file_);
}

} // namespace kiv::sim
