/*
 * Prints the NMEA sentences of a GPS demultiplexer, and when its service comes and goes.
 *
 *     gps_demux /tmp/gps [COUNT [SECONDS]]
 *
 * It ends after COUNT sentences, or when none has come for SECONDS (30; 0 for no limit). A service to try it
 * with, again and again:
 *
 *     printf '$GPGLL,4717.11,N,00833.91,E*00\r\n' | socat -u - UNIX-LISTEN:/tmp/gps
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kiv/transports.h"

static const char *late = "no service has come in time\n";

/* A read that waits for its service cannot be stopped: so the program has the limit. */
static void give_up(int number) {
    (void)number;
    _exit(write(STDERR_FILENO, late, strlen(late)) == -1 ? 2 : 1);
}

struct sentence {
    char text[83]; /* 82 characters at most */
    size_t length;
};

/* The callbacks run inside a read of this thread and must not use the port. */
static void connected(UART_infos *port, void *context) {
    (void)port, (void)context;
    late = "no sentence has come in time\n";
    puts("connected");
}

/* The rest of a sentence that was cut will not come. */
static void disconnected(UART_infos *port, void *context) {
    struct sentence *sentence = context;
    (void)port;
    sentence->length = 0;
    late = "the service has not come back in time\n";
    puts("disconnected");
}

/* Takes one byte. Returns 1 when it ends a sentence. */
static int take(struct sentence *sentence, char byte) {
    if (byte == '$')
        sentence->length = 0;
    if (byte != '\r' && byte != '\n' && sentence->length < sizeof sentence->text - 1)
        sentence->text[sentence->length++] = byte;
    if (byte != '\n' || sentence->text[0] != '$' || sentence->length == 0)
        return 0;
    sentence->text[sentence->length] = '\0';
    sentence->length = 0;
    return 1;
}

/* Returns 0 after so many sentences, or the status of a read that failed. */
static int print_sentences(UART_infos *gps, struct sentence *sentence, long count, unsigned int seconds) {
    char bytes[256];
    while (count != 0) {
        unsigned int length = sizeof bytes, i;
        const int status = sup_uart_Read_partial(gps, bytes, &length);
        if (status != 0)
            return status;
        for (i = 0; i < length && count != 0; ++i)
            if (take(sentence, bytes[i])) {
                puts(sentence->text);
                alarm(seconds);
                count -= count > 0;
            }
    }
    return 0;
}

int main(int argc, char **argv) {
    struct sentence sentence = {"", 0};
    const UART_status_cb callbacks = {connected, disconnected, &sentence};
    const unsigned int seconds = argc > 3 ? (unsigned int)strtoul(argv[3], NULL, 10) : 30;
    UART_infos gps;
    int status;
    if (argc < 2)
        return fprintf(stderr, "usage: gps_demux PATH [COUNT [SECONDS]]\n"), 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    signal(SIGALRM, give_up);
    alarm(seconds);
    sup_uart_Prepare(&gps, &callbacks);
    status = sup_uart_Opened(&gps, pos_btgpsdemux_open(&gps, argv[1]));
    if (status == 0) {
        status = print_sentences(&gps, &sentence, argc > 2 ? strtol(argv[2], NULL, 10) : -1, seconds);
        sup_uart_close(&gps);
    }
    if (status != 0)
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
    return status != 0;
}
