/*
 * The back door of the simulated board: wire it, inspect it, make its system calls fail.
 *
 * libkiv-sim.so stands between a program and the C library. Linked ahead of the C library or preloaded, it
 * takes over the device names that it knows and passes every other call on untouched. The program under
 * test uses the devices by ordinary system calls; this header is for whoever stands on the other side: a
 * test, a benchmark, a demonstration. With the library preloaded, programs that know nothing of it find the
 * devices too: stty, tio, picocom, Python's serial module, the i2c-tools. The environment arranges the board
 * for them:
 *
 *   LD_PRELOAD=libkiv-sim.so KIV_SIM_TTY0=echo picocom /dev/ttyKIV0
 *
 *   KIV_SIM_FAIL            what fails                                 Faults
 *   KIV_SIM_TTY0 to 3       who is at the far end of a line            Serial lines
 *   KIV_SIM_TUN, _TUN_PING  the host behind TAP interfaces             TAP interfaces
 *   KIV_SIM_WIRES, _SYSFS   wires and directories of pins              GPIO pins
 *   KIV_SIM_CPUINFO, _FAT   files that stand in                        Processor, FAT attributes
 *
 * A value that makes no sense is ignored, and reported by a line on stderr.
 *
 *   Board                 start afresh
 *   Faults                fail, answer or shorten the n-th call of a kind; count calls
 *   Serial lines          the far end of /dev/ttyKIV0 to /dev/ttyKIV3
 *   Bluetooth             the controllers hci0 to hci3 behind raw HCI sockets
 *   TAP interfaces        the kernel behind /dev/net/tun and /dev/tun
 *   I2C bus               the chips on /dev/i2c-0
 *   Processor             what /proc/cpuinfo says
 *   FAT attributes        files that are on a FAT file system as far as programs can tell
 *   GPIO pins             what is around the pins of /dev/gpio and /sys/class/gpio
 *
 * Threads: every function may be called from any thread, at the same time as the simulated system calls.
 *
 * Results: unless a function says otherwise it returns 0, or an errno value (positive) and has then done
 * nothing. None of them sets errno, and none of them is counted or made to fail itself.
 *
 * Descriptors: those of simulated devices are real ones, so poll, select and close work by themselves.
 * Copies made with dup, dup2, dup3 and fcntl are the same open device. Streams of the C library go past the
 * devices: they work on /proc/cpuinfo, and what they write to a serial line leaves with the next call on it.
 * In a signal handler only calls on other descriptors are safe, and those while no fault is armed.
 *
 * Device nodes: stat, access and the like find a character device at the path of /dev/ttyKIV0 to 3,
 * /dev/i2c-0, /dev/gpio and of a TUN device that the board has taken over. Its owner, rights and numbers are
 * those of /dev/null. Listing a directory does not show the nodes.
 *
 * Processes: each has a board of its own; no two share one. A program that is started by exec, with
 * LD_PRELOAD still in its environment, finds every device in its initial state; what an i2cset writes is gone
 * when it ends. A descriptor that it inherits is no device any more: give such a program the path. After fork
 * the child has a copy of the board: its descriptors still reach the parent's queues, but line settings,
 * faults and counts are its own; a vfork child must leave them alone.
 */
#ifndef KIV_SIM_H
#define KIV_SIM_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#    define KIV_SIM_API __attribute__((visibility("default")))
#else
#    define KIV_SIM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Board --------------------------------------------------------------------------------------------- */

/* Disarms every fault, sets every count to zero, and puts every device back into its initial state. Device
 * descriptors that are still open see their device hang up. */
KIV_SIM_API void kiv_sim_reset(void);

/* Faults -------------------------------------------------------------------------------------------- */

/*
 * Without a test around the program: KIV_SIM_FAIL="CALL=ERRNO@N,..." in its environment makes calls fail.
 * CALL is the name of a kind below in small letters, ERRNO a name as EIO or a number, N the first call that
 * fails, counted from the start of the program; without "@N" it is the first. One call fails; with "@N+" all
 * from the N-th on: KIV_SIM_FAIL="read=EIO@3,ioctl=ENODEV@1+". Every program that is started with this
 * variable counts its own calls, those on other files included.
 */

