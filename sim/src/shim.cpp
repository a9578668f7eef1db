// The board's place between a program and the C library: every libc name that the board defines is here or in
// shim_tools.cpp.
//
//   Frame          the one way that a call takes: count it, let a fault change it, give it to the device
//                  behind its descriptor, or pass it on
//   Files          open and its spellings, fopen, close, dup, fcntl
//   Transfers      read, write, send, recv, ioctl
//   Waits          poll, select and the sleeps
//   Sockets        socket and what is done to sockets
//   Allocation     malloc, calloc
//   64-bit time    the second set of names on 32-bit systems
//
// A call that is passed on has the C library's arguments, result and errno, nothing else.

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "device.h"
#include "faults.h"
#include "real.h"
#include "registry.h"
#include "shim.h"
#include "waiting.h"

using namespace kiv::sim;

// Frame ------------------------------------------------------------------------------------------------

namespace {

// Calls that no device takes part in.
template <class Real, class... Arguments>
auto plain(kiv_sim_call call, Real real_call, Arguments... arguments) -> decltype(real_call(arguments...)) {
    const fault due(call);
    if (due.answers())
        return static_cast<decltype(real_call(arguments...))>(due.finish());
    return real_call(arguments...);
}

// A driver sets errno for a failure only; what a model leaves behind on success is not for the caller.
template <class Slot, class... Arguments>
auto ask_device(Slot slot, Arguments... arguments) {
    const int before = errno;
    const auto result = slot(arguments...);
    if (result != -1)
        errno = before;
    return result;
}

// Calls on a descriptor for which devices have a slot with the same arguments.
template <class Slot, class Real, class... Arguments>
int on_descriptor(kiv_sim_call call, Slot operations::*slot, Real real_call, int fd, Arguments... arguments) {
    const fault due(call);
    if (due.answers())
        return static_cast<int>(due.finish());
    const held_file file(fd);
    if (file && file.ops().*slot != nullptr)
        return ask_device(file.ops().*slot, fd, file.state(), arguments...);
    return real_call(fd, arguments...);
}

// Transfers, after the fault has been looked at: the device gets them as a list of pieces.
template <class Slot, class Real>
ssize_t transfer(Slot operations::*slot, int fd, const iovec *pieces, int count, Real real_call) {
    const held_file file(fd);
    if (file && file.ops().*slot != nullptr)
        return ask_device(file.ops().*slot, fd, file.state(), pieces, count);
    return real_call();
}

// A transfer of one buffer; `real_call` takes the number of bytes.
template <class Slot, class Real>
ssize_t transfer_buffer(kiv_sim_call call, Slot operations::*slot, int fd, void *buffer, size_t length,
                        Real real_call) {
    const fault due(call, 0, length);
    if (due.answers())
        return due.finish();
    const size_t asked = due.shortens() ? due.what().length : length;
    const iovec piece = {.iov_base = buffer, .iov_len = asked};
    return transfer(slot, fd, &piece, 1, [&] { return real_call(asked); });
}

// The beginning of a list of pieces.
class first_pieces {
    iovec pieces_[UIO_MAXIOV];
    int count_ = 0;

  public:
    first_pieces(const iovec *pieces, int count, size_t length) {
        for (; count_ < count && count_ < UIO_MAXIOV && length > 0; ++count_) {
            pieces_[count_] = pieces[count_];
            if (pieces_[count_].iov_len > length)
                pieces_[count_].iov_len = length;
            length -= pieces_[count_].iov_len;
        }
    }
    const iovec *list() const { return pieces_; }
    int count() const { return count_; }
};

// A transfer of several pieces; `real_call` takes their list.
template <class Slot, class Real>
ssize_t transfer_pieces(kiv_sim_call call, Slot operations::*slot, int fd, const iovec *pieces, int count,
                        Real real_call) {
    const fault due(call);
    if (due.answers())
        return due.finish();
    if (!due.shortens())
        return transfer(slot, fd, pieces, count, [=] { return real_call(fd, pieces, count); });
    const first_pieces cut(pieces, count, due.what().length);
    return transfer(slot, fd, cut.list(), cut.count(),
                    [&] { return real_call(fd, cut.list(), cut.count()); });
}

// Descriptors 0 to 2 carry the messages of tests and of the program: out of reach for faults, unless a
// program has put a device there.
bool is_standard_stream(int fd) {
    return fd >= 0 && fd <= 2 && !is_simulated(fd);
}

// The kernel has given out a number that a simulated device may have had, unnoticed, before.
int fresh(int fd) {
    const detached stale(fd);
    return fd;
}

} // namespace

