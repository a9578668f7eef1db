/* A program that knows nothing of the board: preloaded, it finds a serial line where there is none. */

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

static int fail(const char *what) {
    perror(what);
    return EXIT_FAILURE;
}

static int set_up(int fd) {
    struct termios2 settings;
    if (ioctl(fd, TCGETS2, &settings) == -1)
        return fail("TCGETS2");
    settings.c_lflag &= ~(tcflag_t)ICANON;
    settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | BOTHER;
    settings.c_ispeed = settings.c_ospeed = 250000;
    if (ioctl(fd, TCSETS2, &settings) == -1 || ioctl(fd, TCGETS2, &settings) == -1)
        return fail("TCSETS2");
    return settings.c_ospeed == 250000 && (settings.c_lflag & ICANON) == 0 ? EXIT_SUCCESS : fail("settings");
}

int main(void) {
    FILE *other = fopen("/proc/self/stat", "r");
    const int fd = open("/dev/ttyKIV3", O_RDWR | O_NOCTTY);
    int status;
    if (other == NULL || fclose(other) != 0)
        return fail("a file that is no device");
    if (fd == -1)
        return fail("open");
    status = set_up(fd);
    if (write(fd, "x", 1) != 1)
        status = fail("write");
    if (close(fd) == -1)
        status = fail("close");
    return status;
}
