/*
 * CPU time of bulk transfers through the library beside the same through its floor, in turns within one run,
 * so that whatever else the machine does falls on both: bulk [ROUNDS [MEGABYTES]].
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "kiv/uart.h"
#include "straight.h"

enum { block = 4096 };
static char data[block];

static void must(int holds, const char *what) {
    if (!holds) {
        perror(what);
        exit(2);
    }
}

/* Seconds of CPU, user and system, of this process. */
static double cpu(void) {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/* A child that takes, or gives, total bytes at its end of the line. */
static pid_t start_peer(int fd, int gives, size_t total) {
    const pid_t child = fork();
    must(child >= 0, "fork");
    if (child > 0)
        return child;
    while (total > 0) {
        const size_t want = total < block ? total : block;
        const ssize_t count = gives ? write(fd, data, want) : read(fd, data, want);
        if (count <= 0)
            _exit(2);
        total -= (size_t)count;
    }
    _exit(0);
}

struct ends {
    int peer;
    UART_infos port;
    struct straight_tty *tty;
    struct straight_stream stream;
    sup_mutex_t lock;
    int socket; /* the floor of a Unix port, which takes no lock; -1 for the others */
};

static void open_tty(struct ends *ends, int use_library) {
    ends->peer = posix_openpt(O_RDWR | O_NOCTTY);
    must(ends->peer >= 0 && grantpt(ends->peer) == 0 && unlockpt(ends->peer) == 0, "pty");
    const char *path = ptsname(ends->peer);
    must((use_library ? sup_uart_Init(&ends->port, path, UART_SPEED_115200, 0)
                      : straight_tty_open(&ends->tty, path)) == 0,
         "open");
}

static void open_tcp(struct ends *ends, int use_library) {
    int listener;
    if (use_library) {
        must(sup_uart_Init(&ends->port, "tcp:0", 0, 0) == 0, "sup_uart_Init");
        listener = ends->port.fd_listen;
    } else {
        must(straight_stream_open(&listener, 0) == 0 && sup_mutex_init(&ends->lock, 0) == 0, "listen");
        ends->stream.lock = &ends->lock;
    }
    struct sockaddr_in address;
    socklen_t size = sizeof address;
    must(getsockname(listener, (struct sockaddr *)&address, &size) == 0, "getsockname");
    ends->peer = socket(AF_INET, SOCK_STREAM, 0);
    must(connect(ends->peer, (struct sockaddr *)&address, sizeof address) == 0, "connect");
    if (use_library)
        must(sup_uart_Send(&ends->port, data, 1) == 0 && read(ends->peer, data, 1) == 1, "first byte");
    else {
        must((ends->stream.fd = accept(listener, NULL, NULL)) >= 0, "accept");
        close(listener);
    }
}

static void open_unix(struct ends *ends, int use_library) {
    const struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "\0kiv-bulk"};
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    must(bind(listener, (const struct sockaddr *)&address, sizeof address) == 0 && listen(listener, 1) == 0,
         "listen");
    if (use_library) {
        must(sup_uart_Init(&ends->port, "unix:@kiv-bulk", 0, 0) == 0, "sup_uart_Init");
    } else {
        ends->socket = socket(AF_UNIX, SOCK_STREAM, 0);
        must(connect(ends->socket, (const struct sockaddr *)&address, sizeof address) == 0, "connect");
    }
    must((ends->peer = accept(listener, NULL, NULL)) >= 0, "accept");
    close(listener);
}

static void close_ends(struct ends *ends, int use_library) {
    close(ends->peer);
    if (use_library)
        sup_uart_close(&ends->port);
    else if (ends->tty != NULL)
        straight_tty_close(ends->tty);
    else if (ends->socket >= 0)
        close(ends->socket);
    else
        close(ends->stream.fd);
}

static int read_block(struct ends *ends, int use_library, unsigned int *length) {
    if (use_library)
        return sup_uart_Read_partial(&ends->port, data, length);
    if (ends->socket >= 0) {
        const ssize_t count = read(ends->socket, data, *length);
        *length = count > 0 ? (unsigned int)count : 0;
        return count <= 0;
    }
    return ends->tty != NULL ? straight_tty_read_partial(ends->tty, data, length)
                             : straight_stream_read_partial(&ends->stream, data, length);
}

static int send_block(struct ends *ends, int use_library, unsigned int length) {
    if (use_library)
        return sup_uart_Send(&ends->port, data, length);
    if (ends->socket >= 0)
        return straight_socket_send(ends->socket, data, length);
    return ends->tty != NULL ? straight_tty_send(ends->tty, data, length)
                             : straight_stream_send(&ends->stream, data, length);
}

static double transfer(void (*open_ends)(struct ends *, int), int use_library, int reads, size_t total) {
    struct ends ends;
    memset(&ends, 0, sizeof ends);
    ends.socket = -1;
    open_ends(&ends, use_library);
    const pid_t peer = start_peer(ends.peer, reads, total);
    const double before = cpu();
    while (total > 0) {
        unsigned int length = total < block ? (unsigned int)total : block;
        must((reads ? read_block(&ends, use_library, &length) : send_block(&ends, use_library, length)) == 0,
             "move");
        total -= length;
    }
    const double spent = cpu() - before;
    int status;
    must(waitpid(peer, &status, 0) == peer && status == 0, "peer");
    close_ends(&ends, use_library);
    return spent;
}

static int by_value(const void *a, const void *b) {
    const double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

int main(int argc, char **argv) {
    static const struct {
        const char *name;
        void (*open_ends)(struct ends *, int);
        int reads;
        size_t scale; /* a pseudo-terminal is slower than a socket */
    } rows[] = {{"tty read", open_tty, 1, 1}, {"tty send", open_tty, 0, 1},   {"tcp read", open_tcp, 1, 8},
                {"tcp send", open_tcp, 0, 8}, {"unix read", open_unix, 1, 8}, {"unix send", open_unix, 0, 8}};
    const int rounds = argc > 1 ? atoi(argv[1]) : 15;
    const size_t megabytes = argc > 2 ? (size_t)atoi(argv[2]) : 16;
    must(rounds > 0 && rounds <= 1000 && megabytes > 0, "usage: bulk [ROUNDS [MEGABYTES]]");
    printf("%-10s %14s %14s %8s\n", "bulk", "library CPU s", "floor CPU s", "ratio");
    for (size_t row = 0; row < sizeof rows / sizeof rows[0]; ++row) {
        double ratio[1000], library = 0, floor = 0;
        for (int round = 0; round < rounds; ++round) {
            const size_t total = (megabytes * rows[row].scale) << 20;
            const double first = transfer(rows[row].open_ends, round & 1, rows[row].reads, total);
            const double second = transfer(rows[row].open_ends, !(round & 1), rows[row].reads, total);
            library += round & 1 ? first : second;
            floor += round & 1 ? second : first;
            ratio[round] = round & 1 ? first / second : second / first;
        }
        qsort(ratio, (size_t)rounds, sizeof ratio[0], by_value);
        printf("%-10s %14.3f %14.3f %8.3f\n", rows[row].name, library / rounds, floor / rounds,
               ratio[rounds / 2]);
    }
    return 0;
}
