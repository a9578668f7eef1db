// /sys/class/gpio: directories of pins, each with the files "value" and "direction".
//
// A descriptor is a memfd. Each read puts the file's text into it and leaves the rest to the kernel:
// position, pieces, and lseek, which programs use to read again. Everything is guarded by the lock of the
// board's pins.

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "device.h"
#include "gpio_board.h"
#include "memory.h"
#include "real.h"

namespace kiv::sim {
namespace {

constexpr char root[] = "/sys/class/gpio/";
constexpr std::size_t root_length = sizeof root - 1;
constexpr std::size_t most_directories = 16;
constexpr std::size_t name_size = 40;
constexpr std::size_t text_size = 16;

struct directory {
    char name[name_size]; // empty: the place is free
    int pin;
    bool has_direction;
    bool shows; // the text below instead of the level
    char text[text_size];
    char written[text_size]; // the last write
    std::size_t written_length;
};

constinit directory directories[most_directories] = {};

enum class kind { value, direction, directory_itself };

// One open file. The directory may be removed, and its place taken by another, while it is open.
struct file {
    char name[name_size];
    kind is;
    int access; // O_RDONLY and so on
};

directory *find(const char *name, std::size_t length) {
    for (directory &each : directories)
        if (length > 0 && ::strlen(each.name) == length && ::memcmp(each.name, name, length) == 0)
            return &each;
    return nullptr;
}

// Opening ----------------------------------------------------------------------------------------------

bool knows_path(const char *path) {
    return ::strncmp(path, root, root_length) == 0;
}

// The directory and the kind of a path. Null when there is nothing there.
directory *resolve(const char *path, kind &is) {
    const char *name = path + root_length;
    const std::size_t length = ::strcspn(name, "/");
    directory *found = find(name, length);
    const char *rest = name + length;
    if (*rest == '/')
        ++rest;
    if (*rest == '\0')
        is = kind::directory_itself;
    else if (::strcmp(rest, "value") == 0)
        is = kind::value;
    else if (::strcmp(rest, "direction") == 0 && found != nullptr && found->has_direction)
        is = kind::direction;
    else
        return nullptr;
    return found;
}

int make_descriptor(int flags) {
    const int fd = ::memfd_create("gpio", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
    if (fd != -1)
        real().fcntl(fd, F_SETFL, flags & O_NONBLOCK);
    return fd;
}

extern const operations sysfs_operations;

int open_file(const char *path, int flags, opened &made) {
    const guard hold(gpio.lock);
    read_gpio_environment();
    kind is{};
    const directory *found = resolve(path, is);
    if (found == nullptr)
        return fail(ENOENT);
    const int access = flags & O_ACCMODE;
    if (is == kind::directory_itself && access != O_RDONLY)
        return fail(EISDIR);
    auto *fresh = allocate<file>();
    if (fresh == nullptr)
        return -1;
    ::memcpy(fresh->name, found->name, name_size);
    fresh->is = is;
    fresh->access = access;
    const int fd = make_descriptor(flags);
    if (fd == -1) {
        const errno_keeper keeper;
        ::free(fresh);
        return -1;
    }
    made = opened{.ops = &sysfs_operations, .state = fresh};
    return fd;
}

void release_file(void *state) {
    ::free(state);
}

// Transfers --------------------------------------------------------------------------------------------

// The file's text and line end, in memory that lives as long as the lock is held. Returns 0 or an errno
// value.
int compose(const file &of, const char *&text) {
    const directory *found = find(of.name, ::strlen(of.name));
    if (found == nullptr)
        return ENODEV;
    if (found->shows && of.is == kind::value) {
        text = found->text;
        return 0;
    }
    int level = 0;
    if (const int refusal = gpio.chip.read(found->pin, level); refusal != 0)
        return refusal;
    if (of.is == kind::direction)
        text = gpio.chip.is_output(found->pin) ? "out\n" : "in\n";
    else
        text = level != 0 ? "1\n" : "0\n";
    return 0;
}

ssize_t read_file(int fd, void *state, const iovec *pieces, int count) {
    const auto &of = *static_cast<file *>(state);
    if (of.access == O_WRONLY)
        return fail(EBADF);
    if (of.is == kind::directory_itself)
        return fail(EISDIR);
    const guard hold(gpio.lock);
    const char *text = nullptr;
    if (const int refusal = compose(of, text); refusal != 0)
        return fail(refusal);
    const std::size_t length = ::strlen(text);
    if (::ftruncate(fd, static_cast<off_t>(length)) == -1 ||
        ::pwrite(fd, text, length, 0) != static_cast<ssize_t>(length))
        return -1;
    return real().readv(fd, pieces, count);
}

// What was written, as the kernel compares it: up to a zero byte, without one line end.
bool is_word(const char *text, const char *word) {
    const std::size_t length = ::strlen(word);
    return ::strncmp(text, word, length) == 0 &&
           (text[length] == '\0' || (text[length] == '\n' && text[length + 1] == '\0'));
}

int set_direction(int pin, const char *text) {
    if (is_word(text, "in"))
        return gpio.chip.configure(pin, 0);
    if (is_word(text, "out") || is_word(text, "low"))
        return gpio.chip.configure(pin, 1);
    return is_word(text, "high") ? gpio.chip.configure(pin, 2) : EINVAL;
}

int set_value(int pin, const char *text) {
    if (!gpio.chip.is_output(pin))
        return EPERM;
    if (is_word(text, "0"))
        return gpio.chip.drive(pin, 0);
    return is_word(text, "1") ? gpio.chip.drive(pin, 1) : EINVAL;
}

int apply(const file &to, const char *text, std::size_t length) {
    directory *found = find(to.name, ::strlen(to.name));
    if (found == nullptr)
        return ENODEV;
    ::memcpy(found->written, text, length);
    found->written_length = length;
    const int refusal =
        to.is == kind::direction ? set_direction(found->pin, text) : set_value(found->pin, text);
    announce_pins();
    return refusal;
}

// Takes everything; what is longer than any word is none.
ssize_t write_file(int, void *state, const iovec *pieces, int count) {
    const auto &to = *static_cast<file *>(state);
    if (to.access == O_RDONLY)
        return fail(EBADF);
    char text[text_size + 1] = {};
    std::size_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (total + pieces[i].iov_len > text_size)
            return fail(EINVAL);
        ::memcpy(text + total, pieces[i].iov_base, pieces[i].iov_len);
        total += pieces[i].iov_len;
    }
    if (total == 0)
        return 0;
    const guard hold(gpio.lock);
    const int refusal = apply(to, text, total);
    return refusal == 0 ? static_cast<ssize_t>(total) : fail(refusal);
}

const operations sysfs_operations = {.read = read_file, .write = write_file, .release = release_file};

// A file that is open finds its directory gone.
void reset_directories() {
    const guard hold(gpio.lock);
    for (directory &each : directories)
        each = {};
}

} // namespace

int export_pin(const char *name, std::size_t length, int pin, bool has_direction) {
    if (length == 0 || length >= name_size)
        return EINVAL;
    if (find(name, length) != nullptr)
        return EEXIST;
    for (directory &each : directories)
        if (each.name[0] == '\0') {
            each = directory();
            each.pin = pin;
            each.has_direction = has_direction;
            ::memcpy(each.name, name, length);
            return 0;
        }
    return ENOSPC;
}

extern const device sysfs_pins_device;
const device sysfs_pins_device = {.knows_path = knows_path, .open = open_file, .reset = reset_directories};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_sysfs_export(const char *name, unsigned pin, int has_direction) {
    return with_pin(pin, [=](int valid) {
        const std::size_t length = ::strcspn(name, "/");
        return name[length] == '/' ? EINVAL : export_pin(name, length, valid, has_direction != 0);
    });
}

int kiv_sim_sysfs_unexport(const char *name) {
    const guard hold(gpio.lock);
    directory *found = find(name, ::strlen(name));
    if (found == nullptr)
        return EINVAL;
    *found = {};
    return 0;
}

int kiv_sim_sysfs_show(const char *name, const char *text) {
    const guard hold(gpio.lock);
    directory *found = find(name, ::strlen(name));
    if (found == nullptr || (text != nullptr && ::strlen(text) >= text_size))
        return EINVAL;
    found->shows = text != nullptr;
    if (text != nullptr)
        ::memcpy(found->text, text, ::strlen(text) + 1);
    return 0;
}

size_t kiv_sim_sysfs_written(const char *name, void *buffer, size_t size) {
    const guard hold(gpio.lock);
    const directory *found = find(name, ::strlen(name));
    if (found == nullptr)
        return 0;
    const std::size_t length = found->written_length < size ? found->written_length : size;
    ::memcpy(buffer, found->written, length);
    return length;
}
