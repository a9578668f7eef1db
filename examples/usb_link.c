/*
 * Sends one line over a USB link and prints the line that comes back.
 *
 *     usb_link DEVICE TEXT [SECONDS]
 *
 * DEVICE   for example /dev/ttyUSB0; on the simulated board /dev/ttyKIV0
 * SECONDS  the longest silence before it gives up: 5
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/platform.h"

/* A read waits without limit. This waits before it: whether something comes in time. */
static int comes_within(int fd, int seconds) {
    struct pollfd entry = {.fd = fd, .events = POLLIN};
    return poll(&entry, 1, seconds * 1000) > 0;
}

/* A write reports nothing, so the answer is the only proof that something has arrived. */
static void send_line(UART_infos *link, const char *text) {
    kiv_usb_write(link, text, (unsigned int)strlen(text));
    kiv_usb_write(link, "\n", 1);
}

/* kiv_usb_read waits for as many bytes as it is asked for: a line of unknown length comes one by one. Returns
 * what went wrong, or null. */
static const char *print_line(UART_infos *link, int seconds) {
    char byte = '\0';
    while (byte != '\n') {
        if (!comes_within(link->fd, seconds))
            return "no line has come back in time";
        if (kiv_usb_read(link, &byte, 1) != 1)
            return "the link has ended";
        putchar(byte);
    }
    return NULL;
}

int main(int argc, char **argv) {
    UART_infos link;
    const char *trouble;
    int status;
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: usb_link DEVICE TEXT [SECONDS]\n");
        return 2;
    }
    status = kiv_usb_open(&link, argv[1]);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
        return 1;
    }
    send_line(&link, argv[2]);
    trouble = print_line(&link, argc > 3 ? (int)strtol(argv[3], NULL, 10) : 5);
    if (trouble != NULL) {
        fprintf(stderr, "%s: %s\n", argv[1], trouble);
        sup_uart_Flush(&link, UART_FLUSH_OUTPUT); /* flow control may hold it for ever, and a stop waits */
    }
    kiv_usb_close(&link);  /* stops the link: drops the modem lines */
    sup_uart_close(&link); /* releases it */
    return trouble != NULL;
}
