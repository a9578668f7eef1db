/*
 * Serial ports: one set of calls for every stream of bytes that the device knows.
 *
 * The device name given to sup_uart_Init2 selects what stands behind a port:
 *
 *   hci0            the Bluetooth controller hci0, as a UART that speaks H4; see pos_open_bt in
 *                   transports.h. Every name that begins with "hci" means a controller
 *   btsyspath:...   refused with -22
 *   tcp:5000        a TCP server on port 5000 of every local IPv4 address, one client at a time. Anybody
 *                   who reaches the machine can connect: there is no password
 *   tcpout:...      refused here with 19 (ENODEV); see pos_open_tcp_client in transports.h
 *   unix:/run/gps   a client of the service that listens on that Unix socket; unix:@gps for a name in the
 *                   abstract namespace. It connects again by itself; see pos_open_unix in transports.h
 *   anything else   the path of a tty device
 *
 * The same calls then read, write and close the port; the line settings act on ttys and do nothing, with
 * status 0, on every other port.
 *
 * Errors. A function returns 0 or a status: a positive errno value (22 EINVAL, 19 ENODEV, 5 EIO, 38 ENOSYS
 * and those of the failing system call), and in three places a negative value, named where they occur.
 * Treat every status other than 0 as a failure. A null record gives 22. A record that is all zero, because it
 * was never opened, gives 9 (EBADF). Any other record that is not open is reported and then used all the
 * same.
 *
 * Log. A failing system call is reported by one line in the log category "POS" (see platform.h), an
 * interrupted one, too. Most functions then warn of their status, which is a second line. Silent are the
 * reads, sends and connects of TCP and Unix ports and of the GPS demultiplexer, and the closing of a tty,
 * which is only warned of.
 *
 * Signals. Reads and writes of ttys and of Bluetooth ports go on after a signal. On the other streams a
 * signal whose handler was installed without SA_RESTART ends the connection: a blocked read waits for the
 * next one, and a blocked send on TCP or a Unix socket drops the rest and reports success. Install handlers
 * with SA_RESTART, or block signals in the threads that use ports. The wait between two pieces in
 * sup_uart_Read_partial_timeout ends like a time-out, whatever the handler.
 *
 * Threads. Different records are independent. On one record, one thread may read while another writes,
 * and any thread may call sup_uart_Stop_UART; on TCP ports any number of threads may write. The line
 * settings must not overlap each other, and opening and closing must not overlap anything on the record.
 *
 * Descriptors. None that the library makes is 0, 1 or 2, also in a program that has closed those: what it
 * writes there would end up in a device or at a peer.
 *
 * Ownership. The record is the caller's, from before the opening until after the closing; the library
 * keeps no pointer to it. What an opening made is released by sup_uart_close. A record whose opening failed
 * holds nothing and may only be opened again.
 */
#ifndef KIV_UART_H
#define KIV_UART_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "kiv/export.h"

KIV_BEGIN_C

/* The port record ----------------------------------------------------------------------------------- */

typedef struct UART_infos UART_infos;
typedef struct kiv_linux_sfd kiv_linux_sfd_t;

/* Called with the record and the context below when a port has been opened or has regained its peer
 * (connected), or has lost it (disconnected). Ports on TCP and Unix sockets call neither. A null function is
 * not called. */
typedef struct UART_status_cb {
    void (*connected)(UART_infos *port, void *context);
    void (*disconnected)(UART_infos *port, void *context);
    void *context;
} UART_status_cb;

/* magic of an open port. Closing leaves it as it is; only the next opening clears it. */
#define UART_MAGIC 0xc0decafeu

/* flags: the port is a stream and not a tty. Higher bits are the transports' own. */
#define UART_FLAG_STREAM 1u

/* Sixteen 32-bit words on the device. The fields from read on are operations that a transport fills; an
 * empty one means what a tty does. Applications look at fd (to wait for it together with others) and leave
 * the rest alone. */
struct UART_infos {
    uint32_t magic;
    int32_t fd; /* negative while there is no descriptor or no peer; may change between calls on streams */
    kiv_linux_sfd_t *kiv_linux_sfd; /* ttys only */
    uint32_t flags;
    int (*read)(UART_infos *port, void *buffer, unsigned int length);
    int (*write)(UART_infos *port, const void *buffer, unsigned int length);
    int (*writev)(UART_infos *port, const struct iovec *iov, int iovcnt);
    int (*close)(UART_infos *port);
    int (*change_speed)(UART_infos *port, unsigned int speed);
    int (*change_parity)(UART_infos *port, unsigned int parity);
    int (*change_stop_bits)(UART_infos *port, unsigned int stop_bits);
    int32_t fd_listen;
    void *priv;
    UART_status_cb status_cb;
};

/* Line settings ------------------------------------------------------------------------------------- */

/* speed: one of these codes, or a number above 115200 taken as a rate in bit/s of its own. The codes 3, 5,
 * 10, 12 and 14 and the numbers 19 to 115200 are refused: 9600 is UART_SPEED_9600, not 9600. What the driver
 * makes of a rate is not told: a PL011 asked for one that it cannot make keeps the one that it had. */
