/*
 * Takes a number of bytes from a port, keeps them in a file, and sends them back.
 *
 *     port_echo device bytes file
 *
 * device  a tty, or tcp:PORT for whoever connects to that port. Anything that sup_uart_Init2 takes will do.
 *
 * For each direction it prints one line: bytes, seconds, calls of the library.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kiv/uart.h"

enum { PIECE = 4096 };

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static void report(const char *direction, size_t bytes, double seconds, unsigned long calls) {
    printf("%s %zu %.6f %lu\n", direction, bytes, seconds, calls);
    fflush(stdout);
}

/* The clock starts with the first bytes: before that, the port waits for somebody to come. */
static int receive(UART_infos *port, char *data, size_t size) {
    double started = 0;
    unsigned long calls = 0;
    size_t done = 0;
    while (done < size) {
        unsigned int length = size - done < PIECE ? (unsigned int)(size - done) : PIECE;
        const int status = sup_uart_Read_partial(port, data + done, &length);
        if (status != 0)
            return status;
        if (calls++ == 0)
            started = now();
        done += length;
    }
    report("received", done, now() - started, calls);
    return 0;
}

static int send_back(UART_infos *port, const char *data, size_t size) {
    const double started = now();
    unsigned long calls = 0;
    size_t done = 0;
    while (done < size) {
        const unsigned int length = size - done < PIECE ? (unsigned int)(size - done) : PIECE;
        const int status = sup_uart_Send(port, data + done, length);
        if (status != 0)
            return status;
        ++calls;
        done += length;
    }
    report("sent", done, now() - started, calls);
    return 0;
}

static int keep(const char *path, const char *data, size_t size) {
    FILE *file = fopen(path, "wb");
    const size_t written = file != NULL ? fwrite(data, 1, size, file) : 0;
    if (file == NULL || fclose(file) != 0 || written != size) {
        perror(path);
        return -1;
    }
    return 0;
}

int main(int argc, char **argv) {
    const size_t size = argc == 4 ? strtoul(argv[2], NULL, 10) : 0;
    char *data = size > 0 ? malloc(size) : NULL;
    UART_infos port;
    int status;
    if (data == NULL) {
        fprintf(stderr, "usage: port_echo device bytes file\n");
        return 2;
    }
    status = sup_uart_Init2(&port, argv[1], UART_SPEED_115200, 0, NULL);
    if (status == 0) {
        status = receive(&port, data, size);
        if (status == 0)
            status = keep(argv[3], data, size);
        if (status == 0)
            status = send_back(&port, data, size);
        sup_uart_close(&port);
    }
    free(data);
    if (status != 0)
        fprintf(stderr, "%s: %s\n", argv[1], status > 0 ? strerror(status) : "not all went well");
    return status != 0;
}
