// TAP interfaces /dev/net/tun and /dev/tun: the attachment of tun_model to descriptors.
//
//   State          nodes, the host to come, the interfaces
//   Frames         what the kernel's side sends and collects
//   Opening        by path; a socket pair that keeps boundaries, its near end the program's
//   Transfers      read and write as a TAP descriptor has them
//   Requests       the ioctl table
//   Back door      the kernel's side for tests
//
// The program reads straight from its socket, so the queue, the blocking and the signals are the kernel's.
// What it writes the model gets as a call, not through the socket. One lock guards everything; it is not held
// during a read.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>

#include "byte_queue.h"
#include "device.h"
#include "environment.h"
#include "kiv/sim.h"
#include "memory.h"
#include "real.h"
#include "tun_model.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

// State ------------------------------------------------------------------------------------------------

static_assert(name_size == IFNAMSIZ && name_size == KIV_SIM_NAME_SIZE);

struct tap {
    tap *next;
    int far;      // -1 once the interface was deleted
    int node;     // what was opened
    bool refuses; // the node was a forbidden one
    bool deleted;
    kiv_sim_tap_state seen; // exists: has a name
    char name[name_size];
    tun_host host;
    byte_queue written; // each frame behind its length
};

constexpr const char *paths[] = {"/dev/net/tun", "/dev/tun"};

constinit mutex lock;
constinit event changed;
constinit tap *taps = nullptr; // open ones, deleted ones too until they are closed
constinit kiv_sim_tun_node nodes[KIV_SIM_TUN_NODES] = {};
constinit bool has_host = false;
constinit kiv_sim_host next_host = {};
constinit unsigned made_addresses = 0;

tap *find(const char *name) {
    for (tap *each = taps; each != nullptr; each = each->next)
        if (each->seen.exists != 0 && ::strcmp(each->name, name) == 0)
            return each;
    return nullptr;
}

std::uint32_t address_in(const char *variable) {
    const char *text = ::getenv(variable);
    in_addr address = {};
    if (text == nullptr || *text == '\0')
        return 0;
    if (::inet_pton(AF_INET, text, &address) != 1)
        complain(variable, text, "an address as 10.0.0.1");
    return ntohl(address.s_addr);
}

// What the environment says, for whoever has not used the back door. With the lock.
void ask_environment() {
    constexpr unsigned pings = 3;
    constexpr std::size_t ping_size = 56;
    if (nodes[0] != KIV_SIM_TUN_REAL || nodes[1] != KIV_SIM_TUN_REAL || ::getenv("KIV_SIM_TUN") == nullptr)
        return;
    nodes[KIV_SIM_NET_TUN] = KIV_SIM_TUN_PRESENT;
    nodes[KIV_SIM_DEV_TUN] = KIV_SIM_TUN_ABSENT;
    const std::uint32_t peer = address_in("KIV_SIM_TUN_PING");
    next_host = {.address = address_in("KIV_SIM_TUN"),
                 .peer = peer,
                 .pings = peer != 0 ? pings : 0,
                 .ping_size = ping_size};
    has_host = next_host.address != 0;
}

// Frames -----------------------------------------------------------------------------------------------

bool send_to_program(tap &through, const void *frame, std::size_t length) {
    const ssize_t done = real().send(through.far, frame, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (done != static_cast<ssize_t>(length))
        return false;
    ++through.seen.sent;
    return true;
}

void collect(tap &into, const std::uint8_t *frame, std::size_t length) {
    ++into.seen.received;
    if (into.seen.uncollected == KIV_SIM_TAP_FRAMES)
        return;
    into.written.append(&length, sizeof length);
    into.written.append(frame, length);
    ++into.seen.uncollected;
}

void let_host_see(tap &at, const std::uint8_t *frame, std::size_t length) {
    std::uint8_t answer[tun_host::longest];
    const std::size_t answer_length = at.host.receive(frame, length, answer);
    if (answer_length > 0)
        send_to_program(at, answer, answer_length);
    at.seen.replies = at.host.replies();
}

void delete_interface(tap &gone) {
    if (gone.deleted)
        return;
    gone.deleted = true;
    gone.seen = {};
    real().close(gone.far); // wakes whoever reads, with the end of the stream
    gone.far = -1;
    changed.notify_all();
}

// Opening ----------------------------------------------------------------------------------------------

int node_of_path(const char *path) {
    for (int i = 0; i < KIV_SIM_TUN_NODES; ++i)
        if (::strcmp(path, paths[i]) == 0)
            return i;
    return -1;
}

bool knows_path(const char *path) {
    const int node = node_of_path(path);
    if (node == -1)
        return false;
    const guard hold(lock);
    ask_environment();
    return nodes[node] != KIV_SIM_TUN_REAL;
}

bool has_node(const char *path) {
    const guard hold(lock);
    return nodes[node_of_path(path)] != KIV_SIM_TUN_ABSENT;
}

extern const operations tun_operations;

int open_tun(const char *path, int flags, opened &made) {
    const guard hold(lock);
    const int node = node_of_path(path);
    if (nodes[node] == KIV_SIM_TUN_ABSENT)
        return fail(ENOENT);
    int ends[2];
    const int socket_flags =
        ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0) | ((flags & O_NONBLOCK) != 0 ? SOCK_NONBLOCK : 0);
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | socket_flags, 0, ends) == -1)
        return -1;
    const int far = own(ends[1]);
    real().fcntl(far, F_SETFD, FD_CLOEXEC);
    auto *opening = far >= 0 ? allocate<tap>() : nullptr;
    if (opening == nullptr) {
        const errno_keeper keeper;
        real().close(ends[0]);
        real().close(far);
        return -1;
    }
    *opening = tap{.next = taps,
                   .far = far,
                   .node = node,
                   .refuses = nodes[node] == KIV_SIM_TUN_FORBIDDEN,
                   .deleted = false,
                   .seen = {},
                   .name = {},
                   .host = {},
                   .written = {}};
    taps = opening;
    made = opened{.ops = &tun_operations, .state = opening};
    return ends[0];
}

