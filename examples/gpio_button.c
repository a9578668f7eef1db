/*
 * Waits until a button is pressed.
 *
 *     gpio_button [BUTTON [SECONDS [OUTPUT]]]
 *
 * BUTTON   the pin of the button: 4
 * SECONDS  how long to wait for it: 30
 * OUTPUT   a pin that is wired to BUTTON and presses it; without it you do
 *
 * Needs the device /dev/gpio, or the simulated board, whose wires are in the environment:
 * KIV_SIM_WIRES="3=4".
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kiv/gpio.h"

/* The device's own number for rising edges, here that of the simulated board. */
enum { RISING_EDGE = 1 };

static volatile sig_atomic_t is_late;

static void set_late(int number) {
    (void)number;
    is_late = 1;
    alarm(1); /* again, should this one have come just before the wait */
}

/* A wait for an interrupt has no limit, but any signal ends it: so an alarm is its limit. */
static int wait_for_button(const kiv_gpio_irq_device *button, unsigned int seconds) {
    const struct sigaction action = {.sa_handler = set_late};
    int status;
    sigaction(SIGALRM, &action, NULL);
    alarm(seconds);
    do
        status = kiv_gpio_irq_wait(button);
    while (status == EINTR && !is_late);
    alarm(0);
    return status;
}

/* The interrupt is open before anybody waits: the edge is kept. */
static int press(int output) {
    const int status = kiv_gpio_config(output, KIV_GPIO_OUTPUT_LOW);
    return status == 0 ? kiv_gpio_output_set(output) : status;
}

static int complain(int pin, const char *trouble) {
    fprintf(stderr, "pin %d: %s\n", pin, trouble);
    return EXIT_FAILURE;
}

int main(int argc, char **argv) {
    kiv_gpio_irq_device button = {-1, -1};
    const int pin = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 4;
    const unsigned int seconds = argc > 2 ? (unsigned int)strtoul(argv[2], NULL, 10) : 30;
    int level;
    int status = kiv_gpio_open();
    if (status == 0)
        status = kiv_gpio_config(pin, KIV_GPIO_INPUT);
    if (status == 0)
        status = kiv_gpio_irq_open(&button, pin, RISING_EDGE);
    if (status == 0 && argc > 3)
        status = press((int)strtol(argv[3], NULL, 10));
    if (status == 0) {
        fprintf(stderr, "waiting for pin %d, %u s at most\n", pin, seconds);
        status = wait_for_button(&button, seconds);
    }
    if (button.fd >= 0) /* also a refused interrupt leaves its descriptor open */
        kiv_gpio_irq_close(&button);
    if (status == EINTR)
        return complain(pin, "nobody has pressed it in time");
    if (status != 0)
        return complain(pin, strerror(status));
    puts("pressed");
    level = kiv_gpio_read(pin);
    if (level < 0)
        return complain(pin, "it cannot be read");
    printf("pin %d reads %d\n", pin, level);
    return EXIT_SUCCESS;
}
