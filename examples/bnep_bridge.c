/*
 * A Bluetooth network (BNEP) bridge, with a Unix socket in the place of the radio link.
 *
 *     bnep_bridge listen|connect SOCKET ADDRESS [SECONDS]
 *
 * One side listens at the path SOCKET, the other connects; each waits SECONDS for the other (30). ADDRESS is
 * its own on Bluetooth, as 02:00:00:00:00:01. Carries the frames of the interface "bnep" until the other side
 * goes away, and prints direction, protocol (in hexadecimal digits) and length of the payload of each.
 * On the link each side first sends its address. Then a frame is the length of its payload and its protocol,
 * two bytes each, high byte first, and the payload. The Ethernet addresses are always the two devices'.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kiv/network.h"

enum { HEADER = 4, ADDRESS = 6 };

static int radio; /* the link */

/* Outbound: runs on the sender's thread, three times a frame. */
static void send_frame(void *context, uint16_t protocol, const uint8_t *payload, uint16_t length,
                       int32_t step) {
    static uint8_t header[HEADER];
    (void)context;
    if (step == KIV_BNEP_FRAME_START) {
        header[2] = (uint8_t)(protocol >> 8);
        header[3] = (uint8_t)protocol;
    } else if (step == KIV_BNEP_FRAME_DATA) {
        header[0] = (uint8_t)(length >> 8);
        header[1] = (uint8_t)length;
        printf("out %02x%02x %u\n", header[2], header[3], length);
        send(radio, header, HEADER, MSG_NOSIGNAL | MSG_MORE); /* all of it: it blocks */
        send(radio, payload, length, MSG_NOSIGNAL);
    }
}

/* Inbound: until the link ends. */
static void receive_frames(const uint8_t *own, const uint8_t *peer) {
    uint8_t header[HEADER], payload[65535];
    while (recv(radio, header, HEADER, MSG_WAITALL) == HEADER) {
        const unsigned length = header[0] * 256u + header[1], protocol = header[2] * 256u + header[3];
        if (length > 0 && recv(radio, payload, length, MSG_WAITALL) != (ssize_t)length)
            break;
        printf("in %04x %u\n", protocol, length);
        kiv_bnep_data_available(NULL, (uint16_t)protocol, payload, length, own, peer);
    }
}

static int comes_within(int fd, int seconds) {
    struct pollfd entry = {.fd = fd, .events = POLLIN};
    return poll(&entry, 1, seconds * 1000) > 0;
}

static int open_link(const char *role, const char *path, int seconds) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const struct sockaddr *at = (struct sockaddr *)&address;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (strcmp(role, "listen") == 0) {
        const int bound = bind(fd, at, sizeof address) == 0 && listen(fd, 1) == 0;
        return bound && comes_within(fd, seconds) ? accept(fd, NULL, NULL) : -1;
    }
    while (connect(fd, at, sizeof address) == -1)
        if (seconds-- <= 0 || sleep(1) != 0)
            return -1;
    return fd;
}

/* Into Bluetooth order: the last byte first. */
static int read_address(const char *text, uint8_t *address) {
    const int fine = strlen(text) == 17 && strspn(text, "0123456789abcdefABCDEF:") == 17;
    for (int i = ADDRESS; fine && i-- > 0; text += 3)
        address[i] = (uint8_t)strtoul(text, NULL, 16);
    return fine;
}

int main(int argc, char **argv) {
    uint8_t own[ADDRESS], peer[ADDRESS];
    const int seconds = argc > 4 ? (int)strtol(argv[4], NULL, 10) : 30;
    if (argc < 4 || !read_address(argv[3], own))
        return fprintf(stderr, "usage: bnep_bridge listen|connect SOCKET ADDRESS [SECONDS]\n"), 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    errno = ETIMEDOUT; /* the reason for which no call has failed */
    radio = open_link(argv[1], argv[2], seconds);
    if (radio == -1 || send(radio, own, ADDRESS, MSG_NOSIGNAL) != ADDRESS || !comes_within(radio, seconds) ||
        recv(radio, peer, ADDRESS, 0) != ADDRESS)
        return perror(argv[2]), EXIT_FAILURE;
    kiv_bnep_set_sender(send_frame, own);
    receive_frames(own, peer);
    kiv_bnep_set_sender(NULL, NULL);
    return EXIT_SUCCESS;
}
