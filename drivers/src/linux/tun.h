// Making a TAP interface: the steps that the TAP module and the BNEP sender share. Their order, and what a
// failure of one means, is each module's own.

#ifndef KIV_LINUX_TUN_H
#define KIV_LINUX_TUN_H

#include <cstdint>
#include <net/if.h>

namespace kiv {

// Where the TUN clone device may be, the likelier first. Characters in place: pointers would have to be
// relocated at load.
constexpr char tun_device_paths[][13] = {"/dev/net/tun", "/dev/tun"};

// How the six bytes of a hardware address are stored: as they are written, or the other way round.
enum class byte_order { ethernet, bluetooth };
constexpr unsigned int address_size = 6;

// Opens a clone device and reports which one. Returns the descriptor, or -1.
int open_tun_device(const char *path) noexcept;

// Makes the TAP interface of that name on a clone device's descriptor. interface is then what the kernel made
// of it, for the requests that follow. Reports a refusal.
bool name_tap_interface(int fd, const char *name, ifreq &interface) noexcept;

// Sets the hardware address. Reports a refusal, showing the bytes as they are stored after the label.
bool set_hardware_address(int fd, ifreq &interface, const uint8_t *address, byte_order stored,
                          const char *label) noexcept;

} // namespace kiv

#endif
