// What devices this system has.
#ifndef KIVCTL_DEVICES_H
#define KIVCTL_DEVICES_H

namespace kivctl {

// Calls found with the path and the driver of every serial port, and with the name of every Bluetooth
// controller.
void for_each_serial_device(void (*found)(void *context, const char *name, const char *driver),
                            void *context);

// Calls found with every name in a folder, apart from hidden ones.
void for_each_entry(const char *folder, void (*found)(void *context, const char *name), void *context);

} // namespace kivctl

#endif
