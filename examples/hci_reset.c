/*
 * Resets the Bluetooth controller through its H4 stream, and prints its address and version.
 *
 *     hci_reset [CONTROLLER [SECONDS]]
 *
 * CONTROLLER  hci0
 * SECONDS     the longest silence before it gives up: 5
 *
 * Needs the CAP_NET_ADMIN and CAP_NET_RAW capabilities and a kernel that allows raw mode; or the simulated
 * board. The controller stays in raw mode.
 */
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/uart.h"

enum { INDICATOR_COMMAND = 1, INDICATOR_SCO = 3, INDICATOR_EVENT = 4 };
enum { COMMAND_COMPLETE = 0x0e, COMMAND_STATUS = 0x0f };
enum { RESET = 0x0c03, READ_LOCAL_VERSION = 0x1001, READ_BD_ADDR = 0x1009 };

struct packet {
    uint8_t indicator;
    uint8_t header[4];
    uint8_t data[65535];
};

/* A read waits without limit. This waits before it: whether something comes in time. */
static int comes_within(int fd, int seconds) {
    struct pollfd entry = {.fd = fd, .events = POLLIN};
    return poll(&entry, 1, seconds * 1000) > 0;
}

static int read_exactly(UART_infos *port, void *buffer, unsigned int length) {
    return length == 0 ? 0 : sup_uart_Read(port, buffer, &length);
}

/* Reads one packet of the stream: its indicator, then the header, which tells how much data follows. All of
 * it, since a wait does not see the rest of a packet that was read in part. */
static int read_packet(UART_infos *port, struct packet *packet) {
    unsigned int length;
    int status = read_exactly(port, &packet->indicator, 1);
    if (status != 0)
        return status;
    length = packet->indicator == INDICATOR_EVENT ? 2 : packet->indicator == INDICATOR_SCO ? 3 : 4;
    status = read_exactly(port, packet->header, length);
    if (status != 0)
        return status;
    length = length == 4 ? packet->header[2] + 256u * packet->header[3] : packet->header[length - 1];
    return read_exactly(port, packet->data, length);
}

/* Sends a command without parameters and waits for its end, with the return parameters in packet->data + 4.
 * Returns what went wrong, or null. Other packets that come in between are none of our business. */
static const char *run(UART_infos *port, unsigned int opcode, struct packet *packet, int seconds) {
    const uint8_t command[4] = {INDICATOR_COMMAND, (uint8_t)opcode, (uint8_t)(opcode >> 8), 0};
    const uint8_t *data = packet->data;
    int status = sup_uart_Send(port, command, sizeof command);
    while (status == 0) {
        if (!comes_within(port->fd, seconds))
            return "the controller has not answered in time";
        status = read_packet(port, packet);
        if (status != 0 || packet->indicator != INDICATOR_EVENT)
            continue;
        if (packet->header[0] == COMMAND_COMPLETE && data[1] + 256u * data[2] == opcode)
            return data[3] == 0 ? NULL : "the controller has refused a command";
        if (packet->header[0] == COMMAND_STATUS && data[2] + 256u * data[3] == opcode && data[0] != 0)
            return "the controller has refused a command";
    }
    return strerror(status);
}

static const char *reset_and_ask(UART_infos *port, int seconds) {
    static struct packet packet; /* too large for a small stack */
    const uint8_t *r = packet.data + 4;
    const char *trouble = run(port, RESET, &packet, seconds);
    if (trouble == NULL && (trouble = run(port, READ_BD_ADDR, &packet, seconds)) == NULL)
        printf("address %02X:%02X:%02X:%02X:%02X:%02X\n", r[5], r[4], r[3], r[2], r[1], r[0]);
    if (trouble == NULL && (trouble = run(port, READ_LOCAL_VERSION, &packet, seconds)) == NULL)
        printf("version %u.%u, manufacturer %u\n", r[0], r[1] + 256u * r[2], r[4] + 256u * r[5]);
    return trouble;
}

int main(int argc, char **argv) {
    const char *name = argc > 1 ? argv[1] : "hci0";
    const char *trouble;
    UART_infos port;
    const int status = sup_uart_Init(&port, name, 0, 0);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", name, strerror(abs(status)));
        return 1;
    }
    trouble = reset_and_ask(&port, argc > 2 ? (int)strtol(argv[2], NULL, 10) : 5);
    if (trouble != NULL)
        fprintf(stderr, "%s: %s\n", name, trouble);
    return sup_uart_close(&port) != 0 || trouble != NULL;
}
