// The C library's own functions, for the shim and for the models. Nothing else in the board may call a name
// that the shim defines: the call would come back to the shim.

#ifndef KIV_SIM_REAL_H
#define KIV_SIM_REAL_H

#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

// What _FORTIFY_SOURCE turns calls into; the headers declare these only while it is on.
extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int directory, const char *path, int flags);
int __openat64_2(int directory, const char *path, int flags);
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t room);
ssize_t __recv_chk(int fd, void *buffer, size_t count, size_t room, int flags);
int __poll_chk(pollfd *entries, nfds_t count, int timeout, size_t room);
int __ppoll_chk(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask, size_t room);
}

// termios.h and the kernel's header of that name cannot be included together, and models need the latter.
// NOLINTBEGIN(readability-redundant-declaration): the shim includes the former
struct termios;
extern "C" {
int tcgetattr(int fd, termios *settings) noexcept;
int tcsetattr(int fd, int when, const termios *settings) noexcept;
int tcdrain(int fd);
int tcflush(int fd, int queue) noexcept;
int tcflow(int fd, int action) noexcept;
int tcsendbreak(int fd, int duration) noexcept;
}
// NOLINTEND(readability-redundant-declaration)

// 32-bit systems have a second set of names for programs whose time_t has 64 bits.
#if defined(__TIMESIZE) && __TIMESIZE == 32
#    define KIV_SIM_TIME64 1
#else
#    define KIV_SIM_TIME64 0
#endif

#if KIV_SIM_TIME64
struct timeval64;
struct timespec64;
struct stat64_time64;
extern "C" {
int __ioctl_time64(int fd, unsigned long request, ...) noexcept;
int __fcntl_time64(int fd, int command, ...);
int __ppoll64(pollfd *entries, nfds_t count, const timespec64 *timeout, const sigset_t *mask);
int __select64(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval64 *timeout);
int __pselect64(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, const timespec64 *timeout,
                const sigset_t *mask);
int __setsockopt64(int fd, int level, int option, const void *value, socklen_t length) noexcept;
int __getsockopt64(int fd, int level, int option, void *value, socklen_t *length) noexcept;
int __nanosleep64(const timespec64 *wanted, timespec64 *left);
int __clock_nanosleep_time64(clockid_t clock, int flags, const timespec64 *wanted, timespec64 *left);
int __stat64_time64(const char *path, stat64_time64 *found);
int __lstat64_time64(const char *path, stat64_time64 *found);
int __fstat64_time64(int fd, stat64_time64 *found);
int __fstatat64_time64(int directory, const char *path, stat64_time64 *found, int flags);
}
#    define KIV_SIM_TIME64_CALLS(X)                                                                          \
        X(__ioctl_time64)                                                                                    \
        X(__fcntl_time64)                                                                                    \
        X(__ppoll64)                                                                                         \
        X(__select64)                                                                                        \
        X(__pselect64)                                                                                       \
        X(__setsockopt64)                                                                                    \
        X(__getsockopt64)                                                                                    \
        X(__nanosleep64)                                                                                     \
        X(__clock_nanosleep_time64)                                                                          \
        X(__stat64_time64)                                                                                   \
        X(__lstat64_time64)                                                                                  \
        X(__fstat64_time64)                                                                                  \
        X(__fstatat64_time64)
#else
#    define KIV_SIM_TIME64_CALLS(X)
#endif

#define KIV_SIM_REAL_CALLS(X)                                                                                \
    X(open)                                                                                                  \
    X(open64)                                                                                                \
    X(__open_2)                                                                                              \
    X(__open64_2)                                                                                            \
    X(openat)                                                                                                \
    X(openat64)                                                                                              \
    X(__openat_2)                                                                                            \
    X(__openat64_2)                                                                                          \
    X(close)                                                                                                 \
    X(read)                                                                                                  \
    X(__read_chk)                                                                                            \
    X(write)                                                                                                 \
    X(readv)                                                                                                 \
    X(writev)                                                                                                \
    X(ioctl)                                                                                                 \
    X(poll)                                                                                                  \
    X(__poll_chk)                                                                                            \
    X(ppoll)                                                                                                 \
    X(__ppoll_chk)                                                                                           \
    X(select)                                                                                                \
    X(pselect)                                                                                               \
    X(pipe)                                                                                                  \
    X(pipe2)                                                                                                 \
    X(dup)                                                                                                   \
    X(dup2)                                                                                                  \
    X(dup3)                                                                                                  \
    X(fcntl)                                                                                                 \
    X(fcntl64)                                                                                               \
    X(socket)                                                                                                \
    X(bind)                                                                                                  \
    X(listen)                                                                                                \
    X(accept)                                                                                                \
    X(accept4)                                                                                               \
    X(connect)                                                                                               \
    X(setsockopt)                                                                                            \
    X(getsockopt)                                                                                            \
    X(send)                                                                                                  \
    X(recv)                                                                                                  \
    X(__recv_chk)                                                                                            \
    X(shutdown)                                                                                              \
    X(usleep)                                                                                                \
    X(nanosleep)                                                                                             \
    X(clock_nanosleep)                                                                                       \
    X(fopen)                                                                                                 \
    X(fopen64)                                                                                               \
    X(fclose)                                                                                                \
    X(tcgetattr)                                                                                             \
    X(tcsetattr)                                                                                             \
    X(tcdrain)                                                                                               \
    X(tcflush)                                                                                               \
    X(tcflow)                                                                                                \
    X(tcsendbreak)                                                                                           \
    X(isatty)                                                                                                \
    X(ttyname)                                                                                               \
    X(ttyname_r)                                                                                             \
    X(stat)                                                                                                  \
    X(stat64)                                                                                                \
    X(lstat)                                                                                                 \
    X(lstat64)                                                                                               \
    X(fstat)                                                                                                 \
    X(fstat64)                                                                                               \
    X(fstatat)                                                                                               \
    X(fstatat64)                                                                                             \
    X(statx)                                                                                                 \
    X(access)                                                                                                \
    X(euidaccess)                                                                                            \
    X(eaccess)                                                                                               \
    X(getxattr)                                                                                              \
    X(lgetxattr)                                                                                             \
    X(faccessat)                                                                                             \
    KIV_SIM_TIME64_CALLS(X)

namespace kiv::sim {

struct real_calls {
// NOLINTNEXTLINE(bugprone-macro-parentheses): a member's name takes none
#define KIV_SIM_REAL_MEMBER(name) decltype(&::name) name;
    KIV_SIM_REAL_CALLS(KIV_SIM_REAL_MEMBER)
#undef KIV_SIM_REAL_MEMBER
};

// Looked up once, as the next definitions after the board's in the search order: the C library's.
const real_calls &real();

// Makes a descriptor the board's own: not under the number of standard input, output or error, which a
// program that has closed those is to be given for what it opens. Returns it, or -1 with errno.
int own(int fd);

} // namespace kiv::sim

#endif
