/* This library. */
#include <netinet/in.h>
#include <sys/socket.h>

#include "kiv/uart.h"
#include "port.h"

static UART_infos port;

static int open_tty(const char *path) {
    must(sup_uart_Init(&port, path, UART_SPEED_115200, 0) == 0, "sup_uart_Init");
    return 0;
}

static int listen_tcp(const char *path) {
    (void)path;
    must(sup_uart_Init(&port, "tcp:0", 0, 0) == 0, "sup_uart_Init");
    return 0;
}

static int open_tcp(const char *path) {
    struct sockaddr_in address;
    socklen_t size = sizeof address;
    listen_tcp(path);
    must(getsockname(port.fd_listen, (struct sockaddr *)&address, &size) == 0, "getsockname");
    return ntohs(address.sin_port);
}

static void close_port(void) {
    must(sup_uart_close(&port) == 0, "sup_uart_close");
}

static void read_all(void *buffer, unsigned int length) {
    must(sup_uart_Read(&port, buffer, &length) == 0, "sup_uart_Read");
}

static unsigned int read_some(void *buffer, unsigned int length) {
    must(sup_uart_Read_partial(&port, buffer, &length) == 0, "sup_uart_Read_partial");
    return length;
}

static unsigned int read_timed(void *buffer, unsigned int length) {
    must(sup_uart_Read_partial_timeout(&port, buffer, &length, 1000) == 0, "sup_uart_Read_partial_timeout");
    return length;
}

static void write_all(const void *buffer, unsigned int length) {
    must(sup_uart_Send(&port, buffer, length) == 0, "sup_uart_Send");
}

const struct port ports[] = {
    {"tty", open_tty, NULL, close_port, read_all, read_some, read_timed, write_all},
    {"tcp", open_tcp, NULL, close_port, read_all, read_some, read_timed, write_all},
    {0},
};
