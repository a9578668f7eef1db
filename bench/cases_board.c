/* HCI packets, I2C transfers, GPIO calls and TAP frames, on the simulated board. What the board does for a
 * call is the same on both sides. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <pthread.h>
#include <semaphore.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <unistd.h>

#include "cases.h"
#include "kiv/core.h"
#include "kiv/gpio.h"
#include "kiv/i2c.h"
#include "kiv/network.h"
#include "kiv/sim.h"

/* HCI ----------------------------------------------------------------------------------------------- */

enum { commands = 10, longest_packet = 1029 };
static UART_infos port;
static unsigned char stream[longest_packet], packet[longest_packet], taken[longest_packet];
static unsigned int collected, total, packet_size, wanted;

static void start_hci(void) {
    must(sup_uart_Init(&port, "hci0", 0, 0) == 0, "sup_uart_Init");
    kiv_sim_hci_config config;
    kiv_sim_hci_get_config(0, &config);
    config.answers = 0;
    kiv_sim_hci_set_config(0, &config);
}

static void start_commands(int use_library, unsigned int size) {
    (void)use_library, (void)size;
    start_hci();
    for (int i = 0; i < commands; ++i)
        memcpy(stream + 4 * i, "\x01\x03\x0c", 4);
}

/* An ACL packet of the longest size, an event of any other. */
static void start_packet(int use_library, unsigned int size) {
    (void)use_library;
    start_hci();
    packet_size = size;
    if (size == longest_packet)
        memcpy(stream, "\x02\x2a\x20\x00\x04", 5); /* 1024 bytes of data */
    else
        memcpy(stream, (const unsigned char[]){4, 0xff, (unsigned char)(size - 3)}, 3);
}

/* The assembler, straight: a header byte a round, one copy of the payload, one write a packet. */
static unsigned int __attribute__((noinline))
straight_take(int fd, const unsigned char *data, unsigned int length) {
    if (collected == 0) {
        if (data[0] < 1 || data[0] > 3)
            return 1;
        packet[collected++] = data[0];
        return 1;
    }
    unsigned int count = 1;
    if (total == 0) {
        packet[collected++] = data[0];
        if (collected == (packet[0] == 2 ? 5u : 4u))
            total = packet[0] == 2 ? 5u + packet[3] + 256u * packet[4] : 4u + packet[3];
    } else {
        count = length < total - collected ? length : total - collected;
        memcpy(packet + collected, data, count);
        collected += count;
    }
    if (collected == total) {
        const ssize_t written = write(fd, packet, total);
        collected = total = 0;
        if (written == -1)
            return 0;
    }
    return count;
}

static int __attribute__((noinline)) straight_send_packets(const unsigned char *data, unsigned int length) {
    while (length > 0) {
        const unsigned int count = straight_take(port.fd, data, length);
        if (count == 0)
            return errno;
        data += count;
        length -= count;
    }
    return 0;
}

static void take(int packets) {
    for (int i = 0; i < packets; ++i)
        kiv_sim_hci_receive(0, taken, sizeof taken);
}

OPERATION(hci_commands, NOTHING, sup_uart_Send(&port, stream, 4 * commands) == 0,
          straight_send_packets(stream, 4 * commands) == 0, take(commands))

OPERATION(hci_acl, NOTHING, sup_uart_Send(&port, stream, longest_packet) == 0,
          straight_send_packets(stream, longest_packet) == 0, take(1))

static unsigned int head, tail;

static int __attribute__((noinline)) straight_read_packet(unsigned char *buffer, unsigned int *length) {
    if (head == tail) {
        head = 0;
        const ssize_t count = read(port.fd, packet, sizeof packet);
        if (count <= 0)
            return EIO;
        tail = (unsigned int)count;
    }
    const unsigned int count = *length < tail - head ? *length : tail - head;
    memcpy(buffer, packet + head, count);
    head += count;
    *length = count;
    return 0;
}

static void receive(void) {
    must(kiv_sim_hci_send(0, stream, packet_size) == 0, "packet");
}

