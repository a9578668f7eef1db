/*
 * A serial port that is a local service: sends a line to it and prints the line that comes back.
 *
 *     unix_port unix:/tmp/echo hello [SECONDS]
 *
 * SECONDS  the longest silence before it gives up: 5
 *
 * The other end can be any program that listens on a Unix stream socket:
 *
 *     socat UNIX-LISTEN:/tmp/echo,fork EXEC:cat
 *     socat ABSTRACT-LISTEN:echo,unix-tightsocklen=0,fork EXEC:cat      (and then unix:@echo)
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "kiv/uart.h"

/* A read waits without limit. This waits before it: whether something comes in time. A service that leaves
 * makes the port readable, too, but then there is nothing to read. */
static int comes_within(int fd, int seconds) {
    struct pollfd entry = {.fd = fd, .events = POLLIN};
    char byte;
    return poll(&entry, 1, seconds * 1000) > 0 && recv(fd, &byte, 1, MSG_PEEK) == 1;
}

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
static const char *print_line(UART_infos *port, int seconds) {
    char piece[64];
    unsigned int length;
    do {
        int status;
        if (!comes_within(port->fd, seconds))
            return "the service has not answered with a line in time, or has left";
        length = sizeof piece;
        status = sup_uart_Read_partial(port, piece, &length);
        if (status != 0)
            return strerror(status);
        fwrite(piece, 1, length, stdout);
    } while (piece[length - 1] != '\n');
    return NULL;
}

/* Returns what went wrong, or null. A line for a service that is not there is dropped, and that is no error:
 * but the port has no descriptor then. */
static const char *ask(UART_infos *port, char *text, int seconds) {
    const int status = send_line(port, text);
    if (status != 0)
        return strerror(status);
    if (port->fd < 0)
        return "no service listens there";
    return print_line(port, seconds);
}

int main(int argc, char **argv) {
    UART_infos port;
    const char *trouble;
    int status;
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: unix_port unix:NAME TEXT [SECONDS]\n");
        return 2;
    }
    status = sup_uart_Init(&port, argv[1], 0, 0);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
        return 1;
    }
    trouble = ask(&port, argv[2], argc > 3 ? (int)strtol(argv[3], NULL, 10) : 5);
    if (trouble != NULL)
        fprintf(stderr, "%s: %s\n", argv[1], trouble);
    return sup_uart_close(&port) != 0 || trouble != NULL;
}
