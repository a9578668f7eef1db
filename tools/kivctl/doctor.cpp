// doctor: what is missing for the library to work here, each finding with the line that repairs it.
//
//   Findings
//   Devices      present, and whether this user may use them
//   Holders      other programs on a port
//   Bluetooth    raw sockets, and whether this kernel lets controllers into raw mode
//
// It looks and changes nothing: a port is not even opened, since that would raise its modem lines.

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "areas.h"
#include "devices.h"
#include "interface.h"
#include "output.h"

namespace kivctl {

// Findings -----------------------------------------------------------------------------------------------

namespace {

bool as_json = false;
int problems = 0;

enum class state { good, absent, problem };

void find(state is, const char *what, const char *detail, const char *repair) {
    constexpr const char *names[] = {"ok", "absent", "problem"};
    const char *name = names[static_cast<int>(is)];
    problems += is == state::problem ? 1 : 0;
    if (as_json) {
        json_line line;
        line.text("what", what).text("state", name).text("detail", detail);
        if (repair != nullptr)
            line.text("repair", repair);
        return;
    }
    printf("%-8s %s: %s\n", name, what, detail);
    if (repair != nullptr)
        printf("%-8s   %s\n", "", repair);
}

// Devices ------------------------------------------------------------------------------------------------

void look_at_rights(const char *path) {
    struct stat status {};
    if (access(path, R_OK | W_OK) == 0) {
        find(state::good, path, "readable and writable", nullptr);
        return;
    }
    if (stat(path, &status) == -1) {
        find(state::problem, path, strerror(errno), "sudo dmesg   # what its driver says");
        return;
    }
    char repair[256];
    const group *owners = (status.st_mode & 060) == 060 ? getgrgid(status.st_gid) : nullptr;
    if (owners != nullptr && status.st_gid != 0)
        snprintf(repair, sizeof repair, "sudo usermod -aG %s $USER   # and log in again", owners->gr_name);
    else
        snprintf(repair, sizeof repair, "sudo chmod a+rw %s   # until the next start; a udev rule keeps it",
                 path);
    find(state::problem, path, "this user may not use it", repair);
}

void look_at_device(const char *path, const char *repair) {
    if (access(path, F_OK) == 0)
        look_at_rights(path);
    else
        find(state::absent, path, "there is none", repair);
}

void look_at_bus(void *context, const char *name) {
    if (strncmp(name, "i2c-", 4) != 0)
        return;
    char path[PATH_MAX];
    snprintf(path, sizeof path, "/dev/%s", name);
    *static_cast<bool *>(context) = true;
    look_at_rights(path);
}

void look_at_buses() {
    bool any = false;
    for_each_entry("/dev", look_at_bus, &any);
    if (!any) // the simulated board's is in no folder
        look_at_device("/dev/i2c-0", "sudo modprobe i2c-dev");
}

// Holders ------------------------------------------------------------------------------------------------

struct holder_search {
    const char *path;
    const char *process;
    char own[16]; // the number of this process
};

void look_at_descriptor(void *context, const char *name) {
    const auto &of = *static_cast<const holder_search *>(context);
    char link[PATH_MAX];
    char target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/%s/fd/%s", of.process, name);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    if (length < 0)
        return;
    target[length] = '\0';
    if (strcmp(target, of.path) != 0)
        return;
    char program[64] = "?";
    char detail[128];
    char repair[64];
    snprintf(link, sizeof link, "/proc/%s/comm", of.process);
    FILE *file = fopen(link, "re");
    if (file != nullptr && fgets(program, sizeof program, file) != nullptr)
        program[strcspn(program, "\n")] = '\0';
    if (file != nullptr)
        fclose(file);
    snprintf(detail, sizeof detail, "process %.16s, %s, has it open", of.process, program);
    snprintf(repair, sizeof repair, "kill %.16s   # or stop its service", of.process);
    find(state::problem, of.path, detail, repair);
}

void look_at_process(void *context, const char *name) {
    auto &of = *static_cast<holder_search *>(context);
    if (name[0] < '0' || name[0] > '9' || strcmp(name, of.own) == 0)
        return;
    char folder[PATH_MAX];
    snprintf(folder, sizeof folder, "/proc/%s/fd", name);
    of.process = name;
    for_each_entry(folder, look_at_descriptor, &of);
}

// Bluetooth ----------------------------------------------------------------------------------------------

constexpr int hci_protocol = 1;
constexpr unsigned long hci_get_device_info = 0x800448d3;
constexpr unsigned long hci_set_raw = 0x400448dc;
constexpr unsigned raw_flag = 1U << 6;

struct hci_address {
    uint16_t family, device, channel;
};

// What the kernel fills in about a controller, as far as it is looked at.
struct hci_device_info {
    uint16_t device;
    char name[8];
    uint8_t address[6];
    uint32_t flags;
    uint8_t rest[96];
};

constexpr char raw_mode_repair[] =
    "use a kernel before 3.x, or the controller's UART itself: kivctl serial term DEVICE";
constexpr char capabilities_repair[] = "sudo setcap cap_net_admin,cap_net_raw+ep $(command -v kivctl)";

// Asks for raw mode to be off where it is off: that changes nothing, and a kernel that has no raw mode
// refuses. ENODEV: there is no such controller.
int try_raw_mode(uint16_t device) {
    const int fd = socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, hci_protocol);
    if (fd == -1)
        return errno;
    const hci_address address = {AF_BLUETOOTH, device, 0};
    hci_device_info info{};
    info.device = device;
    const bool raw = ioctl(fd, hci_get_device_info, &info) == 0 && (info.flags & raw_flag) != 0;
    const bool allowed = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                         (raw || ioctl(fd, hci_set_raw, 0UL) == 0);
    const int error = allowed ? 0 : errno;
    close(fd);
    return error;
}

// What the release tells where the kernel cannot be asked. 3.x: some do, some do not.
bool surely_refuses_raw_mode() {
    utsname kernel{};
    return uname(&kernel) == 0 && strtol(kernel.release, nullptr, 10) >= 4;
}

void tell_of_controller(const char *name, int error) {
    if (error == 0)
        find(state::good, name, "raw mode works", nullptr);
    else if (error == EOPNOTSUPP || (error == EPERM && surely_refuses_raw_mode())) // no right helps then
        find(state::problem, name, "this kernel refuses raw mode", raw_mode_repair);
    else if (error == EPERM)
        find(state::problem, name, "raw mode takes CAP_NET_ADMIN and CAP_NET_RAW", capabilities_repair);
    else
        find(state::problem, name, strerror(error), "sudo dmesg   # what the driver says");
}

void look_at_bluetooth() {
    constexpr uint16_t most_controllers = 16;
    bool any = false;
    int error = 0;
    for (uint16_t device = 0; device < most_controllers; ++device) {
        char name[16];
        snprintf(name, sizeof name, "hci%u", device);
        error = try_raw_mode(device);
        if (error == EAFNOSUPPORT || error == EPROTONOSUPPORT)
            break;
        if (error != ENODEV) {
            any = true;
            tell_of_controller(name, error);
        }
    }
    if (error == EAFNOSUPPORT || error == EPROTONOSUPPORT)
        find(state::absent, "bluetooth", "this kernel has no Bluetooth", "sudo modprobe bluetooth");
    else if (!any)
        find(state::absent, "bluetooth", "there is no controller", nullptr);
    if (!any && surely_refuses_raw_mode())
        find(state::absent, "raw HCI", "this kernel refuses raw mode to every controller", raw_mode_repair);
}

void look_at_serial(void *, const char *name, const char *) {
    if (name[0] != '/')
        return; // a controller
    look_at_rights(name);
    holder_search search{name, nullptr, ""};
    snprintf(search.own, sizeof search.own, "%d", getpid());
    for_each_entry("/proc", look_at_process, &search);
}

void look_at_capabilities() {
    if (has_capability(CAP_NET_ADMIN))
        find(state::good, "CAP_NET_ADMIN", "interfaces can be made", nullptr);
    else
        find(state::problem, "CAP_NET_ADMIN", "tap and bnep cannot make interfaces", capabilities_repair);
}

} // namespace

exit_code doctor(const request &from) {
    as_json = from.json;
    for_each_serial_device(look_at_serial, nullptr);
    look_at_bluetooth();
    look_at_buses();
    look_at_device("/dev/gpio", "load the board's GPIO driver");
    look_at_device("/dev/net/tun", "sudo modprobe tun");
    look_at_capabilities();
    if (problems == 0)
        return done;
    return fail(failed, nullptr, "%d problem%s", problems, problems == 1 ? "" : "s");
}

} // namespace kivctl
