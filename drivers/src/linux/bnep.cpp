// The BNEP sender: a thread that hands the outbound frames of the interface "bnep" to a callback, and the
// injection of inbound ones.
//
//   1. State             what the two sides share, and who owns it when
//   2. Outbound          the sender's thread
//   3. Start, stop       the control side
//   4. Inbound
//
// drv.mutex guards the callback and every delivery to it. The descriptor and the buffer are the thread's: it
// makes them and releases them at its end. A stop clears the callback, which ends the thread within a second,
// waits for that, and only then deletes the thread: so it does not matter whether sup_thread_delete waits for
// a thread, ends it where it stands, or returns while it goes on.

#define KIV_MODULE "drivers/src/linux/bnep"

#include <cerrno>
#include <cstdlib>
#include <sys/uio.h>
#include <unistd.h>

#include "common/fd.h"
#include "common/lock.h"
#include "common/report.h"
#include "common/shared.h"
#include "common/wait.h"
#include "kiv/network.h"
#include "linux/tun.h"

using kiv::seen;
using kiv::set;

namespace {

// 1. State ----------------------------------------------------------------------------------------------

constexpr size_t BNEP_BUFFER_SIZE = 1600;

struct bnep_driver {
    uint8_t started;     // and not stopped since; also when the thread has ended by itself
    uint8_t thread_runs; // from a start until the thread's last step
    sup_mutex_t mutex;
    sup_thread_control_t thread;
    kiv_bnep_sender_cb sender;
    int32_t fd; // -1 while there is no interface
    uint8_t *buffer;
};

constinit bnep_driver drv{.started = 0,
                          .thread_runs = 0,
                          .mutex = {},
                          .thread = {},
                          .sender = nullptr,
                          .fd = -1,
                          .buffer = nullptr};
constinit sup_thread_t bnep_sender_thread = nullptr;

// The descriptor is taken away before it is closed, so that no frame is injected into what
// gets its number next. Harmless a second time.
void release_interface() {
    ::free(drv.buffer);
    drv.buffer = nullptr;
    const kiv::unique_fd closing(drv.fd);
    set(drv.fd, -1);
}

// 2. Outbound -------------------------------------------------------------------------------------------

// Unlike a TAP interface of the application's, this one tries the second device also when the first has
// refused the name. Returns the descriptor, or -1.
int open_bnep_interface(ifreq &interface) {
    for (const auto &path : kiv::tun_device_paths) {
        kiv::unique_fd tap(kiv::open_tun_device(path));
        if (tap.get() != -1 && kiv::name_tap_interface(tap.get(), "bnep", interface))
            return tap.release();
    }
    return -1;
}

// Returns false when there is nothing to wait for frames on.
bool make_interface(const uint8_t *address, const char *function) {
    ifreq interface;
    set(drv.fd, open_bnep_interface(interface));
    if (drv.fd == -1) {
        kiv::log_failure("TAP: failed to open TUN interface\n");
        return false;
    }
    kiv::set_hardware_address(drv.fd, interface, address, kiv::byte_order::bluetooth, "BT address = ");
    drv.buffer = static_cast<uint8_t *>(::calloc(1, BNEP_BUFFER_SIZE));
    kiv::check(drv.buffer != nullptr, KIV_ON_BEHALF_OF(function, "drv.buffer != ((void *)0)"));
    return drv.buffer != nullptr;
}

// One frame is three steps under one hold of the mutex, so that it is never split between two callbacks.
void deliver(const uint8_t *frame, size_t length) {
    const kiv::mutex_hold hold(drv.mutex);
    const kiv_bnep_sender_cb sender = seen(drv.sender);
    if (sender == nullptr)
        return;
    const auto protocol = static_cast<uint16_t>(frame[12] << 8 | frame[13]);
    sender(nullptr, protocol, nullptr, 0, KIV_BNEP_FRAME_START);
    sender(nullptr, 0, frame + KIV_ETH_HEADER_SIZE, static_cast<uint16_t>(length - KIV_ETH_HEADER_SIZE),
           KIV_BNEP_FRAME_DATA);
    sender(nullptr, 0, nullptr, 0, KIV_BNEP_FRAME_END);
}

// Until the sender is stopped or the interface fails. The wait's limit is how a cleared callback is noticed.
void forward_frames() {
    const int fd = drv.fd;

    while (seen(drv.sender) != nullptr) {
        timeval limit = {.tv_sec = 1, .tv_usec = 0};
        const int ready = kiv::wait_readable(fd, &limit);
        if (ready == -1) {
            kiv::log_failure("bnep_sender: select failed\n");
            return;
        }
        if (ready == 0)
            continue;
        const ssize_t length = ::read(fd, drv.buffer, BNEP_BUFFER_SIZE);
        if (length == -1 && errno != EINTR)
            return;
        // The kernel sends no frame without a whole header; from elsewhere one is dropped.
        if (length >= KIV_ETH_HEADER_SIZE && seen(drv.sender) != nullptr)
            deliver(drv.buffer, static_cast<size_t>(length));
    }
}

void *bnep_sender(void *argument) {
    if (make_interface(static_cast<const uint8_t *>(argument), __func__))
        forward_frames();
    release_interface();
    set(drv.thread_runs, 0);
    return nullptr;
}

// 3. Start, stop ----------------------------------------------------------------------------------------

int start(kiv_bnep_sender_cb sender, const uint8_t *address, int priority) {
    set(drv.started, 1);
    set(drv.sender, sender);
    set(drv.thread_runs, 1);
    sup_mutex_init(&drv.mutex, 0);
    sup_thread_create(&bnep_sender_thread, &drv.thread, priority, bnep_sender, const_cast<uint8_t *>(address),
                      0, "BNEP sender");
    const int status = sup_thread_resume(bnep_sender_thread);
    if (status != 0)
        set(drv.thread_runs, 0); // and never will: a stop has nothing to wait for
    return status;
}

int replace(kiv_bnep_sender_cb sender) {
    sup_mutex_lock(&drv.mutex);
    set(drv.sender, sender);
    return sup_mutex_unlock(&drv.mutex);
}

// The thread looks at the callback once a second. One that has not ended long after that is not waited for.
void wait_for_end() {
    constexpr useconds_t look_interval_us = 10000;
    constexpr int looks = 200;
    for (int i = 0; i < looks && seen(drv.thread_runs) != 0; ++i)
        ::usleep(look_interval_us);
}

int stop() {
    replace(nullptr);
    wait_for_end();
    sup_thread_delete(bnep_sender_thread);
    bnep_sender_thread = nullptr; // should the next creation fail, it is not to be mistaken for a new one
    sup_mutex_destroy(&drv.mutex);
    release_interface(); // of a thread that never came to its end
    set(drv.started, 0);
    return -1;
}

} // namespace

