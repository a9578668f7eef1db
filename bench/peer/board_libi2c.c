/* The library of the i2c-tools: SMBus commands on a descriptor that the program opens and binds. */
#include <fcntl.h>
#include <i2c/smbus.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>

#include "board.h"

static int bus;
static __u8 data[clock_registers];

static void start_i2c(void) {
    bus = open("/dev/i2c-0", O_RDWR);
    must(bus >= 0 && ioctl(bus, I2C_SLAVE, clock_chip) == 0, "/dev/i2c-0");
}

static void read_register(void) {
    must(i2c_smbus_read_byte_data(bus, 0) >= 0, "i2c_smbus_read_byte_data");
}

static void read_block(void) {
    must(i2c_smbus_read_i2c_block_data(bus, 0, clock_registers, data) == clock_registers,
         "i2c_smbus_read_i2c_block_data");
}

static void write_register(void) {
    must(i2c_smbus_write_byte_data(bus, 0, 0) == 0, "i2c_smbus_write_byte_data");
}

static void write_block(void) {
    must(i2c_smbus_write_i2c_block_data(bus, 0, clock_registers, data) == 0,
         "i2c_smbus_write_i2c_block_data");
}

const struct board_task board_tasks[] = {
    {"i2c-read-register", start_i2c, read_register},
    {"i2c-read-block", start_i2c, read_block},
    {"i2c-write-register", start_i2c, write_register},
    {"i2c-write-block", start_i2c, write_block},
    {0},
};