// Files ------------------------------------------------------------------------------------------------

// The headers promise the compiler that a path is never null; a program may break that, and the answer is
// the kernel's. Hence the detour.
const device *kiv::sim::find_device(const char *given) {
    const char *volatile unpromised = given;
    const char *const path = unpromised;
    return path == nullptr || *path != '/' ? nullptr : device_of_path(path);
}

namespace {

// Ties a descriptor that a model has made to the model, or undoes it.
int take(int fd, const opened &made) {
    if (fd < 0 || made.ops == nullptr)
        return fresh(fd);
    if (attach(fd, made))
        return fd;
    const errno_keeper keeper;
    real().close(fd);
    if (made.ops->release != nullptr)
        made.ops->release(made.state);
    return -1;
}

int open_device(const device &known, const char *path, int flags) {
    const int before = errno;
    opened made;
    const int fd = take(known.open(path, flags, made), made);
    if (fd >= 0)
        errno = before;
    return fd;
}

template <class Real>
int open_path(const char *path, int flags, Real real_call) {
    const fault due(KIV_SIM_OPEN);
    if (due.answers())
        return static_cast<int>(due.finish());
    if (const device *known = find_device(path))
        return open_device(*known, path, flags);
    return fresh(real_call());
}

int flags_of_mode(const char *mode) {
    const bool both = ::strchr(mode, '+') != nullptr;
    const int close_on_exec = ::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0;
    if (*mode == 'r')
        return (both ? O_RDWR : O_RDONLY) | close_on_exec;
    return (both ? O_RDWR : O_WRONLY) | O_CREAT | (*mode == 'a' ? O_APPEND : O_TRUNC) | close_on_exec;
}

FILE *open_stream(const char *path, const char *mode, decltype(&::fopen) real_call) {
    const fault due(KIV_SIM_FOPEN);
    if (due.answers()) {
        due.finish();
        return nullptr;
    }
    const device *known = find_device(path);
    if (known == nullptr)
        return real_call(path, mode);
    const int fd = open_device(*known, path, flags_of_mode(mode));
    if (fd < 0)
        return nullptr;
    FILE *stream = ::fdopen(fd, mode);
    if (stream == nullptr) {
        const errno_keeper keeper;
        const detached ended(fd);
        real().close(fd);
    }
    return stream;
}

// The third argument of the open family exists only with these flags.
mode_t read_mode(int flags, va_list arguments) {
    const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return given ? va_arg(arguments, mode_t) : 0;
}

} // namespace

KIV_SIM_LIBC int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = read_mode(flags, arguments);
    va_end(arguments);
    return open_path(path, flags, [=] { return real().open(path, flags, mode); });
}

KIV_SIM_LIBC int open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = read_mode(flags, arguments);
    va_end(arguments);
    return open_path(path, flags, [=] { return real().open64(path, flags, mode); });
}

KIV_SIM_LIBC int openat(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = read_mode(flags, arguments);
    va_end(arguments);
    return open_path(path, flags, [=] { return real().openat(directory, path, flags, mode); });
}

KIV_SIM_LIBC int openat64(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = read_mode(flags, arguments);
    va_end(arguments);
    return open_path(path, flags, [=] { return real().openat64(directory, path, flags, mode); });
}

KIV_SIM_LIBC int __open_2(const char *path, int flags) {
    return open_path(path, flags, [=] { return real().__open_2(path, flags); });
}

KIV_SIM_LIBC int __open64_2(const char *path, int flags) {
    return open_path(path, flags, [=] { return real().__open64_2(path, flags); });
}

KIV_SIM_LIBC int __openat_2(int directory, const char *path, int flags) {
    return open_path(path, flags, [=] { return real().__openat_2(directory, path, flags); });
}

