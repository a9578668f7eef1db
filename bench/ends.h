/*
 * A line with its two ends: a port, of the library or of its floor, and the peer's descriptor.
 */
#ifndef KIV_BENCH_ENDS_H
#define KIV_BENCH_ENDS_H

#include "kiv/uart.h"
#include "straight.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ends {
    int peer;
    const char *path;              /* the tty's */
    UART_infos port;               /* the library's side */
    struct straight_tty *tty;      /* the floor's side: a tty, or a socket */
    struct straight_stream stream; /* without a lock on a Unix socket */
    sup_mutex_t lock;
};

void open_tty(struct ends *ends, int use_library);
void open_tcp(struct ends *ends, int use_library);
void open_unix(struct ends *ends, int use_library);
void open_gps(struct ends *ends, int use_library);
void close_ends(struct ends *ends, int use_library);

/* Ends the program with a message: a benchmark measures nothing on a failing call. */
__attribute__((noreturn, cold)) void give_up(const char *what);

static inline void must(int holds, const char *what) {
    if (!holds)
        give_up(what);
}

#ifdef __cplusplus
}
#endif

#endif
