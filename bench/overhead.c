/*
 * Runs one operation a number of times, through the library or through its floor:
 *
 *     overhead CASE library|floor COUNT
 *
 * bench/report counts the instructions and system calls of two run lengths; what the loop itself and the
 * peer cost is the same on both sides and falls out of the difference. "overhead list" names the cases.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cases.h"

static const struct bench_case *const areas[] = {serial_cases, unix_cases};
enum { area_count = sizeof areas / sizeof areas[0] };

void must(int holds, const char *what) {
    if (!holds) {
        perror(what);
        exit(2);
    }
}

static const struct bench_case *find(const char *name) {
    for (int area = 0; area < area_count; ++area)
        for (const struct bench_case *each = areas[area]; each->name != NULL; ++each)
            if (strcmp(each->name, name) == 0)
                return each;
    return NULL;
}

static int list(void) {
    for (int area = 0; area < area_count; ++area)
        for (const struct bench_case *each = areas[area]; each->name != NULL; ++each)
            printf("%s %d\n", each->name, each->at_most);
    return 0;
}

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "list") == 0)
        return list();
    if (argc != 4) {
        fprintf(stderr, "usage: overhead CASE library|floor COUNT\n       overhead list\n");
        return 2;
    }
    const struct bench_case *chosen = find(argv[1]);
    if (chosen == NULL) {
        fprintf(stderr, "overhead: no case is named '%s'\n", argv[1]);
        return 2;
    }
    const int use_library = strcmp(argv[2], "library") == 0;
    chosen->start(use_library);
    for (long n = strtol(argv[3], NULL, 10); n > 0; --n)
        chosen->once(use_library);
    return 0;
}
