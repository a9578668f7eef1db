/*
 * Openings of the stream transports.
 *
 * Most programs never need this header: sup_uart_Init2 reaches the transports by the device's name. Those
 * that it does not reach are opened here, on a record that sup_uart_Prepare has cleared, and their status
 * goes through sup_uart_Opened:
 *
 *     UART_infos port;
 *     sup_uart_Prepare(&port, NULL);
 *     int status = sup_uart_Opened(&port, pos_open_tcp_client(&port, "tcpout:192.0.2.7:5000", 0));
 *     if (status != 0)
 *         ... nothing to close
 *
 * From then on the port is like any other, sup_uart_close included. Errors, threads and ownership are as
 * uart.h says at its head.
 *
 * Reconnecting. The first attempt after a loss is made at once. After two failures in a row, without a byte
 * in between, a port pauses before the next: half a second, a TCP client 5 seconds. A peer that accepts and
 * closes, or a process without a descriptor to spare, so costs no more than that.
 */
#ifndef KIV_TRANSPORTS_H
#define KIV_TRANSPORTS_H

#include <string.h>

#include "kiv/uart.h"

KIV_BEGIN_C

/* Brings a record into the state that an opening expects: cleared, no descriptor, the callbacks copied
 * (status_cb may be null). */
static inline void sup_uart_Prepare(UART_infos *port, const UART_status_cb *status_cb) {
    memset(port, 0, sizeof *port);
    port->fd = -1;
    if (status_cb != NULL)
        port->status_cb = *status_cb;
}

/* Marks a record open when the opening's status is 0. Returns that status. */
static inline int sup_uart_Opened(UART_infos *port, int status) {
    if (status == 0)
        port->magic = UART_MAGIC;
    return status;
}

/* Bluetooth HCI: "hci" and the number of a controller, of which the low 16 bits choose it ("hci" alone is
 * controller 0). The controller is taken down, put into raw mode, which makes the kernel's own Bluetooth
 * stack leave it alone, and brought up again; this takes the CAP_NET_ADMIN and CAP_NET_RAW capabilities, and
 * a kernel that allows raw mode: those from 3.x on refuse it with 95 (EOPNOTSUPP). What sup_uart_Init2 calls
 * for such names; options is ignored. connected of the record's callbacks is called before this returns.
 *
 * The port's bytes are the H4 stream: each packet is an indicator (1 command, 2 ACL data, 3 SCO data; 4
 * event, from the controller only) and the HCI packet.
 *
 * Writing: bytes may come in any pieces. Each packet goes out when its last byte has come. A byte that is no
 * indicator where one should be, and the header of an ACL packet of more than 1024 bytes of data, are logged,
 * dropped and count as sent. When the controller refuses a packet, that packet is dropped whole and
 * sup_uart_Send returns the errno; the next byte starts a packet. sup_uart_Sendv sends its pieces as exactly
 * one packet, unchecked and past what sup_uart_Send has half collected.
 *
 * Reading: the rest of a packet that was read in part is kept, and later reads get it first. It is invisible
 * to poll and select on fd, and so to the wait of sup_uart_Read_partial_timeout: read until the packet is
 * complete before waiting.
 *
 * One such port at a time in a process, one reader and one writer. A new opening forgets what the last port
 * had half read and half written. Closing closes the socket; the controller stays up, and in raw mode.
 *
 * Returns 0; 22 for a null record or name, or another prefix; or the errno of the step that failed (19:
 * there is no such controller; 1: no CAP_NET_ADMIN), with nothing left open. A failure after the first step,
 * as that with 95, leaves the controller down. */
KIV_API int pos_open_bt(UART_infos *port, const char *device_name, unsigned int options);

/* Always returns -22 (not 22), after a message in the log category "uart_bt": a controller cannot be named by
 * its path in sysfs ("btsyspath:..."). Touches neither the record nor any device. */
KIV_API int pos_open_bt_syspath(UART_infos *port, const char *device_name, unsigned int options);

