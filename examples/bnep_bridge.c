/*
 * A Bluetooth network (BNEP) bridge, with a Unix socket in the place of the radio link.
 *
 *     bnep_bridge listen|connect SOCKET ADDRESS
 *
 * One side listens at the path SOCKET, the other connects. ADDRESS is the side's Bluetooth device address,
 * for example 02:00:00:00:00:01. Makes the interface "bnep" and carries its frames until the other side goes
 * away; prints for each its direction, its protocol in hexadecimal digits and the length of its payload. Set
 * the interface up with `ip address add 10.0.0.1/24 dev bnep` and `ip link set bnep up`, for example.
 *
 * On the link each side first sends its address. Then a frame is a record: the length of its payload and its
 * protocol, two bytes each, high byte first; the payload. The Ethernet addresses are always the two devices'.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kiv/network.h"

enum { HEADER = 4, MOST = 1586, ADDRESS = 6 };

static int radio; /* goes nowhere, until dup2 puts the link under the same number */

/* Outbound: runs on the sender's thread, three times a frame. */
static void send_frame(void *context, uint16_t protocol, const uint8_t *payload, uint16_t length,
                       int32_t step) {
    static uint8_t record[HEADER + MOST];
    (void)context;
    if (step == KIV_BNEP_FRAME_START) {
        record[2] = (uint8_t)(protocol >> 8);
        record[3] = (uint8_t)protocol;
    } else if (step == KIV_BNEP_FRAME_DATA) {
        record[0] = (uint8_t)(length >> 8);
        record[1] = (uint8_t)length;
        memcpy(record + HEADER, payload, length);
        printf("out %02x%02x %u\n", record[2], record[3], length);
        send(radio, record, HEADER + (size_t)length, MSG_NOSIGNAL); /* all of it: it blocks */
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

static int open_link(int listens, const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (!listens)
        return connect(fd, (struct sockaddr *)&address, sizeof address) == 0 ? fd : -1;
    if (bind(fd, (struct sockaddr *)&address, sizeof address) == -1 || listen(fd, 1) == -1)
        return -1;
    return accept(fd, NULL, NULL);
}

/* Into Bluetooth order: the last byte first. */
static int read_address(const char *text, uint8_t *address) {
    char *end = NULL;
    for (int i = ADDRESS; i-- > 0; text = end + 1) {
        address[i] = (uint8_t)strtoul(text, &end, 16);
        if (end == text || *end != (i > 0 ? ':' : '\0'))
            return 0;
    }
    return 1;
}

int main(int argc, char **argv) {
    uint8_t own[ADDRESS], peer[ADDRESS];
    const int listens = argc > 1 && strcmp(argv[1], "listen") == 0;
    if (argc != 4 || !read_address(argv[3], own))
        return fprintf(stderr, "usage: bnep_bridge listen|connect SOCKET ADDRESS\n"), EXIT_FAILURE;
    setvbuf(stdout, NULL, _IOLBF, 0);
    radio = open("/dev/null", O_RDWR);
    /* Whoever listens is ready before the other side comes. */
    if (listens)
        kiv_bnep_set_sender(send_frame, own);
    const int link = open_link(listens, argv[2]);
    if (link == -1 || write(link, own, ADDRESS) != ADDRESS ||
        recv(link, peer, ADDRESS, MSG_WAITALL) != ADDRESS)
        return perror(argv[2]), EXIT_FAILURE;
    dup2(link, radio);
    if (!listens)
        kiv_bnep_set_sender(send_frame, own);
    receive_frames(own, peer);
    kiv_bnep_set_sender(NULL, NULL);
    return EXIT_SUCCESS;
}