/* Kinds of calls. All spellings of a call are one kind: open64 is an open, openat and the checked variants
 * as well; accept4 is an accept, pipe2 a pipe, dup3 a dup2, clock_nanosleep a nanosleep, and so on. What
 * termios.h declares (tcgetattr, isatty and so on) is an ioctl on a device of the board, and not counted
 * elsewhere. */
typedef enum kiv_sim_call {
    KIV_SIM_OPEN,
    KIV_SIM_CLOSE,
    KIV_SIM_READ,
    KIV_SIM_WRITE, /* on 0 to 2 only where those are devices of the board; else not counted, never failed */
    KIV_SIM_READV,
    KIV_SIM_WRITEV, /* as KIV_SIM_WRITE */
    KIV_SIM_IOCTL,
    KIV_SIM_POLL,
    KIV_SIM_PPOLL,
    KIV_SIM_SELECT,
    KIV_SIM_PSELECT,
    KIV_SIM_PIPE,
    KIV_SIM_DUP,
    KIV_SIM_DUP2,
    KIV_SIM_FCNTL,
    KIV_SIM_SOCKET,
    KIV_SIM_BIND,
    KIV_SIM_LISTEN,
    KIV_SIM_ACCEPT,
    KIV_SIM_CONNECT,
    KIV_SIM_SETSOCKOPT,
    KIV_SIM_GETSOCKOPT,
    KIV_SIM_SEND,
    KIV_SIM_RECV,
    KIV_SIM_SHUTDOWN,
    KIV_SIM_USLEEP,
    KIV_SIM_NANOSLEEP,
    KIV_SIM_FOPEN,
    KIV_SIM_MALLOC,
    KIV_SIM_CALLOC,
    KIV_SIM_CALL_KINDS /* how many kinds there are */
} kiv_sim_call;

/* The name of a kind for messages, for example "setsockopt"; "?" for a number that is no kind. */
KIV_SIM_API const char *kiv_sim_call_name(kiv_sim_call call);

/* Whether calls of this kind can be counted and made to fail in this process: 1 or 0. Allocation is out of
 * reach where a sanitizer has put its own allocator in front. */
KIV_SIM_API int kiv_sim_reaches(kiv_sim_call call);

enum {
    KIV_SIM_ALWAYS = 0, /* for `times`: until disarmed */
    KIV_SIM_MAX_FAULTS = 32,
    KIV_SIM_MAX_REVENTS = 8
};

/* What happens instead of the call. */
typedef enum kiv_sim_action {
    KIV_SIM_FAIL,    /* -1 (a null pointer) with errno = `error`. close closes the descriptor all the same,
                        as the kernel does; no other call is made. */
    KIV_SIM_ANSWER,  /* `result`, errno untouched. close closes all the same; poll and select with result 0
                        clear what they report, and with a positive one report everything asked for. Not
                        for calls that return a pointer. */
    KIV_SIM_SHORTEN, /* the call is made, for `length` bytes at most, and not changed where it asks for no
                        more: read, write, readv, writev, send, recv only */
    KIV_SIM_REVENTS  /* poll, ppoll: the first entries report `revents`, any others nothing; the result is
                        the number of entries that report something */
} kiv_sim_action;

/* One fault. Counting starts when it is armed: with nth 2 and times 3 the first matching call goes through,
 * the next three are changed, the ones after that go through again. Every armed fault counts every call
 * that matches it, also one that another fault has answered; when two are due, the older one is applied. */
typedef struct kiv_sim_fault {
    kiv_sim_call call;
    unsigned nth;   /* from 1, the next call */
    unsigned times; /* how many calls, or KIV_SIM_ALWAYS */
    kiv_sim_action action;
    int error;
    long result;
    size_t length;
    short revents[KIV_SIM_MAX_REVENTS];
    unsigned long request; /* KIV_SIM_IOCTL: only this request number; KIV_SIM_USLEEP: only pauses of exactly
                              so many microseconds; 0 means any */
    int this_thread;       /* nonzero: only calls of the thread that arms the fault */
} kiv_sim_fault;

