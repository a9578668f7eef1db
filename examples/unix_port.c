/*
 * A serial port that is a local service: sends a line to it and prints the line that comes back.
 *
 *     unix_port unix:/tmp/echo hello
 *
 * The other end can be any program that listens on a Unix stream socket:
 *
 *     socat UNIX-LISTEN:/tmp/echo,fork EXEC:cat
 *     socat ABSTRACT-LISTEN:echo,unix-tightsocklen=0,fork EXEC:cat      (and then unix:@echo)
 */
#include <stdio.h>
#include <string.h>

#include "kiv/uart.h"

/* Sends the text and a line end in one operation. */
static int send_line(UART_infos *port, char *text) {
    char end[] = "\n";
    struct iovec pieces[2];
    unsigned int sent;
    int count = 0;
    if (text[0] != '\0') { /* a piece must not be empty */
        pieces[count].iov_base = text;
        pieces[count++].iov_len = strlen(text);
    }
    pieces[count].iov_base = end;
    pieces[count++].iov_len = 1;
    return sup_uart_Sendv(port, pieces, count, &sent);
}

/* Reads and prints up to the end of a line. A read takes what has come, but at least one byte. */
static int print_line(UART_infos *port) {
    char piece[64];
    unsigned int length;
    do {
        int status;
        length = sizeof piece;
        status = sup_uart_Read_partial(port, piece, &length);
        if (status != 0)
            return status;
        fwrite(piece, 1, length, stdout);
    } while (piece[length - 1] != '\n');
    return 0;
}

int main(int argc, char **argv) {
    UART_infos port;
    int status;
    if (argc != 3) {
        fprintf(stderr, "usage: %s unix:NAME TEXT\n", argv[0]);
        return 2;
    }
    status = sup_uart_Init(&port, argv[1], 0, 0);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(status));
        return 1;
    }
    /* A service that is not there is no error: the line would be dropped, and the read would wait for it. */
    status = send_line(&port, argv[2]);
    if (status == 0)
        status = print_line(&port);
    if (status != 0)
        fprintf(stderr, "%s: %s\n", argv[1], strerror(status));
    return sup_uart_close(&port) != 0 || status != 0;
}
