// The libc names beside the system calls' own that programs use on devices, and by which they look for them.
//
//   Terminals      termios: in the C library these make ioctl by a name of their own
//   Nodes          stat, access and what else looks at a path
//   64-bit time    the second set of names on 32-bit systems

#include <cerrno>
#include <cstring>
#include <termios.h>

#include <asm/ioctls.h>

#include "device.h"
#include "real.h"
#include "registry.h"
#include "shim.h"
#include "waiting.h"

using namespace kiv::sim;

// Terminals --------------------------------------------------------------------------------------------

namespace {

static_assert(B9600 == 015, "c_ispeed and c_ospeed hold the codes of speeds, as the kernel has them");
constexpr tcflag_t speed_code = CBAUD | CBAUDEX;

// What TCGETS and TCSETS are about; the C library's record has the speeds as well.
struct kernel_termios {
    tcflag_t c_iflag, c_oflag, c_cflag, c_lflag;
    cc_t c_line;
    cc_t c_cc[19];
};

int get_settings(int fd, termios &settings) {
    kernel_termios kept;
    if (make_request(fd, TCGETS, &kept) == -1)
        return -1;
    settings = {};
    settings.c_iflag = kept.c_iflag;
    settings.c_oflag = kept.c_oflag;
    settings.c_cflag = kept.c_cflag;
    settings.c_lflag = kept.c_lflag;
    settings.c_line = kept.c_line;
    ::memcpy(settings.c_cc, kept.c_cc, sizeof kept.c_cc);
    settings.c_ispeed = settings.c_ospeed = kept.c_cflag & speed_code;
    return 0;
}

int set_settings(int fd, int when, const termios &settings) {
    if (when != TCSANOW && when != TCSADRAIN && when != TCSAFLUSH)
        return fail(EINVAL);
    kernel_termios wanted = {.c_iflag = settings.c_iflag,
                             .c_oflag = settings.c_oflag,
                             .c_cflag = settings.c_cflag,
                             .c_lflag = settings.c_lflag,
                             .c_line = settings.c_line,
                             .c_cc = {}};
    ::memcpy(wanted.c_cc, settings.c_cc, sizeof wanted.c_cc);
    static_assert(TCSETSW == TCSETS + 1 && TCSETSF == TCSETS + 2);
    return make_request(fd, TCSETS + static_cast<unsigned>(when - TCSANOW), &wanted);
}

void *number(int value) {
    return reinterpret_cast<void *>(static_cast<std::intptr_t>(value));
}

// Null with errno where the descriptor is no terminal.
const char *name_of_terminal(int fd) {
    const held_file file(fd);
    kernel_termios settings;
    if (make_request(fd, TCGETS, &settings) == -1)
        return nullptr;
    return file ? file.ops().node(file.state()) : nullptr;
}

} // namespace

KIV_SIM_LIBC int tcgetattr(int fd, termios *settings) noexcept {
    return is_simulated(fd) ? get_settings(fd, *settings) : real().tcgetattr(fd, settings);
}

KIV_SIM_LIBC int tcsetattr(int fd, int when, const termios *settings) noexcept {
    return is_simulated(fd) ? set_settings(fd, when, *settings) : real().tcsetattr(fd, when, settings);
}

KIV_SIM_LIBC int tcdrain(int fd) {
    return is_simulated(fd) ? make_request(fd, TCSBRK, number(1)) : real().tcdrain(fd);
}

KIV_SIM_LIBC int tcflush(int fd, int queue) noexcept {
    return is_simulated(fd) ? make_request(fd, TCFLSH, number(queue)) : real().tcflush(fd, queue);
}

KIV_SIM_LIBC int tcflow(int fd, int action) noexcept {
    return is_simulated(fd) ? make_request(fd, TCXONC, number(action)) : real().tcflow(fd, action);
}

KIV_SIM_LIBC int tcsendbreak(int fd, int duration) noexcept {
    return is_simulated(fd) ? make_request(fd, TCSBRK, nullptr) : real().tcsendbreak(fd, duration);
}

KIV_SIM_LIBC int isatty(int fd) noexcept {
    if (!is_simulated(fd))
        return real().isatty(fd);
    kernel_termios settings;
    return make_request(fd, TCGETS, &settings) == 0 ? 1 : 0;
}

KIV_SIM_LIBC char *ttyname(int fd) noexcept {
    return is_simulated(fd) ? const_cast<char *>(name_of_terminal(fd)) : real().ttyname(fd);
}

KIV_SIM_LIBC int ttyname_r(int fd, char *buffer, size_t size) noexcept {
    if (!is_simulated(fd))
        return real().ttyname_r(fd, buffer, size);
    const char *name = name_of_terminal(fd);
    if (name == nullptr)
        return errno;
    if (::strlen(name) >= size)
        return ERANGE;
    ::memcpy(buffer, name, ::strlen(name) + 1);
    return 0;
}

