/*
 * Sends one line over a USB link and prints the line that comes back.
 *
 *     usb_link device text
 *
 * device  for example /dev/ttyUSB0; on the simulated board /dev/ttyKIV0
 */
#include <stdio.h>
#include <string.h>

#include "kiv/platform.h"

/* A write reports nothing, so the answer is the only proof that something has arrived. */
static void send_line(UART_infos *link, const char *text) {
    kiv_usb_write(link, text, (unsigned int)strlen(text));
    kiv_usb_write(link, "\n", 1);
}

/* kiv_usb_read waits for as many bytes as it is asked for: a line of unknown length comes one by one. */
static int print_line(UART_infos *link) {
    char byte;
    while (kiv_usb_read(link, &byte, 1) == 1) {
        putchar(byte);
        if (byte == '\n')
            return 0;
    }
    return 1; /* the link has ended */
}

int main(int argc, char **argv) {
    UART_infos link;
    int failed;
    int status;
    if (argc != 3) {
        fprintf(stderr, "usage: usb_link device text\n");
        return 2;
    }
    status = kiv_usb_open(&link, argv[1]);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(status));
        return 1;
    }
    send_line(&link, argv[2]);
    failed = print_line(&link);
    kiv_usb_close(&link);  /* stops the link: drops the modem lines */
    sup_uart_close(&link); /* releases it */
    return failed;
}
