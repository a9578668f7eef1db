/* Asks the simulated board's EEPROM for a byte. Only the C library's names are used. */
#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

int main(void) {
    enum { set_address = 0x0703, eeprom = 0x50 };
    const int bus = open("/dev/i2c-0", O_RDWR);
    unsigned char byte = 0;
    if (bus == -1 || ioctl(bus, set_address, eeprom) == -1 || read(bus, &byte, 1) != 1) {
        perror("the simulated EEPROM");
        return 1;
    }
    return close(bus);
}