OPERATION(hci_read_packet, (receive(), wanted = sizeof taken),
          sup_uart_Read_partial(&port, taken, &wanted) == 0, straight_read_packet(taken, &wanted) == 0,
          NOTHING)

/* Into a buffer with room for this packet, but not for every one. */
OPERATION(hci_read_exact, (receive(), wanted = packet_size),
          sup_uart_Read_partial(&port, taken, &wanted) == 0, straight_read_packet(taken, &wanted) == 0,
          NOTHING)

#define BYTE_BY_BYTE(call)                                                                                   \
    for (unsigned int i = 0; i < packet_size; ++i) {                                                         \
        wanted = 1;                                                                                          \
        if ((call) != 0)                                                                                     \
            return 0;                                                                                        \
    }                                                                                                        \
    return 1

static int library_bytes(void) {
    BYTE_BY_BYTE(sup_uart_Read_partial(&port, taken, &wanted));
}

static int floor_bytes(void) {
    BYTE_BY_BYTE(straight_read_packet(taken, &wanted));
}

OPERATION(hci_read_bytes, receive(), library_bytes(), floor_bytes(), NOTHING)

/* I2C: the clock, whose register 0 is read ----------------------------------------------------------- */

static kiv_i2c_device device;
static unsigned char clock_register[1], contents[7];

static void start_i2c(int use_library, unsigned int size) {
    (void)use_library, (void)size;
    must(kiv_i2c_open(&device, NULL, 0x68) == 0, "kiv_i2c_open");
    /* It stands still, so that the board works out the same time in every run. */
    static const unsigned char halted[] = {0, 0x80, 0, 0, 1, 1, 1, 0x26};
    must(kiv_i2c_tx(&device, halted, sizeof halted) == sizeof halted, "kiv_i2c_tx");
}

static int __attribute__((noinline)) straight_i2c_write(int fd, const void *bytes, unsigned int count) {
    const ssize_t moved = write(fd, bytes, count);
    return moved == -1 ? 0 : (int)moved;
}

static int __attribute__((noinline)) straight_i2c_read(int fd, void *bytes, unsigned int count) {
    const ssize_t moved = read(fd, bytes, count);
    return moved == -1 ? 0 : (int)moved;
}

OPERATION(i2c_write, NOTHING, kiv_i2c_tx(&device, clock_register, 1) == 1,
          straight_i2c_write(device.fd, clock_register, 1) == 1, NOTHING)

OPERATION(i2c_read, NOTHING, kiv_i2c_rx(&device, contents, 7) == 7,
          straight_i2c_read(device.fd, contents, 7) == 7, NOTHING)

static int __attribute__((noinline)) straight_pair(int fd, const kiv_i2c_message *both_of) {
    struct i2c_msg messages[2];
    for (int i = 0; i < 2; ++i)
        messages[i] = (struct i2c_msg){.addr = (unsigned short)device.address,
                                       .flags = (unsigned short)both_of[i].flags,
                                       .len = (unsigned short)both_of[i].len,
                                       .buf = both_of[i].buf};
    struct i2c_rdwr_ioctl_data both = {.msgs = messages, .nmsgs = 2};
    return ioctl(fd, I2C_RDWR, &both) == -1 ? errno : 0;
}

static const kiv_i2c_message pair[] = {{clock_register, 1, 0}, {contents, 7, KIV_I2C_READ}};

OPERATION(i2c_register, NOTHING, kiv_i2c_msg(&device, pair, 2) == 0, straight_pair(device.fd, pair) == 0,
          NOTHING)

/* GPIO ---------------------------------------------------------------------------------------------- */

struct pin_request {
    int pin, value;
};
static int gpio_fd;

static void start_gpio(int use_library, unsigned int size) {
    (void)size;
    if (use_library)
        must(kiv_gpio_open() == 0, "kiv_gpio_open");
    else
        must((gpio_fd = open("/dev/gpio", O_RDWR)) >= 0, "/dev/gpio");
    struct pin_request output = {4, 1};
    must((use_library ? kiv_gpio_config(4, 1) : ioctl(gpio_fd, 0x40087000, &output)) == 0, "output");
}