/* Arms a fault. EINVAL for one that makes no sense (nth 0, an action that its call does not have, an errno
 * below 1); ENOSPC when KIV_SIM_MAX_FAULTS are armed; ENOSYS where kiv_sim_reaches says 0. */
KIV_SIM_API int kiv_sim_arm(const kiv_sim_fault *fault);

/* The same in short, for calls of any thread. */
KIV_SIM_API int kiv_sim_fail(kiv_sim_call call, unsigned nth, unsigned times, int error);
KIV_SIM_API int kiv_sim_fail_ioctl(unsigned long request, unsigned nth, unsigned times, int error);
KIV_SIM_API int kiv_sim_answer(kiv_sim_call call, unsigned nth, unsigned times, long result);
KIV_SIM_API int kiv_sim_shorten(kiv_sim_call call, unsigned nth, unsigned times, size_t length);
/* revents holds `count` entries, at most KIV_SIM_MAX_REVENTS. */
KIV_SIM_API int kiv_sim_answer_poll(unsigned nth, unsigned times, const short *revents, unsigned count);

/* Disarms every fault. Counts stay. */
KIV_SIM_API void kiv_sim_clear_faults(void);

/* How many calls faults have changed since the board was reset. */
KIV_SIM_API unsigned kiv_sim_faults_fired(void);

/* How many calls of a kind the process has begun since the board was reset, changed ones included. */
KIV_SIM_API unsigned kiv_sim_calls(kiv_sim_call call);

/* Waits until kiv_sim_calls(call) is at least `count`. The last call has then begun, and may not have
 * reached the kernel yet. */
KIV_SIM_API void kiv_sim_wait_calls(kiv_sim_call call, unsigned count);

/* Serial lines -------------------------------------------------------------------------------------- */

/*
 * Line n is the tty /dev/ttyKIVn. It starts as a real one does: 9600 baud, cooked, echo on; its settings live
 * on when it is closed, until the board is reset. Output leaves at once, however fast the line, unless flow
 * control holds it: while CRTSCTS is on and CTS is low. Held output waits in a queue of a few kilobytes; when
 * that is full, a write blocks (or gives EAGAIN).
 *
 * Bytes pass as they are. Of the settings, the speed, CRTSCTS, CREAD, HUPCL, and VMIN 0 with VTIME have an
 * effect. All others are kept and read back, so that programs can ask for them, and do nothing: line editing,
 * echo, signal characters, line ends, XON and XOFF, character size, parity.
 *
 * The requests of termios and termios2 are answered, drain, flush, the modem lines, FIONREAD and TIOCOUTQ,
 * the window size (which is kept), exclusive use (EBUSY for further openings, for root as well); a break and
 * tcflow are accepted. Any other request gives ENOTTY. The functions of termios.h, isatty and ttyname know
 * the line. All near ends of a line share one queue, O_NONBLOCK and locks.
 *
 * Without a test at the far end, KIV_SIM_TTYn in the environment of the program that opens the line says who
 * is there:
 *
 *   echo            sends back what comes; what finds the input queue full is lost
 *   silent          takes all and says nothing
 *   /path or @name  the Unix stream socket of that name ('@' first for an abstract one), for example that of
 *                   `socat UNIX-LISTEN:/path -`. The opening fails with connect's errno when nobody listens
 *                   there; a peer that goes away is a hang-up; output is never held
 *
 * The byte functions below are for lines where it says nothing.
 *
 * Every function returns EINVAL for a line that does not exist.
 */
enum { KIV_SIM_LINES = 4 };

/* The bits of the modem lines, as TIOCMGET gives them. */
enum {
    KIV_SIM_DTR = 0x002, /* driven by the port */
    KIV_SIM_RTS = 0x004,
    KIV_SIM_CTS = 0x020, /* driven by the far end; all but RI are high at first */
    KIV_SIM_DCD = 0x040,
    KIV_SIM_RI = 0x080,
    KIV_SIM_DSR = 0x100
};

