/*
 * Prints what the board is, and how files are marked on their FAT file system.
 *
 *     board_info [file...]
 */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "kiv/platform.h"

static void print_board(void) {
    char name[64];
    const int32_t status = get_product_name(name, sizeof name); /* a negative errno value for a failure */
    if (status == 0)
        printf("product %s, revision %" PRIx32 "\n", name, get_product_revision());
    else
        printf("product unknown: %s\n", strerror(-status));
}

static int print_attributes(const char *path) {
    uint32_t attributes;
    const int32_t status = kiv_fs_get_fat_attribute(path, &attributes);
    if (status != 0) {
        fprintf(stderr, "%s: %s\n", path, strerror(status));
        return 1;
    }
    printf("%s:%s%s%s\n", path, (attributes & KIV_FAT_HIDDEN) != 0 ? " hidden" : "",
           (attributes & KIV_FAT_SYSTEM) != 0 ? " system" : "",
           attributes == 0 ? " plain, or not on FAT" : "");
    return 0;
}

int main(int argc, char **argv) {
    int failed = 0;
    int i;
    print_board();
    for (i = 1; i < argc; ++i)
        failed |= print_attributes(argv[i]);
    return failed;
}
