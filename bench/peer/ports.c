/*
 * The same tasks for every library, each of which comes with a port_*.c of its own:
 *
 *     ports-LIBRARY list                  kinds of ports that the library has
 *     ports-LIBRARY KIND TASK ROUNDS      what bench/peers asks for
 *     ports-LIBRARY helper TASK FD        the other end of a timed task, for port_pyserial.py
 *
 * Counted tasks do their operation so many times. It is collected by callgrind, and stands between two calls
 * of getppid for strace; what prepares it is outside. The first rounds, in which symbols are bound and memory
 * is taken from the system, are not counted. Timed tasks print nanoseconds a round: real time, and the CPU
 * time of this process.
 */
#define _GNU_SOURCE
#include "port.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "window.h"

enum { small = 64, large = 4000, block = 4096 };
static char data[block];
static const struct port *port;
static int peer = -1;     /* the other end of the line */
static int near_tty = -1; /* a second descriptor of the tty, to look at its queue */
static int asking[2];     /* a byte to the helper process */
static const char *tty_path;

/* The line ------------------------------------------------------------------------------------------ */

static void make_line(void) {
    if (strncmp(port->kind, "tty", 3) != 0)
        return;
    peer = posix_openpt(O_RDWR | O_NOCTTY);
    must(peer >= 0 && grantpt(peer) == 0 && unlockpt(peer) == 0, "pseudo-terminal");
    tty_path = ptsname(peer);
    near_tty = open(tty_path, O_RDWR | O_NOCTTY);
    must(near_tty >= 0, tty_path);
}

static void open_line(void) {
    make_line();
    const int number = port->open(tty_path);
    if (near_tty >= 0)
        return;
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)number)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer = socket(AF_INET, SOCK_STREAM, 0);
    must(connect(peer, (struct sockaddr *)&address, sizeof address) == 0, "connect");
    if (port->accept != NULL)
        port->accept();
    port->write(data, 1);
    must(read(peer, data, 1) == 1, "first byte");
}

static void feed(unsigned int length) {
    struct pollfd arrival = {.fd = near_tty, .events = POLLIN};
    unsigned int queued = 0;
    if (near_tty >= 0)
        must(tcflush(near_tty, TCIFLUSH) == 0, "flush"); /* its queue begins at its beginning */
    must(write(peer, data, length) == (ssize_t)length, "feed");
    if (near_tty >= 0)
        while (queued < length) /* it takes its time */
            must(poll(&arrival, 1, -1) == 1 && ioctl(near_tty, FIONREAD, &queued) == 0, "FIONREAD");
}

static void drain(unsigned int length) {
    while (length > 0) {
        const ssize_t count = read(peer, data, length);
        must(count > 0, "drain");
        length -= (unsigned int)count;
    }
}

static pid_t start_helper(void (*work)(void)) {
    const pid_t child = fork();
    must(child >= 0, "fork");
    if (child > 0)
        return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;)
        work();
}

/* Counted tasks ------------------------------------------------------------------------------------- */

#define COUNT(before, operation, after)                                                                      \
    for (long round = -WARM_UP; round < rounds; ++round) {                                                   \
        before;                                                                                              \
        BEGIN_WINDOW(round);                                                                                 \
        operation;                                                                                           \
        END_WINDOW(round);                                                                                   \
        after;                                                                                               \
    }
#define NOTHING ((void)0)

static void open_close(long rounds) {
    make_line();
    COUNT(NOTHING, (port->open(tty_path), port->close()), NOTHING)
}

static void read_1(long rounds) {
    open_line();
    COUNT(feed(1), port->read(data, 1), NOTHING)
}

static void read_large(long rounds) {
    open_line();
    COUNT(feed(large), port->read(data, large), NOTHING)
}

static void read_some(long rounds) {
    open_line();
    COUNT(feed(small), must(port->read_some(data, block) == small, "all that is there"), NOTHING)
}

static void read_timed(long rounds) {
    open_line();
    COUNT(feed(small), must(port->read_timed(data, block) == small, "all that is there"), NOTHING)
}

static void write_64(long rounds) {
    open_line();
    COUNT(NOTHING, port->write(data, small), drain(small))
}