typedef struct kiv_sim_line_state {
    /* The settings: the words of struct termios2. */
    uint32_t c_iflag, c_oflag, c_cflag, c_lflag;
    uint8_t c_line;
    uint8_t c_cc[19];
    uint32_t c_ispeed, c_ospeed;

    unsigned modem;       /* all modem lines that are high */
    unsigned near_ends;   /* open files of the port */
    size_t input_queued;  /* bytes delivered to the port and not read */
    size_t output_queued; /* bytes written and held */
    int hung_up;          /* by kiv_sim_line_hang_up, and not plugged in since */

    /* Counts since the board was reset. */
    size_t sent;           /* bytes that have left the port */
    unsigned settings_set; /* TCSETS2 and its kin */
    unsigned modem_set;    /* TIOCMSET, TIOCMBIS, TIOCMBIC */
    unsigned drains;       /* begun */
    unsigned input_flushes;
    unsigned output_flushes;

    unsigned drains_waiting; /* blocked at this moment */
} kiv_sim_line_state;

/* Takes a snapshot. */
KIV_SIM_API int kiv_sim_line_inspect(unsigned line, kiv_sim_line_state *state);

/* Waits until done(state, context) returns nonzero. It is called whenever the line's state has changed by a
 * request, a write or the far end (a read of the port is not noticed), with the line locked: it must not
 * call the board. */
KIV_SIM_API int kiv_sim_line_wait(unsigned line, int (*done)(const kiv_sim_line_state *state, void *context),
                                  void *context);

/* The far end sends to the port. Returns how many bytes the port's input queue took, which is fewer than
 * `length` when it is full, and 0 while the port is closed: such bytes are lost. */
KIV_SIM_API size_t kiv_sim_line_send(unsigned line, const void *data, size_t length);

/* Takes up to `size` bytes that the port has sent. Returns how many there were; does not wait. */
KIV_SIM_API size_t kiv_sim_line_receive(unsigned line, void *buffer, size_t size);

/* Sets the inputs among the modem lines (KIV_SIM_CTS and so on); the others go low. Output that was held
 * leaves when CTS rises. */
KIV_SIM_API int kiv_sim_line_set_inputs(unsigned line, unsigned inputs);

/* The highest speed of the port's clock, in bits per second; 4000000 at first. Asking for a higher one gives
 * 0 and leaves the speed as it was. A speed given as a number that is a standard one reads back as its B
 * code. */
KIV_SIM_API int kiv_sim_line_set_max_speed(unsigned line, unsigned speed);

/* The device goes away: poll on its near ends gives POLLERR | POLLHUP, and POLLIN with it when `readable` is
 * nonzero; read gives 0, write and requests give EIO; data in its queues is lost; opening gives ENOENT. The
 * near ends remain so. */
KIV_SIM_API int kiv_sim_line_hang_up(unsigned line, int readable);

/* The device comes back and can be opened again. */
KIV_SIM_API int kiv_sim_line_plug_in(unsigned line);

/* Bluetooth ----------------------------------------------------------------------------------------- */

/*
 * Controller n is hci<n>, reached by a raw HCI socket: socket(AF_BLUETOOTH, SOCK_RAW, 1), bind, the filter
 * (which lets nothing through at first), and the requests up, down and raw mode, answered as a kernel does.
 * At first hci0 and hci1 are there and up, and the others are absent.
 *
 * A controller answers Reset, Read Local Version Information, Read Buffer Size and Read BD_ADDR, fails every
 * other command with status 0x01, sends ACL data back after the event that its buffer is free, and swallows
 * SCO data. The address of controller n is C2:DE:CA:FE:00:0n. Every socket that is bound to it gets all that
 * it sends, as far as the socket's filter lets it.
 *
 * Every function returns EINVAL (or 0 where a count is returned) for a controller beyond the last.
 */
enum { KIV_SIM_HCIS = 4, KIV_SIM_HCI_REQUESTS = 8 };

typedef struct kiv_sim_hci_config {
    int present; /* 0: bind and requests give ENODEV. Set it to 1 to plug a controller in again */
    int capable; /* the process has CAP_NET_ADMIN and CAP_NET_RAW; otherwise requests and writes give EPERM */
    int busy;    /* somebody has the controller for himself: requests give EBUSY */
    int set_raw_error;   /* errno of the raw-mode request; 0 allows raw mode, as kernels did before 3.x. Later
                            ones give EOPNOTSUPP */
    unsigned max_packet; /* longest packet that a write takes, 4 to 1029; 1029 at first, 1028 on kernel 6.1.
                            Others, and those below 4 bytes, give EINVAL */
    int answers;         /* 0: the controller takes packets and says nothing */
    int hold;            /* its packets wait for kiv_sim_hci_release */
    unsigned fragment;   /* a packet of more bytes than this reaches the host as several; 0 means whole */
} kiv_sim_hci_config;