void release_tun(void *state) {
    auto *ended = static_cast<tap *>(state);
    const guard hold(lock);
    tap **place = &taps;
    while (*place != ended)
        place = &(*place)->next;
    *place = ended->next;
    if (!ended->deleted)
        real().close(ended->far);
    ended->written.release();
    ::free(ended);
    changed.notify_all();
}

// Transfers --------------------------------------------------------------------------------------------

bool is_attached(const tap &open) {
    return open.seen.exists != 0;
}

// The driver does not look at whether its copy to the program succeeded: a frame that is read to nowhere is
// taken, and its length is the answer.
ssize_t read_frame(int fd, const iovec *pieces, int count) {
    std::size_t room = 0;
    bool leads_nowhere = false;
    for (int i = 0; i < count; ++i) {
        room += pieces[i].iov_len;
        leads_nowhere = leads_nowhere || (pieces[i].iov_base == nullptr && pieces[i].iov_len > 0);
    }
    if (!leads_nowhere)
        return real().readv(fd, pieces, count);
    char nothing;
    const ssize_t length = real().recv(fd, &nothing, 0, MSG_TRUNC);
    return length > static_cast<ssize_t>(room) ? static_cast<ssize_t>(room) : length;
}

// Whoever waits while the interface is deleted is told so by the driver's queue, later calls by the driver.
ssize_t read_tun(int fd, void *state, const iovec *pieces, int count) {
    const auto &from = *static_cast<const tap *>(state);
    {
        const guard hold(lock);
        if (!is_attached(from))
            return fail(EBADFD);
    }
    const ssize_t done = read_frame(fd, pieces, count);
    return done == 0 ? fail(EFAULT) : done;
}

ssize_t write_tun(int, void *state, const iovec *pieces, int count) {
    auto &to = *static_cast<tap *>(state);
    const guard hold(lock);
    if (!is_attached(to))
        return fail(EBADFD);
    if (to.seen.up == 0)
        return fail(EIO);
    byte_queue frame;
    for (int i = 0; i < count; ++i)
        frame.append(pieces[i].iov_base, pieces[i].iov_len);
    const std::size_t length = frame.size();
    if (length >= header_size) {
        collect(to, frame.data(), length);
        let_host_see(to, frame.data(), length);
        changed.notify_all();
    }
    frame.release();
    return length >= header_size ? static_cast<ssize_t>(length) : fail(EINVAL);
}

short correct_revents(void *state, short, short revents) {
    const guard hold(lock);
    return static_cast<const tap *>(state)->deleted ? short{POLLERR} : revents;
}

const char *path_of(void *state) {
    return paths[static_cast<const tap *>(state)->node];
}

// Requests ---------------------------------------------------------------------------------------------

// The name that the kernel would give; empty where it would refuse.
void choose_name(const char (&wanted)[IFNAMSIZ], char *name) {
    if (complete_name(wanted, 0, name)) {
        for (unsigned number = 1; find(name) != nullptr; ++number)
            complete_name(wanted, number, name);
    } else {
        ::memcpy(name, wanted, name_size);
    }
}

int set_interface(tap &of, ifreq &request) {
    request.ifr_name[IFNAMSIZ - 1] = '\0';
    if (is_attached(of))
        return fail(EEXIST);
    if (request.ifr_flags != (IFF_TAP | IFF_NO_PI))
        return fail(EINVAL);
    if (of.refuses)
        return fail(EPERM);
    char name[name_size] = {};
    choose_name(request.ifr_name, name);
    if (!is_interface_name(name))
        return fail(EINVAL);
    if (find(name) != nullptr)
        return fail(EBUSY);
    ::memcpy(of.name, name, name_size);
    ::memcpy(request.ifr_name, name, name_size);
    of.seen = {};
    of.seen.exists = 1;
    of.seen.hardware_address[0] = 2; // locally administered
    of.seen.hardware_address[address_size - 1] = static_cast<std::uint8_t>(++made_addresses);
    return 0;
}

