/*
 * Two ports in one thread: passes bytes between a tty and whoever connects to a TCP port.
 *
 *     event_loop /dev/ttyS0 tcp:5000        and a client: socat -,rawer tcp:localhost:5000
 *
 * It ends at SIGINT, at SIGTERM, or when the tty goes away. Its writes wait until the port takes the bytes,
 * but no read waits:
 *
 *   - signals are let in only while it waits: one that interrupts a read or a write ends the connection
 *   - a client's end is looked for before a read, which would wait for the next client
 *   - a client is taken by a write, which does not wait for him to say something
 */
#define _GNU_SOURCE /* ppoll */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "kiv/uart.h"

static volatile sig_atomic_t ended;

static void end(int number) {
    (void)number;
    ended = 1;
}

static int pass(UART_infos *from, UART_infos *to) {
    char bytes[512];
    unsigned int length = sizeof bytes;
    const int status = sup_uart_Read_partial(from, bytes, &length);
    return status == 0 ? sup_uart_Send(to, bytes, length) : status;
}

/* A readable connection that has nothing to read has ended; so has one whose client only stopped sending. */
static int has_ended(const UART_infos *port) {
    char byte;
    const ssize_t count = recv(port->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count == -1 && errno != EAGAIN);
}

static int serve(UART_infos *net, UART_infos *tty) {
    if (net->fd < 0)
        return sup_uart_Send(net, "connected\r\n", 11);
    if (!has_ended(net))
        return pass(net, tty);
    shutdown(net->fd, SHUT_RDWR); /* a write notices that, and makes the port free; its byte is dropped */
    return sup_uart_Send(net, "", 1);
}

static int run(UART_infos *tty, UART_infos *net, const sigset_t *while_waiting) {
    int status = 0;
    while (status == 0 && !ended) {
        struct pollfd waits[2] = {{tty->fd, POLLIN, 0}, {net->fd, POLLIN, 0}};
        if (net->fd < 0)
            waits[1].fd = net->fd_listen;
        if (ppoll(waits, 2, NULL, while_waiting) == -1 && errno != EINTR)
            return errno;
        if (waits[1].revents != 0) /* first, since a write to the client may change what fd is */
            status = serve(net, tty);
        if (status == 0 && waits[0].revents != 0)
            status = pass(tty, net);
    }
    return status;
}

int main(int argc, char **argv) {
    const struct sigaction action = {.sa_handler = end};
    sigset_t endings, before;
    UART_infos tty, net;
    int status;
    if (argc != 3) {
        fprintf(stderr, "usage: event_loop DEVICE tcp:PORT\n");
        return 2;
    }
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    sigprocmask(SIG_BLOCK, &endings, &before);
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    status = sup_uart_Init(&tty, argv[1], UART_SPEED_115200, 0);
    if (status == 0) {
        status = sup_uart_Init(&net, argv[2], 0, 0);
        if (status == 0) {
            puts("ready");
            fflush(stdout);
            status = run(&tty, &net, &before);
            sup_uart_close(&net);
        }
        sup_uart_close(&tty);
    }
    if (status != 0)
        fprintf(stderr, "event_loop %s %s: %s\n", argv[1], argv[2], strerror(abs(status)));
    return status != 0;
}