KIV_SIM_API int kiv_sim_hci_get_config(unsigned controller, kiv_sim_hci_config *config);
KIV_SIM_API int kiv_sim_hci_set_config(unsigned controller, const kiv_sim_hci_config *config);

typedef struct kiv_sim_hci_state {
    int up, raw;
    unsigned sockets; /* bound to it */
    unsigned held;    /* packets that wait for kiv_sim_hci_release */

    /* The requests for it since the board was reset, refused ones included: their number, and the first ones
     * in order (0x400448c9 up, 0x400448ca down, 0x400448dc raw mode). */
    unsigned requests;
    unsigned request[KIV_SIM_HCI_REQUESTS];

    /* Counts since the board was reset. */
    unsigned packets;   /* accepted from the host */
    unsigned delivered; /* to sockets, pieces of packets counted each */
    unsigned lost;      /* the socket's queue was full */
    /* What the model has got, while config.answers was on. */
    unsigned commands, acl_packets, sco_packets;
    unsigned malformed; /* packets whose length field did not fit */
} kiv_sim_hci_state;

/* Takes a snapshot. */
KIV_SIM_API int kiv_sim_hci_inspect(unsigned controller, kiv_sim_hci_state *state);

/* Takes the oldest packet that the host has sent, indicator first, cut to `size` bytes. Returns its length in
 * the buffer, 0 when there is none; does not wait. When a megabyte has not been taken, further packets are
 * not kept. */
KIV_SIM_API size_t kiv_sim_hci_receive(unsigned controller, void *buffer, size_t size);

/* The controller sends these bytes, 1 to 1029, as one packet, whatever they are; the first is the indicator.
 */
KIV_SIM_API int kiv_sim_hci_send(unsigned controller, const void *packet, size_t length);

/* Delivers up to `count` packets that config.hold has held back, oldest first. Returns how many there were.
 */
KIV_SIM_API unsigned kiv_sim_hci_release(unsigned controller, unsigned count);

/* From now on commands of this opcode fail with this status, in the event that such a command is answered
 * with; status 0 ends that. ENOSPC beyond eight opcodes. */
KIV_SIM_API int kiv_sim_hci_refuse(unsigned controller, unsigned opcode, unsigned status);

/* The controller goes away. Its sockets stay unbound; writes to them give EPIPE. With error EPIPE the next
 * read gives that error, before what is queued, and later ones wait for ever, as a kernel does it; with error
 * 0 reads give what is queued and then 0. */
KIV_SIM_API int kiv_sim_hci_unplug(unsigned controller, int error);
/* TAP interfaces ------------------------------------------------------------------------------------ */

/*
 * The TUN clone devices are the machine's own until kiv_sim_tun_set_node takes them over. So that a program
 * which knows nothing of the board can have them, KIV_SIM_TUN in its environment takes them over as well:
 * /dev/net/tun is then there, /dev/tun is not, and the value is the address of the host behind the
 * interfaces, for example KIV_SIM_TUN=10.0.0.1. With KIV_SIM_TUN_PING=10.0.0.2 that host pings the other
 * three times.
 *
 * A descriptor takes TUNSETIFF for TAP interfaces without packet information, which starts down and with a
 * hardware address of the board's choosing; then SIOCSIFHWADDR, SIOCGIFHWADDR and TUNGETIFF. Frames keep
 * their boundaries. As in the kernel: a name in use gives EBUSY, a group address EADDRNOTAVAIL, a frame
 * written while the interface is down EIO, one shorter than its header EINVAL.
 *
 * Interfaces are known by their names. The functions that take one return ENODEV when there is none.
 */
enum {
    KIV_SIM_NET_TUN = 0, /* /dev/net/tun */
    KIV_SIM_DEV_TUN = 1, /* /dev/tun */
    KIV_SIM_TUN_NODES = 2,
    KIV_SIM_NAME_SIZE = 16,
    KIV_SIM_TAP_FRAMES = 64 /* how many written frames wait to be collected; later ones are only counted */
};

