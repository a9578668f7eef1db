/*
 * Reads a DS1307 clock chip in one combined transfer, and writes a page of a 24C02 EEPROM and reads it back.
 *
 *     i2c_clock [page]
 *
 * page  0 to 31: its 8 bytes are OVERWRITTEN. Without it the EEPROM is left alone
 *
 * Both chips are on the first bus, /dev/i2c-0, at their usual addresses.
 */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/i2c.h"

enum { CLOCK_ADDRESS = 0x68, EEPROM_ADDRESS = 0x50, PAGE_SIZE = 8, PAGES = 32, MOST_POLLS = 1000 };

static unsigned from_bcd(unsigned bcd) {
    return bcd / 16 * 10 + bcd % 16;
}

/* Writes the number of the first register and reads from there on, with nobody in between. */
static int read_registers(kiv_i2c_device *device, uint8_t first, uint8_t *data, uint32_t length) {
    kiv_i2c_message messages[2];
    messages[0].buf = &first;
    messages[0].len = 1;
    messages[0].flags = 0;
    messages[1].buf = data;
    messages[1].len = length;
    messages[1].flags = KIV_I2C_READ;
    return kiv_i2c_msg(device, messages, 2);
}

static int print_time(kiv_i2c_device *clock) {
    uint8_t r[7]; /* seconds, minutes, hours, day of the week, day, month, year */
    const int status = read_registers(clock, 0, r, sizeof r);
    if (status == 0)
        printf("clock 20%02u-%02u-%02u %02u:%02u:%02u\n", from_bcd(r[6]), from_bcd(r[5]), from_bcd(r[4]),
               from_bcd(r[2] & 0x3fu), from_bcd(r[1]), from_bcd(r[0] & 0x7fu));
    return status;
}

static int write_page(kiv_i2c_device *eeprom, unsigned page) {
    const uint8_t offset = (uint8_t)(page * PAGE_SIZE);
    const uint8_t data[1 + PAGE_SIZE] = {offset, 'k', 'i', 'v', ' ', 'p', 'a', 'g', 'e'};
    uint8_t back[PAGE_SIZE];
    int polls = 0;
    int status;
    if (kiv_i2c_tx(eeprom, data, sizeof data) != (int32_t)sizeof data)
        return EIO;
    /* While it is busy with the page, the chip does not answer its address; a result of 0 says so. */
    while (kiv_i2c_tx(eeprom, &offset, 1) != 1)
        if (++polls == MOST_POLLS)
            return ETIMEDOUT;
    status = read_registers(eeprom, offset, back, sizeof back);
    if (status == 0 && memcmp(back, data + 1, sizeof back) != 0)
        status = EIO;
    if (status == 0)
        printf("page %u written and read back\n", page);
    return status;
}

/* Opens a slave, works on it and closes it. After a failed opening there is nothing to close: the record's
 * descriptor is 0 then, which is standard input. */
static int with_slave(uint32_t address, int (*work)(kiv_i2c_device *, unsigned), unsigned argument) {
    kiv_i2c_device device;
    int status = kiv_i2c_open(&device, NULL, address);
    if (status == 0) {
        status = work(&device, argument);
        kiv_i2c_close(&device);
    }
    if (status != 0)
        fprintf(stderr, "slave 0x%02x: %s\n", (unsigned)address, strerror(status));
    return status;
}

static int show_clock(kiv_i2c_device *clock, unsigned unused) {
    (void)unused;
    return print_time(clock);
}

int main(int argc, char **argv) {
    const unsigned long page = argc > 1 ? strtoul(argv[1], NULL, 10) : 0;
    if (page >= PAGES) {
        fprintf(stderr, "usage: i2c_clock [page 0 to %d]\n", PAGES - 1);
        return 2;
    }
    if (with_slave(CLOCK_ADDRESS, show_clock, 0) != 0)
        return 1;
    return argc > 1 && with_slave(EEPROM_ADDRESS, write_page, (unsigned)page) != 0;
}
