/*
 * User-mode emulation does not know the requests that open a tty with any speed. In a program counted under
 * it they become the older ones; all other requests go on as they are. It is the same on both sides, and no
 * read or send makes a request.
 */
#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int ioctl(int fd, unsigned long request, ...);

int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    struct termios2 *wanted = va_arg(arguments, void *);
    va_end(arguments);
    struct termios older;
    switch (request) {
    case TCGETS2:
        memset(wanted, 0, sizeof *wanted);
        if (syscall(SYS_ioctl, fd, TCGETS, &older) == -1)
            return -1;
        memcpy(wanted, &older, sizeof older);
        return 0;
    case TCSETS2:
        memcpy(&older, wanted, sizeof older);
        return (int)syscall(SYS_ioctl, fd, TCSETS, &older);
    default:
        return (int)syscall(SYS_ioctl, fd, request, wanted);
    }
}