typedef enum kiv_sim_tun_node {
    KIV_SIM_TUN_REAL,      /* the machine's own, at first */
    KIV_SIM_TUN_ABSENT,    /* opening gives ENOENT */
    KIV_SIM_TUN_FORBIDDEN, /* it opens, but making an interface gives EPERM */
    KIV_SIM_TUN_PRESENT
} kiv_sim_tun_node;

/* What openings of a node find from now on. EINVAL for another node or state. */
KIV_SIM_API int kiv_sim_tun_set_node(unsigned node, kiv_sim_tun_node state);

/* An IPv4 host behind an interface. Addresses are numbers: 10.0.0.1 is 0x0a000001. */
typedef struct kiv_sim_host {
    uint32_t address;
    uint32_t peer;    /* whom it pings: asked for by ARP when its interface is ready, then */
    unsigned pings;   /* so many times, each after the answer to the one before */
    size_t ping_size; /* with so many bytes of data */
} kiv_sim_host;

/* Interfaces whose hardware address is set from now on have this host behind them, and are up at once. Null:
 * none, as at first. */
KIV_SIM_API void kiv_sim_tun_set_host(const kiv_sim_host *host);

typedef struct kiv_sim_tap_state {
    int exists; /* all else is 0 if not */
    int up;
    uint8_t hardware_address[6];
    unsigned sent;     /* frames given to the program's queue */
    unsigned received; /* frames that the program has written */
    unsigned uncollected;
    unsigned replies; /* right answers to the host's pings */
} kiv_sim_tap_state;

/* Takes a snapshot; of an interface that does not exist, too. */
KIV_SIM_API void kiv_sim_tap_inspect(const char *name, kiv_sim_tap_state *state);

/* Waits until done(state, context) returns nonzero. It is called whenever an interface has changed, with the
 * interfaces locked: it must not call the board. */
KIV_SIM_API void kiv_sim_tap_wait(const char *name,
                                  int (*done)(const kiv_sim_tap_state *state, void *context), void *context);

/* Up (nonzero) or down, as `ip link set` does it. */
KIV_SIM_API int kiv_sim_tap_set_up(const char *name, int up);

/* The interface goes away under its descriptor, as with `ip link delete`: a read that waits gives EFAULT,
 * every later call EBADFD, poll POLLERR. */
KIV_SIM_API int kiv_sim_tap_delete(const char *name);

/* The kernel sends these bytes out of the interface, whatever they are. ENETDOWN while it is down; ENOBUFS
 * when the program's queue is full. */
KIV_SIM_API int kiv_sim_tap_send(const char *name, const void *frame, size_t length);

/* Takes the oldest frame that the program has written. Returns its length and as much of it as `size` bytes
 * hold; 0 when there is none. */
KIV_SIM_API size_t kiv_sim_tap_receive(const char *name, void *buffer, size_t size);
/* I2C bus ------------------------------------------------------------------------------------------- */

/*
 * /dev/i2c-0, with an EEPROM of 256 bytes (a 24C02) and a clock chip (a DS1307) on it. Nobody answers at
 * other addresses. The requests of i2c-dev are answered, with the kernel's limits: 42 messages of 8192 bytes.
 * The controller does plain messages to seven-bit addresses; other flags give EOPNOTSUPP. SMBus operations
 * become such messages, as in the kernel: all but those that read a block whose length the chip tells, and
 * without checksums. The bus is always ready as far as poll can tell.
 *
 * The EEPROM starts with every byte 0xff. It takes up to 8 bytes in one write, which go round within their
 * page, and then leaves its address unanswered for a number of attempts. The clock shows UTC and runs; its
 * registers are BCD, 24 hours at first.
 */
enum {
    KIV_SIM_I2C_EEPROM = 0x50, /* the chips' addresses */
    KIV_SIM_I2C_CLOCK = 0x68,
    KIV_SIM_I2C_MESSAGES = 42
};

typedef struct kiv_sim_i2c_message {
    uint16_t address, flags, length;
} kiv_sim_i2c_message;