int set_address(tap &of, const ifreq &request) {
    std::uint8_t address[address_size];
    ::memcpy(address, request.ifr_hwaddr.sa_data, address_size);
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        return fail(EINVAL);
    if (!is_station_address(address))
        return fail(EADDRNOTAVAIL);
    ::memcpy(of.seen.hardware_address, address, address_size);
    if (!has_host)
        return 0;
    of.seen.up = 1;
    of.host = tun_host(next_host.address, next_host.peer, next_host.pings, next_host.ping_size);
    std::uint8_t frame[tun_host::longest];
    const std::size_t length = of.host.begin(address, frame);
    if (length > 0)
        send_to_program(of, frame, length);
    return 0;
}

int get_address(const tap &of, ifreq &request) {
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    ::memcpy(request.ifr_hwaddr.sa_data, of.seen.hardware_address, address_size);
    return 0;
}

int get_interface(const tap &of, ifreq &request) {
    ::memcpy(request.ifr_name, of.name, name_size);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    return 0;
}

int answer(tap &of, unsigned request, ifreq &interface) {
    if (request == TUNSETIFF)
        return set_interface(of, interface);
    if (!is_attached(of))
        return fail(EBADFD);
    switch (request) {
    case SIOCSIFHWADDR:
        return set_address(of, interface);
    case SIOCGIFHWADDR:
        return get_address(of, interface);
    case TUNGETIFF:
        return get_interface(of, interface);
    default:
        return fail(EINVAL);
    }
}

int request_tun(int, void *state, unsigned request, void *argument) {
    auto &of = *static_cast<tap *>(state);
    const guard hold(lock);
    const int result = of.deleted ? fail(EBADFD) : answer(of, request, *static_cast<ifreq *>(argument));
    changed.notify_all();
    return result;
}

const operations tun_operations = {.ioctl = request_tun,
                                   .read = read_tun,
                                   .write = write_tun,
                                   .bind = nullptr,
                                   .setsockopt = nullptr,
                                   .getsockopt = nullptr,
                                   .revents = correct_revents,
                                   .node = path_of,
                                   .release = release_tun};

void reset() {
    const guard hold(lock);
    for (tap *each = taps; each != nullptr; each = each->next)
        delete_interface(*each);
    for (kiv_sim_tun_node &each : nodes)
        each = KIV_SIM_TUN_REAL;
    has_host = false;
    made_addresses = 0;
}

// Back door --------------------------------------------------------------------------------------------

template <class Do>
int with_tap(const char *name, Do work) {
    const errno_keeper keeper;
    const guard hold(lock);
    tap *found = find(name);
    if (found == nullptr)
        return ENODEV;
    const int status = work(*found);
    changed.notify_all();
    return status;
}

kiv_sim_tap_state state_of(const char *name) {
    const tap *found = find(name);
    return found != nullptr ? found->seen : kiv_sim_tap_state{};
}

} // namespace

extern const device tun_device;
const device tun_device = {.knows_path = knows_path,
                           .has_node = has_node,
                           .open = open_tun,
                           .knows_socket = nullptr,
                           .socket = nullptr,
                           .any_request = 0,
                           .any_ioctl = nullptr,
                           .reset = reset};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_tun_set_node(unsigned node, kiv_sim_tun_node state) {
    if (node >= KIV_SIM_TUN_NODES || state < KIV_SIM_TUN_REAL || state > KIV_SIM_TUN_PRESENT)
        return EINVAL;
    const guard hold(lock);
    nodes[node] = state;
    return 0;
}

void kiv_sim_tun_set_host(const kiv_sim_host *host) {
    const guard hold(lock);
    has_host = host != nullptr;
    if (has_host)
        next_host = *host;
}

void kiv_sim_tap_inspect(const char *name, kiv_sim_tap_state *state) {
    const guard hold(lock);
    *state = state_of(name);
}

void kiv_sim_tap_wait(const char *name, int (*done)(const kiv_sim_tap_state *state, void *context),
                      void *context) {
    const errno_keeper keeper;
    const guard hold(lock);
    for (kiv_sim_tap_state state = state_of(name); done(&state, context) == 0; state = state_of(name))
        changed.wait(lock);
}

int kiv_sim_tap_set_up(const char *name, int up) {
    return with_tap(name, [up](tap &of) {
        of.seen.up = up != 0 ? 1 : 0;
        return 0;
    });
}

int kiv_sim_tap_delete(const char *name) {
    return with_tap(name, [](tap &of) {
        delete_interface(of);
        return 0;
    });
}

int kiv_sim_tap_send(const char *name, const void *frame, size_t length) {
    return with_tap(name, [=](tap &of) {
        if (of.seen.up == 0)
            return ENETDOWN;
        return send_to_program(of, frame, length) ? 0 : ENOBUFS;
    });
}

size_t kiv_sim_tap_receive(const char *name, void *buffer, size_t size) {
    size_t length = 0;
    with_tap(name, [&](tap &of) {
        if (of.seen.uncollected == 0)
            return 0;
        of.written.take(&length, sizeof length);
        const size_t taken = of.written.take(buffer, length < size ? length : size);
        of.written.drop(length - taken);
        --of.seen.uncollected;
        return 0;
    });
    return length;
}
