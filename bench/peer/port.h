/*
 * One library's way of doing the tasks of ports.c. Every function ends the program when its call fails.
 */
#ifndef KIV_BENCH_PEER_PORT_H
#define KIV_BENCH_PEER_PORT_H

#include <stdio.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

struct port {
    const char *kind; /* "tty" or "tcp", with what distinguishes it behind that */
    /* Opens the tty at path with 115200 8N1 and no flow control; or listens on a TCP port of the system's
     * choice and returns its number. */
    int (*open)(const char *path);
    void (*accept)(void); /* null: the first write takes the client */
    void (*close)(void);
    void (*read)(void *buffer, unsigned int length);              /* all of it */
    unsigned int (*read_some)(void *buffer, unsigned int length); /* waits for the first byte */
    /* Ends when nothing came for a millisecond after the first byte. Null: the library has no way. */
    unsigned int (*read_timed)(void *buffer, unsigned int length);
    void (*write)(const void *buffer, unsigned int length);
};

/* Ended by an entry without a kind. */
extern const struct port ports[];

static inline void must(int holds, const char *what) {
    if (!holds) {
        perror(what);
        exit(2);
    }
}

#ifdef __cplusplus
}
#endif

#endif
