/*
 * One library's tasks on the simulated board. Each function ends the program when its call fails.
 */
#ifndef KIV_BENCH_PEER_BOARD_H
#define KIV_BENCH_PEER_BOARD_H

#include <stdio.h>
#include <stdlib.h>

struct board_task {
    const char *name;
    void (*start)(void);
    void (*run)(void);
};

/* Ended by an entry without a name. */
extern const struct board_task board_tasks[];

static inline void must(int holds, const char *what) {
    if (!holds) {
        perror(what);
        exit(2);
    }
}

enum { clock_chip = 0x68, clock_registers = 7, pin = 5 };

/* The same pin by the kernel's interface for GPIO chips, whose requests the board does not know. Answered by
 * board.c, with the board's pins. */
#define CHIP "/dev/null" /* stat finds a character device there */

#endif
