/*
 * Runs one operation a number of times, through the library or through its floor:
 *
 *     overhead CASE library|floor COUNT
 *
 * bench/report counts the instructions and system calls of two run lengths; what the loop itself and the
 * peer cost is the same on both sides and falls out of the difference. It prints the time of one operation.
 * "overhead list" names the cases. overhead_board is the same for what needs the simulated board.
 */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cases.h"

#ifdef KIV_BENCH_BOARD
static const struct bench_case *const areas[] = {board_cases};
#else
static const struct bench_case *const areas[] = {serial_cases, unix_cases};
#endif
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

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
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
    const long count = strtol(argv[3], NULL, 10);
    chosen->start(use_library);
    const double before = now();
    for (long n = count; n > 0; --n)
        chosen->once(use_library);
    printf("%.0f ns\n", (now() - before) * 1e9 / (double)(count > 0 ? count : 1));
    return 0;
}
