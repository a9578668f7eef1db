/*
 * Blinks a lamp.
 *
 *     gpio_blink [PIN [TIMES]]
 *
 * PIN    its pin: 3
 * TIMES  how often: 5
 *
 * Needs the device /dev/gpio, or the simulated board.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kiv/gpio.h"

static const struct timespec half_a_period = {0, 250000000};

static int complain(int pin, const char *what, const char *why) {
    fprintf(stderr, "pin %d: %s: %s\n", pin, what, why);
    return EXIT_FAILURE;
}

/* A negative status is no errno value. It means that kiv_gpio_open has not succeeded. */
static const char *reason_of(int status) {
    return status > 0 ? strerror(status) : "the pins are not open";
}

static int show(int pin, int high) {
    int level;
    const int status = high ? kiv_gpio_output_set(pin) : kiv_gpio_output_clear(pin);
    if (status != 0)
        return complain(pin, "driving", reason_of(status));
    level = kiv_gpio_read(pin);
    if (level < 0)
        return complain(pin, "reading", "the log tells why");
    printf("pin %d %s, reads %d\n", pin, high ? "high" : "low", level);
    nanosleep(&half_a_period, NULL);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv) {
    const int pin = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 3;
    const int times = argc > 2 ? (int)strtol(argv[2], NULL, 10) : 5;
    int status = kiv_gpio_open();
    int i;
    if (status != 0)
        return complain(pin, "/dev/gpio", reason_of(status));
    status = kiv_gpio_config(pin, KIV_GPIO_OUTPUT_LOW);
    if (status != 0)
        return complain(pin, "configuring", reason_of(status));
    for (i = 0; i < times; ++i)
        if (show(pin, 1) != EXIT_SUCCESS || show(pin, 0) != EXIT_SUCCESS)
            return EXIT_FAILURE;
    kiv_gpio_close();
    return EXIT_SUCCESS;
}
