/*
 * Makes a TAP interface and asks over it who has an IPv4 address, as another machine on its wire would:
 *
 *     tap_arp eth%d 192.0.2.1 [SECONDS]
 *
 * and, while it waits, in another shell (the kernel answers for its own addresses):
 *
 *     ip address add 192.0.2.1/24 dev eth0 && ip link set eth0 up
 *
 * It asks once a second, ten times unless SECONDS are given, and prints the hardware address that answers.
 * CAP_NET_ADMIN is needed.
 */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <kiv/network.h>

/* Ours on the wire, and the interface's: it is the kernel's end. */
static const uint8_t us[6] = {0x02, 0x4b, 0x49, 0x56, 0x00, 0x01};
static const uint8_t interface_address[6] = {0x02, 0x4b, 0x49, 0x56, 0x00, 0x02};

enum { ARP_SIZE = 28, SENDER = 8, SENDER_IP = 14, TARGET_IP = 24 };

/* Ethernet, IPv4, lengths 6 and 4, a request. */
static const uint8_t request_head[8] = {0, 1, 8, 0, 6, 4, 0, 1};

/* Who has this address? Asked by its neighbour, the address with the last bit turned. */
static int ask(int32_t tap, struct in_addr wanted) {
    uint8_t header[KIV_ETH_HEADER_SIZE] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    uint8_t arp[ARP_SIZE] = {0};
    memcpy(header + 6, us, sizeof us);
    header[12] = 0x08;
    header[13] = 0x06;
    memcpy(arp, request_head, sizeof request_head);
    memcpy(arp + SENDER, us, sizeof us);
    memcpy(arp + SENDER_IP, &wanted, 4);
    arp[SENDER_IP + 3] ^= 1;
    memcpy(arp + TARGET_IP, &wanted, 4);
    return kiv_eth_write(&tap, header, arp, sizeof arp);
}

/* Whether a frame that has come is the answer. */
static int is_answer(int32_t tap, struct in_addr wanted, uint8_t *sender) {
    uint8_t header[KIV_ETH_HEADER_SIZE];
    uint8_t payload[1600];
    const int length = kiv_eth_read(&tap, header, payload, sizeof payload);
    if (length < ARP_SIZE || header[12] != 0x08 || header[13] != 0x06 || payload[7] != 2 ||
        memcmp(payload + SENDER_IP, &wanted, 4) != 0)
        return 0;
    memcpy(sender, payload + SENDER, 6);
    return 1;
}

int main(int argc, char **argv) {
    struct in_addr wanted;
    uint8_t sender[6];
    int32_t tap;
    if (argc < 3 || argc > 4 || inet_pton(AF_INET, argv[2], &wanted) != 1) {
        fprintf(stderr, "usage: tap_arp INTERFACE ADDRESS [SECONDS]\n");
        return 2;
    }
    if (kiv_eth_open(&tap, argv[1], interface_address) != 0) {
        fprintf(stderr,
                "%s: the interface could not be made: no TUN device, no right to it, or a name in use\n",
                argv[1]);
        return 1;
    }
    const int seconds = argc > 3 ? (int)strtol(argv[3], NULL, 10) : 10;
    const time_t end = time(NULL) + seconds;
    fprintf(stderr, "waiting for %s to answer, %d s at most\n", argv[2], seconds);
    while (time(NULL) < end) {
        const int sent = ask(tap, wanted);
        if (sent < 0 && sent != -EIO) /* EIO: the interface is not up yet */
            fprintf(stderr, "asking: %s\n", strerror(-sent));
        struct pollfd entry = {.fd = tap, .events = POLLIN};
        while (poll(&entry, 1, 1000) > 0 && time(NULL) <= end)
            if (is_answer(tap, wanted, sender)) {
                printf("%s is at %02x:%02x:%02x:%02x:%02x:%02x\n", argv[2], sender[0], sender[1], sender[2],
                       sender[3], sender[4], sender[5]);
                return kiv_eth_close(&tap) != 0;
            }
    }
    fprintf(stderr, "%s: nobody answers\n", argv[2]);
    kiv_eth_close(&tap);
    return 1;
}
