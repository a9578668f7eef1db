/*
 * Measures what stands between two descriptors that it inherits, a bridge for example:
 *
 *     through bulk BYTES NEAR FAR     sends so many bytes at the near end while it takes them at the far one
 *     through echo ROUNDS NEAR FAR    64 bytes there and back, so many times
 *
 * Prints nanoseconds, of a byte or of a round.
 */
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

enum { small = 64, block = 65536 };
static char data[block];

static void must(int holds, const char *what) {
    if (!holds) {
        perror(what);
        _exit(2);
    }
}

static void write_all(int fd, long length) {
    while (length > 0) {
        const ssize_t count = write(fd, data, length < block ? (size_t)length : block);
        must(count > 0, "write");
        length -= count;
    }
}

static void read_all(int fd, long length) {
    while (length > 0) {
        const ssize_t count = read(fd, data, length < block ? (size_t)length : block);
        must(count > 0, "read");
        length -= count;
    }
}

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec * 1e9 + (double)time.tv_nsec;
}

static int is_helper(void) {
    const pid_t child = fork();
    must(child >= 0, "fork");
    return child == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

static void bulk(int near_end, int far_end, long bytes) {
    if (is_helper()) {
        write_all(near_end, bytes);
        _exit(0);
    }
    read_all(far_end, bytes);
}

static void echo(int near_end, int far_end, long rounds) {
    if (is_helper())
        for (;;) {
            read_all(far_end, small);
            write_all(far_end, small);
        }
    for (; rounds > 0; --rounds) {
        write_all(near_end, small);
        read_all(near_end, small);
    }
}

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: through bulk|echo COUNT NEAR FAR\n");
        return 2;
    }
    const long count = strtol(argv[2], NULL, 10);
    const double begun = now();
    (strcmp(argv[1], "bulk") == 0 ? bulk : echo)((int)strtol(argv[3], NULL, 10),
                                                 (int)strtol(argv[4], NULL, 10), count);
    printf("%.2f\n", (now() - begun) / (double)count);
    return 0;
}
