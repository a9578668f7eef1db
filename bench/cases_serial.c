/* Ports on ttys, TCP, Unix sockets and the GPS demultiplexer. */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cases.h"

enum { block = 64 };
static char data[3 * block];
static struct ends ends;
static unsigned int length;
static const struct iovec pieces[] = {{data, block}, {data, block}, {data, block}};

/* A tty's input is there before the rounds begin: as many blocks as a pseudo-terminal takes while nobody
 * reads. What is sent stays in it. So bench/report may ask for up to 40 rounds. */
static void start_tty(int use_library, unsigned int size) {
    char input[4032];
    memset(input, 0, sizeof input);
    open_tty(&ends, use_library);
    must(write(ends.peer, input, size) == (ssize_t)size, "feed");
}

OPERATION(tty_read, length = block, sup_uart_Read(&ends.port, data, &length) == 0,
          straight_tty_read(ends.tty, data, &length) == 0, NOTHING)

OPERATION(tty_read_partial, length = block, sup_uart_Read_partial(&ends.port, data, &length) == 0,
          straight_tty_read_partial(ends.tty, data, &length) == 0, NOTHING)

OPERATION(tty_read_timed, length = block, sup_uart_Read_partial_timeout(&ends.port, data, &length, 1000) == 0,
          straight_tty_read_timed(ends.tty, data, &length, 1000) == 0, NOTHING)

OPERATION(tty_send, NOTHING, sup_uart_Send(&ends.port, data, block) == 0,
          straight_tty_send(ends.tty, data, block) == 0, NOTHING)

OPERATION(tty_sendv, NOTHING, sup_uart_Sendv(&ends.port, pieces, 3, &length) == 0,
          straight_tty_sendv(ends.tty, pieces, 3, &length) == 0, NOTHING)

static UART_infos another;
static struct straight_tty *another_tty;
static int another_listener;

OPERATION(tty_open_close, NOTHING,
          sup_uart_Init(&another, ends.path, UART_SPEED_115200, 0) == 0 && sup_uart_close(&another) == 0,
          straight_tty_open(&another_tty, ends.path) == 0 && straight_tty_close(another_tty) == 0, NOTHING)

OPERATION(tcp_open_close, NOTHING,
          sup_uart_Init(&another, "tcp:0", 0, 0) == 0 && sup_uart_close(&another) == 0,
          straight_stream_open(&another_listener, (int)strtol("0", NULL, 10)) == 0 &&
              close(another_listener) == 0,
          NOTHING)

/* Sockets: the peer's call is part of each round. */

static void start_tcp(int use_library, unsigned int size) {
    (void)size;
    open_tcp(&ends, use_library);
}

static void start_unix(int use_library, unsigned int size) {
    (void)size;
    open_unix(&ends, use_library);
}

static void start_gps(int use_library, unsigned int size) {
    (void)size;
    open_gps(&ends, use_library);
}

#define FEED length = block, must(write(ends.peer, data, block) == block, "feed")
#define DRAIN must(read(ends.peer, data, block) == block, "drain")

OPERATION(stream_read, FEED, sup_uart_Read(&ends.port, data, &length) == 0,
          straight_stream_read(&ends.stream, data, &length) == 0, NOTHING)

OPERATION(stream_send, NOTHING, sup_uart_Send(&ends.port, data, block) == 0,
          straight_stream_send(&ends.stream, data, block) == 0, DRAIN)

OPERATION(gps_send, NOTHING, sup_uart_Send(&ends.port, data, block) == 0,
          straight_stream_write(&ends.stream, data, block) == 0, DRAIN)

OPERATION(socket_read, FEED, sup_uart_Read(&ends.port, data, &length) == 0,
          straight_socket_read(ends.stream.fd, data, &length) == 0, NOTHING)

OPERATION(socket_send, NOTHING, sup_uart_Send(&ends.port, data, block) == 0,
          straight_socket_send(ends.stream.fd, data, block) == 0, DRAIN)

const struct bench_case serial_cases[] = {
    {"tty-read", "tty: `sup_uart_Read`", start_tty, tty_read, 4032, 1, {110, 20}},
    {"tty-read-partial", "tty: `sup_uart_Read_partial`", start_tty, tty_read_partial, 4032, 1, {107, 20}},
    {"tty-read-timed", "tty: `sup_uart_Read_partial_timeout`", start_tty, tty_read_timed, 4032, 1, {459, 40}},
    {"tty-send", "tty: `sup_uart_Send`", start_tty, tty_send, 0, 1, {79, 12}},
    {"tty-sendv-3", "tty: `sup_uart_Sendv`, three pieces", start_tty, tty_sendv, 0, 1, {217, 60}},
    {"tty-open-close", "tty: opening and closing", start_tty, tty_open_close, 0, 1, {0, 240}},
    {"tcp-read", "TCP: `sup_uart_Read`", start_tcp, stream_read, 0, 1, {238, 50}},
    {"tcp-send", "TCP: `sup_uart_Send`", start_tcp, stream_send, 0, 1, {239, 32}},
    {"tcp-open-close", "TCP: opening and closing", start_tcp, tcp_open_close, 0, 1, {0, 240}},
    {"unix-read", "Unix socket: `sup_uart_Read`", start_unix, socket_read, 0, 1, {115, 50}},
    {"unix-send", "Unix socket: `sup_uart_Send`", start_unix, socket_send, 0, 1, {120, 32}},
    {"gps-read", "GPS demultiplexer: `sup_uart_Read`", start_gps, stream_read, 0, 1, {0, 50}},
    {"gps-send", "GPS demultiplexer: `sup_uart_Send`", start_gps, gps_send, 0, 1, {0, 32}},
    {0},
};