typedef struct kiv_sim_i2c_state {
    unsigned open_files;
    unsigned transfers;     /* begun on the bus since the board was reset */
    unsigned refused;       /* those of them that a chip, or nobody, did not acknowledge */
    unsigned waiting;       /* blocked at this moment */
    unsigned pages_written; /* in the EEPROM */

    /* The last I2C_RDWR as the program gave it, also when it was refused. */
    unsigned last_count;
    kiv_sim_i2c_message last[KIV_SIM_I2C_MESSAGES];
} kiv_sim_i2c_state;

KIV_SIM_API int kiv_sim_i2c_inspect(kiv_sim_i2c_state *state);

/* What a transfer that nobody acknowledges gives: EREMOTEIO at first, ENXIO with other controllers. */
KIV_SIM_API int kiv_sim_i2c_set_absent_error(int error);

/* Takes a chip off the bus, or puts it back. EINVAL when no chip has that address. */
KIV_SIM_API int kiv_sim_i2c_plug(unsigned address, int present);

/* An address is in use by a kernel driver (or no longer): I2C_SLAVE gives EBUSY for it. */
KIV_SIM_API int kiv_sim_i2c_claim(unsigned address, int by_driver);

/* Holds the bus, as a chip does that stretches its clock: transfers block until it is let go. */
KIV_SIM_API void kiv_sim_i2c_hold(int held);

/* Set and read the EEPROM's bytes, past the bus. EINVAL for bytes that it does not have. */
KIV_SIM_API int kiv_sim_eeprom_load(size_t offset, const void *data, size_t length);
KIV_SIM_API int kiv_sim_eeprom_dump(size_t offset, void *data, size_t length);

/* How many times the EEPROM leaves its address unanswered after each write; 3 at first. */
KIV_SIM_API void kiv_sim_eeprom_set_busy(unsigned polls);

/* Sets the clock, in seconds since 1970, years 2000 to 2099 (else EINVAL). It runs on from there, or stands
 * still when `frozen` is nonzero. */
KIV_SIM_API int kiv_sim_clock_set(int64_t time, int frozen);
KIV_SIM_API int64_t kiv_sim_clock_time(void);

/* Processor ----------------------------------------------------------------------------------------- */

/*
 * What programs read from /proc/cpuinfo: the machine's own until one of these is called. With
 * KIV_SIM_CPUINFO=/path in the environment it is the contents of that file, unless a call says otherwise.
 */

/* The text, copied; it may hold any bytes. Null: back to the initial state. */
KIV_SIM_API int kiv_sim_cpuinfo_set(const void *text, size_t length);

/* A file or directory that is opened instead. Null: back to the initial state. */
KIV_SIM_API int kiv_sim_cpuinfo_redirect(const char *path);

/* FAT attributes ------------------------------------------------------------------------------------ */

/*
 * FAT_IOCTL_GET_ATTRIBUTES answers for the files named here as a FAT file system does; the files themselves
 * are real ones. On every other file it is the kernel's to answer: ENOTTY but on a real FAT file system. With
 * KIV_SIM_FAT=0x27:/path in the environment that file has these attributes.
 */
enum { KIV_SIM_FAT_FILES = 16 };

/* ENOSPC when KIV_SIM_FAT_FILES are named; ENAMETOOLONG for a path of 256 characters or more. A path that is
 * named again gets the new attributes. */
KIV_SIM_API int kiv_sim_fat_set(const char *path, uint32_t attributes);
/* GPIO pins ----------------------------------------------------------------------------------------- */