// Nodes ------------------------------------------------------------------------------------------------
//
// A node of the board looks like this one: a character device that everybody may read and write. Calls that
// look at a node are the machine's calls, about that one.

namespace {

constexpr char looks_like[] = "/dev/null";

enum class place { machine, board, nowhere };

place place_of(const char *path) {
    const device *known = find_device(path);
    if (known == nullptr || known->has_node == nullptr)
        return place::machine;
    return known->has_node(path) ? place::board : place::nowhere;
}

// `look` takes the path to look at.
template <class Look>
auto look_at(const char *path, Look look) -> decltype(look(path)) {
    switch (place_of(path)) {
    case place::machine:
        return look(path);
    case place::board:
        return look(looks_like);
    case place::nowhere:
        break;
    }
    return fail(ENOENT);
}

bool has_node(int fd) {
    const held_file file(fd);
    return file && file.ops().node != nullptr;
}

} // namespace

KIV_SIM_LIBC int stat(const char *path, struct stat *found) noexcept {
    return look_at(path, [=](const char *at) { return real().stat(at, found); });
}

KIV_SIM_LIBC int stat64(const char *path, struct stat64 *found) noexcept {
    return look_at(path, [=](const char *at) { return real().stat64(at, found); });
}

KIV_SIM_LIBC int lstat(const char *path, struct stat *found) noexcept {
    return look_at(path, [=](const char *at) { return real().lstat(at, found); });
}

KIV_SIM_LIBC int lstat64(const char *path, struct stat64 *found) noexcept {
    return look_at(path, [=](const char *at) { return real().lstat64(at, found); });
}

KIV_SIM_LIBC int fstat(int fd, struct stat *found) noexcept {
    return has_node(fd) ? real().stat(looks_like, found) : real().fstat(fd, found);
}

KIV_SIM_LIBC int fstat64(int fd, struct stat64 *found) noexcept {
    return has_node(fd) ? real().stat64(looks_like, found) : real().fstat64(fd, found);
}

KIV_SIM_LIBC int fstatat(int directory, const char *path, struct stat *found, int flags) noexcept {
    return look_at(path, [=](const char *at) { return real().fstatat(directory, at, found, flags); });
}

KIV_SIM_LIBC int fstatat64(int directory, const char *path, struct stat64 *found, int flags) noexcept {
    return look_at(path, [=](const char *at) { return real().fstatat64(directory, at, found, flags); });
}

KIV_SIM_LIBC int statx(int directory, const char *path, int flags, unsigned mask,
                       struct statx *found) noexcept {
    return look_at(path, [=](const char *at) { return real().statx(directory, at, flags, mask, found); });
}

KIV_SIM_LIBC int access(const char *path, int mode) noexcept {
    return look_at(path, [=](const char *at) { return real().access(at, mode); });
}

KIV_SIM_LIBC int euidaccess(const char *path, int mode) noexcept {
    return look_at(path, [=](const char *at) { return real().euidaccess(at, mode); });
}

KIV_SIM_LIBC int eaccess(const char *path, int mode) noexcept {
    return look_at(path, [=](const char *at) { return real().eaccess(at, mode); });
}

KIV_SIM_LIBC int faccessat(int directory, const char *path, int mode, int flags) noexcept {
    return look_at(path, [=](const char *at) { return real().faccessat(directory, at, mode, flags); });
}

// For what `ls -l` says about access control lists.
KIV_SIM_LIBC ssize_t getxattr(const char *path, const char *name, void *value, size_t size) noexcept {
    return look_at(path, [=](const char *at) { return real().getxattr(at, name, value, size); });
}

KIV_SIM_LIBC ssize_t lgetxattr(const char *path, const char *name, void *value, size_t size) noexcept {
    return look_at(path, [=](const char *at) { return real().lgetxattr(at, name, value, size); });
}

// 64-bit time ------------------------------------------------------------------------------------------

#if KIV_SIM_TIME64

KIV_SIM_LIBC int __stat64_time64(const char *path, stat64_time64 *found) {
    return look_at(path, [=](const char *at) { return real().__stat64_time64(at, found); });
}

KIV_SIM_LIBC int __lstat64_time64(const char *path, stat64_time64 *found) {
    return look_at(path, [=](const char *at) { return real().__lstat64_time64(at, found); });
}

KIV_SIM_LIBC int __fstat64_time64(int fd, stat64_time64 *found) {
    return has_node(fd) ? real().__stat64_time64(looks_like, found) : real().__fstat64_time64(fd, found);
}

KIV_SIM_LIBC int __fstatat64_time64(int directory, const char *path, stat64_time64 *found, int flags) {
    return look_at(path,
                   [=](const char *at) { return real().__fstatat64_time64(directory, at, found, flags); });
}

#endif
