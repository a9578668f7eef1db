/*
 * I2C: one slave device on a bus of the kernel's i2c-dev interface.
 *
 * MIND A FAILED OPENING. It leaves fd at 0, which is standard input's descriptor and not the mark of a
 * closed record: never pass a record whose opening failed to kiv_i2c_close, nor transfer on it.
 *
 *     kiv_i2c_device clock;
 *     uint8_t reg = 0, time[7];
 *     kiv_i2c_message messages[] = {{&reg, 1, 0}, {time, 7, KIV_I2C_READ}};
 *
 *     if (kiv_i2c_open(&clock, NULL, 0x68) != 0)
 *         ... nothing to close
 *     if (kiv_i2c_msg(&clock, messages, 2) == 0)
 *         ... time holds registers 0 to 6
 *     kiv_i2c_close(&clock);
 *
 * Results. Two conventions meet here:
 *
 *   kiv_i2c_open, kiv_i2c_msg    0, or a positive errno value
 *   kiv_i2c_tx, kiv_i2c_rx       the number of bytes moved, and 0 for EVERY failure: there is no telling
 *                                an absent slave from a bus that is gone
 *
 * A null pointer is reported and gives 22 (EINVAL), or 0 from kiv_i2c_tx and kiv_i2c_rx. Failing system
 * calls are reported by one line each in the log category "POS" (see platform.h), apart from those that
 * are named below; a failed opening or closing is warned of besides.
 *
 * An address at which nobody answers gives 121 (EREMOTEIO) with some bus controllers and 6 (ENXIO) with
 * others. kiv_i2c_tx and kiv_i2c_rx keep silent about the first and report the second.
 *
 * Signals. kiv_i2c_tx and kiv_i2c_rx are continued when a signal interrupts them, with one line in the log
 * each time; kiv_i2c_msg returns 4 (EINTR), since what had been done by then is unknown.
 *
 * Threads. Different records are independent, even on one bus: the kernel keeps transfers apart. Calls on
 * one record must not overlap. Every transfer is one system call, blocks until the bus has done it, and
 * allocates nothing.
 *
 * Ownership. The record is the caller's and may live on its stack; the library keeps no pointer to it.
 */
#ifndef KIV_I2C_H
#define KIV_I2C_H

#include <stdint.h>

#include "kiv/export.h"

KIV_BEGIN_C

/* The most messages of one combined transfer; the kernel itself would take 42. */
#define KIV_I2C_MAX_MSGS 20

/* flags of a message: this one reads. Other bits are those of struct i2c_msg in <linux/i2c.h>; what they ask
 * for must be offered by the bus controller. */
#define KIV_I2C_READ 0x0001u

/* One message of a combined transfer. Mind the order: it is not that of the kernel's struct i2c_msg. There
 * is no address: every message goes to the record's slave. */
typedef struct kiv_i2c_message {
    uint8_t *buf;   /* what is sent, or room for what is received; must outlast the call only */
    uint32_t len;   /* in bytes, of which the kernel takes at most 8192. Cut to its low 16 bits: 65537 is 1 */
    uint32_t flags; /* 0 or KIV_I2C_READ; cut to its low 16 bits */
} kiv_i2c_message;

/* The record of one slave. Applications leave it alone, but for this: the four operations can be set, after
 * kiv_i2c_open, by whoever reaches the slave by another way than a kernel bus. While tx is set, tx, rx and
 * msg are called and the descriptor is not used. An empty rx then gives 0, an empty msg 19 (ENODEV). close
 * counts on its own: while it is set, it is called instead of closing the descriptor. */
typedef struct kiv_i2c_device kiv_i2c_device;
struct kiv_i2c_device {
    int32_t fd;
    uint32_t address;
    int32_t (*rx)(kiv_i2c_device *device, void *rx_data, uint32_t count);               /* bytes, or -1 */
    int32_t (*tx)(kiv_i2c_device *device, const void *tx_data, uint32_t count);         /* bytes, or -1 */
    int32_t (*msg)(kiv_i2c_device *device, const kiv_i2c_message *msgs, int32_t count); /* a status */
    void (*close)(kiv_i2c_device *device);
};

/* Opens a bus and binds the record to one slave on it. The record is cleared first, whatever it held.
 *
 * name     the bus device; null means "/dev/i2c-0". "/dev/usb-i2c" is refused with 19 (ENODEV)
 * address  the slave's 7-bit address, 0x00 to 0x7f, without the direction bit: 0x68 and not 0xd0. Nobody
 *          asks the slave: opening succeeds for one that is absent, and for one that a kernel driver serves
 *
 * Returns 0; 19 as above; 22 for a null record or an address that the bus refuses; or the errno of the step
 * that failed. After a failure nothing is open and the record is all zero. */
KIV_API int32_t kiv_i2c_open(kiv_i2c_device *device, const char *name, uint32_t address);

/* Closes an opened record, which keeps its values and may then only be opened again. A second close would
 * close a descriptor that may be somebody else's by then. A failure is only logged. */
KIV_API void kiv_i2c_close(kiv_i2c_device *device);

/* Writes count bytes to the slave in one transfer (the kernel takes 8192 at most, without saying so).
 *
 * Returns the bytes written, which may be fewer than count, or 0 for any failure. */
KIV_API int32_t kiv_i2c_tx(kiv_i2c_device *device, const void *tx_data, uint32_t count);

/* Reads count bytes from the slave in one transfer (at most 8192); rx_data has room for them.
 *
 * Returns the bytes read, which may be fewer than count, or 0 for any failure. */
KIV_API int32_t kiv_i2c_rx(kiv_i2c_device *device, void *rx_data, uint32_t count);

/* Does up to 20 messages in one transfer, with repeated starts between them: the way to write a register's
 * number and read the register without letting anybody in between.
 *
 * msgs   the messages, in their order on the bus
 * count  how many. Above KIV_I2C_MAX_MSGS: 22, without a report. 0 or below: the kernel's refusal, 22
 *
 * Returns 0 when all were done; 22; 4 when a signal came; or the errno of the request, for example 121 or 6
 * when the slave does not answer. What the messages before a failing one did is done. */
KIV_API int32_t kiv_i2c_msg(kiv_i2c_device *device, const kiv_i2c_message *msgs, int32_t count);

KIV_END_C

#endif
