/*
 * The tasks of one library on the simulated board, which come with a board_*.c of its own:
 *
 *     board-LIBRARY TASK ROUNDS
 *
 * This program stands between the library and the board: what the board does for a call is not collected by
 * callgrind, and the calls of the counted rounds are printed at the end, by name and number.
 */
#define _GNU_SOURCE
#include "board.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "window.h"

static int counted; /* in a counted round */
static unsigned long ioctls, reads, writes, opens, closes;

/* Makes the call of the board, without its instructions. */
#define PASS_ON(count, result, call)                                                                         \
    if (counted) {                                                                                           \
        CALLGRIND_TOGGLE_COLLECT;                                                                            \
        ++(count);                                                                                           \
    }                                                                                                        \
    (result) = (call);                                                                                       \
    if (counted)                                                                                             \
    CALLGRIND_TOGGLE_COLLECT

static int (*board_open)(const char *, int, ...);
static int (*board_close)(int);
static int (*board_ioctl)(int, unsigned long, ...);
static ssize_t (*board_read)(int, void *, size_t);
static ssize_t (*board_write)(int, const void *, size_t);

static void *next(const char *name) {
    void *const function = dlsym(RTLD_NEXT, name);
    must(function != NULL, name);
    return function;
}

__attribute__((constructor)) static void find_board(void) {
    *(void **)&board_open = next("open");
    *(void **)&board_close = next("close");
    *(void **)&board_ioctl = next("ioctl");
    *(void **)&board_read = next("read");
    *(void **)&board_write = next("write");
}

/* A GPIO chip of the kernel's interface, with the board's pins behind it ---------------------------- */

static const char chip_in_sysfs[] = "/sys/bus/gpio/devices/null/dev";
static int pins = -1; /* the board's device */

static int ask_pin(unsigned long request, int argument) {
    int record[2] = {pin, argument};
    must(board_ioctl(pins, request, record) == 0, "/dev/gpio");
    return record[1];
}

enum { direction = _IOC(_IOC_WRITE, 'p', 0, 8), level = _IOC(_IOC_READ | _IOC_WRITE, 'p', 1, 8) };
enum { drive = _IOC(_IOC_WRITE, 'p', 2, 8) };

static int answer(int fd, unsigned long request, void *argument) {
    struct gpiohandle_data *const values = argument;
    struct gpiohandle_request *const lines = argument;
    switch (request) {
    case GPIO_GET_CHIPINFO_IOCTL:
        *(struct gpiochip_info *)argument = (struct gpiochip_info){.name = "null", .lines = 64};
        return 0;
    case GPIO_GET_LINEINFO_IOCTL:
        ((struct gpioline_info *)argument)->flags = GPIOLINE_FLAG_KERNEL | GPIOLINE_FLAG_IS_OUT;
        return 0;
    case GPIO_GET_LINEHANDLE_IOCTL:
        ask_pin(direction,
                (lines->flags & GPIOHANDLE_REQUEST_OUTPUT) == 0 ? 0 : 1 + lines->default_values[0]);
        lines->fd = dup(fd);
        return 0;
    case GPIOHANDLE_GET_LINE_VALUES_IOCTL:
        values->values[0] = ask_pin(level, 0) != 0;
        return 0;
    case GPIOHANDLE_SET_LINE_VALUES_IOCTL:
        ask_pin(drive, values->values[0]);
        return 0;
    default:
        return board_ioctl(fd, request, argument);
    }
}

static int open_chip_in_sysfs(void) {
    int ends[2];
    pins = board_open("/dev/gpio", O_RDWR);
    must(pins >= 0 && pipe(ends) == 0 && board_write(ends[1], "1:3\n", 4) == 4, CHIP); /* as stat tells */
    board_close(ends[1]);
    return ends[0];
}

/* What the libraries call --------------------------------------------------------------------------- */

int access(const char *path, int mode) {
    return strcmp(path, chip_in_sysfs) == 0 ? 0 : faccessat(AT_FDCWD, path, mode, 0);
}

int open(const char *path, int flags, ...) {
    int fd;
    PASS_ON(opens, fd, strcmp(path, chip_in_sysfs) == 0 ? open_chip_in_sysfs() : board_open(path, flags));
    return fd;
}

int close(int fd) {
    int result;
    PASS_ON(closes, result, board_close(fd));
    return result;
}

int ioctl(int fd, unsigned long request, ...) {
    int result;
    va_list rest;
    va_start(rest, request);
    void *const argument = va_arg(rest, void *);
    va_end(rest);
    PASS_ON(ioctls, result, answer(fd, request, argument));
    return result;
}

ssize_t read(int fd, void *buffer, size_t length) {
    ssize_t result;
    PASS_ON(reads, result, board_read(fd, buffer, length));
    return result;
}

ssize_t write(int fd, const void *buffer, size_t length) {
    ssize_t result;
    PASS_ON(writes, result, board_write(fd, buffer, length));
    return result;
}

int main(int argc, char **argv) {
    for (const struct board_task *task = board_tasks; argc == 3 && task->name != NULL; ++task)
        if (strcmp(task->name, argv[1]) == 0) {
            const long rounds = strtol(argv[2], NULL, 10);
            task->start();
            for (long round = -WARM_UP; round < rounds; ++round) {
                BEGIN_WINDOW(round);
                counted = round >= 0;
                task->run();
                counted = 0;
                END_WINDOW(round);
            }
            printf("open %lu\nclose %lu\nioctl %lu\nread %lu\nwrite %lu\n", opens, closes, ioctls, reads,
                   writes);
            return 0;
        }
    fprintf(stderr, "usage: %s TASK ROUNDS\n", argv[0]);
    return 2;
}
