#include "common/fd.h"

#include "common/hints.h"

namespace kiv {

namespace {

KIV_COLD int moved_up(int fd) noexcept {
    const unique_fd low(fd); // taken until the next is found, so that it is another
    return above_standard(::dup(fd));
}

} // namespace

int above_standard(int fd) noexcept {
    return fd >= STDIN_FILENO && fd <= STDERR_FILENO ? moved_up(fd) : fd;
}

} // namespace kiv
