#define _GNU_SOURCE
#include "straight.h"

#include <asm/termbits.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

int straight_tty_open(struct straight_tty **out, const char *path) {
    int fd = open(path, O_RDWR | O_NOCTTY);
    if (fd == -1)
        return errno;
    struct straight_tty *tty = calloc(1, sizeof *tty);
    int ends[2];
    if (tty == NULL || pipe(ends) == -1)
        goto failed;
    tty->waits[0].fd = fd;
    tty->waits[0].events = POLLIN;
    tty->waits[1].fd = ends[0];
    tty->waits[1].events = POLLIN;
    tty->cancel_write = ends[1];
    struct termios2 settings;
    if (ioctl(fd, TCGETS2, &settings) == -1)
        goto failed;
    settings.c_iflag &= ~(tcflag_t)(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    settings.c_oflag &= ~(tcflag_t)OPOST;
    settings.c_lflag &= ~(tcflag_t)(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    settings.c_cflag =
        (settings.c_cflag & ~(tcflag_t)(CSIZE | PARENB | CRTSCTS | CBAUD)) | CS8 | CLOCAL | B115200;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    if (ioctl(fd, TCSETS2, &settings) == -1)
        goto failed;
    *out = tty;
    return 0;
failed:
    free(tty);
    close(fd);
    return errno;
}

int straight_tty_close(struct straight_tty *tty) {
    close(tty->cancel_write);
    close(tty->waits[1].fd);
    int result = close(tty->waits[0].fd);
    free(tty);
    return result;
}

/* The loops that every kind of port has, around calls that are not the same. Both end up in one straight
 * function. */
#define STRAIGHT static inline __attribute__((always_inline))

typedef ssize_t reader(void *port, void *buffer, size_t length);
typedef ssize_t writer(void *port, const void *buffer, size_t length);

STRAIGHT int read_some(reader *call, void *port, void *buffer, unsigned int *length) {
    ssize_t count = call(port, buffer, *length);
    if (count <= 0)
        return count == 0 ? EIO : errno;
    *length = (unsigned int)count;
    return 0;
}

STRAIGHT int read_all(reader *call, void *port, void *buffer, unsigned int *length) {
    char *at = buffer;
    unsigned int remaining = *length;
    while (remaining > 0) {
        ssize_t count = call(port, at, remaining);
        if (count <= 0)
            return count == 0 ? EIO : errno;
        at += count;
        remaining -= (unsigned int)count;
    }
    return 0;
}

STRAIGHT int send_all(writer *call, void *port, const void *buffer, unsigned int length) {
    const char *at = buffer;
    while (length > 0) {
        ssize_t count = call(port, at, length);
        if (count <= 0)
            return count == 0 ? EIO : errno;
        at += count;
        length -= (unsigned int)count;
    }
    return 0;
}

STRAIGHT ssize_t poll_and_read(void *port, void *buffer, size_t length) {
    struct straight_tty *tty = port;
    if (poll(tty->waits, 2, -1) < 1)
        return -1;
    return read(tty->waits[0].fd, buffer, length);
}

STRAIGHT ssize_t write_to_tty(void *port, const void *buffer, size_t length) {
    struct straight_tty *tty = port;
    return write(tty->waits[0].fd, buffer, length);
}

int straight_tty_read(struct straight_tty *tty, void *buffer, unsigned int *length) {
    return read_all(poll_and_read, tty, buffer, length);
}

int straight_tty_read_partial(struct straight_tty *tty, void *buffer, unsigned int *length) {
    return read_some(poll_and_read, tty, buffer, length);
}

int straight_tty_read_timed(struct straight_tty *tty, void *buffer, unsigned int *length,
                            unsigned int timeout_us) {
    char *at = buffer;
    unsigned int remaining = *length;
    ssize_t count = poll_and_read(tty, at, 1);
    while (count > 0) {
        at += count;
        remaining -= (unsigned int)count;
        if (remaining == 0)
            break;
        struct timeval limit = {.tv_sec = 0, .tv_usec = (suseconds_t)timeout_us};
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(tty->waits[0].fd, &readable);
        int ready = select(tty->waits[0].fd + 1, &readable, NULL, NULL, &limit);
        if (ready == -1)
            return errno;
        if (ready == 0)
            break;
        count = poll_and_read(tty, at, remaining);
    }
    if (count <= 0)
        return count == 0 ? EIO : errno;
    *length -= remaining;
    return 0;
}

int straight_tty_send(struct straight_tty *tty, const void *buffer, unsigned int length) {
    return send_all(write_to_tty, tty, buffer, length);
}

int straight_tty_sendv(struct straight_tty *tty, const struct iovec *iov, int iovcnt, unsigned int *sent) {
    *sent = 0;
    for (int i = 0; i < iovcnt; ++i) {
        int status = straight_tty_send(tty, iov[i].iov_base, (unsigned int)iov[i].iov_len);
        *sent += (unsigned int)iov[i].iov_len;
        if (status != 0)
            return status;
    }
    return 0;
}

int straight_stream_open(int *listener, int port_number) {
    const struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port_number)};
    const int one = 1;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1)
        return errno;
    static pthread_mutex_t first_use = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&first_use); /* somebody has to make the port's lock, once */
    pthread_mutex_unlock(&first_use);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == -1 ||
        bind(fd, (const struct sockaddr *)&address, sizeof address) == -1 || listen(fd, 1) == -1) {
        close(fd);
        return errno;
    }
    *listener = fd;
    return 0;
}

STRAIGHT int locked_fd(struct straight_stream *stream) {
    sup_mutex_lock(stream->lock);
    int fd = stream->fd;
    sup_mutex_unlock(stream->lock);
    return fd;
}

STRAIGHT ssize_t read_stream(void *port, void *buffer, size_t length) {
    return read(locked_fd(port), buffer, length);
}

STRAIGHT ssize_t send_to_stream(void *port, const void *buffer, size_t length) {
    return send(locked_fd(port), buffer, length, MSG_NOSIGNAL);
}

STRAIGHT ssize_t write_to_stream(void *port, const void *buffer, size_t length) {
    return write(locked_fd(port), buffer, length);
}

int straight_stream_read(struct straight_stream *stream, void *buffer, unsigned int *length) {
    return read_all(read_stream, stream, buffer, length);
}

int straight_stream_send(struct straight_stream *stream, const void *buffer, unsigned int length) {
    return send_all(send_to_stream, stream, buffer, length);
}

int straight_stream_write(struct straight_stream *stream, const void *buffer, unsigned int length) {
    return send_all(write_to_stream, stream, buffer, length);
}

STRAIGHT ssize_t read_socket(void *port, void *buffer, size_t length) {
    return read(*(int *)port, buffer, length);
}

STRAIGHT ssize_t send_to_socket(void *port, const void *buffer, size_t length) {
    return send(*(int *)port, buffer, length, MSG_NOSIGNAL);
}

int straight_socket_read(int fd, void *buffer, unsigned int *length) {
    return read_all(read_socket, &fd, buffer, length);
}

int straight_socket_send(int fd, const void *buffer, unsigned int length) {
    return send_all(send_to_socket, &fd, buffer, length);
}
