// How a simulated device is written: one model file that defines one `device`, and one line in devices.cpp.
//
// A device names what it takes over, by path or by socket family, and opens it as a REAL kernel descriptor
// (one end of a socket pair, an eventfd, a memfd, another file), so that poll, select and close work by
// themselves. What the kernel cannot do on that descriptor goes through `operations`; a null slot leaves the
// call to the kernel.
//
// Rules for a model: call the C library's wrapped functions only as real().name(...); set errno where -1 is
// returned, as a driver would (the frame restores it after the success of an operation); lock what threads
// share, and block only in event::wait or in a real call, with no lock of another module held. Every call
// holds a reference to the open file: `release` comes when the last descriptor is closed and the last call
// has returned.

#ifndef KIV_SIM_DEVICE_H
#define KIV_SIM_DEVICE_H

#include <cerrno>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace kiv::sim {

// The end of a slot that fails.
inline int fail(int error) {
    errno = error;
    return -1;
}

// fd is the descriptor of this call (one of several after a dup), state what the opening gave.
struct operations {
    int (*ioctl)(int fd, void *state, unsigned request, void *argument) = nullptr;
    // read, readv and recv; write, writev and send.
    ssize_t (*read)(int fd, void *state, const iovec *pieces, int count) = nullptr;
    ssize_t (*write)(int fd, void *state, const iovec *pieces, int count) = nullptr;
    int (*bind)(int fd, void *state, const sockaddr *address, socklen_t length) = nullptr;
    int (*setsockopt)(int fd, void *state, int level, int option, const void *value,
                      socklen_t length) = nullptr;
    int (*getsockopt)(int fd, void *state, int level, int option, void *value, socklen_t *length) = nullptr;
    // Corrects what poll has reported for this descriptor. It must not turn a report into none.
    short (*revents)(void *state, short events, short revents) = nullptr;
    // The path of the device node that is open; a null slot: none, but a socket or a file. The string stays.
    const char *(*node)(void *state) = nullptr;
    // The open file has ended; its descriptors are closed already.
    void (*release)(void *state) = nullptr;
};

// What an opening fills beside the descriptor that it returns. With null operations the descriptor is the
// kernel's alone from then on.
struct opened {
    const operations *ops = nullptr;
    void *state = nullptr;
};

// Every slot but `reset` may be null.
struct device {
    // open, openat of an absolute path, fopen. open returns a descriptor, or -1 with errno.
    bool (*knows_path)(const char *path) = nullptr;
    // Whether there is a device node at a path that it knows; where the slot is null the machine is asked.
    bool (*has_node)(const char *path) = nullptr;
    int (*open)(const char *path, int flags, opened &made) = nullptr;
    // socket; type comes without SOCK_CLOEXEC and SOCK_NONBLOCK, which are in flags.
    bool (*knows_socket)(int domain, int type, int protocol) = nullptr;
    int (*socket)(int flags, opened &made) = nullptr;
    // One request on any descriptor that is no simulated device: true when *result is the answer.
    unsigned any_request = 0;
    bool (*any_ioctl)(int fd, void *argument, int *result) = nullptr;
    // Back to the initial state; what is open sees the device go away.
    void (*reset)() = nullptr;
};

const device *device_of_path(const char *path);
const device *device_of_socket(int domain, int type, int protocol);
const device *device_of_request(unsigned request);
void reset_devices();

} // namespace kiv::sim

#endif
