/* libgpiod: a line is requested, used, and released. */
#include <gpiod.h>

#include "board.h"

static struct gpiod_line *line;

static void find_line(void) {
    struct gpiod_chip *const chip = gpiod_chip_open(CHIP);
    must(chip != NULL, "gpiod_chip_open");
    line = gpiod_chip_get_line(chip, pin);
    must(line != NULL, "gpiod_chip_get_line");
}

static void configure_pin(void) {
    must(gpiod_line_request_output(line, "bench", 0) == 0, "gpiod_line_request_output");
    gpiod_line_release(line);
}

static void start_line(void) {
    find_line();
    must(gpiod_line_request_output(line, "bench", 1) == 0, "gpiod_line_request_output");
}

static void set_pin(void) {
    must(gpiod_line_set_value(line, 1) == 0, "gpiod_line_set_value");
}

static void get_pin(void) {
    must(gpiod_line_get_value(line) == 1, "gpiod_line_get_value");
}

const struct board_task board_tasks[] = {
    {"gpio-configure", find_line, configure_pin},
    {"gpio-set", start_line, set_pin},
    {"gpio-get", start_line, get_pin},
    {0},
};