KIV_SIM_LIBC int __openat64_2(int directory, const char *path, int flags) {
    return open_path(path, flags, [=] { return real().__openat64_2(directory, path, flags); });
}

KIV_SIM_LIBC FILE *fopen(const char *path, const char *mode) {
    return open_stream(path, mode, real().fopen);
}

KIV_SIM_LIBC FILE *fopen64(const char *path, const char *mode) {
    return open_stream(path, mode, real().fopen64);
}

namespace {

// fileno says EBADF of a stream without a descriptor, which is nobody's error here.
int descriptor_of(FILE *stream) {
    const errno_keeper keeper;
    return ::fileno(stream);
}

} // namespace

// The C library writes what is buffered and closes the descriptor by names of its own.
KIV_SIM_LIBC int fclose(FILE *stream) {
    const detached ended(descriptor_of(stream));
    return real().fclose(stream);
}

// A close that reports a failure has closed all the same.
KIV_SIM_LIBC int close(int fd) {
    const fault due(KIV_SIM_CLOSE);
    const detached ended(fd);
    if (!due.answers())
        return real().close(fd);
    {
        const errno_keeper keeper;
        real().close(fd);
    }
    return static_cast<int>(due.finish());
}

namespace {

template <class Real>
int duplicate(kiv_sim_call call, Real real_call, int fd) {
    const fault due(call);
    if (due.answers())
        return static_cast<int>(due.finish());
    const int copy = real_call();
    share(fd, copy);
    return copy;
}

int control(int fd, int command, void *argument, decltype(&::fcntl) real_call) {
    const auto call = [=] { return real_call(fd, command, argument); };
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC)
        return duplicate(KIV_SIM_FCNTL, call, fd);
    return plain(KIV_SIM_FCNTL, call);
}

} // namespace

KIV_SIM_LIBC int dup(int fd) noexcept {
    return duplicate(
        KIV_SIM_DUP, [=] { return real().dup(fd); }, fd);
}

KIV_SIM_LIBC int dup2(int fd, int copy) noexcept {
    return duplicate(
        KIV_SIM_DUP2, [=] { return real().dup2(fd, copy); }, fd);
}

KIV_SIM_LIBC int dup3(int fd, int copy, int flags) noexcept {
    return duplicate(
        KIV_SIM_DUP2, [=] { return real().dup3(fd, copy, flags); }, fd);
}

KIV_SIM_LIBC int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return control(fd, command, argument, real().fcntl);
}

KIV_SIM_LIBC int fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return control(fd, command, argument, real().fcntl64);
}

// Transfers --------------------------------------------------------------------------------------------

KIV_SIM_LIBC ssize_t read(int fd, void *buffer, size_t count) {
    return transfer_buffer(KIV_SIM_READ, &operations::read, fd, buffer, count,
                           [=](size_t asked) { return real().read(fd, buffer, asked); });
}

KIV_SIM_LIBC ssize_t __read_chk(int fd, void *buffer, size_t count, size_t room) {
    return transfer_buffer(KIV_SIM_READ, &operations::read, fd, buffer, count,
                           [=](size_t asked) { return real().__read_chk(fd, buffer, asked, room); });
}

KIV_SIM_LIBC ssize_t write(int fd, const void *data, size_t count) {
    if (is_standard_stream(fd))
        return real().write(fd, data, count);
    return transfer_buffer(KIV_SIM_WRITE, &operations::write, fd, const_cast<void *>(data), count,
                           [=](size_t asked) { return real().write(fd, data, asked); });
}

KIV_SIM_LIBC ssize_t readv(int fd, const iovec *pieces, int count) {
    return transfer_pieces(KIV_SIM_READV, &operations::read, fd, pieces, count, real().readv);
}

KIV_SIM_LIBC ssize_t writev(int fd, const iovec *pieces, int count) {
    if (is_standard_stream(fd))
        return real().writev(fd, pieces, count);
    return transfer_pieces(KIV_SIM_WRITEV, &operations::write, fd, pieces, count, real().writev);
}

namespace {

// Devices see a transfer, not how a socket was asked for it; what they would have to ignore is refused.
bool refuses_flags(int fd, int flags) {
    if (!is_simulated(fd) || (flags & ~MSG_NOSIGNAL) == 0)
        return false;
    errno = EOPNOTSUPP;
    return true;
}

} // namespace

