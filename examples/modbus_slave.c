/*
 * A Modbus RTU slave with 16 holding registers, at 115200 bit/s without parity. A master reads them (function
 * 3), writes one (6) or several (16).
 *
 *     modbus_slave /dev/ttyS1 17 [SECONDS]
 *
 * It ends when nobody has asked for so many seconds, 60 unless they are given.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/uart.h"
#include "modbus.h"

enum { WRITE_SEVERAL = 16 };
enum { ILLEGAL_FUNCTION = 1, ILLEGAL_ADDRESS = 2, ILLEGAL_VALUE = 3 };
enum { EVERYBODY = 0, REGISTERS = 16 };

/* A frame ends with a silence: 1.75 ms on the line, and more behind adapters that collect bytes. */
enum { SILENCE_US = 5000 };

static unsigned int get16(const unsigned char *at) {
    return (unsigned int)at[0] << 8 | at[1];
}

static size_t refuse(unsigned char *request, int why) {
    request[0] |= 0x80;
    request[1] = (unsigned char)why;
    return 2;
}

/* Puts the answer in the place of the request. Both begin with the function. Returns the answer's length. */
static size_t carry_out(unsigned char *request, size_t length, unsigned char *registers) {
    const int function = request[0];
    const size_t first = get16(request + 1), count = function == WRITE ? 1 : get16(request + 3);
    if (function != READ && function != WRITE && function != WRITE_SEVERAL)
        return refuse(request, ILLEGAL_FUNCTION);
    if (count == 0 || count > 125 || length != (function == WRITE_SEVERAL ? 6 + 2 * count : 5))
        return refuse(request, ILLEGAL_VALUE);
    if (first + count > REGISTERS)
        return refuse(request, ILLEGAL_ADDRESS);
    if (function == READ) {
        request[1] = (unsigned char)(2 * count);
        memcpy(request + 2, registers + 2 * first, 2 * count);
        return 2 + 2 * count;
    }
    memcpy(registers + 2 * first, request + (function == WRITE ? 3 : 6), 2 * count);
    return 5;
}

/* Serves until nobody asks. Returns the status of what failed, ETIMEDOUT for the silence. */
static int serve(UART_infos *port, long address, int patience_ms) {
    unsigned char registers[2 * REGISTERS] = {0}, frame[LONGEST_FRAME];
    struct pollfd wait = {port->fd, POLLIN, 0};
    int status = 0;
    while (status == 0) {
        unsigned int length = sizeof frame;
        size_t answer;
        if (poll(&wait, 1, patience_ms) == 0)
            return ETIMEDOUT;
        memset(frame, 0, sizeof frame);
        status = sup_uart_Read_partial_timeout(port, frame, &length, SILENCE_US);
        /* What is broken or for others gets no answer. */
        if (status != 0 || length < 4 || is_broken(frame, length) ||
            (frame[0] != address && frame[0] != EVERYBODY))
            continue;
        answer = 1 + carry_out(frame + 1, length - 3, registers);
        if (frame[0] != EVERYBODY)
            status = sup_uart_Send(port, frame, add_crc(frame, answer));
    }
    return status;
}

int main(int argc, char **argv) {
    const long address = argc > 2 ? strtol(argv[2], NULL, 10) : 0;
    const long seconds = argc > 3 ? strtol(argv[3], NULL, 10) : 60;
    UART_infos port;
    int status;
    if (address < 1 || address > 247 || seconds < 1 || seconds > 86400) {
        fprintf(stderr, "usage: modbus_slave DEVICE ADDRESS(1-247) [SECONDS(1-86400)]\n");
        return 2;
    }
    status = sup_uart_Init2(&port, argv[1], UART_SPEED_115200, 0, NULL);
    if (status == 0) {
        printf("waiting for requests to %ld\n", address);
        fflush(stdout);
        status = serve(&port, address, (int)seconds * 1000);
        sup_uart_close(&port);
    }
    if (status == ETIMEDOUT)
        printf("nobody has asked for %ld s\n", seconds);
    else
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
    return status != ETIMEDOUT;
}