/* TCP server: "tcp:" and a port number, of which the low 16 bits count; "tcp:" alone lets the system choose.
 * What follows the number is not looked at, and what is no number is 0: "tcp:127.0.0.1:5030" is port 127, and
 * "tcp:abc" lets the system choose.
 *
 * It listens on every local IPv4 address, serves one client at a time, and asks for no password. While
 * nobody is connected, reads wait and writes are dropped; a write takes the client that waits, if there is
 * one. fd_listen holds the listening socket. What sup_uart_Init2 calls for such names.
 *
 * options  UART_OPTION_WAIT_PEER: return when the first client has come; the status is 0 whatever the wait
 *          gave
 *
 * Returns 0; 22 for a null record or name, or another prefix; or the errno of the step that failed (98: the
 * port is taken; 13: no right to a port below 1024), with nothing left open. */
KIV_API int pos_open_tcp(UART_infos *port, const char *device_name, unsigned int options);

/* TCP client: "tcpout:", an IPv4 address in dotted form, a colon and a port number. Host names are not
 * resolved. A connection that is lost is made again by the next read, which tries for as long as it takes,
 * with pauses of 5 seconds, or by a write, which tries once and drops its data when that fails. Each attempt
 * takes as long as connect does, minutes where nothing answers; while it is a writer's, every TCP port of the
 * process stands still, its data included.
 *
 * options  UART_OPTION_WAIT_PEER: go on trying until the connection stands
 *
 * Returns 0; 22 for a null record or name, or a name without an address or a port; 12 when there is no
 * memory; or the errno of the step that failed. One block of memory then stays with the record when it was
 * the connection that failed, which is not reported; pos_close_tcp_client releases it. */
KIV_API int pos_open_tcp_client(UART_infos *port, const char *device_name, unsigned int options);

/* Closes a TCP client port; also what sup_uart_close does for one. Harmless after a failed opening and a
 * second time. Returns 0. */
KIV_API int pos_close_tcp_client(UART_infos *port);

/* Unix socket client: "unix:" and the path of a stream socket, or "unix:@" and a name of the abstract
 * namespace. 108 characters count; what is longer is cut. An abstract name is padded with zero bytes to the
 * full length of an address (110 bytes), and the service must have bound it like that: one that did not is
 * never reached, and nothing says so. What sup_uart_Init2 calls for such names.
 *
 * The service need not be there. While it is not, reads wait and try to connect every half second, and
 * writes try once, then drop their data and report success; nothing is logged. All Unix ports share one lock
 * for connecting, so a service that leaves a connection attempt hanging holds up the reconnections of the
 * others. The callbacks of the record are not called.
 *
 * options  not used
 *
 * Returns 0; 22 for a null record, a null name or one without the prefix; 12 when there is no memory; or the
 * errno of the step that failed, with nothing left open. */
KIV_API int pos_open_unix(UART_infos *port, const char *device_name, unsigned int options);

/* Client of a Bluetooth GPS demultiplexer, a service that listens on a Unix stream socket. sup_uart_Init2
 * does not reach it:
 *
 *     UART_infos gps;
 *     sup_uart_Prepare(&gps, &callbacks);
 *     int status = sup_uart_Opened(&gps, pos_btgpsdemux_open(&gps, "@gps"));
 *
 * socket_path  a path, or "@" and an abstract name, cut and padded as for pos_open_unix; must outlast the
 *              call only
 *
 * The record must be prepared: cleared but for its callbacks, which count from the opening on. The service
 * need not be there. A read or a write that finds it gone tries to connect every half second for as long as
 * it takes, and then goes on: no data is dropped knowingly, and a port without its service blocks. When a
 * reader and a writer both see the loss, each makes a new connection, one after the other, and the later one
 * stays.
 *
 * Callbacks: connected after every connection that was made, in the opening (before it returns) as well as
 * later; disconnected at the beginning of every reconnection, but not before the first connection. The two
 * take turns, except that disconnected comes again when a reconnection could not make a socket. They run in
 * the thread that reads or writes, with the port's lock held, and must not read, write or close that port.
 *
 * A write to a service that has gone raises SIGPIPE: ignore the signal (signal(SIGPIPE, SIG_IGN)) if that is
 * not to end the program.
 *
 * Returns 0, also while the service is away; -22 (not 22) for a null record or path; 12 when there is no
 * memory; or the errno of the socket that could not be made. After a failure nothing is left to close. From
 * reads and writes the errno of a socket that could not be made reaches the caller, and nothing else; the
 * next call tries again. */
KIV_API int pos_btgpsdemux_open(UART_infos *port, const char *socket_path);

KIV_END_C

#endif
