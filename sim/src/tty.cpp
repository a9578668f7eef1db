// Serial lines /dev/ttyKIV0 to /dev/ttyKIV3: the attachment of serial_line to descriptors.
//
//   State          lines, and the links that near ends hold
//   Queues         what moves between the near socket, the far end and the queue between them
//   Opening        socket pairs, external far ends, the end of a link
//   Transfers      read, write and poll as a tty has them
//   Requests       the ioctl table
//   Back door      the far end for tests
//
// A link is one stretch of a line's life, from its first near end to the last or to a hang-up. Its near
// socket is what near ends are duplicates of: its receive queue is the port's input. Output goes straight to
// the far end; while flow control holds it, it goes through the near socket instead, and the bytes that the
// far socket has not given out are the held queue. So the kernel does the blocking, EAGAIN and EINTR of a
// full queue. Everything is guarded by the lock of the line.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/un.h>

#include <asm/ioctls.h>
#include <asm/termbits.h>

#include "byte_queue.h"
#include "device.h"
#include "environment.h"
#include "kiv/sim.h"
#include "memory.h"
#include "real.h"
#include "serial_line.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

// State ------------------------------------------------------------------------------------------------

struct line;

enum class peer { back_door, echo, silent, process };

struct link {
    line *owner;
    int near;
    int far; // -1 after a hang-up, and when the far end is another process
    peer at_far_end;
    bool exclusive;
    bool hung;
    bool readable_when_hung;
    unsigned near_ends;
};

struct counters {
    std::size_t sent;
    unsigned settings_set, modem_set, drains, input_flushes, output_flushes;
};

struct line {
    mutex lock;
    event changed;
    serial_line port;
    winsize window = {};
    byte_queue sent;         // left the port, not taken by the back door
    link *plugged = nullptr; // the link that new near ends join
    bool hung_up = false;
    unsigned drains_waiting = 0;
    counters counts = {};
};

constinit line lines[KIV_SIM_LINES];

// How much a held write puts into the near socket at a time, and roughly what the socket takes.
constexpr std::size_t chunk = 1024;
constexpr int held_queue_size = 8192;

// Queues -----------------------------------------------------------------------------------------------

