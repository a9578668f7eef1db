// Bluetooth controllers hci0 to hci3: the attachment of hci_controller to raw sockets.
//
//   State          controllers, and the sockets bound to them
//   Delivery       what a controller sends: held, cut, filtered, into the sockets
//   Opening        sockets, bind, the end of a socket
//   Transfers      read, write and poll as a raw HCI socket has them
//   Options        the filter
//   Requests       up, down, raw mode
//   Back door      the controller's side for tests
//
// A socket is one end of a pair that keeps packets apart; the model sends through the other end. What the
// program writes goes to the model at once. One lock guards everything here.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/ioctl.h>

#include "byte_queue.h"
#include "device.h"
#include "hci_model.h"
#include "kiv/sim.h"
#include "memory.h"
#include "real.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

// State ------------------------------------------------------------------------------------------------

struct hci_filter {
    std::uint32_t type_mask;
    std::uint32_t event_mask[2];
    std::uint16_t opcode;
    std::uint16_t padding;
};
static_assert(sizeof(hci_filter) == 16);

struct controller;

struct hci_socket {
    controller *bound; // null before bind, and after the controller has gone
    int far;
    hci_filter filter; // at first it lets nothing through
    bool lost;         // its controller has gone
    bool ended;        // so that reads give 0 for ever
    bool error_due;    // so that the next read gives EPIPE
    hci_socket *next;
};

struct controller {
    hci_controller model;
    kiv_sim_hci_config config;
    kiv_sim_hci_state state;
    byte_queue received; // packets of the host, each after its length
    byte_queue held;     // packets for the host, likewise
};

constexpr kiv_sim_hci_config initial_config(unsigned number) {
    kiv_sim_hci_config made = {};
    made.present = number < 2 ? 1 : 0;
    made.capable = 1;
    made.max_packet = hci_longest;
    made.answers = 1;
    return made;
}

constexpr kiv_sim_hci_state initial_state() {
    kiv_sim_hci_state made = {};
    made.up = 1;
    return made;
}

constinit mutex hci_lock;
constinit controller controllers[KIV_SIM_HCIS] = {
    {hci_controller(0), initial_config(0), initial_state(), {}, {}},
    {hci_controller(1), initial_config(1), initial_state(), {}, {}},
    {hci_controller(2), initial_config(2), initial_state(), {}, {}},
    {hci_controller(3), initial_config(3), initial_state(), {}, {}},
};
constinit hci_socket *sockets = nullptr;

// Packets in a byte queue.
using packet_length = std::uint16_t;

void append_packet(byte_queue &to, const unsigned char *packet, std::size_t length) {
    const auto header = static_cast<packet_length>(length);
    to.append(&header, sizeof header);
    to.append(packet, length);
}

// The oldest packet, cut to `room`. Returns its length in the buffer, 0 when there is none.
std::size_t take_packet(byte_queue &from, unsigned char *buffer, std::size_t room) {
    packet_length length = 0;
    if (from.take(&length, sizeof length) == 0)
        return 0;
    const std::size_t copied = length < room ? length : room;
    from.take(buffer, copied);
    from.drop(length - copied);
    return copied;
}

// Delivery ---------------------------------------------------------------------------------------------

bool is_in(std::uint32_t mask, unsigned bit) {
    return ((mask >> bit) & 1) != 0;
}

// Whether the filter asks for answers to one command only, and this event answers another.
bool answers_another(const hci_filter &filter, const unsigned char *packet, std::size_t length) {
    constexpr unsigned complete = 0x0e;
    constexpr unsigned status = 0x0f;
    const std::size_t place = packet[1] == complete ? 4 : 5;
    if (filter.opcode == 0 || (packet[1] != complete && packet[1] != status) || length < place + 2)
        return false;
    return filter.opcode != packet[place] + 256U * packet[place + 1];
}

bool passes(const hci_filter &filter, const unsigned char *packet, std::size_t length) {
    if (!is_in(filter.type_mask, packet[0] & 31U))
        return false;
    if (packet[0] != hci_event || length < 2)
        return true;
    const unsigned event = packet[1] & 63U;
    return is_in(filter.event_mask[event / 32], event % 32) && !answers_another(filter, packet, length);
}

