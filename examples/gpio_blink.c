/*
 * Blinks a lamp.
 *
 *     gpio_blink [PIN [TIMES]]
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

static int complain(const char *what, int status) {
    /* A negative status is no errno value: the library has reported why. */
    fprintf(stderr, "%s: %s\n", what, status > 0 ? strerror(status) : "failed");
    return EXIT_FAILURE;
}

static int show(int pin, int high) {
    const int status = high ? kiv_gpio_output_set(pin) : kiv_gpio_output_clear(pin);
    if (status != 0)
        return complain("driving", status);
    printf("pin %d %s, reads %d\n", pin, high ? "high" : "low", kiv_gpio_read(pin));
    nanosleep(&half_a_period, NULL);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv) {
    const int pin = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 3;
    const int times = argc > 2 ? (int)strtol(argv[2], NULL, 10) : 5;
    int status = kiv_gpio_open();
    int i;
    if (status != 0)
        return complain("/dev/gpio", status);
    status = kiv_gpio_config(pin, KIV_GPIO_OUTPUT_LOW);
    if (status != 0)
        return complain("configuring", status);
    for (i = 0; i < times; ++i)
        if (show(pin, 1) != EXIT_SUCCESS || show(pin, 0) != EXIT_SUCCESS)
            return EXIT_FAILURE;
    kiv_gpio_close();
    return EXIT_SUCCESS;
}
