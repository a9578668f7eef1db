/* This library. */
#include "board.h"
#include "kiv/gpio.h"
#include "kiv/i2c.h"

static kiv_i2c_device device;
static uint8_t data[clock_registers + 1];

static void start_i2c(void) {
    must(kiv_i2c_open(&device, NULL, clock_chip) == 0, "kiv_i2c_open");
}

static uint8_t number;
static const kiv_i2c_message one_register[] = {{&number, 1, 0}, {data, 1, KIV_I2C_READ}};
static const kiv_i2c_message all_registers[] = {{&number, 1, 0}, {data, clock_registers, KIV_I2C_READ}};

static void read_register(void) {
    must(kiv_i2c_msg(&device, one_register, 2) == 0, "kiv_i2c_msg");
}

static void read_block(void) {
    must(kiv_i2c_msg(&device, all_registers, 2) == 0, "kiv_i2c_msg");
}

static void write_register(void) {
    must(kiv_i2c_tx(&device, data, 2) == 2, "kiv_i2c_tx");
}

static void write_block(void) {
    must(kiv_i2c_tx(&device, data, clock_registers + 1) == clock_registers + 1, "kiv_i2c_tx");
}

static void start_pins(void) {
    must(kiv_gpio_open() == 0, "kiv_gpio_open");
    must(kiv_gpio_config(pin, KIV_GPIO_OUTPUT_LOW) == 0, "kiv_gpio_config");
    must(kiv_gpio_output_set(pin) == 0, "kiv_gpio_output_set");
}

static void configure_pin(void) {
    must(kiv_gpio_config(pin, KIV_GPIO_OUTPUT_LOW) == 0, "kiv_gpio_config");
}

static void set_pin(void) {
    must(kiv_gpio_output_set(pin) == 0, "kiv_gpio_output_set");
}

static void get_pin(void) {
    must(kiv_gpio_read(pin) == 1, "kiv_gpio_read");
}

const struct board_task board_tasks[] = {
    {"i2c-read-register", start_i2c, read_register},
    {"i2c-read-block", start_i2c, read_block},
    {"i2c-write-register", start_i2c, write_register},
    {"i2c-write-block", start_i2c, write_block},
    {"gpio-configure", start_pins, configure_pin},
    {"gpio-set", start_pins, set_pin},
    {"gpio-get", start_pins, get_pin},
    {0},
};