static int __attribute__((noinline)) straight_gpio_set(int pin, int level) {
    struct pin_request request = {pin, level};
    return ioctl(gpio_fd, 0x40087002, &request) == -1 ? errno : 0;
}

static int __attribute__((noinline)) straight_gpio_get(int pin) {
    struct pin_request request = {pin, 0};
    return ioctl(gpio_fd, 0xC0087001, &request) == -1 ? -1 : request.value != 0;
}

OPERATION(gpio_set, NOTHING, kiv_gpio_output_set(4) == 0, straight_gpio_set(4, 1) == 0, NOTHING)

OPERATION(gpio_get, NOTHING, kiv_gpio_read(5) >= 0, straight_gpio_get(5) >= 0, NOTHING)

/* TAP and BNEP -------------------------------------------------------------------------------------- */

static int32_t tap;
static int frame_size;
static unsigned char frame[1514], header[14];

static unsigned int payload_size(void) {
    return (unsigned int)frame_size - 14;
}

static void start_tap(int use_library, unsigned int size) {
    (void)use_library;
    frame_size = (int)size;
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
    static const unsigned char address[6] = {2, 1, 2, 3, 4, 5};
    must(kiv_eth_open(&tap, "bench", address) == 0 && kiv_sim_tap_set_up("bench", 1) == 0, "kiv_eth_open");
}

static int __attribute__((noinline))
straight_frame_out(const void *head_bytes, const void *payload, unsigned int length) {
    const struct iovec pieces[] = {{(void *)head_bytes, 14}, {(void *)payload, length}};
    return (int)writev(tap, pieces, 2) - 14;
}

static int __attribute__((noinline)) straight_frame_in(void *head_bytes, void *payload, unsigned int size) {
    const struct iovec pieces[] = {{head_bytes, 14}, {payload, size}};
    return (int)readv(tap, pieces, 2) - 14;
}

static void send_frame(const char *interface) {
    must(kiv_sim_tap_send(interface, frame, (unsigned int)frame_size) == 0, "frame");
}

OPERATION(tap_write, NOTHING, kiv_eth_write(&tap, header, frame, payload_size()) == frame_size - 14,
          straight_frame_out(header, frame, payload_size()) == frame_size - 14, NOTHING)

OPERATION(tap_read, send_frame("bench"), kiv_eth_read(&tap, header, frame, sizeof frame) == frame_size - 14,
          straight_frame_in(header, frame, sizeof frame) == frame_size - 14, NOTHING)

enum { frames = 16 };
static sem_t delivered;
static sup_mutex_t delivery;

static void count_frame(void *context, uint16_t protocol, const uint8_t *payload, uint16_t length,
                        int32_t step) {
    (void)context, (void)protocol, (void)payload, (void)length;
    if (step == KIV_BNEP_FRAME_END)
        sem_post(&delivered);
}

/* The sender's thread, straight: wait, read, and three calls under the lock. */
static void *straight_sender(void *unused) {
    (void)unused;
    static unsigned char buffer[1600];
    for (;;) {
        struct timeval limit = {1, 0};
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(tap, &readable);
        if (select(tap + 1, &readable, NULL, NULL, &limit) != 1)
            continue;
        const ssize_t length = read(tap, buffer, sizeof buffer);
        if (length < 14)
            return NULL;
        sup_mutex_lock(&delivery);
        void (*volatile send)(void *, uint16_t, const uint8_t *, uint16_t, int32_t) = count_frame;
        send(NULL, (uint16_t)(buffer[12] << 8 | buffer[13]), NULL, 0, 0);
        send(NULL, 0, buffer + 14, (uint16_t)(length - 14), 1);
        send(NULL, 0, NULL, 0, 2);
        sup_mutex_unlock(&delivery);
    }
}

static int bnep_exists(const kiv_sim_tap_state *state, void *context) {
    (void)context;
    return state->exists && state->hardware_address[0] == 2 && state->hardware_address[5] == 5;
}