std::size_t unread_bytes(int socket) {
    int count = 0;
    return socket >= 0 && real().ioctl(socket, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

std::size_t held_bytes(const line &of) {
    return of.plugged != nullptr ? unread_bytes(of.plugged->far) : 0;
}

// At most a chunk from the far end. False, and nothing has happened, when the input queue is full.
bool receive_chunk(line &of, const unsigned char *data, std::size_t length) {
    pollfd queue = {.fd = of.plugged->far, .events = POLLOUT, .revents = 0};
    if (real().poll(&queue, 1, 0) != 1)
        return false;
    return !of.port.hears() || length == 0 ||
           real().send(of.plugged->far, data, length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// Bytes leave the port. An echo is lost when the port's input queue is full, as on a wire.
void transmit(line &of, const unsigned char *data, std::size_t length) {
    of.counts.sent += length;
    if (of.plugged->at_far_end == peer::echo)
        receive_chunk(of, data, length);
    else if (of.plugged->at_far_end == peer::back_door)
        of.sent.append(data, length);
}

// Takes what a socket holds without waiting; false when it holds nothing.
bool take_some(int socket, unsigned char (&buffer)[chunk], std::size_t &length) {
    const ssize_t taken = socket < 0 ? -1 : real().recv(socket, buffer, sizeof buffer, MSG_DONTWAIT);
    length = taken > 0 ? static_cast<std::size_t>(taken) : 0;
    return taken > 0;
}

// Sends what was held when nothing holds it any more, and tells whoever waits that the line has changed.
void settle(line &of) {
    unsigned char buffer[chunk];
    std::size_t length = 0;
    if (of.plugged != nullptr)
        while (!of.port.holds_output() && take_some(of.plugged->far, buffer, length))
            transmit(of, buffer, length);
    of.changed.notify_all();
}

void discard(int socket) {
    unsigned char buffer[chunk];
    std::size_t length = 0;
    while (take_some(socket, buffer, length)) {
    }
}

// Opening ----------------------------------------------------------------------------------------------

int index_of_path(const char *path) {
    constexpr char prefix[] = "/dev/ttyKIV";
    constexpr std::size_t length = sizeof prefix - 1;
    if (::strncmp(path, prefix, length) != 0 || path[length] < '0' || path[length] >= '0' + KIV_SIM_LINES ||
        path[length + 1] != '\0')
        return -1;
    return path[length] - '0';
}

bool knows_path(const char *path) {
    return index_of_path(path) >= 0;
}

// The far end that the environment names, and its path if it is another process.
peer peer_of(int index, const char *&path) {
    char variable[] = "KIV_SIM_TTY?";
    variable[sizeof variable - 2] = static_cast<char>('0' + index);
    path = ::getenv(variable);
    if (path == nullptr || *path == '\0')
        return peer::back_door;
    if (*path == '/' || *path == '@')
        return peer::process;
    if (::strcmp(path, "echo") == 0)
        return peer::echo;
    if (::strcmp(path, "silent") == 0)
        return peer::silent;
    complain(variable, path, "echo, silent, /path or @name");
    return peer::back_door;
}

bool connect_process(link &made, const char *path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = ::strlen(path);
    if (length >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    ::memcpy(address.sun_path, path, length);
    if (*path == '@')
        address.sun_path[0] = '\0';
    made.near = own(real().socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return made.near >= 0 &&
           real().connect(made.near, reinterpret_cast<const sockaddr *>(&address),
                          static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length)) == 0;
}

bool connect_board(link &made) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
        return false;
    made.near = own(ends[0]);
    made.far = own(ends[1]);
    real().setsockopt(made.near, SOL_SOCKET, SO_SNDBUF, &held_queue_size, sizeof held_queue_size);
    return made.near >= 0 && made.far >= 0;
}

void end_link(link *ended) {
    const errno_keeper keeper;
    if (ended->near >= 0)
        real().close(ended->near);
    if (ended->far >= 0)
        real().close(ended->far);
    ::free(ended);
}

link *make_link(line &of, int index) {
    auto *made = allocate<link>();
    if (made == nullptr)
        return nullptr;
    const char *path = nullptr;
    *made = link{.owner = &of,
                 .near = -1,
                 .far = -1,
                 .at_far_end = peer_of(index, path),
                 .exclusive = false,
                 .hung = false,
                 .readable_when_hung = false,
                 .near_ends = 0};
    if (made->at_far_end == peer::process ? connect_process(*made, path) : connect_board(*made))
        return made;
    end_link(made);
    return nullptr;
}

// The caller is the first near end: unread input of an earlier time is gone, the modem sees the port.
void plug(line &of, link *made) {
    of.plugged = made;
    of.port.raise_outputs();
}

int duplicate_near(const link &from, int flags) {
    const int fd = real().fcntl(from.near, (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
    if (fd >= 0)
        real().fcntl(fd, F_SETFL, flags & O_NONBLOCK);
    return fd;
}

// As udev has it: an unplugged device has no node.
bool has_node(const char *path) {
    line &of = lines[index_of_path(path)];
    const guard hold(of.lock);
    return !of.hung_up;
}

extern const operations tty_operations;

int open_tty(const char *path, int flags, opened &made) {
    const int index = index_of_path(path);
    line &of = lines[index];
    const guard hold(of.lock);
    if (of.hung_up)
        return fail(ENOENT);
    if (of.plugged != nullptr && of.plugged->exclusive)
        return fail(EBUSY);
    link *joined = of.plugged != nullptr ? of.plugged : make_link(of, index);
    if (joined == nullptr)
        return -1;
    const int fd = duplicate_near(*joined, flags);
    if (fd == -1) {
        if (joined != of.plugged)
            end_link(joined);
        return -1;
    }
    if (joined != of.plugged)
        plug(of, joined);
    ++joined->near_ends;
    made = opened{.ops = &tty_operations, .state = joined};
    of.changed.notify_all();
    return fd;
}

void release_tty(void *state) {
    auto *ended = static_cast<link *>(state);
    line &of = *ended->owner;
    const guard hold(of.lock);
    if (--ended->near_ends == 0) {
        if (of.plugged == ended) {
            settle(of);
            of.plugged = nullptr;
            if ((of.port.settings().c_cflag & HUPCL) != 0)
                of.port.drop_outputs();
        }
        end_link(ended);
    }
    of.changed.notify_all();
}

// Transfers --------------------------------------------------------------------------------------------

// With VMIN 0 a read waits VTIME tenths of a second at most. Positive when there is something to read.
int wait_vtime(int fd, const termios2 &settings) {
    pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    return real().poll(&entry, 1, settings.c_cc[VTIME] * 100);
}

ssize_t read_tty(int fd, void *state, const iovec *pieces, int count) {
    auto &from = *static_cast<link *>(state);
    line &of = *from.owner;
    bool returns_at_once = false;
    termios2 settings;
    {
        const guard hold(of.lock);
        if (from.hung)
            return 0;
        if (from.at_far_end == peer::echo)
            settle(of); // a stream's buffer was written by the C library itself
        settings = of.port.settings();
        returns_at_once = settings.c_cc[VMIN] == 0;
    }
    if (returns_at_once)
        if (const int ready = wait_vtime(fd, settings); ready <= 0)
            return ready;
    const ssize_t done = real().readv(fd, pieces, count);
    // A far end that went away without reading all of the output resets the socket: a tty's end of file.
    return done == -1 && errno == ECONNRESET ? 0 : done;
}

// At most a chunk. Straight out where nothing holds the line; else the kernel's queue takes it, and makes a
// full queue block. Flow control may let go between the two, so what was queued is looked at again.
ssize_t write_chunk(int fd, link &to, const unsigned char *data, std::size_t length) {
    line &of = *to.owner;
    {
        const guard hold(of.lock);
        if (to.hung)
            return fail(EIO);
        if (to.at_far_end != peer::process && !of.port.holds_output()) {
            settle(of);
            transmit(of, data, length);
            of.changed.notify_all();
            return static_cast<ssize_t>(length);
        }
    }
    const ssize_t done = real().send(fd, data, length, MSG_NOSIGNAL);
    if (done == -1)
        return errno == EPIPE || errno == ECONNRESET ? fail(EIO) : -1;
    const guard hold(of.lock);
    settle(of);
    return done;
}

ssize_t write_piece(int fd, link &to, const iovec &piece) {
    const auto *data = static_cast<const unsigned char *>(piece.iov_base);
    std::size_t done = 0;
    while (done < piece.iov_len) {
        const std::size_t left = piece.iov_len - done;
        const std::size_t asked = left < chunk ? left : chunk;
        const ssize_t taken = write_chunk(fd, to, data + done, asked);
        if (taken == -1)
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        done += static_cast<std::size_t>(taken);
        if (static_cast<std::size_t>(taken) < asked)
            break;
    }
    return static_cast<ssize_t>(done);
}

ssize_t write_tty(int fd, void *state, const iovec *pieces, int count) {
    ssize_t total = 0;
    for (int i = 0; i < count; ++i) {
        const ssize_t taken = write_piece(fd, *static_cast<link *>(state), pieces[i]);
        if (taken == -1)
            return total > 0 ? total : -1;
        total += taken;
        if (static_cast<std::size_t>(taken) < pieces[i].iov_len)
            break;
    }
    return total;
}

// A socket whose peer has gone reports POLLIN and POLLHUP; a tty that hung up reports an error too, and may
// have nothing to read.
short correct_revents(void *state, short, short revents) {
    auto &of = *static_cast<link *>(state);
    const guard hold(of.owner->lock);
    constexpr int readable = POLLIN | POLLRDNORM;
    if (!of.hung)
        return (revents & POLLHUP) != 0 ? static_cast<short>(revents | POLLERR) : revents;
    const int kept = of.readable_when_hung ? revents : revents & ~readable;
    return static_cast<short>(kept | POLLERR | POLLHUP);
}

// Requests ---------------------------------------------------------------------------------------------

// The settings without the separate speeds, as TCGETS has them.
static_assert(offsetof(termios2, c_ispeed) >= sizeof(termios) - 3 && NCCS == 19);

int get_settings2(link &of, void *argument) {
    ::memcpy(argument, &of.owner->port.settings(), sizeof(termios2));
    return 0;
}

int get_settings(link &of, void *argument) {
    ::memcpy(argument, &of.owner->port.settings(), sizeof(termios));
    return 0;
}

int apply(link &of, const termios2 &wanted) {
    line &owner = *of.owner;
    owner.port.set(wanted);
    ++owner.counts.settings_set;
    settle(owner);
    return 0;
}

int set_settings2(link &of, void *argument) {
    termios2 wanted;
    ::memcpy(&wanted, argument, sizeof wanted);
    return apply(of, wanted);
}

int set_settings(link &of, void *argument) {
    termios2 wanted = of.owner->port.settings();
    ::memcpy(&wanted, argument, sizeof(termios));
    return apply(of, wanted);
}

// Blocks until nothing is held, as the driver does until its last bit has left.
int drain(link &of) {
    line &owner = *of.owner;
    ++owner.counts.drains;
    while (!of.hung && owner.port.holds_output() && held_bytes(owner) > 0) {
        ++owner.drains_waiting;
        owner.changed.notify_all();
        const bool woken = owner.changed.wait(owner.lock);
        --owner.drains_waiting;
        if (!woken)
            return -1;
    }
    settle(owner);
    return of.hung ? fail(EIO) : 0;
}

// Breaks, and the XOFF that a program sends by itself: nobody here can see them.
int accept(link &, void *) {
    return 0;
}

// With argument 0 the request sends a break.
int drain_or_break(link &of, void *argument) {
    return argument == nullptr ? 0 : drain(of);
}

int drain_and_set2(link &of, void *argument) {
    return drain(of) == -1 ? -1 : set_settings2(of, argument);
}

int drain_and_set(link &of, void *argument) {
    return drain(of) == -1 ? -1 : set_settings(of, argument);
}

void flush_input(link &of) {
    ++of.owner->counts.input_flushes;
    discard(of.near);
}

void flush_output(link &of) {
    ++of.owner->counts.output_flushes;
    discard(of.far);
}

int drain_flush_set2(link &of, void *argument) {
    if (drain(of) == -1)
        return -1;
    flush_input(of);
    return set_settings2(of, argument);
}

int drain_flush_set(link &of, void *argument) {
    if (drain(of) == -1)
        return -1;
    flush_input(of);
    return set_settings(of, argument);
}

int flush(link &of, void *argument) {
    const auto selector = reinterpret_cast<std::uintptr_t>(argument);
    if (selector > TCIOFLUSH)
        return fail(EINVAL);
    if (selector != TCOFLUSH)
        flush_input(of);
    if (selector != TCIFLUSH)
        flush_output(of);
    settle(*of.owner);
    return 0;
}

int get_modem(link &of, void *argument) {
    *static_cast<unsigned *>(argument) = of.owner->port.modem();
    return 0;
}

int set_outputs(link &of, unsigned outputs) {
    of.owner->port.set_outputs(outputs);
    ++of.owner->counts.modem_set;
    settle(*of.owner);
    return 0;
}

int set_modem(link &of, void *argument) {
    return set_outputs(of, *static_cast<const unsigned *>(argument));
}

int raise_modem(link &of, void *argument) {
    return set_outputs(of, of.owner->port.modem() | *static_cast<const unsigned *>(argument));
}

int drop_modem(link &of, void *argument) {
    return set_outputs(of, of.owner->port.modem() & ~*static_cast<const unsigned *>(argument));
}

int count_input(link &of, void *argument) {
    *static_cast<int *>(argument) = static_cast<int>(unread_bytes(of.near));
    return 0;
}

int count_output(link &of, void *argument) {
    *static_cast<int *>(argument) = static_cast<int>(unread_bytes(of.far));
    return 0;
}

// As for a program without privileges: the kernel lets those with them open the line all the same.
int make_exclusive(link &of, void *) {
    of.exclusive = true;
    return 0;
}

int make_shared(link &of, void *) {
    of.exclusive = false;
    return 0;
}

int get_exclusive(link &of, void *argument) {
    *static_cast<int *>(argument) = of.exclusive ? 1 : 0;
    return 0;
}

int get_window(link &of, void *argument) {
    ::memcpy(argument, &of.owner->window, sizeof of.owner->window);
    return 0;
}

int set_window(link &of, void *argument) {
    ::memcpy(&of.owner->window, argument, sizeof of.owner->window);
    return 0;
}

// Numbers and not the header's names for the termios2 ones: those are made with sizeof, and are what the
// table is about.
constexpr struct {
    unsigned request;
    int (*handle)(link &of, void *argument);
} requests[] = {
    {0x802c542a, get_settings2},
    {0x402c542b, set_settings2},
    {0x402c542c, drain_and_set2},
    {0x402c542d, drain_flush_set2},
    {TCGETS, get_settings},
    {TCSETS, set_settings},
    {TCSETSW, drain_and_set},
    {TCSETSF, drain_flush_set},
    {TCSBRK, drain_or_break},
    {TCFLSH, flush},
    {TIOCMGET, get_modem},
    {TIOCMSET, set_modem},
    {TIOCMBIS, raise_modem},
    {TIOCMBIC, drop_modem},
    {FIONREAD, count_input},
    {TIOCOUTQ, count_output},
    {TIOCEXCL, make_exclusive},
    {TIOCNXCL, make_shared},
    {TIOCGEXCL, get_exclusive},
    {TIOCGWINSZ, get_window},
    {TIOCSWINSZ, set_window},
    {TCXONC, accept},
    {TCSBRKP, accept},
    {TIOCSBRK, accept},
    {TIOCCBRK, accept},
};
static_assert(TCGETS2 == 0x802c542a && TCSETS2 == 0x402c542b && sizeof(termios2) == 44);

int request_tty(int fd, void *state, unsigned request, void *argument) {
    if (request == FIONBIO || request == FIOCLEX || request == FIONCLEX)
        return real().ioctl(fd, request, argument);
    auto &of = *static_cast<link *>(state);
    const guard hold(of.owner->lock);
    if (of.hung)
        return fail(EIO);
    for (const auto &each : requests)
        if (each.request == request)
            return each.handle(of, argument);
    return fail(ENOTTY);
}

const char *path_of(void *state) {
    static_assert(KIV_SIM_LINES == 4);
    constexpr const char *paths[] = {"/dev/ttyKIV0", "/dev/ttyKIV1", "/dev/ttyKIV2", "/dev/ttyKIV3"};
    return paths[static_cast<link *>(state)->owner - lines];
}

const operations tty_operations = {
    .ioctl = request_tty,
    .read = read_tty,
    .write = write_tty,
    .revents = correct_revents,
    .node = path_of,
    .release = release_tty,
};

// Back door --------------------------------------------------------------------------------------------

// Closing the far socket wakes whoever waits at the near one; correct_revents and read_tty make a tty's
// hang-up of what they find.
void hang_up(line &of, bool readable) {
    link *cut = of.plugged;
    if (cut != nullptr) {
        cut->hung = true;
        cut->readable_when_hung = readable;
        if (cut->at_far_end == peer::process) {
            real().shutdown(cut->near, SHUT_RDWR);
        } else {
            real().close(cut->far);
            cut->far = -1;
        }
        of.plugged = nullptr;
    }
    of.changed.notify_all();
}

void reset_lines() {
    for (line &of : lines) {
        const guard hold(of.lock);
        hang_up(of, true);
        of.port = serial_line();
        of.window = {};
        of.sent.clear();
        of.hung_up = false;
        of.counts = {};
    }
}

void fill(const line &of, kiv_sim_line_state &state) {
    state = {};
    const termios2 &settings = of.port.settings();
    state.c_iflag = settings.c_iflag;
    state.c_oflag = settings.c_oflag;
    state.c_cflag = settings.c_cflag;
    state.c_lflag = settings.c_lflag;
    state.c_line = settings.c_line;
    ::memcpy(state.c_cc, settings.c_cc, sizeof state.c_cc);
    state.c_ispeed = settings.c_ispeed;
    state.c_ospeed = settings.c_ospeed;
    state.modem = of.port.modem();
    state.near_ends = of.plugged != nullptr ? of.plugged->near_ends : 0;
    state.input_queued = of.plugged != nullptr ? unread_bytes(of.plugged->near) : 0;
    state.output_queued = held_bytes(of);
    state.hung_up = of.hung_up ? 1 : 0;
    state.sent = of.counts.sent;
    state.settings_set = of.counts.settings_set;
    state.modem_set = of.counts.modem_set;
    state.drains = of.counts.drains;
    state.input_flushes = of.counts.input_flushes;
    state.output_flushes = of.counts.output_flushes;
    state.drains_waiting = of.drains_waiting;
}

line *find_line(unsigned index) {
    return index < KIV_SIM_LINES ? &lines[index] : nullptr;
}

// Runs `action` on a line, locked, with errno kept.
template <class Action>
int with_line(unsigned index, Action action) {
    const errno_keeper keeper;
    line *of = find_line(index);
    if (of == nullptr)
        return EINVAL;
    const guard hold(of->lock);
    action(*of);
    return 0;
}

} // namespace

extern const device tty_device;
const device tty_device = {
    .knows_path = knows_path, .has_node = has_node, .open = open_tty, .reset = reset_lines};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_line_inspect(unsigned index, kiv_sim_line_state *state) {
    return with_line(index, [=](line &of) { fill(of, *state); });
}

int kiv_sim_line_wait(unsigned index, int (*done)(const kiv_sim_line_state *state, void *context),
                      void *context) {
    return with_line(index, [=](line &of) {
        kiv_sim_line_state state;
        for (fill(of, state); done(&state, context) == 0; fill(of, state))
            of.changed.wait(of.lock);
    });
}

size_t kiv_sim_line_send(unsigned index, const void *data, size_t length) {
    size_t taken = 0;
    with_line(index, [&](line &of) {
        if (of.plugged == nullptr || of.plugged->at_far_end == peer::process)
            return;
        const auto *bytes = static_cast<const unsigned char *>(data);
        while (taken < length) {
            const std::size_t part = length - taken < chunk ? length - taken : chunk;
            if (!receive_chunk(of, bytes + taken, part))
                break;
            taken += part;
        }
        settle(of);
    });
    return taken;
}

size_t kiv_sim_line_receive(unsigned index, void *buffer, size_t size) {
    size_t taken = 0;
    with_line(index, [&](line &of) {
        settle(of); // a stream's buffer was written by the C library itself
        taken = of.sent.take(buffer, size);
    });
    return taken;
}

int kiv_sim_line_set_inputs(unsigned index, unsigned inputs) {
    return with_line(index, [=](line &of) {
        of.port.set_inputs(inputs);
        settle(of);
    });
}

int kiv_sim_line_set_max_speed(unsigned index, unsigned speed) {
    return with_line(index, [=](line &of) { of.port.set_max_speed(speed); });
}

int kiv_sim_line_hang_up(unsigned index, int readable) {
    return with_line(index, [=](line &of) {
        hang_up(of, readable != 0);
        of.hung_up = true;
    });
}

int kiv_sim_line_plug_in(unsigned index) {
    return with_line(index, [](line &of) {
        of.hung_up = false;
        of.changed.notify_all();
    });
}
