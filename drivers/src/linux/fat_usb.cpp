// The FAT attributes of a file, and USB links as serial ports with a fixed set-up.

#include <cerrno>
#include <fcntl.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>

#include "common/fd.h"
#include "kiv/platform.h"

static_assert(FAT_IOCTL_GET_ATTRIBUTES == 0x80047210);
static_assert(KIV_FAT_HIDDEN == ATTR_HIDDEN && KIV_FAT_SYSTEM == ATTR_SYS);

int32_t kiv_fs_get_fat_attribute(const char *path, uint32_t *attributes) {
    const kiv::unique_fd file(::open(path, O_RDONLY));
    *attributes = 0;
    if (file.get() == -1)
        return errno;
    // Another file system refuses the request: such a file is neither hidden nor system.
    uint32_t found = 0;
    if (::ioctl(file.get(), FAT_IOCTL_GET_ATTRIBUTES, &found) != -1)
        *attributes = found & (KIV_FAT_HIDDEN | KIV_FAT_SYSTEM);
    return 0;
}

int kiv_usb_open(UART_infos *port, const char *device_name) {
    return sup_uart_Init(port, device_name, UART_SPEED_115200, UART_OPTION_RTS_CTS);
}

int kiv_usb_close(UART_infos *port) {
    return sup_uart_Stop_UART(port);
}

unsigned int kiv_usb_write(UART_infos *port, const void *buffer, unsigned int length) {
    sup_uart_Send(port, buffer, length);
    return length;
}

unsigned int kiv_usb_read(UART_infos *port, void *buffer, unsigned int length) {
    unsigned int count = length;
    sup_uart_Read(port, buffer, &count);
    return count;
}
