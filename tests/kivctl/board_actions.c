/* What a test does at the back door of kivctl's own board, as KIVCTL_BOARD in the environment says:
 *
 *   edges=PIN    whenever somebody waits for the pin's interrupt, it goes high and low again
 *   claim=ADDR   a kernel driver holds the I2C address
 *   hold         the far end of the first line takes nothing while there is flow control
 *   blocks       the bus lets chips tell a length, and they tell three bytes: abc
 *   eeprom=PATH  the EEPROM's bytes are in this file when the program has ended
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kiv/sim.h"

static const char *argument_of(const char *action) {
    const char *text = getenv("KIVCTL_BOARD");
    const size_t length = strlen(action);
    return text != NULL && strncmp(text, action, length) == 0 ? text + length : NULL;
}

static int is_awaited(const kiv_sim_pin_state *state, void *context) {
    (void)context;
    return state->waiting > 0;
}

static void *make_edges(void *pin) {
    const unsigned number = (unsigned)atoi(pin);
    sigset_t all; /* signals are for the program */
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, NULL);
    for (;;) {
        kiv_sim_pin_wait(number, is_awaited, NULL);
        kiv_sim_pin_drive(number, 1);
        kiv_sim_pin_drive(number, 0);
    }
    return NULL;
}

__attribute__((constructor)) static void act(void) {
    const char *pin = argument_of("edges=");
    const char *address = argument_of("claim=");
    pthread_t thread;
    if (pin != NULL)
        pthread_create(&thread, NULL, make_edges, (void *)pin);
    if (argument_of("hold") != NULL)
        kiv_sim_line_set_inputs(0, 0);
    if (address != NULL)
        kiv_sim_i2c_claim((unsigned)strtoul(address, NULL, 0), 1);
}

/* What the kernel makes of a message whose length the chip tells; -1 when it would refuse it. */
static int tell_length(struct i2c_msg *message) {
    if (message->buf[0] < 1 || message->len < message->buf[0] + I2C_SMBUS_BLOCK_MAX)
        return -1;
    memcpy(message->buf, "\3abc", 4);
    message->flags &= (unsigned short)~(I2C_M_RD | I2C_M_RECV_LEN);
    message->len = 0;
    return 0;
}

/* Comes before the board's own, which gets what is left of a transfer. */
int ioctl(int fd, unsigned long request, ...) {
    int (*const board)(int, unsigned long, ...) =
        (int (*)(int, unsigned long, ...))(size_t)dlsym(RTLD_NEXT, "ioctl");
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (argument_of("blocks") != NULL && request == I2C_RDWR) {
        const struct i2c_rdwr_ioctl_data *transfer = argument;
        for (unsigned i = 0; i < transfer->nmsgs; ++i)
            if ((transfer->msgs[i].flags & I2C_M_RECV_LEN) != 0 && tell_length(&transfer->msgs[i]) != 0)
                return -1;
    }
    const int result = board(fd, request, argument);
    if (argument_of("blocks") != NULL && request == I2C_FUNCS)
        *(unsigned long *)argument |= I2C_FUNC_SMBUS_READ_BLOCK_DATA;
    return result;
}

/* Its name where time has 64 bits on a 32-bit processor. */
int __ioctl_time64(int fd, unsigned long request, ...) __attribute__((alias("ioctl"), leaf, nothrow));

/* The program's own ending comes here. */
__attribute__((noreturn)) void _exit(int status) {
    const char *path = argument_of("eeprom=");
    unsigned char bytes[256];
    FILE *file = path != NULL ? fopen(path, "wb") : NULL;
    if (file != NULL && kiv_sim_eeprom_dump(0, bytes, sizeof bytes) == 0)
        fwrite(bytes, 1, sizeof bytes, file);
    if (file != NULL)
        fclose(file);
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