/* Sends a byte once the other process sleeps, which it does in its read. */
static void send_when_parent_sleeps(void) {
    char path[32], state[512];
    must(read(asking[0], state, 1) == 1, "asking");
    snprintf(path, sizeof path, "/proc/%d/stat", (int)getppid());
    for (int asleep = 0; asleep < 3;) {
        const int file = open(path, O_RDONLY);
        must(read(file, state, sizeof state) > 0 && close(file) == 0, path);
        asleep = memmem(state, sizeof state, ") S ", 4) != NULL ? asleep + 1 : 0;
        poll(NULL, 0, 1);
    }
    must(write(peer, data, 1) == 1, "late byte");
}

static void read_late(long rounds) {
    open_line();
    must(pipe(asking) == 0, "pipe");
    start_helper(send_when_parent_sleeps);
    COUNT(must(write(asking[1], data, 1) == 1, "asking"), port->read(data, 1), NOTHING)
}

/* Timed tasks --------------------------------------------------------------------------------------- */

static void echo_back(void) {
    char buffer[small];
    const ssize_t count = read(peer, buffer, sizeof buffer);
    must(count > 0 && write(peer, buffer, (size_t)count) == count, "echo");
}

static void give(void) {
    must(write(peer, data, block) > 0, "give");
}

static void take(void) {
    must(read(peer, data, block) > 0, "take");
}

static double now(clockid_t clock) {
    struct timespec time;
    clock_gettime(clock, &time);
    return (double)time.tv_sec * 1e9 + (double)time.tv_nsec;
}

static void measure(void (*helper)(void), void (*operation)(void), long rounds) {
    open_line();
    const pid_t child = start_helper(helper);
    operation(); /* the helper runs */
    const double begun = now(CLOCK_MONOTONIC), used = now(CLOCK_PROCESS_CPUTIME_ID);
    for (long round = 0; round < rounds; ++round)
        operation();
    printf("%.1f %.1f\n", (now(CLOCK_MONOTONIC) - begun) / (double)rounds,
           (now(CLOCK_PROCESS_CPUTIME_ID) - used) / (double)rounds);
    kill(child, SIGKILL);
    waitpid(child, NULL, 0);
}

static void ask_and_hear(void) {
    port->write(data, small);
    port->read(data, small);
}

static void read_block(void) {
    port->read(data, block);
}

static void write_block(void) {
    port->write(data, block);
}

static const struct {
    const char *name;
    void (*helper)(void);
    void (*operation)(void);
} timed_tasks[] = {
    {"round-trip", echo_back, ask_and_hear},
    {"bulk-read", give, read_block},
    {"bulk-write", take, write_block},
};

static const struct {
    const char *name;
    void (*run)(long rounds);
} counted_tasks[] = {
    {"open-close", open_close}, {"read-1", read_1},       {"read-late", read_late},
    {"read-4000", read_large},  {"read-some", read_some}, {"read-timed", read_timed},
    {"write-64", write_64},
};

#define COUNT_OF(array) (sizeof(array) / sizeof *(array))

static int list(void) {
    for (port = ports; port->kind != NULL; ++port)
        printf("%s%s\n", port->kind, port->read_timed == NULL ? " untimed" : "");
    return 0;
}

static int run(const char *task, long rounds) {
    for (size_t i = 0; i < COUNT_OF(counted_tasks); ++i)
        if (strcmp(counted_tasks[i].name, task) == 0)
            return counted_tasks[i].run(rounds), 0;
    for (size_t i = 0; i < COUNT_OF(timed_tasks); ++i)
        if (strcmp(timed_tasks[i].name, task) == 0)
            return measure(timed_tasks[i].helper, timed_tasks[i].operation, rounds), 0;
    return 2;
}

static void help(const char *task) {
    for (size_t i = 0; i < COUNT_OF(timed_tasks); ++i)
        while (strcmp(timed_tasks[i].name, task) == 0)
            timed_tasks[i].helper();
}

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "list") == 0)
        return list();
    if (argc == 4 && strcmp(argv[1], "helper") == 0) {
        peer = (int)strtol(argv[3], NULL, 10);
        help(argv[2]);
    }
    for (port = ports; argc == 4 && port->kind != NULL; ++port)
        if (strcmp(port->kind, argv[1]) == 0)
            return run(argv[2], strtol(argv[3], NULL, 10));
    fprintf(stderr, "usage: %s KIND TASK ROUNDS\n       %s list\n", argv[0], argv[0]);
    return 2;
}