enum {
    UART_SPEED_HANGUP = 0, /* drops the modem lines */
    UART_SPEED_2400 = 1,
    UART_SPEED_4800 = 2,
    UART_SPEED_9600 = 4,
    UART_SPEED_19200 = 6,
    UART_SPEED_38400 = 7,
    UART_SPEED_57600 = 8,
    UART_SPEED_115200 = 9,
    UART_SPEED_230400 = 11,
    UART_SPEED_460800 = 13,
    UART_SPEED_921600 = 15,
    UART_SPEED_1500000 = 16,
    UART_SPEED_2000000 = 17,
    UART_SPEED_3000000 = 18
};

/* parity: every other number is refused. UART_PARITY_ON leaves the choice of odd or even as the line has
 * it: even on a line that was never set to odd, odd after UART_PARITY_ODD. */
enum { UART_PARITY_NONE = 0, UART_PARITY_ODD = 1, UART_PARITY_ON = 2 };

/* stop_bits: every other number is refused, 1 included. */
enum { UART_STOP_BITS_ONE = 0, UART_STOP_BITS_TWO = 2 };

/* options of an opening. Bit 0 means flow control on a tty, and waiting for the peer on a TCP port. */
enum { UART_OPTION_RTS_CTS = 1, UART_OPTION_WAIT_PEER = 1 };

/* flag of sup_uart_Flush: what has come and was not read, what was written and has not gone, or both. */
enum { UART_FLUSH_INPUT = 0, UART_FLUSH_OUTPUT = 1, FLUSH_ALL = 2 };

/* manage of sup_uart_RTS_Manage: mind that 0 raises the line. */
enum { UART_RTS_RAISE = 0, UART_RTS_DROP = 1 };

/* Opening and closing ------------------------------------------------------------------------------- */

/* Opens a port. The record is cleared first, whatever it held.
 *
 * device_name  see the head of this file; must outlast the call only
 * speed        as above; ttys only
 * options      UART_OPTION_RTS_CTS on a tty: hardware flow control on, otherwise off.
 *              UART_OPTION_WAIT_PEER on a TCP port: return only when the first client has come
 * status_cb    copied; null for no callbacks. connected is called once a tty is open, before this returns
 *
 * A tty is set to raw bytes, 8 data bits, no parity, ignoring the carrier; its stop bits stay as they are.
 *
 * Returns 0; 22 for a null record or name or a speed that is refused; 19 for a tcpout: name; the errno of
 * the step that failed; or the transport's status. Blocks for UART_OPTION_WAIT_PEER, and as the device's open
 * does: on a tty that heeds its carrier (stty -clocal), until the carrier is there. */
KIV_API int sup_uart_Init2(UART_infos *port, const char *device_name, unsigned int speed,
                           unsigned int options, const UART_status_cb *status_cb);

/* sup_uart_Init2 without callbacks. */
KIV_API int sup_uart_Init(UART_infos *port, const char *device_name, unsigned int speed,
                          unsigned int options);

/* Closes a port that is open and releases all that its opening made: the tty and its pipe, or the
 * transport's sockets and memory. No other call may be inside the record. It may then only be opened again;
 * magic stays as it is. A second close releases nothing and hits nobody.
 *
 * Returns 0; 22 for a null record; -1 with errno set when closing the tty failed (it is released all the
 * same); or the transport's status. */
KIV_API int sup_uart_close(UART_infos *port);

/* Stops a tty port: waits until all output has been sent, sets UART_SPEED_HANGUP, which drops the modem
 * lines, and releases one reader: the one that is blocked now, or else the next one that finds no data. A
 * timed read between two pieces is not released: it ends by its time-out, and the stop stays for the next
 * read. Stops are counted: each one releases one read, which returns 5 (EIO). The port stays open, and
 * setting a speed makes it work again. Made to be called from another thread than the reader's. Does nothing
 * on ports that are not ttys: a reader that is blocked there waits for its peer.
 *
 * Returns 0, 22 for a null record, or the errno of the step that failed; the reader is released even then.
 * Blocks while flow control holds the output. */
KIV_API int sup_uart_Stop_UART(UART_infos *port);

/* Reading and writing ------------------------------------------------------------------------------- */

/* Read whatever has come, but at least one byte; blocks until then.
 *
 * buffer  room for *length bytes
 * length  in: the most to read, out: how many were read; unchanged on failure, but 0 for a record that was
 *         never opened. Must not be null
 *
 * Returns 0 (at once when *length is 0); 22 for a null record; 5 when the stream has ended or the read was
 * stopped; or the errno of the read. */
KIV_API int sup_uart_Read_partial(UART_infos *port, void *buffer, unsigned int *length);

/* Reads until *length bytes have come, or nothing has come for a while after the first byte. The first byte
 * is waited for without limit.
 *
 * timeout_us  the longest silence between two pieces, in microseconds, 0 to 4294967295. It limits each
 *             pause, not the call
 *
 * Otherwise as sup_uart_Read_partial; a time-out, or a signal during the wait, is a success with *length
 * telling what came. On a port that has no peer at the moment, this is sup_uart_Read_partial.
 *
 * On a stream that connects again, a peer that goes between two pieces is no end and no time-out: the read
 * waits for the next peer, without limit, and adds its bytes. */