static void start_bnep(int use_library, unsigned int size) {
    static const unsigned char address[6] = {5, 4, 3, 2, 1, 2};
    start_tap(use_library, size);
    sem_init(&delivered, 0, 0);
    if (use_library) {
        kiv_bnep_set_sender(count_frame, address);
        kiv_sim_tap_wait("bnep", bnep_exists, NULL);
        must(kiv_sim_tap_set_up("bnep", 1) == 0, "bnep");
    } else {
        pthread_t thread;
        must(sup_mutex_init(&delivery, 0) == 0 && pthread_create(&thread, NULL, straight_sender, NULL) == 0,
             "thread");
    }
}

/* Waits for the sender's thread, which makes the calls. */
static int is_delivered(void) {
    while (sem_wait(&delivered) == -1) {
    }
    return 1;
}

OPERATION(one_outbound, NOTHING, (send_frame("bnep"), is_delivered()), (send_frame("bench"), is_delivered()),
          NOTHING)

/* Threads add some instructions where they meet: many frames make a round. */
static void bnep_outbound(int use_library, long count) {
    one_outbound(use_library, count * frames);
}

static int __attribute__((noinline))
straight_inject(uint16_t protocol, const void *payload, unsigned int length, const uint8_t *destination,
                const uint8_t *source) {
    unsigned char built[14];
    for (int i = 0; i < 6; ++i) {
        built[i] = destination[5 - i];
        built[6 + i] = source[5 - i];
    }
    built[12] = (unsigned char)(protocol >> 8);
    built[13] = (unsigned char)protocol;
    const struct iovec pieces[] = {{built, 6}, {built + 6, 6}, {built + 12, 2}, {(void *)payload, length}};
    return (int)writev(tap, pieces, 4);
}

static const uint8_t there[6] = {1, 2, 3, 4, 5, 2}, here[6] = {6, 5, 4, 3, 2, 2};

OPERATION(one_inbound, NOTHING,
          kiv_bnep_data_available(NULL, 0x0800, frame, payload_size(), there, here) == frame_size,
          straight_inject(0x0800, frame, payload_size(), there, here) == frame_size, NOTHING)

static void bnep_inbound(int use_library, long count) {
    one_inbound(use_library, count * frames);
}

const struct bench_case board_cases[] = {
    {"hci-command", "HCI: command, in one send of ten", start_commands, hci_commands, 0, commands, {0, 40}},
    {"hci-acl-1029", "HCI: ACL packet of 1029 bytes sent", start_packet, hci_acl, longest_packet, 1, {0, 40}},
    {"hci-byte", "HCI: one byte of a packet of 65", start_packet, hci_read_bytes, 65, 65, {0, 16}},
    {"hci-read-4",
     "HCI: packet of 4 bytes, room for the longest",
     start_packet,
     hci_read_packet,
     4,
     1,
     {0, 45}},
    {"hci-read-4-exact",
     "HCI: packet of 4 bytes, room for this one",
     start_packet,
     hci_read_exact,
     4,
     1,
     {0, 45}},
    {"hci-read-1029", "HCI: packet of 1029 bytes", start_packet, hci_read_packet, longest_packet, 1, {0, 45}},
    {"i2c-write", "I2C: write", start_i2c, i2c_write, 0, 1, {0, 26}},
    {"i2c-read", "I2C: read", start_i2c, i2c_read, 0, 1, {0, 26}},
    {"i2c-register", "I2C: register read of two messages", start_i2c, i2c_register, 0, 1, {0, 50}},
    {"gpio-set", "GPIO: set a pin", start_gpio, gpio_set, 0, 1, {0, 12}},
    {"gpio-read", "GPIO: read a pin", start_gpio, gpio_get, 0, 1, {0, 12}},
    {"tap-write", "TAP: write a frame of 1514 bytes", start_tap, tap_write, 1514, 1, {0, 20}},
    {"tap-read", "TAP: read a frame of 1514 bytes", start_tap, tap_read, 1514, 1, {0, 20}},
    {"bnep-in", "BNEP: inbound frame of 1514 bytes", start_bnep, bnep_inbound, 1514, frames, {0, 24}},
    {"bnep-out", "BNEP: outbound frame of 1514 bytes", start_bnep, bnep_outbound, 1514, frames, {0, 24}},
    {0},
};
