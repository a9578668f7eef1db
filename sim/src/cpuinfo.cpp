// /proc/cpuinfo: a text of somebody's choice behind a descriptor of the kernel's.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "device.h"
#include "kiv/sim.h"
#include "memory.h"
#include "real.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

// One of the two is set, or neither: the environment decides then.
constinit mutex text_lock;
constinit unsigned char *text = nullptr;
constinit std::size_t text_length = 0;
constinit char *stand_in = nullptr;

const char *path_in_use() {
    return stand_in != nullptr ? stand_in : ::getenv("KIV_SIM_CPUINFO");
}

void forget() {
    ::free(text);
    ::free(stand_in);
    text = nullptr;
    stand_in = nullptr;
}

bool knows_path(const char *path) {
    if (::strcmp(path, "/proc/cpuinfo") != 0)
        return false;
    const guard hold(text_lock);
    return text != nullptr || path_in_use() != nullptr;
}

bool write_whole(int fd, const unsigned char *bytes, std::size_t length) {
    while (length > 0) {
        const ssize_t done = real().write(fd, bytes, length);
        if (done <= 0)
            return false;
        bytes += done;
        length -= static_cast<std::size_t>(done);
    }
    return true;
}

// A file of the kernel's without a name, at its beginning.
int open_text(int flags) {
    const auto fd =
        static_cast<int>(::syscall(SYS_memfd_create, "cpuinfo", (flags & O_CLOEXEC) != 0 ? 1 : 0));
    if (fd < 0)
        return -1;
    if (write_whole(fd, text, text_length) && ::lseek(fd, 0, SEEK_SET) == 0)
        return fd;
    const errno_keeper keeper;
    real().close(fd);
    return -1;
}

// The descriptor is the kernel's alone from here on.
int open_cpuinfo(const char *, int flags, opened &) {
    if ((flags & O_ACCMODE) != O_RDONLY)
        return fail(EACCES);
    const guard hold(text_lock);
    return text != nullptr ? open_text(flags) : real().open(path_in_use(), flags);
}

void reset() {
    const guard hold(text_lock);
    forget();
}

// Puts a copy of `bytes` where `kept` points, and nothing beside it.
int keep_copy(const void *bytes, std::size_t length, unsigned char *&copy) {
    copy = nullptr;
    if (bytes == nullptr)
        return 0;
    copy = allocate_bytes(length);
    if (copy == nullptr)
        return ENOMEM;
    if (length > 0)
        ::memcpy(copy, bytes, length);
    return 0;
}

} // namespace

extern const device cpuinfo_device;
const device cpuinfo_device = {.knows_path = knows_path, .open = open_cpuinfo, .reset = reset};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_cpuinfo_set(const void *given, size_t length) {
    const errno_keeper keeper;
    unsigned char *copy = nullptr;
    const int status = keep_copy(given, length, copy);
    if (status != 0)
        return status;
    const guard hold(text_lock);
    forget();
    text = copy;
    text_length = length;
    return 0;
}

int kiv_sim_cpuinfo_redirect(const char *path) {
    const errno_keeper keeper;
    unsigned char *copy = nullptr;
    const int status = keep_copy(path, path != nullptr ? ::strlen(path) + 1 : 0, copy);
    if (status != 0)
        return status;
    const guard hold(text_lock);
    forget();
    stand_in = reinterpret_cast<char *>(copy);
    return 0;
}
