// What devices this system has, as sysfs tells.

#include "devices.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <initializer_list>
#include <unistd.h>

namespace kivctl {

void for_each_entry(const char *folder, void (*found)(void *context, const char *name), void *context) {
    DIR *listing = opendir(folder);
    if (listing == nullptr)
        return;
    while (const dirent *entry = readdir(listing))
        if (entry->d_name[0] != '.')
            found(context, entry->d_name);
    closedir(listing);
}

namespace {

struct search {
    void (*found)(void *context, const char *name, const char *driver);
    void *context;
};

// The 8250 driver keeps names for ports that the machine does not have: their type is 0.
bool is_placeholder(const char *name) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "/sys/class/tty/%s/type", name);
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return false;
    const int first = getc(file);
    fclose(file);
    return first == '0';
}

// The last name of what a link of a port's folder points to.
bool read_link(const char *name, const char *link, char (&last)[NAME_MAX + 1]) {
    char path[PATH_MAX];
    char target[PATH_MAX];
    snprintf(path, sizeof path, "/sys/class/tty/%s/%s", name, link);
    const ssize_t length = readlink(path, target, sizeof target - 1);
    if (length < 0)
        return false;
    target[length] = '\0';
    const char *slash = strrchr(target, '/');
    snprintf(last, sizeof last, "%.255s", slash != nullptr ? slash + 1 : target);
    return true;
}

// Only ports of hardware have a driver; consoles and pseudo-terminals have none. Since Linux 6.5 a UART's own
// driver is two steps up, behind one named "port".
bool driver_of(const char *name, char (&driver)[NAME_MAX + 1]) {
    if (!read_link(name, "device/driver", driver))
        return false;
    if (strcmp(driver, "port") == 0)
        read_link(name, "device/../../driver", driver);
    return true;
}

void look_at_tty(void *context, const char *name) {
    const auto &of = *static_cast<const search *>(context);
    char driver[NAME_MAX + 1];
    char path[PATH_MAX];
    snprintf(path, sizeof path, "/dev/%s", name);
    if (driver_of(name, driver) && !is_placeholder(name))
        of.found(of.context, path, driver);
}

void look_at_controller(void *context, const char *name) {
    const auto &of = *static_cast<const search *>(context);
    if (strncmp(name, "hci", 3) == 0 && strchr(name, ':') == nullptr) // hci0:11 is a connection
        of.found(of.context, name, "bluetooth");
}

} // namespace

void for_each_serial_device(void (*found)(void *context, const char *name, const char *driver),
                            void *context) {
    search of{found, context};
    for_each_entry("/sys/class/tty", look_at_tty, &of);
    for_each_entry("/sys/class/bluetooth", look_at_controller, &of);
    // The simulated board's lines are in no folder.
    for (const char *line : {"/dev/ttyKIV0", "/dev/ttyKIV1", "/dev/ttyKIV2", "/dev/ttyKIV3"})
        if (access(line, F_OK) == 0)
            found(context, line, "simulated");
}

} // namespace kivctl
