/*
 * Bluetooth networking: TAP interfaces, and the BNEP sender that carries the frames of one.
 *
 *   kiv_eth_*    an Ethernet interface of the caller's own name, whose frames the caller reads and writes
 *   kiv_bnep_*   the interface "bnep": frames that the kernel sends out of it go to a callback, frames that
 *                arrive over the Bluetooth link are injected. It is independent of the kiv_eth_* interfaces
 *
 * Making an interface takes CAP_NET_ADMIN and one of the devices /dev/net/tun and /dev/tun, tried in that
 * order. An interface starts without an address and down: until it is set up (ip link set bnep up) the kernel
 * sends nothing out of it, and frames given to it are refused with EIO. It goes away when it is closed or the
 * process ends; a child started by exec keeps it alive unless it closes its descriptors.
 *
 * Frames are whole Ethernet frames without a checksum: a header of KIV_ETH_HEADER_SIZE bytes and a payload.
 *
 * Errors. These functions do not return positive errno values: see each. Pointers are not checked for null.
 *
 * Log. A device that is opened is told, with "bnep device is" (level 3 of the category "POS", see
 * platform.h), and so is a name or a hardware address that is refused. That there is no device is silent for
 * kiv_eth_open, and "TAP: failed to open TUN interface" for the sender. Transfers are silent.
 */
#ifndef KIV_NETWORK_H
#define KIV_NETWORK_H

#include <stdint.h>

#include "kiv/export.h"

KIV_BEGIN_C

/* TAP interfaces ------------------------------------------------------------------------------------ */

/* Destination address (6 bytes), source address (6 bytes), protocol (EtherType, high byte first). */
#define KIV_ETH_HEADER_SIZE 14

/* Every call takes the address of the caller's descriptor variable. One thread may read while another writes
 * the same interface; the kernel keeps frames whole. Opening and closing must not overlap anything. */

/* Makes an interface.
 *
 * fd       receives the descriptor, for poll and its kin as well; untouched on failure
 * name     of the interface, or a pattern such as "tap%d" that the kernel completes; cut to 15 characters
 * address  its hardware address, 6 bytes in the order in which they are written. The kernel refuses a group
 *          address (lowest bit of the first byte set)
 *
 * Returns 0, or -19 (-ENODEV) for every failure; nothing is left open then. */
KIV_API int kiv_eth_open(int32_t *fd, const char *name, const uint8_t *address);

/* Closes the interface, which removes it. The variable keeps its value and may then only be opened again.
 * Returns 0, or -1 with errno set. */
KIV_API int kiv_eth_close(const int32_t *fd);

/* Reads the next frame that the kernel sends out of the interface; blocks until there is one. Signals do not
 * end it.
 *
 * header   room for KIV_ETH_HEADER_SIZE bytes
 * payload  room for size bytes; what is longer is cut, and lost
 *
 * Returns the number of payload bytes, or minus the errno of the read. */
KIV_API int kiv_eth_read(const int32_t *fd, void *header, void *payload, unsigned int size);

/* Gives the kernel a frame, as if it had come in at the interface.
 *
 * header   KIV_ETH_HEADER_SIZE bytes
 * payload  length bytes; 0 is allowed
 *
 * Returns the number of payload bytes, or minus the errno of the write (EIO while the interface is down). */
KIV_API int kiv_eth_write(const int32_t *fd, const void *header, const void *payload, unsigned int length);

/* BNEP sender --------------------------------------------------------------------------------------- */

/* Every outbound frame is three calls of the callback, in this order. */
enum {
    KIV_BNEP_FRAME_START = 0, /* protocol holds the frame's EtherType */
    KIV_BNEP_FRAME_DATA = 1,  /* payload and length hold what follows the Ethernet header */
    KIV_BNEP_FRAME_END = 2
};

/* What takes outbound frames. It runs on the sender's thread and must not call kiv_bnep_set_sender or
 * kiv_bnep_set_sender_priority. The frame's Ethernet addresses are not passed on.
 *
 * context   always null
 * protocol  at KIV_BNEP_FRAME_START, else 0
 * payload   at KIV_BNEP_FRAME_DATA, else null; valid during the call only
 * length    at KIV_BNEP_FRAME_DATA, 0 to 1586 bytes, else 0. A longer payload (a larger MTU) comes cut
 * step      one of the above */
typedef void (*kiv_bnep_sender_cb)(void *context, uint16_t protocol, const uint8_t *payload, uint16_t length,
                                   int32_t step);

#define KIV_BNEP_DEFAULT_PRIORITY 5

/* Starts the sender, replaces its callback, or stops it.
 *
 * sender    the callback; null stops
 * address   of the Bluetooth device, 6 bytes in Bluetooth order, which is the reverse of the written one: the
 *           interface's hardware address is address[5] to address[0]. Must stay valid until the sender is
 *           stopped. Looked at by a start only
 * priority  of the sender's thread, on kiv-core's scale. Looked at by a start only
 *
 * A start returns at once; the thread then makes the interface. When that fails the thread ends, which only
 * the log tells. It also ends when the interface fails later (it was deleted, for instance), which nothing
 * tells, and when a handled signal comes to it, SA_RESTART or not ("bnep_sender: select failed"): start it
 * with signals blocked, since threads inherit the mask. The sender then still counts as started, and a
 * callback registered is never called. To start again, stop first.
 *
 * When a replacement or a stop has returned, the callback before it is not running and is never called
 * again. A stop takes up to a second when there is no traffic; the interface is gone when it returns.
 *
 * All calls must come from one thread, or never overlap.
 *
 * Returns what kiv-core returned for letting the thread run when starting (0 is success; after any other
 * value the sender counts as started all the same, and can be stopped), for unlocking when replacing; -1 when
 * stopping, which is not a failure; 0 when there is nothing to stop. */
KIV_API int kiv_bnep_set_sender_priority(kiv_bnep_sender_cb sender, const uint8_t *address, int priority);

/* The same with KIV_BNEP_DEFAULT_PRIORITY. */
KIV_API int kiv_bnep_set_sender(kiv_bnep_sender_cb sender, const uint8_t *address);

/* Gives the kernel a frame that has arrived over the link. May be called from any thread, also from several
 * at a time, but must not overlap a stop.
 *
 * context      not used
 * protocol     the frame's EtherType
 * payload      length bytes, what follows the Ethernet header
 * destination  6 bytes in Bluetooth order, as is
 * source       6 bytes in Bluetooth order
 *
 * Returns the number of bytes given to the kernel, the Ethernet header's 14 included; or -1: errno is ENODEV
 * when the sender has no interface (yet, or any more), else that of the write, which is not repeated after a
 * signal. */
KIV_API int kiv_bnep_data_available(void *context, uint16_t protocol, const void *payload,
                                    unsigned int length, const uint8_t *destination, const uint8_t *source);

KIV_END_C

#endif
