/*
 * What is between the two is counted: collected by callgrind, and between two calls of getppid for strace.
 * Rounds below 0 are not.
 */
#ifndef KIV_BENCH_PEER_WINDOW_H
#define KIV_BENCH_PEER_WINDOW_H

#include <unistd.h>
#include <valgrind/callgrind.h>

enum { WARM_UP = 3 };

#define BEGIN_WINDOW(round)                                                                                  \
    if ((round) >= 0) {                                                                                      \
        getppid();                                                                                           \
        CALLGRIND_TOGGLE_COLLECT;                                                                            \
    }
#define END_WINDOW(round)                                                                                    \
    if ((round) >= 0) {                                                                                      \
        CALLGRIND_TOGGLE_COLLECT;                                                                            \
        getppid();                                                                                           \
    }

#endif