// A socket whose queue is full loses the packet, as in the kernel.
void send_piece(controller &from, const hci_socket &to, const unsigned char *piece, std::size_t length) {
    if (real().send(to.far, piece, length, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(length))
        ++from.state.delivered;
    else
        ++from.state.lost;
}

void send_packet(controller &from, const hci_socket &to, const unsigned char *packet, std::size_t length) {
    const std::size_t most = from.config.fragment != 0 ? from.config.fragment : length;
    for (std::size_t done = 0; done < length; done += most)
        send_piece(from, to, packet + done, most < length - done ? most : length - done);
}

void deliver(controller &from, const unsigned char *packet, std::size_t length) {
    for (const hci_socket *each = sockets; each != nullptr; each = each->next)
        if (each->bound == &from && length > 0 && passes(each->filter, packet, length))
            send_packet(from, *each, packet, length);
}

void answer(void *context, const unsigned char *packet, std::size_t length) {
    auto &from = *static_cast<controller *>(context);
    if (from.config.hold != 0) {
        append_packet(from.held, packet, length);
        ++from.state.held;
    } else {
        deliver(from, packet, length);
    }
}

// Opening ----------------------------------------------------------------------------------------------

constexpr int bluetooth_hci = 1;
constexpr int raw_mode_type = SOCK_RAW;

bool knows_socket(int domain, int type, int protocol) {
    return domain == AF_BLUETOOTH && type == raw_mode_type && protocol == bluetooth_hci;
}

extern const operations hci_operations;

int open_socket(int flags, opened &made) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == -1)
        return -1;
    const int far = own(ends[1]);
    if ((flags & SOCK_CLOEXEC) == 0)
        real().fcntl(ends[0], F_SETFD, 0);
    if ((flags & SOCK_NONBLOCK) != 0)
        real().fcntl(ends[0], F_SETFL, O_NONBLOCK);
    auto *fresh = far >= 0 ? allocate<hci_socket>() : nullptr;
    if (fresh == nullptr) {
        real().close(ends[0]);
        real().close(far);
        return fail(ENOMEM);
    }
    const guard hold(hci_lock);
    *fresh = {.bound = nullptr,
              .far = far,
              .filter = {},
              .lost = false,
              .ended = false,
              .error_due = false,
              .next = sockets};
    sockets = fresh;
    made = opened{.ops = &hci_operations, .state = fresh};
    return ends[0];
}

void release_socket(void *state) {
    auto *ended = static_cast<hci_socket *>(state);
    const guard hold(hci_lock);
    hci_socket **link = &sockets;
    while (*link != ended)
        link = &(*link)->next;
    *link = ended->next;
    real().close(ended->far);
    ::free(ended);
}

controller *find_present(unsigned number) {
    return number < KIV_SIM_HCIS && controllers[number].config.present != 0 ? &controllers[number] : nullptr;
}

// The kernel takes a short address: then it is the raw channel's.
struct hci_address {
    std::uint16_t family, number, channel;
};

int bind_socket(int, void *state, const sockaddr *address, socklen_t length) {
    auto &socket = *static_cast<hci_socket *>(state);
    hci_address wanted = {};
    ::memcpy(&wanted, address, length < sizeof wanted ? length : sizeof wanted);
    if (length < sizeof wanted.family || wanted.family != AF_BLUETOOTH || wanted.channel != 0)
        return fail(EINVAL);
    constexpr unsigned no_controller = 0xffff;
    const guard hold(hci_lock);
    if (socket.bound != nullptr)
        return fail(EALREADY);
    if (wanted.number == no_controller)
        return 0;
    controller *found = find_present(wanted.number);
    if (found == nullptr)
        return fail(ENODEV);
    socket.bound = found;
    socket.lost = false;
    return 0;
}

// Transfers --------------------------------------------------------------------------------------------

std::size_t length_of(const iovec *pieces, int count) {
    std::size_t length = 0;
    for (int i = 0; i < count; ++i)
        length += pieces[i].iov_len;
    return length;
}

