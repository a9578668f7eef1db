/* A program that is linked with one library and uses nothing of it. "bare wait" says that it is there, and
 * stays until its standard input ends: what it needs can be looked at meanwhile. */
#include <unistd.h>

int main(int argc, char **argv) {
    char byte = '\n';
    (void)argv;
    if (argc > 1 && write(1, &byte, 1) == 1)
        while (read(0, &byte, 1) > 0) {
        }
    return 0;
}
