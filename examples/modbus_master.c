/*
 * A Modbus RTU master, at 115200 bit/s without parity: reads holding registers of a slave, or writes one.
 * Registers count from 0.
 *
 *     modbus_master /dev/ttyS1 17 0 4       slave 17, registers 0 to 3
 *     modbus_master /dev/ttyS1 17 2=500     writes register 2
 *
 * It gives up when the slave has not begun to answer for three seconds.
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kiv/uart.h"
#include "modbus.h"

/* The pause that ends an answer: 1.75 ms on the line, and more behind adapters that collect bytes. */
enum { SILENCE_US = 20000, PATIENCE_MS = 3000 };

static const char *refusal(int code) {
    static const char *const texts[] = {"refused", "it has no such function", "it has no such register",
                                        "it does not take that value", "it has failed"};
    return texts[code > 0 && code < 5 ? code : 0];
}

/* Sends a request of two numbers and takes the answer. Returns null, or what went wrong. */
static const char *ask(UART_infos *port, long address, int function, unsigned long first, unsigned long value,
                       unsigned char *answer, unsigned long expected) {
    unsigned char request[8] = {(unsigned char)address,      (unsigned char)function,
                                (unsigned char)(first >> 8), (unsigned char)first,
                                (unsigned char)(value >> 8), (unsigned char)value};
    struct pollfd wait = {port->fd, POLLIN, 0};
    unsigned int length = LONGEST_FRAME;
    int status;
    sup_uart_Flush(port, UART_FLUSH_INPUT); /* what came too late for the last question */
    status = sup_uart_Send(port, request, add_crc(request, 6));
    if (status == 0 && poll(&wait, 1, PATIENCE_MS) == 0)
        return "no answer";
    if (status == 0)
        status = sup_uart_Read_partial_timeout(port, answer, &length, SILENCE_US);
    if (status != 0)
        return strerror(abs(status));
    if (length < 5 || is_broken(answer, length) || answer[0] != address)
        return "the answer is broken";
    if (answer[1] == (function | 0x80))
        return refusal(answer[2]);
    return answer[1] == function && length == expected ? NULL : "the answer is not to the question";
}

int main(int argc, char **argv) {
    const long address = argc > 2 ? strtol(argv[2], NULL, 10) : 0;
    const char *value = argc > 3 ? strchr(argv[3], '=') : NULL, *trouble;
    const char *second = value != NULL ? value + 1 : argc > 4 ? argv[4] : "1"; /* the value or the count */
    char *rest;
    const unsigned long first = argc > 3 ? strtoul(argv[3], NULL, 10) : 0,
                        number = strtoul(second, &rest, 10);
    const unsigned long count = value == NULL ? number : 0;
    unsigned char answer[LONGEST_FRAME] = {0};
    unsigned long i;
    UART_infos port;
    int status;
    if (argc < 4 || rest == second || *rest != '\0' || address < 1 || address > 247 || first > 65535 ||
        number > 65535 || (value == NULL && (count < 1 || count > 125))) {
        fprintf(stderr,
                "usage: modbus_master DEVICE ADDRESS(1-247) REGISTER=VALUE | REGISTER [COUNT(1-125)]\n");
        return 2;
    }
    status = sup_uart_Init2(&port, argv[1], UART_SPEED_115200, 0, NULL);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(abs(status)));
        return 1;
    }
    trouble = ask(&port, address, value != NULL ? WRITE : READ, first, number, answer,
                  value != NULL ? 8 : 5 + 2 * count);
    sup_uart_close(&port);
    if (trouble != NULL)
        fprintf(stderr, "%s: slave %ld: %s\n", argv[1], address, trouble);
    for (i = 0; i < count && trouble == NULL; ++i)
        printf("%lu: %u\n", first + i, (unsigned int)answer[3 + 2 * i] << 8 | answer[4 + 2 * i]);
    return trouble != NULL;
}