// The controller's end is told once; an empty packet had woken whoever waited.
bool take_error(int fd, hci_socket &socket) {
    const guard hold(hci_lock);
    if (!socket.error_due)
        return false;
    socket.error_due = false;
    char byte;
    if (real().recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
        real().recv(fd, &byte, 1, MSG_DONTWAIT);
    return true;
}

bool has_ended(const hci_socket &socket) {
    const guard hold(hci_lock);
    return socket.ended;
}

ssize_t read_socket(int fd, void *state, const iovec *pieces, int count) {
    auto &socket = *static_cast<hci_socket *>(state);
    if (length_of(pieces, count) == 0)
        return 0;
    for (;;) {
        if (take_error(fd, socket))
            return fail(EPIPE);
        const ssize_t done = real().readv(fd, pieces, count);
        if (done != 0 || has_ended(socket))
            return done;
    }
}

// What the kernel looks at, in its order. Returns 0 or the errno.
int refusal_of(const hci_socket &socket, std::size_t length, unsigned char indicator) {
    constexpr std::size_t shortest = 4;
    const controller *to = socket.bound;
    if (length < shortest || length > (to != nullptr ? to->config.max_packet : hci_longest))
        return EINVAL;
    if (socket.lost)
        return EPIPE;
    if (to == nullptr)
        return EBADFD;
    if (to->state.up == 0)
        return ENETDOWN;
    if (indicator < hci_command || indicator > hci_sco)
        return EINVAL;
    return to->config.capable != 0 ? 0 : EPERM;
}

constexpr std::size_t most_received = 1 << 20; // bytes that nobody has taken

void receive(controller &to, const unsigned char *packet, std::size_t length) {
    ++to.state.packets;
    if (to.received.size() < most_received)
        append_packet(to.received, packet, length);
    if (to.config.answers != 0)
        to.model.receive(packet, length, {.take = answer, .context = &to});
}

ssize_t write_socket(int, void *state, const iovec *pieces, int count) {
    auto &socket = *static_cast<hci_socket *>(state);
    unsigned char packet[hci_longest];
    const std::size_t length = length_of(pieces, count);
    std::size_t filled = 0;
    for (int i = 0; i < count && length <= sizeof packet; ++i) {
        if (pieces[i].iov_len == 0) // and perhaps no address
            continue;
        ::memcpy(packet + filled, pieces[i].iov_base, pieces[i].iov_len);
        filled += pieces[i].iov_len;
    }
    const guard hold(hci_lock);
    const int refusal = refusal_of(socket, length, filled > 0 ? packet[0] : 0);
    if (refusal != 0)
        return fail(refusal);
    receive(*socket.bound, packet, length);
    return static_cast<ssize_t>(length);
}

short correct_revents(void *state, short, short revents) {
    const auto &socket = *static_cast<hci_socket *>(state);
    const guard hold(hci_lock);
    return socket.error_due ? static_cast<short>(revents | POLLERR) : revents;
}

// Options ----------------------------------------------------------------------------------------------

constexpr int hci_level = 0;
constexpr int filter_option = 2;

// What a process without the capability may see.
constexpr hci_filter unprivileged = {
    .type_mask = 0x10, .event_mask = {0x1000d9fe, 0x0000b00c}, .opcode = 0xffff, .padding = 0};

bool lacks_capability(const hci_socket &socket) {
    return socket.bound != nullptr && socket.bound->config.capable == 0;
}

int set_option(int, void *state, int level, int option, const void *value, socklen_t length) {
    auto &socket = *static_cast<hci_socket *>(state);
    if (level != hci_level || option != filter_option)
        return fail(ENOPROTOOPT);
    const guard hold(hci_lock);
    hci_filter wanted = socket.filter;
    ::memcpy(&wanted, value, length < sizeof wanted ? length : sizeof wanted);
    if (lacks_capability(socket)) {
        wanted.type_mask &= unprivileged.type_mask;
        wanted.event_mask[0] &= unprivileged.event_mask[0];
        wanted.event_mask[1] &= unprivileged.event_mask[1];
    }
    wanted.padding = 0;
    socket.filter = wanted;
    return 0;
}

int get_option(int, void *state, int level, int option, void *value, socklen_t *length) {
    const auto &socket = *static_cast<hci_socket *>(state);
    if (level != hci_level || option != filter_option)
        return fail(ENOPROTOOPT);
    const guard hold(hci_lock);
    if (*length > sizeof socket.filter)
        *length = sizeof socket.filter;
    ::memcpy(value, &socket.filter, *length);
    return 0;
}

// Requests ---------------------------------------------------------------------------------------------

enum request : unsigned {
    device_up = 0x400448c9,
    device_down = 0x400448ca,
    set_raw = 0x400448dc,
};

void note(controller &of, unsigned request) {
    if (of.state.requests < KIV_SIM_HCI_REQUESTS)
        of.state.request[of.state.requests] = request;
    ++of.state.requests;
}

int move_device(unsigned request, unsigned number) {
    controller *of = find_present(number);
    if (of == nullptr)
        return fail(ENODEV);
    note(*of, request);
    if (of->config.capable == 0)
        return fail(EPERM);
    if (of->config.busy != 0)
        return fail(EBUSY);
    if (request == device_up && of->state.up != 0)
        return fail(EALREADY);
    of->state.up = request == device_up ? 1 : 0;
    return 0;
}

int set_raw_mode(const hci_socket &socket, bool on) {
    controller *of = socket.bound;
    if (of == nullptr)
        return fail(EBADFD);
    note(*of, set_raw);
    if (of->config.busy != 0)
        return fail(EBUSY);
    if (of->config.capable == 0)
        return fail(EPERM);
    if (of->config.set_raw_error != 0)
        return fail(of->config.set_raw_error);
    of->state.raw = on ? 1 : 0;
    return 0;
}

int request_socket(int fd, void *state, unsigned request, void *argument) {
    if (request == FIONBIO || request == FIOCLEX || request == FIONCLEX || request == FIONREAD)
        return real().ioctl(fd, request, argument);
    // The argument is the number itself, 32 bits of it.
    const auto number = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(argument));
    const guard hold(hci_lock);
    switch (request) {
    case device_up:
    case device_down:
        return move_device(request, number & 0xffff);
    case set_raw:
        return set_raw_mode(*static_cast<hci_socket *>(state), number != 0);
    default:
        return fail(ENOTTY);
    }
}

