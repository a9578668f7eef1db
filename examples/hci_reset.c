/*
 * Resets the Bluetooth controller hci0 through its H4 stream, and prints its address and version.
 *
 *     hci_reset
 *
 * Needs the CAP_NET_ADMIN and CAP_NET_RAW capabilities and a kernel that allows raw mode; or the simulated
 * board. The controller stays in raw mode.
 */
#include <stdint.h>
#include <stdio.h>
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

static int read_exactly(UART_infos *port, void *buffer, unsigned int length) {
    return length == 0 ? 0 : sup_uart_Read(port, buffer, &length);
}

/* Reads one packet of the stream: its indicator, then the header, which tells how much data follows. */
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

/* Sends a command without parameters and waits for its end. Returns the event's return parameters, the first
 * of which is the controller's status, or null. Other packets that come in between are none of our business.
 */
static const uint8_t *run(UART_infos *port, unsigned int opcode, struct packet *packet) {
    const uint8_t command[4] = {INDICATOR_COMMAND, (uint8_t)opcode, (uint8_t)(opcode >> 8), 0};
    const uint8_t *data = packet->data;
    if (sup_uart_Send(port, command, sizeof command) != 0)
        return NULL;
    while (read_packet(port, packet) == 0) {
        if (packet->indicator != INDICATOR_EVENT)
            continue;
        if (packet->header[0] == COMMAND_COMPLETE && data[1] + 256u * data[2] == opcode)
            return data[3] == 0 ? data + 3 : NULL;
        if (packet->header[0] == COMMAND_STATUS && data[2] + 256u * data[3] == opcode && data[0] != 0)
            return NULL;
    }
    return NULL;
}

static int print_address(UART_infos *port, struct packet *packet) {
    const uint8_t *r = run(port, READ_BD_ADDR, packet);
    if (r == NULL)
        return -1;
    printf("address %02X:%02X:%02X:%02X:%02X:%02X\n", r[6], r[5], r[4], r[3], r[2], r[1]);
    return 0;
}

static int print_version(UART_infos *port, struct packet *packet) {
    const uint8_t *r = run(port, READ_LOCAL_VERSION, packet);
    if (r == NULL)
        return -1;
    printf("version %u.%u, manufacturer %u\n", r[1], r[2] + 256u * r[3], r[5] + 256u * r[6]);
    return 0;
}

int main(void) {
    static struct packet packet; /* too large for a small stack */
    UART_infos port;
    int failed;
    const int status = sup_uart_Init(&port, "hci0", 0, 0);
    if (status != 0) {
        fprintf(stderr, "hci0: %s\n", strerror(status));
        return 1;
    }
    failed = run(&port, RESET, &packet) == NULL || print_address(&port, &packet) != 0 ||
             print_version(&port, &packet) != 0;
    if (failed)
        fprintf(stderr, "hci0: no answer, or a refusal\n");
    return sup_uart_close(&port) != 0 || failed;
}
