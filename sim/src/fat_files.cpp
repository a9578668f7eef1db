// FAT attributes: a table of real files that answer as if they lay on a FAT file system.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <linux/msdos_fs.h>
#include <sys/stat.h>

#include "device.h"
#include "environment.h"
#include "kiv/sim.h"
#include "real.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

struct entry {
    char path[256];
    std::uint32_t attributes;
};

constinit mutex table_lock;
constinit entry table[KIV_SIM_FAT_FILES] = {};
constinit unsigned entries = 0;

// A file is known by what it is and not by the name under which it was opened.
bool is_file_at(const struct stat64 &file, const char *path) {
    struct stat64 named;
    return real().stat64(path, &named) == 0 && named.st_dev == file.st_dev && named.st_ino == file.st_ino;
}

bool find_in_environment(const struct stat64 &file, std::uint32_t &attributes) {
    const char *setting = ::getenv("KIV_SIM_FAT");
    if (setting == nullptr)
        return false;
    char *end = nullptr;
    const unsigned long number = ::strtoul(setting, &end, 0);
    attributes = static_cast<std::uint32_t>(number);
    const bool has_form = end != setting && *end == ':';
    if (!has_form && *setting != '\0')
        complain("KIV_SIM_FAT", setting, "ATTRIBUTES:/path");
    return has_form && is_file_at(file, end + 1);
}

bool find(int fd, std::uint32_t &attributes) {
    struct stat64 file;
    if (real().fstat64(fd, &file) != 0)
        return false;
    const guard hold(table_lock);
    for (unsigned i = 0; i < entries; ++i)
        if (is_file_at(file, table[i].path)) {
            attributes = table[i].attributes;
            return true;
        }
    return find_in_environment(file, attributes);
}

// Emulators that do not know the request say ENOSYS, where a kernel says that the file system does not.
int ask_kernel(int fd, void *argument) {
    const int result = real().ioctl(fd, FAT_IOCTL_GET_ATTRIBUTES, argument);
    if (result == -1 && errno == ENOSYS)
        errno = ENOTTY;
    return result;
}

bool answer(int fd, void *argument, int *result) {
    std::uint32_t attributes = 0;
    const int before = errno;
    if (!find(fd, attributes)) {
        errno = before;
        *result = ask_kernel(fd, argument);
        return true;
    }
    errno = before;
    ::memcpy(argument, &attributes, sizeof attributes);
    *result = 0;
    return true;
}

void reset() {
    const guard hold(table_lock);
    entries = 0;
}

} // namespace

extern const device fat_device;
const device fat_device = {.any_request = FAT_IOCTL_GET_ATTRIBUTES, .any_ioctl = answer, .reset = reset};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_fat_set(const char *path, uint32_t attributes) {
    const guard hold(table_lock);
    unsigned at = 0;
    while (at < entries && ::strcmp(table[at].path, path) != 0)
        ++at;
    if (at == KIV_SIM_FAT_FILES)
        return ENOSPC;
    const std::size_t length = ::strlen(path);
    if (length >= sizeof table[at].path)
        return ENAMETOOLONG;
    ::memcpy(table[at].path, path, length + 1);
    table[at].attributes = attributes;
    if (at == entries)
        ++entries;
    return 0;
}
