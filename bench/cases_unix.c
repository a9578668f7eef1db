/* Ports on Unix sockets and on the GPS demultiplexer. */
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cases.h"
#include "kiv/transports.h"
#include "straight.h"

enum { block = 64 };
static char data[block];
static const char name[] = "unix:@kiv-bench";
static UART_infos port;
static struct straight_stream stream;
static sup_mutex_t stream_lock;
static int peer = -1;

static void listen_and_open(int use_library, int (*open_port)(void)) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    memcpy(address.sun_path + 1, name + 6, sizeof name - 7);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    must(bind(listener, (struct sockaddr *)&address, sizeof address) == 0 && listen(listener, 1) == 0,
         "listen");
    if (use_library) {
        must(open_port() == 0, "open");
    } else {
        stream.fd = socket(AF_UNIX, SOCK_STREAM, 0);
        must(connect(stream.fd, (struct sockaddr *)&address, sizeof address) == 0, "connect");
        must(sup_mutex_init(&stream_lock, 0) == 0, "sup_mutex_init");
        stream.lock = &stream_lock;
    }
    must((peer = accept(listener, NULL, NULL)) >= 0, "accept");
}

static int open_unix(void) {
    return sup_uart_Init(&port, name, 0, 0);
}

static int open_gps(void) {
    sup_uart_Prepare(&port, NULL);
    return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, name + 5));
}

static void start_unix(int use_library) {
    listen_and_open(use_library, open_unix);
}

static void start_gps(int use_library) {
    listen_and_open(use_library, open_gps);
}

static void unix_read(int use_library) {
    unsigned int length = block;
    must(write(peer, data, block) == block, "feed");
    must((use_library ? sup_uart_Read(&port, data, &length)
                      : straight_socket_read(stream.fd, data, &length)) == 0,
         "read");
}

static void unix_send(int use_library) {
    must((use_library ? sup_uart_Send(&port, data, block) : straight_socket_send(stream.fd, data, block)) ==
             0,
         "send");
    must(read(peer, data, block) == block, "drain");
}

static void gps_read(int use_library) {
    unsigned int length = block;
    must(write(peer, data, block) == block, "feed");
    must((use_library ? sup_uart_Read(&port, data, &length) : straight_stream_read(&stream, data, &length)) ==
             0,
         "read");
}

const struct bench_case unix_cases[] = {
    {"unix-read", start_unix, unix_read, 16},
    {"unix-send", start_unix, unix_send, 16},
    {"gps-read", start_gps, gps_read, 26},
    {0},
};