KIV_SIM_LIBC ssize_t send(int fd, const void *data, size_t count, int flags) {
    if (refuses_flags(fd, flags))
        return -1;
    return transfer_buffer(KIV_SIM_SEND, &operations::write, fd, const_cast<void *>(data), count,
                           [=](size_t asked) { return real().send(fd, data, asked, flags); });
}

KIV_SIM_LIBC ssize_t recv(int fd, void *buffer, size_t count, int flags) {
    if (refuses_flags(fd, flags))
        return -1;
    return transfer_buffer(KIV_SIM_RECV, &operations::read, fd, buffer, count,
                           [=](size_t asked) { return real().recv(fd, buffer, asked, flags); });
}

KIV_SIM_LIBC ssize_t __recv_chk(int fd, void *buffer, size_t count, size_t room, int flags) {
    if (refuses_flags(fd, flags))
        return -1;
    return transfer_buffer(KIV_SIM_RECV, &operations::read, fd, buffer, count,
                           [=](size_t asked) { return real().__recv_chk(fd, buffer, asked, room, flags); });
}

namespace {

int request_of(int fd, unsigned long request, void *argument, decltype(&::ioctl) real_call) {
    // The kernel looks at 32 bits; a caller with a negative int brings more.
    const auto number = static_cast<unsigned>(request);
    const fault due(KIV_SIM_IOCTL, number);
    if (due.answers())
        return static_cast<int>(due.finish());
    const held_file file(fd);
    if (file && file.ops().ioctl != nullptr)
        return ask_device(file.ops().ioctl, fd, file.state(), number, argument);
    const device *known = file ? nullptr : device_of_request(number);
    int result = 0;
    if (known != nullptr && known->any_ioctl(fd, argument, &result))
        return result;
    return real_call(fd, request, argument);
}

} // namespace

int kiv::sim::make_request(int fd, unsigned request, void *argument) {
    return request_of(fd, request, argument, real().ioctl);
}

KIV_SIM_LIBC int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return request_of(fd, request, argument, real().ioctl);
}

// Waits ------------------------------------------------------------------------------------------------

namespace {

int count_reports(const pollfd *entries, nfds_t count) {
    int reports = 0;
    for (nfds_t i = 0; i < count; ++i)
        reports += entries[i].revents != 0 ? 1 : 0;
    return reports;
}

int answer_poll(const fault &due, pollfd *entries, nfds_t count) {
    const bool lists = due.what().action == KIV_SIM_REVENTS;
    const bool all = due.what().action == KIV_SIM_ANSWER && due.what().result > 0;
    if (due.fails())
        return static_cast<int>(due.finish());
    for (nfds_t i = 0; i < count; ++i) {
        const short listed = lists && i < KIV_SIM_MAX_REVENTS ? due.what().revents[i] : short{0};
        entries[i].revents = all ? entries[i].events : listed;
    }
    return lists ? count_reports(entries, count) : static_cast<int>(due.finish());
}

// Lets the devices correct what the kernel says about the descriptors that stand for them.
void correct_reports(pollfd *entries, nfds_t count) {
    for (nfds_t i = 0; i < count; ++i) {
        const held_file file(entries[i].fd);
        if (file && file.ops().revents != nullptr)
            entries[i].revents = file.ops().revents(file.state(), entries[i].events, entries[i].revents);
    }
}

template <class Real>
int wait_poll(kiv_sim_call call, pollfd *entries, nfds_t count, Real real_call) {
    const fault due(call);
    if (due.answers())
        return answer_poll(due, entries, count);
    const int reports = real_call();
    if (reports > 0)
        correct_reports(entries, count);
    return reports;
}

void clear_set(fd_set *set, int count) {
    if (set != nullptr)
        ::memset(set, 0, static_cast<size_t>((count + NFDBITS - 1) / NFDBITS) * sizeof(fd_mask));
}

template <class Real, class Timeout, class... Mask>
int wait_select(kiv_sim_call call, Real real_call, int count, fd_set *readable, fd_set *writable,
                fd_set *exceptional, Timeout timeout, Mask... mask) {
    const fault due(call);
    if (!due.answers())
        return real_call(count, readable, writable, exceptional, timeout, mask...);
    if (due.what().action == KIV_SIM_ANSWER && due.what().result == 0)
        for (fd_set *set : {readable, writable, exceptional})
            clear_set(set, count);
    return static_cast<int>(due.finish());
}

// clock_nanosleep returns its error.
template <class Real, class Time>
int sleep_on_clock(Real real_call, clockid_t clock, int flags, const Time *wanted, Time *left) {
    const fault due(KIV_SIM_NANOSLEEP);
    if (!due.answers())
        return real_call(clock, flags, wanted, left);
    return due.fails() ? due.what().error : static_cast<int>(due.finish());
}

} // namespace