KIV_API int sup_uart_Read_partial_timeout(UART_infos *port, void *buffer, unsigned int *length,
                                          unsigned int timeout_us);

/* Reads exactly *length bytes; blocks until they have come.
 *
 * On failure *length tells how many bytes are in the buffer. Returns 0; 22 for a null record; 5 when the
 * stream has ended, the read was stopped, or *length is 0; or the errno of the read. */
KIV_API int sup_uart_Read(UART_infos *port, void *buffer, unsigned int *length);

/* Writes length bytes, all of them; blocks until they are in the device's queue (not until they are sent).
 * TCP and Unix ports drop the data and report success while nobody is connected.
 *
 * Returns 0; 22 for a null record; 5 when the stream takes no more, or length is 0; or the errno of the
 * write. How much of the data went out before a failure is not told. */
KIV_API int sup_uart_Send(UART_infos *port, const void *buffer, unsigned int length);

/* Writes the pieces of iov in order.
 *
 * iov, iovcnt  the pieces; none when iovcnt is 0 or negative. A piece of 0 bytes is an error (5) on ports
 *              that send piece by piece: ttys, TCP, Unix sockets, the GPS demultiplexer
 * sent         out: how many bytes went out, the piece that failed counted whole; must not be null
 *
 * Returns as sup_uart_Send does. */
KIV_API int sup_uart_Sendv(UART_infos *port, const struct iovec *iov, int iovcnt, unsigned int *sent);

/* Line control, ttys only --------------------------------------------------------------------------- */

/* Change one setting and keep the others; the output that is queued is sent first, however long flow
 * control holds it. On failure the line is as it was.
 *
 * Return 0; 22 for a null record or a refused speed; -22 for a refused parity or number of stop bits; or
 * the errno of the request that failed. */
KIV_API int sup_uart_Change_Speed(UART_infos *port, unsigned int speed);
KIV_API int sup_uart_Change_Parity(UART_infos *port, unsigned int parity);
KIV_API int sup_uart_Change_StopBitsNumber(UART_infos *port, unsigned int stop_bits);

/* Discards what is queued, at once. flag is one of the UART_FLUSH_ values or FLUSH_ALL; any other number is
 * reported and means FLUSH_ALL. Returns 0; 22 for a null record; -1 (not an errno) when the request failed.
 */
KIV_API int sup_uart_Flush(UART_infos *port, unsigned int flag);

/* Raises (0) or drops (any other number) the RTS line. A failure is only logged, as are a null record and one
 * that was never opened. */
KIV_API void sup_uart_RTS_Manage(UART_infos *port, unsigned int manage);

/* Turns hardware flow control on (not 0) or off (0), at once. Returns 0; 22 for a null record; or the errno
 * of the request that failed. */
KIV_API int sup_uart_RTS_Enable(UART_infos *port, unsigned int enable);

/* Not supported: they return 38 (ENOSYS), also for a null record. Callbacks are given to sup_uart_Init2. */
KIV_API int sup_uart_Set_Break(UART_infos *port);
KIV_API int sup_uart_Reset_Break(UART_infos *port);
KIV_API int sup_uart_Register_Status_Callback(UART_infos *port, const UART_status_cb *status_cb);

/* Cancellable descriptor ---------------------------------------------------------------------------- */

/* What is under a tty port, for programs that want a blocking read on a device of their own which another
 * thread can end. No function checks its object for null. One thread at a time may read; any thread may
 * cancel; closing must not overlap a read. */

/* Opens path with the flags of open(2) (no mode is passed, so O_CREAT is not for it). None of its descriptors
 * is 0, 1 or 2, even where those are closed. Returns the object, to be released by kiv_linux_sclose, or null
 * with errno set and nothing left open. */
KIV_API kiv_linux_sfd_t *kiv_linux_sopen(const char *path, int oflag);

/* The device's descriptor. It belongs to the object. */
KIV_API int kiv_linux_sfdno(kiv_linux_sfd_t *s);

/* Reads up to length bytes, waiting for the first. Returns their number; 0 at the end of the data or when a
 * cancellation was used up; -1 with errno set (EINTR when a signal came, EIO when the device reports a
 * hang-up or an error and has no data). Data that has come goes before a cancellation. */
KIV_API ssize_t kiv_linux_sread(kiv_linux_sfd_t *s, void *buffer, size_t length);

/* Queues one cancellation, which ends one read. Cancellations add up. Returns 1, or -1 with errno set. */
KIV_API ssize_t kiv_linux_sclose_cancel(kiv_linux_sfd_t *s);

/* Closes the device and releases the object, unused cancellations included. Returns 0, or -1 with errno set
 * when closing the device failed; the object is gone either way. */
KIV_API int kiv_linux_sclose(kiv_linux_sfd_t *s);

KIV_END_C

#endif