const operations hci_operations = {
    .ioctl = request_socket,
    .read = read_socket,
    .write = write_socket,
    .bind = bind_socket,
    .setsockopt = set_option,
    .getsockopt = get_option,
    .revents = correct_revents,
    .release = release_socket,
};

// Back door --------------------------------------------------------------------------------------------

void cut_off(hci_socket &socket, bool with_error) {
    socket.bound = nullptr;
    socket.lost = true;
    if (with_error) {
        socket.error_due = true;
        real().send(socket.far, nullptr, 0, MSG_DONTWAIT | MSG_NOSIGNAL);
    } else {
        socket.ended = true;
        real().shutdown(socket.far, SHUT_WR);
    }
}

void unplug(controller &of, bool with_error) {
    for (hci_socket *each = sockets; each != nullptr; each = each->next)
        if (each->bound == &of)
            cut_off(*each, with_error);
    of.config.present = 0;
    of.state.up = 0;
    of.state.raw = 0;
    of.state.held = 0;
    of.held.clear();
}

void reset_controllers() {
    const guard hold(hci_lock);
    for (unsigned number = 0; number < KIV_SIM_HCIS; ++number) {
        controller &of = controllers[number];
        unplug(of, true);
        of.model = hci_controller(number);
        of.config = initial_config(number);
        of.state = initial_state();
        of.received.clear();
    }
}

// Runs `action` on a controller, locked, with errno kept.
template <class Action>
int with_controller(unsigned number, Action action) {
    const errno_keeper keeper;
    if (number >= KIV_SIM_HCIS)
        return EINVAL;
    const guard hold(hci_lock);
    return action(controllers[number]);
}

unsigned count_sockets(const controller &of) {
    unsigned count = 0;
    for (const hci_socket *each = sockets; each != nullptr; each = each->next)
        count += each->bound == &of ? 1 : 0;
    return count;
}

} // namespace

extern const device hci_device;
const device hci_device = {.knows_socket = knows_socket, .socket = open_socket, .reset = reset_controllers};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_hci_get_config(unsigned number, kiv_sim_hci_config *config) {
    return with_controller(number, [=](const controller &of) {
        *config = of.config;
        return 0;
    });
}

int kiv_sim_hci_set_config(unsigned number, const kiv_sim_hci_config *config) {
    return with_controller(number, [=](controller &of) {
        if (config->max_packet < 4 || config->max_packet > hci_longest)
            return EINVAL;
        of.config = *config;
        return 0;
    });
}

int kiv_sim_hci_inspect(unsigned number, kiv_sim_hci_state *state) {
    return with_controller(number, [=](const controller &of) {
        *state = of.state;
        state->sockets = count_sockets(of);
        const hci_controller::counters &counts = of.model.counts();
        state->commands = counts.commands;
        state->acl_packets = counts.acl_packets;
        state->sco_packets = counts.sco_packets;
        state->malformed = counts.malformed;
        return 0;
    });
}

size_t kiv_sim_hci_receive(unsigned number, void *buffer, size_t size) {
    size_t length = 0;
    with_controller(number, [&](controller &of) {
        length = take_packet(of.received, static_cast<unsigned char *>(buffer), size);
        return 0;
    });
    return length;
}

int kiv_sim_hci_send(unsigned number, const void *packet, size_t length) {
    return with_controller(number, [=](controller &of) {
        if (length == 0 || length > hci_longest)
            return EINVAL;
        answer(&of, static_cast<const unsigned char *>(packet), length);
        return 0;
    });
}

unsigned kiv_sim_hci_release(unsigned number, unsigned count) {
    unsigned released = 0;
    with_controller(number, [&](controller &of) {
        unsigned char packet[hci_longest] = {};
        for (; released < count; ++released) {
            const size_t length = take_packet(of.held, packet, sizeof packet);
            if (length == 0)
                break;
            --of.state.held;
            deliver(of, packet, length);
        }
        return 0;
    });
    return released;
}

int kiv_sim_hci_refuse(unsigned number, unsigned opcode, unsigned status) {
    return with_controller(number, [=](controller &of) {
        if (opcode > 0xffff || status > 0xff)
            return EINVAL;
        return of.model.refuse(static_cast<uint16_t>(opcode), static_cast<unsigned char>(status)) ? 0
                                                                                                  : ENOSPC;
    });
}

int kiv_sim_hci_unplug(unsigned number, int error) {
    return with_controller(number, [=](controller &of) {
        if (error != 0 && error != EPIPE)
            return EINVAL;
        unplug(of, error != 0);
        return 0;
    });
}
