/*
 * What bench/overhead can run: one operation, through the library or through its floor. A row of the report
 * is an OPERATION and an entry in a table below it.
 */
#ifndef KIV_BENCH_CASES_H
#define KIV_BENCH_CASES_H

#include "ends.h"

/* The most that a row may have, in user instructions; a limit of 0 is none. */
struct limits {
    int arm;   /* of the whole round on ARM: loop, library, kiv-core, C library, and the peer's call in it */
    int added; /* by the library on x86-64, over the floor */
};

struct bench_case {
    const char *name; /* on the command line */
    const char *text; /* in the tables */
    void (*start)(int use_library, unsigned int size);
    void (*run)(int use_library, long count);
    unsigned int size;  /* of what is moved, for start */
    unsigned int units; /* a round has: the figures are of one of them */
    struct limits at_most;
};

/* One table an area, ended by an entry without a name. */
extern const struct bench_case serial_cases[];
extern const struct bench_case board_cases[];

/* Defines run: a plain loop for each side, which differ in the call alone. `library` and `floor` say whether
 * it went well; `before` and `after` are the round's other steps, such as the peer's. */
#define OPERATION(run, before, library, floor, after)                                                        \
    static void run(int use_library, long count) {                                                           \
        if (use_library)                                                                                     \
            for (; count > 0; --count) {                                                                     \
                before;                                                                                      \
                must(library, #library);                                                                     \
                after;                                                                                       \
            }                                                                                                \
        else                                                                                                 \
            for (; count > 0; --count) {                                                                     \
                before;                                                                                      \
                must(floor, #floor);                                                                         \
                after;                                                                                       \
            }                                                                                                \
    }
#define NOTHING ((void)0)

#endif
