/*
 * The floor under the benchmarks: straight C functions that make the same system calls, and take the same
 * locks, as the library does for the same work, and nothing else. Results are as the library's.
 */
#ifndef KIV_BENCH_STRAIGHT_H
#define KIV_BENCH_STRAIGHT_H

#include <poll.h>
#include <sys/uio.h>

#include "kiv/core.h"

#ifdef __cplusplus
extern "C" {
#endif

struct straight_tty {
    struct pollfd waits[2];
    int cancel_write;
};

int straight_tty_open(struct straight_tty **tty, const char *path);
int straight_tty_close(struct straight_tty *tty);
int straight_tty_read(struct straight_tty *tty, void *buffer, unsigned int *length);
int straight_tty_read_partial(struct straight_tty *tty, void *buffer, unsigned int *length);
int straight_tty_read_timed(struct straight_tty *tty, void *buffer, unsigned int *length,
                            unsigned int timeout_us);
int straight_tty_send(struct straight_tty *tty, const void *buffer, unsigned int length);
int straight_tty_sendv(struct straight_tty *tty, const struct iovec *iov, int iovcnt, unsigned int *sent);

struct straight_stream {
    int fd;
    sup_mutex_t *lock; /* taken and released before each call, as a port does that may lose its peer */
};

int straight_stream_open(int *listener, int port_number);
int straight_stream_read(struct straight_stream *stream, void *buffer, unsigned int *length);
int straight_stream_send(struct straight_stream *stream, const void *buffer, unsigned int length);
int straight_stream_write(struct straight_stream *stream, const void *buffer, unsigned int length);

/* The same on a socket that is looked at without a lock. */
int straight_socket_read(int fd, void *buffer, unsigned int *length);
int straight_socket_send(int fd, const void *buffer, unsigned int length);

#ifdef __cplusplus
}
#endif

#endif
