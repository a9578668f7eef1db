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
 * there is no such controller; 1: no CAP_NET_ADMIN), with nothing left open. */
KIV_API int pos_open_bt(UART_infos *port, const char *device_name, unsigned int options);

/* Always returns -22 (not 22), after a message in the log category "uart_bt": a controller cannot be named by
 * its path in sysfs ("btsyspath:..."). Touches neither the record nor any device. */
KIV_API int pos_open_bt_syspath(UART_infos *port, const char *device_name, unsigned int options);

/* TCP server: "tcp:" and a port number, of which the low 16 bits count; "tcp:" alone lets the system choose.
 * It listens on every local IPv4 address, serves one client at a time, and asks for no password. While
 * nobody is connected, reads wait and writes are dropped. What sup_uart_Init2 calls for such names.
 *
 * options  UART_OPTION_WAIT_PEER: return when the first client has come; the status is 0 whatever the wait
 *          gave
 *
 * Returns 0, or the errno of the step that failed, with nothing left open. */
KIV_API int pos_open_tcp(UART_infos *port, const char *device_name, unsigned int options);

/* TCP client: "tcpout:", an IPv4 address in dotted form, a colon and a port number. Host names are not
 * resolved. A connection that is lost is made again by the next read, which tries every 5 seconds for as
 * long as it takes, or by a write, which tries once and drops its data when that fails.
 *
 * options  UART_OPTION_WAIT_PEER: go on trying until the connection stands
 *
 * Returns 0; 22 for a name without an address or a port; 12 when there is no memory; or the errno of the
 * step that failed. One block of memory then stays with the record when it was the connection that failed;
 * pos_close_tcp_client releases it. */
KIV_API int pos_open_tcp_client(UART_infos *port, const char *device_name, unsigned int options);

/* Closes a TCP client port; also what sup_uart_close does for one. Harmless after a failed opening and a
 * second time. Returns 0. */
KIV_API int pos_close_tcp_client(UART_infos *port);

KIV_END_C

#endif