/*
 * The chip behind /dev/gpio has 64 pins, all inputs at first. Requests have type 'p' and a record of two
 * signed 32-bit words, pin and argument:
 *
 *   0  _IOW   direction: 0 input, 1 output driven low, 2 output driven high; any other EINVAL. EIO for an
 *             output while the pin's interrupt is open
 *   1  _IOWR  fills in the level
 *   2  _IOW   drives an output; EPERM for an input
 *   3  _IOW   opens the pin's interrupt on this open file, for the edges of KIV_SIM_EDGE_; any other number
 *             EINVAL. EBUSY when it is open already, EIO for an output
 *   4  _IOW   closes the pin's interrupt; EINVAL when it is not open here. Closing the file does it too
 *   5  _IOW   waits for an edge; EINVAL when the interrupt is not open here, EINTR when a signal came, EAGAIN
 *             with O_NONBLOCK. Edges since the last wait are one interrupt, and end the wait at once
 *
 * A pin out of range gives EINVAL, one that is claimed EBUSY, any other request ENOTTY; read and write give
 * EINVAL. poll reports POLLIN while an interrupt of the file waits to be fetched. After a reset the file's
 * requests, also those that wait, give ENODEV, and poll gives POLLERR | POLLHUP.
 *
 * /sys/class/gpio is the board's too. It holds the directories that kiv_sim_sysfs_export made, each with the
 * files "value" and, if wanted, "direction" of one of these pins. They answer as the kernel's do: texts are
 * taken with a line end, a zero byte or neither, anything else gives EINVAL; writing the value of an input
 * gives EPERM, the files of a claimed pin EBUSY; the first read gives the text and a line end, the next one
 * nothing.
 *
 * Without a test around the pins, from the environment of the program, read when it first opens one of the
 * two: KIV_SIM_WIRES="3=4 10=11" wires pins, KIV_SIM_SYSFS="gpio4=4 led=7" makes directories.
 *
 * Every function returns EINVAL for a pin that does not exist.
 */
enum { KIV_SIM_PINS = 64 };
enum { KIV_SIM_EDGE_RISING = 1, KIV_SIM_EDGE_FALLING = 2, KIV_SIM_EDGE_BOTH = 3 };

typedef struct kiv_sim_pin_state {
    int is_output;
    int level;        /* 0 or 1 */
    int irq_mode;     /* of the open interrupt, or 0 */
    int irq_pending;  /* it has occurred and was not fetched */
    unsigned waiting; /* requests that wait for it at this moment */
} kiv_sim_pin_state;

/* Takes a snapshot. */
KIV_SIM_API int kiv_sim_pin_inspect(unsigned pin, kiv_sim_pin_state *state);

/* Waits until done(state, context) returns nonzero. It is called whenever a pin has changed, with the chip
 * locked: it must not call the board. */
KIV_SIM_API int kiv_sim_pin_wait(unsigned pin, int (*done)(const kiv_sim_pin_state *state, void *context),
                                 void *context);

/* Connects two pins, and all that are connected to them; takes a pin away from those. Connected pins have
 * one level: that of the outputs among them (low where they disagree), else what the outside drives (high
 * where it disagrees), else low. */
KIV_SIM_API int kiv_sim_pin_wire(unsigned pin, unsigned other);
KIV_SIM_API int kiv_sim_pin_unwire(unsigned pin);

/* The outside drives a pin high (positive) or low (0), or lets go of it (negative). Outputs are stronger. */
KIV_SIM_API int kiv_sim_pin_drive(unsigned pin, int level);

/* Somebody else, a driver in the kernel say, has the pin (nonzero) or gives it back. */
KIV_SIM_API int kiv_sim_pin_claim(unsigned pin, int claimed);

/* What request 1 fills in for a high level; 1 at first. */
KIV_SIM_API void kiv_sim_gpio_set_high(int value);

/* Makes or removes /sys/class/gpio/NAME for a pin. The name has 1 to 39 characters and no '/'. EINVAL for one
 * that has not, EEXIST for one that is there already, ENOSPC with 16 there. A file of a directory that was
 * removed gives ENODEV. */
KIV_SIM_API int kiv_sim_sysfs_export(const char *name, unsigned pin, int has_direction);
KIV_SIM_API int kiv_sim_sysfs_unexport(const char *name);

/* From now on "value" in /sys/class/gpio/NAME reads as this text, of at most 15 characters, and not as the
 * pin's level; null ends it. EINVAL when there is no such directory. */
KIV_SIM_API int kiv_sim_sysfs_show(const char *name, const char *text);

/* Copies the last write, of at most 16 bytes, to a file of /sys/class/gpio/NAME, accepted or not. Returns its
 * length; 0 when there was none. Of one that `size` has no room for, the beginning. */
KIV_SIM_API size_t kiv_sim_sysfs_written(const char *name, void *buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
