/* Ttys and TCP ports. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cases.h"
#include "kiv/uart.h"
#include "straight.h"

enum { block = 64 };
static char data[block];
static UART_infos port;
static struct straight_tty *tty;
static struct straight_stream stream;
static sup_mutex_t stream_lock;
static int peer = -1;
static const char *path;

static void start_tty(int use_library) {
    peer = posix_openpt(O_RDWR | O_NOCTTY);
    must(peer >= 0 && grantpt(peer) == 0 && unlockpt(peer) == 0, "pty");
    path = ptsname(peer);
    if (use_library)
        must(sup_uart_Init(&port, path, UART_SPEED_115200, 0) == 0, "sup_uart_Init");
    else
        must(straight_tty_open(&tty, path) == 0, "straight_tty_open");
}

static void start_stream(int use_library) {
    int listener = -1;
    if (use_library) {
        must(sup_uart_Init(&port, "tcp:0", 0, 0) == 0, "sup_uart_Init");
        listener = port.fd_listen;
    } else {
        must(straight_stream_open(&listener, 0) == 0, "straight_stream_open");
        must(sup_mutex_init(&stream_lock, 0) == 0, "sup_mutex_init");
        stream.lock = &stream_lock;
    }
    struct sockaddr_in address;
    socklen_t size = sizeof address;
    must(getsockname(listener, (struct sockaddr *)&address, &size) == 0, "getsockname");
    peer = socket(AF_INET, SOCK_STREAM, 0);
    must(connect(peer, (struct sockaddr *)&address, sizeof address) == 0, "connect");
    if (use_library) /* the first send takes the client in */
        must(sup_uart_Send(&port, data, 1) == 0 && read(peer, data, 1) == 1, "sup_uart_Send");
    else
        must((stream.fd = accept(listener, NULL, NULL)) >= 0, "accept");
}

static void feed(void) {
    must(write(peer, data, block) == block, "feed");
}

static void drain(size_t length) {
    char sink[4 * block];
    while (length > 0) {
        ssize_t count = read(peer, sink, sizeof sink);
        must(count > 0, "drain");
        length -= (size_t)count;
    }
}

static void tty_read(int use_library) {
    unsigned int length = block;
    feed();
    must((use_library ? sup_uart_Read(&port, data, &length) : straight_tty_read(tty, data, &length)) == 0,
         "read");
}

static void tty_read_partial(int use_library) {
    unsigned int length = block;
    feed();
    must((use_library ? sup_uart_Read_partial(&port, data, &length)
                      : straight_tty_read_partial(tty, data, &length)) == 0,
         "read");
}

static void tty_read_timed(int use_library) {
    unsigned int length = block;
    feed();
    must((use_library ? sup_uart_Read_partial_timeout(&port, data, &length, 1000)
                      : straight_tty_read_timed(tty, data, &length, 1000)) == 0,
         "read");
}

static void tty_send(int use_library) {
    must((use_library ? sup_uart_Send(&port, data, block) : straight_tty_send(tty, data, block)) == 0,
         "send");
    drain(block);
}

static void tty_sendv(int use_library) {
    const struct iovec pieces[] = {{data, block}, {data, block}, {data, block}};
    unsigned int sent;
    must((use_library ? sup_uart_Sendv(&port, pieces, 3, &sent)
                      : straight_tty_sendv(tty, pieces, 3, &sent)) == 0,
         "send");
    drain(3 * (size_t)block);
}

static void tty_open_close(int use_library) {
    if (use_library) {
        UART_infos another;
        must(sup_uart_Init(&another, path, UART_SPEED_115200, 0) == 0 && sup_uart_close(&another) == 0,
             "open");
    } else {
        struct straight_tty *another;
        must(straight_tty_open(&another, path) == 0 && straight_tty_close(another) == 0, "open");
    }
}

static void tcp_read(int use_library) {
    unsigned int length = block;
    feed();
    must((use_library ? sup_uart_Read(&port, data, &length) : straight_stream_read(&stream, data, &length)) ==
             0,
         "read");
}

static void tcp_send(int use_library) {
    must((use_library ? sup_uart_Send(&port, data, block) : straight_stream_send(&stream, data, block)) == 0,
         "send");
    drain(block);
}

static void tcp_open_close(int use_library) {
    if (use_library) {
        UART_infos another;
        must(sup_uart_Init(&another, "tcp:0", 0, 0) == 0 && sup_uart_close(&another) == 0, "open");
    } else {
        int listener;
        must(straight_stream_open(&listener, (int)strtol("0", NULL, 10)) == 0 && close(listener) == 0,
             "open");
    }
}

const struct bench_case serial_cases[] = {
    {"tty-read", start_tty, tty_read, 12},
    {"tty-read-partial", start_tty, tty_read_partial, 16},
    {"tty-read-timed", start_tty, tty_read_timed, 16},
    {"tty-send", start_tty, tty_send, 14},
    {"tty-sendv-3", start_tty, tty_sendv, 50},
    {"tty-open-close", start_tty, tty_open_close, 40},
    {"tcp-read", start_stream, tcp_read, 26},
    {"tcp-send", start_stream, tcp_send, 20},
    {"tcp-open-close", start_stream, tcp_open_close, 40},
    {0},
};
