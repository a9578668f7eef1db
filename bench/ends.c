#define _GNU_SOURCE
#include "ends.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kiv/transports.h"

void give_up(const char *what) {
    perror(what);
    exit(2);
}

void open_tty(struct ends *ends, int use_library) {
    memset(ends, 0, sizeof *ends);
    ends->peer = posix_openpt(O_RDWR | O_NOCTTY);
    must(ends->peer >= 0 && grantpt(ends->peer) == 0 && unlockpt(ends->peer) == 0, "pty");
    ends->path = ptsname(ends->peer);
    must((use_library ? sup_uart_Init(&ends->port, ends->path, UART_SPEED_115200, 0)
                      : straight_tty_open(&ends->tty, ends->path)) == 0,
         "open");
}

void open_tcp(struct ends *ends, int use_library) {
    memset(ends, 0, sizeof *ends);
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
    if (!use_library)
        must((ends->stream.fd = accept(listener, NULL, NULL)) >= 0 && close(listener) == 0, "accept");
    /* The library's first send takes the client in. The straight function sends a byte, too: a connection
     * that has had one goes on in another way. */
    char byte = 0;
    must((use_library ? sup_uart_Send(&ends->port, &byte, 1)
                      : straight_stream_send(&ends->stream, &byte, 1)) == 0 &&
             read(ends->peer, &byte, 1) == 1,
         "first byte");
}

static int open_unix_port(UART_infos *port, const char *service) {
    char name[64];
    snprintf(name, sizeof name, "unix:%s", service);
    return sup_uart_Init(port, name, 0, 0);
}

static int open_gps_port(UART_infos *port, const char *service) {
    sup_uart_Prepare(port, NULL);
    return sup_uart_Opened(port, pos_btgpsdemux_open(port, service));
}

/* A service that listens under a name of this process, and its client. */
static void connect_to_service(struct ends *ends, int (*open_port)(UART_infos *, const char *)) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    char service[32];
    memset(ends, 0, sizeof *ends);
    snprintf(service, sizeof service, "@kiv-bench-%d", (int)getpid());
    snprintf(address.sun_path, sizeof address.sun_path, "%s", service);
    address.sun_path[0] = '\0'; /* in the place of the @ */
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    must(bind(listener, (const struct sockaddr *)&address, sizeof address) == 0 && listen(listener, 1) == 0,
         "listen");
    if (open_port != NULL) {
        must(open_port(&ends->port, service) == 0, "open");
    } else {
        ends->stream.fd = socket(AF_UNIX, SOCK_STREAM, 0);
        must(connect(ends->stream.fd, (const struct sockaddr *)&address, sizeof address) == 0, "connect");
    }
    must((ends->peer = accept(listener, NULL, NULL)) >= 0 && close(listener) == 0, "accept");
}

void open_unix(struct ends *ends, int use_library) {
    connect_to_service(ends, use_library ? open_unix_port : NULL);
}

void open_gps(struct ends *ends, int use_library) {
    connect_to_service(ends, use_library ? open_gps_port : NULL);
    must(sup_mutex_init(&ends->lock, 0) == 0, "sup_mutex_init");
    ends->stream.lock = &ends->lock;
}

void close_ends(struct ends *ends, int use_library) {
    close(ends->peer);
    if (use_library)
        sup_uart_close(&ends->port);
    else if (ends->tty != NULL)
        straight_tty_close(ends->tty);
    else
        close(ends->stream.fd);
}