int kiv_bnep_set_sender_priority(kiv_bnep_sender_cb sender, const uint8_t *address, int priority) {
    const bool started = seen(drv.started) != 0;
    if (sender == nullptr)
        return started ? stop() : 0;
    return started ? replace(sender) : start(sender, address, priority);
}

int kiv_bnep_set_sender(kiv_bnep_sender_cb sender, const uint8_t *address) {
    return kiv_bnep_set_sender_priority(sender, address, KIV_BNEP_DEFAULT_PRIORITY);
}

// 4. Inbound --------------------------------------------------------------------------------------------

int kiv_bnep_data_available(void *, uint16_t protocol, const void *payload, unsigned int length,
                            const uint8_t *destination, const uint8_t *source) {
    const int fd = seen(drv.fd);
    if (fd == -1) {
        errno = ENODEV;
        return -1;
    }
    uint8_t header[KIV_ETH_HEADER_SIZE];
    for (unsigned int i = 0; i < kiv::address_size; ++i) {
        header[i] = destination[kiv::address_size - 1 - i];
        header[kiv::address_size + i] = source[kiv::address_size - 1 - i];
    }
    header[12] = static_cast<uint8_t>(protocol >> 8);
    header[13] = static_cast<uint8_t>(protocol);
    const iovec pieces[] = {
        {header, 6}, {header + 6, 6}, {header + 12, 2}, {const_cast<void *>(payload), length}};
    return static_cast<int>(::writev(fd, pieces, 4));
}
