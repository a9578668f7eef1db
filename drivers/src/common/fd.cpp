#include "common/fd.h"

#include <fcntl.h>

namespace kiv {

int above_standard(int fd) noexcept {
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const unique_fd low(fd);
    return ::fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
}

} // namespace kiv