KIV_SIM_LIBC int poll(pollfd *entries, nfds_t count, int timeout) {
    return wait_poll(KIV_SIM_POLL, entries, count, [=] { return real().poll(entries, count, timeout); });
}

KIV_SIM_LIBC int __poll_chk(pollfd *entries, nfds_t count, int timeout, size_t room) {
    return wait_poll(KIV_SIM_POLL, entries, count,
                     [=] { return real().__poll_chk(entries, count, timeout, room); });
}

KIV_SIM_LIBC int ppoll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask) {
    return wait_poll(KIV_SIM_PPOLL, entries, count,
                     [=] { return real().ppoll(entries, count, timeout, mask); });
}

KIV_SIM_LIBC int __ppoll_chk(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask,
                             size_t room) {
    return wait_poll(KIV_SIM_PPOLL, entries, count,
                     [=] { return real().__ppoll_chk(entries, count, timeout, mask, room); });
}

KIV_SIM_LIBC int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                        timeval *timeout) {
    return wait_select(KIV_SIM_SELECT, real().select, count, readable, writable, exceptional, timeout);
}

KIV_SIM_LIBC int pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                         const timespec *timeout, const sigset_t *mask) {
    return wait_select(KIV_SIM_PSELECT, real().pselect, count, readable, writable, exceptional, timeout,
                       mask);
}

KIV_SIM_LIBC int usleep(useconds_t microseconds) {
    const fault due(KIV_SIM_USLEEP, microseconds);
    return due.answers() ? static_cast<int>(due.finish()) : real().usleep(microseconds);
}

KIV_SIM_LIBC int nanosleep(const timespec *wanted, timespec *left) {
    return plain(KIV_SIM_NANOSLEEP, real().nanosleep, wanted, left);
}

KIV_SIM_LIBC int clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left) {
    return sleep_on_clock(real().clock_nanosleep, clock, flags, wanted, left);
}

// Sockets ----------------------------------------------------------------------------------------------

namespace {

template <class Real>
int make_pipe(int *ends, Real real_call) {
    const fault due(KIV_SIM_PIPE);
    if (due.answers())
        return static_cast<int>(due.finish());
    const int result = real_call();
    if (result == 0) {
        fresh(ends[0]);
        fresh(ends[1]);
    }
    return result;
}

template <class Real>
int accept_peer(Real real_call) {
    const fault due(KIV_SIM_ACCEPT);
    return due.answers() ? static_cast<int>(due.finish()) : fresh(real_call());
}

} // namespace

KIV_SIM_LIBC int pipe(int *ends) noexcept {
    return make_pipe(ends, [=] { return real().pipe(ends); });
}

KIV_SIM_LIBC int pipe2(int *ends, int flags) noexcept {
    return make_pipe(ends, [=] { return real().pipe2(ends, flags); });
}

KIV_SIM_LIBC int socket(int domain, int type, int protocol) noexcept {
    const fault due(KIV_SIM_SOCKET);
    if (due.answers())
        return static_cast<int>(due.finish());
    constexpr int flag_bits = SOCK_CLOEXEC | SOCK_NONBLOCK;
    const device *known = device_of_socket(domain, type & ~flag_bits, protocol);
    if (known == nullptr)
        return fresh(real().socket(domain, type, protocol));
    const int before = errno;
    opened made;
    const int fd = take(known->socket(type & flag_bits, made), made);
    if (fd >= 0)
        errno = before;
    return fd;
}

