/*
 * Prints the NMEA sentences of a GPS demultiplexer, and when its service comes and goes.
 *
 *     gps_demux /tmp/gps [COUNT]
 *
 * ends after COUNT sentences, or never. A service to try it with, again and again:
 *
 *     printf '$GPGLL,4717.11,N,00833.91,E*00\r\n' | socat -u - UNIX-LISTEN:/tmp/gps
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/transports.h"

/* A sentence has at most 82 characters. */
struct sentence {
    char text[83];
    size_t length;
};

/* The callbacks run inside a read of this thread and must not use the port. */
static void connected(UART_infos *port, void *context) {
    (void)port;
    (void)context;
    puts("connected");
}

/* The rest of a sentence that was cut will not come. */
static void disconnected(UART_infos *port, void *context) {
    struct sentence *sentence = context;
    (void)port;
    sentence->length = 0;
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
static int print_sentences(UART_infos *gps, struct sentence *sentence, long count) {
    char bytes[256];
    while (count != 0) {
        unsigned int length = sizeof bytes, i;
        const int status = sup_uart_Read_partial(gps, bytes, &length);
        if (status != 0)
            return status;
        for (i = 0; i < length && count != 0; ++i)
            if (take(sentence, bytes[i])) {
                puts(sentence->text);
                fflush(stdout);
                if (count > 0)
                    --count;
            }
    }
    return 0;
}

int main(int argc, char **argv) {
    struct sentence sentence = {"", 0};
    UART_status_cb callbacks;
    UART_infos gps;
    int status;
    if (argc < 2) {
        fprintf(stderr, "usage: %s PATH [COUNT]\n", argv[0]);
        return 2;
    }
    callbacks.connected = connected;
    callbacks.disconnected = disconnected;
    callbacks.context = &sentence;
    sup_uart_Prepare(&gps, &callbacks);
    status = sup_uart_Opened(&gps, pos_btgpsdemux_open(&gps, argv[1]));
    if (status == 0) {
        status = print_sentences(&gps, &sentence, argc > 2 ? strtol(argv[2], NULL, 10) : -1);
        sup_uart_close(&gps);
    }
    if (status != 0)
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
    return status != 0;
}
