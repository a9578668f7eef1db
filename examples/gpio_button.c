/*
 * Waits for a button in a thread of its own. An output that is wired to the button's pin presses it.
 *
 *     gpio_button [OUTPUT [BUTTON]]
 *
 * Needs the device /dev/gpio with a wire from OUTPUT to BUTTON; or the simulated board, whose wires are in
 * the environment: KIV_SIM_WIRES="3=4".
 */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/gpio.h"

/* The device's own number for rising edges, here that of the simulated board. */
enum { RISING_EDGE = 1 };

static int complain(const char *what, int status) {
    fprintf(stderr, "%s: %s\n", what, status > 0 ? strerror(status) : "failed");
    return EXIT_FAILURE;
}

/* Any signal of the process may end a wait: that is no reason to give up. */
static void *wait_for_button(void *argument) {
    const kiv_gpio_irq_device *button = argument;
    int status;
    do
        status = kiv_gpio_irq_wait(button);
    while (status == EINTR);
    if (status != 0)
        complain("waiting", status);
    else
        puts("pressed");
    return NULL;
}

/* The interrupt is open before the thread runs: an edge is kept, even when nobody waits for it yet. */
static int start(kiv_gpio_irq_device *button, int pin, pthread_t *waiter) {
    int status = kiv_gpio_irq_open(button, pin, RISING_EDGE);
    if (status == 0)
        status = pthread_create(waiter, NULL, wait_for_button, button);
    if (status != 0 && button->fd >= 0) /* also a refused interrupt leaves its descriptor open */
        kiv_gpio_irq_close(button);
    return status;
}

/* On failure the program ends, and the thread with it. */
static int press(int output, int button) {
    const int status = kiv_gpio_output_set(output);
    if (status != 0)
        return complain("driving", status);
    if (kiv_gpio_read(button) != 1)
        return complain("the wire", 0);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv) {
    static kiv_gpio_irq_device button = {-1, -1};
    const int output = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 3;
    const int pin = argc > 2 ? (int)strtol(argv[2], NULL, 10) : 4;
    pthread_t waiter;
    int status = kiv_gpio_open();
    if (status == 0)
        status = kiv_gpio_config(output, KIV_GPIO_OUTPUT_LOW);
    if (status == 0)
        status = kiv_gpio_config(pin, KIV_GPIO_INPUT);
    if (status == 0)
        status = start(&button, pin, &waiter);
    if (status != 0)
        return complain("setting up", status);
    if (press(output, pin) != EXIT_SUCCESS)
        return EXIT_FAILURE;
    pthread_join(waiter, NULL);
    printf("pin %d reads %d\n", pin, kiv_gpio_read(pin));
    kiv_gpio_irq_close(&button);
    return EXIT_SUCCESS;
}