KIV_SIM_LIBC int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    return on_descriptor(KIV_SIM_BIND, &operations::bind, real().bind, fd, address, length);
}

KIV_SIM_LIBC int listen(int fd, int backlog) noexcept {
    return plain(KIV_SIM_LISTEN, real().listen, fd, backlog);
}

KIV_SIM_LIBC int accept(int fd, sockaddr *address, socklen_t *length) {
    return accept_peer([=] { return real().accept(fd, address, length); });
}

KIV_SIM_LIBC int accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
    return accept_peer([=] { return real().accept4(fd, address, length, flags); });
}

KIV_SIM_LIBC int connect(int fd, const sockaddr *address, socklen_t length) {
    return plain(KIV_SIM_CONNECT, real().connect, fd, address, length);
}

KIV_SIM_LIBC int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    return on_descriptor(KIV_SIM_SETSOCKOPT, &operations::setsockopt, real().setsockopt, fd, level, option,
                         value, length);
}

KIV_SIM_LIBC int getsockopt(int fd, int level, int option, void *value, socklen_t *length) noexcept {
    return on_descriptor(KIV_SIM_GETSOCKOPT, &operations::getsockopt, real().getsockopt, fd, level, option,
                         value, length);
}

KIV_SIM_LIBC int shutdown(int fd, int how) noexcept {
    return plain(KIV_SIM_SHUTDOWN, real().shutdown, fd, how);
}

// Allocation -------------------------------------------------------------------------------------------

// dlsym allocates, so these two are not looked up. The C library's free, realloc and the rest go with them.
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);

KIV_SIM_LIBC void *malloc(size_t size) noexcept {
    const fault due(KIV_SIM_MALLOC);
    if (!due.answers())
        return __libc_malloc(size);
    due.finish();
    return nullptr;
}

KIV_SIM_LIBC void *calloc(size_t count, size_t size) noexcept {
    const fault due(KIV_SIM_CALLOC);
    if (!due.answers())
        return __libc_calloc(count, size);
    due.finish();
    return nullptr;
}

// 64-bit time ------------------------------------------------------------------------------------------

#if KIV_SIM_TIME64

KIV_SIM_LIBC int __ioctl_time64(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return request_of(fd, request, argument, real().__ioctl_time64);
}

KIV_SIM_LIBC int __fcntl_time64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return control(fd, command, argument, real().__fcntl_time64);
}

KIV_SIM_LIBC int __ppoll64(pollfd *entries, nfds_t count, const timespec64 *timeout, const sigset_t *mask) {
    return wait_poll(KIV_SIM_PPOLL, entries, count,
                     [=] { return real().__ppoll64(entries, count, timeout, mask); });
}

KIV_SIM_LIBC int __select64(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                            timeval64 *timeout) {
    return wait_select(KIV_SIM_SELECT, real().__select64, count, readable, writable, exceptional, timeout);
}

KIV_SIM_LIBC int __pselect64(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                             const timespec64 *timeout, const sigset_t *mask) {
    return wait_select(KIV_SIM_PSELECT, real().__pselect64, count, readable, writable, exceptional, timeout,
                       mask);
}

KIV_SIM_LIBC int __setsockopt64(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    return on_descriptor(KIV_SIM_SETSOCKOPT, &operations::setsockopt, real().__setsockopt64, fd, level,
                         option, value, length);
}

KIV_SIM_LIBC int __getsockopt64(int fd, int level, int option, void *value, socklen_t *length) noexcept {
    return on_descriptor(KIV_SIM_GETSOCKOPT, &operations::getsockopt, real().__getsockopt64, fd, level,
                         option, value, length);
}

KIV_SIM_LIBC int __nanosleep64(const timespec64 *wanted, timespec64 *left) {
    return plain(KIV_SIM_NANOSLEEP, real().__nanosleep64, wanted, left);
}

KIV_SIM_LIBC int __clock_nanosleep_time64(clockid_t clock, int flags, const timespec64 *wanted,
                                          timespec64 *left) {
    return sleep_on_clock(real().__clock_nanosleep_time64, clock, flags, wanted, left);
}

#endif
