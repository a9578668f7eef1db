// The devices of the board.

#include "device.h"

#include "faults.h"
#include "kiv/sim.h"
#include "waiting.h"

namespace kiv::sim {

extern const device cpuinfo_device;
extern const device fat_device;
extern const device gpio_device;
extern const device hci_device;
extern const device i2c_device;
extern const device sysfs_pins_device;
extern const device tty_device;
extern const device tun_device;

namespace {

constexpr const device *devices[] = {&cpuinfo_device, &fat_device,        &gpio_device, &hci_device,
                                     &i2c_device,     &sysfs_pins_device, &tty_device,  &tun_device};

template <class Matches>
const device *find(Matches matches) {
    for (const device *each : devices)
        if (matches(*each))
            return each;
    return nullptr;
}

} // namespace

const device *device_of_path(const char *path) {
    return find([path](const device &d) { return d.knows_path != nullptr && d.knows_path(path); });
}

const device *device_of_socket(int domain, int type, int protocol) {
    return find(
        [=](const device &d) { return d.knows_socket != nullptr && d.knows_socket(domain, type, protocol); });
}

const device *device_of_request(unsigned request) {
    return find([request](const device &d) { return d.any_ioctl != nullptr && d.any_request == request; });
}

void reset_devices() {
    for (const device *each : devices)
        each->reset();
}

} // namespace kiv::sim

void kiv_sim_reset() {
    const kiv::sim::errno_keeper keeper;
    kiv::sim::reset_faults();
    kiv::sim::reset_devices();
}
