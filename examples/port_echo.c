/*
 * Takes a number of bytes from a port, keeps them in a file, and sends them back.
 *
 *     port_echo DEVICE BYTES FILE [SECONDS]
 *
 * DEVICE is a tty, or tcp:PORT for whoever connects to that port: anything that sup_uart_Init2 takes will do.
 * All of it may take SECONDS (60). For each direction a line is printed: bytes, seconds, calls of the
 * library.
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kiv/uart.h"

/* Reads wait without limit, also for a client who has to come back: so the program has the limit. */
static void give_up(int number) {
    static const char late[] = "port_echo: not all the bytes have come and gone in time\n";
    (void)number;
    _exit(write(STDERR_FILENO, late, sizeof late - 1) == -1 ? 2 : 1);
}

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static void report(const char *direction, size_t bytes, double seconds, unsigned long calls) {
    printf("%s %zu %.6f %lu\n", direction, bytes, seconds, calls);
    fflush(stdout);
}

static unsigned int next_piece(size_t left) {
    return left < 4096 ? (unsigned int)left : 4096;
}

/* The clock starts with the first bytes: before that, the port waits for somebody to come. */
static int receive(UART_infos *port, char *data, size_t size) {
    double started = 0;
    unsigned long calls = 0;
    for (size_t done = 0; done < size; ++calls) {
        unsigned int length = next_piece(size - done);
        const int status = sup_uart_Read_partial(port, data + done, &length);
        if (status != 0)
            return status;
        if (calls == 0)
            started = now();
        done += length;
    }
    report("received", size, now() - started, calls);
    return 0;
}

static int send_back(UART_infos *port, const char *data, size_t size) {
    const double started = now();
    unsigned long calls = 0;
    for (size_t done = 0; done < size; ++calls) {
        const unsigned int length = next_piece(size - done);
        const int status = sup_uart_Send(port, data + done, length);
        if (status != 0)
            return status;
        done += length;
    }
    report("sent", size, now() - started, calls);
    return 0;
}

static int keep(const char *path, const char *data, size_t size) {
    FILE *file = fopen(path, "wb");
    const int fine = file != NULL && fwrite(data, 1, size, file) == size;
    return file != NULL && fclose(file) == 0 && fine ? 0 : (perror(path), -1);
}

int main(int argc, char **argv) {
    const size_t size = argc > 3 ? strtoul(argv[2], NULL, 10) : 0;
    char *data = size > 0 ? malloc(size) : NULL;
    UART_infos port;
    if (data == NULL)
        return fprintf(stderr, "usage: port_echo DEVICE BYTES FILE [SECONDS]\n"), 2;
    signal(SIGALRM, give_up);
    alarm(argc > 4 ? (unsigned int)strtoul(argv[4], NULL, 10) : 60);
    int status = sup_uart_Init2(&port, argv[1], UART_SPEED_115200, 0, NULL);
    if (status == 0) {
        status = receive(&port, data, size);
        if (status == 0 && (status = keep(argv[3], data, size)) == 0)
            status = send_back(&port, data, size);
        sup_uart_close(&port);
    }
    free(data);
    if (status > 0) /* below 0 all has been said */
        fprintf(stderr, "%s: %s\n", argv[1], strerror(status));
    return status != 0;
}
