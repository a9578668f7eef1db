/*
 * The platform: log levels, product identification, FAT attributes, USB links.
 *
 * Results. Each area has its own convention:
 *
 *   get_product_name            0, or a NEGATIVE errno value
 *   get_product_revision        the number itself; 0 for every failure, and for a revision of 0
 *   kiv_fs_get_fat_attribute    0, or a positive errno value
 *   kiv_usb_open, _close        a status of uart.h: 0, or anything else for a failure
 *   kiv_usb_write, _read        a number of bytes; a failed write returns its full length
 *
 * kiv_usb_close ONLY STOPS the link (it is sup_uart_Stop_UART). It closes no descriptor and frees nothing:
 * call sup_uart_close on the same record afterwards, once no thread is inside a read.
 *
 * Threads. There is no shared state: everything may be called from any number of threads. Records follow the
 * rules at the head of uart.h.
 */
#ifndef KIV_PLATFORM_H
#define KIV_PLATFORM_H

#include <stdint.h>

#include "kiv/export.h"
#include "kiv/uart.h"

KIV_BEGIN_C

/* Log levels ---------------------------------------------------------------------------------------- */

/* The library's log categories, "POS" and "uart_bt", write messages of a level up to these: 1 for failures,
 * 2 and 3 for information. They start at 3 and may be set at any time from any thread; the next message
 * obeys, and at 0 there is none. What is no message of a category goes to kiv-core whatever the level: failed
 * assertions, warnings of a failing exit, and the TCP ports' "Waiting connection" and "Try to connect". */
extern KIV_API int kiv_log_dyn_level_POS;
extern KIV_API int kiv_log_dyn_level_uart_bt;

/* Product identification ---------------------------------------------------------------------------- */

/* Both read /proc/cpuinfo afresh on every call, and neither writes to the log. What belongs to the board is
 * on ARM kernels only: on a PC there is no such line. */

/* The first word of the line "Hardware\t: ...", for example "Example" of "Hardware\t: Example Board".
 *
 * name  out: the word, cut to len - 1 characters; the rest of the len bytes is set to zero. Untouched on
 *       failure
 * len   the size of name in bytes, 1 or more
 *
 * Returns 0; -22 for a null name or a len of 0; -2 when there is no such line; or the negative errno of
 * opening the file. */
KIV_API int32_t get_product_name(char *name, uint32_t len);

/* The hexadecimal number of the first line that begins with "Revision" and holds a colon; it is looked for
 * two characters after the colon. Returns 0 when there is no such line, no number in it, or no file;
 * 0xFFFFFFFF for a number beyond 32 bits. */
KIV_API uint32_t get_product_revision(void);

/* FAT attributes ------------------------------------------------------------------------------------ */

#define KIV_FAT_HIDDEN 0x02u
#define KIV_FAT_SYSTEM 0x04u

/* Whether a file is marked hidden or system on its FAT file system.
 *
 * path        the file (a directory, too), which must be readable
 * attributes  out: any of the bits above, no others; 0 after a failure, and for a file on another file
 *             system. Must not be null
 *
 * Returns 0, or the errno of opening the file: 2 (ENOENT), 13 (EACCES), 4 when a signal interrupted it, and
 * on 32-bit systems 75 (EOVERFLOW) for a file of 2 GB or more. Nothing is logged. */
KIV_API int32_t kiv_fs_get_fat_attribute(const char *path, uint32_t *attributes);

/* USB links ----------------------------------------------------------------------------------------- */

/* A USB link is a serial port at 115200 bit/s with hardware flow control, for programs that want counts
 * instead of statuses. Everything of uart.h works on the record, too, and tells more.
 *
 *     kiv_usb_open, kiv_usb_write, kiv_usb_read ..., kiv_usb_close, sup_uart_close
 */

/* Opens a link: sup_uart_Init with this set-up, and its status. After a failure there is nothing to close. */
KIV_API int kiv_usb_open(UART_infos *port, const char *device_name);

/* Stops a link: sup_uart_Stop_UART, and its status. Waits until the output is sent, drops the modem lines
 * and releases a blocked reader. The link remains open: sup_uart_close releases it. */
KIV_API int kiv_usb_close(UART_infos *port);

/* Writes length bytes; blocks until they are in the device's queue. Returns length, ALSO WHEN THE WRITE
 * FAILED or the record is null: that is in the log only. */
KIV_API unsigned int kiv_usb_write(UART_infos *port, const void *buffer, unsigned int length);

/* Reads exactly length bytes; blocks until they have come, the link has ended or been stopped, or a failure.
 * Returns how many bytes are in the buffer; length for a null record, with nothing in the buffer. */
KIV_API unsigned int kiv_usb_read(UART_infos *port, void *buffer, unsigned int length);

KIV_END_C

#endif
