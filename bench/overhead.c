/*
 * Runs rounds of one operation, through the library or through its floor:
 *
 *     overhead CASE library|floor ROUNDS [calls]
 *
 * bench/report counts the instructions and system calls of two run lengths; what is done once falls out of
 * the difference. "overhead list" describes the cases, for bench/report. overhead_board is the same for what
 * needs the simulated board.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cases.h"

#ifdef KIV_BENCH_BOARD
#    include "kiv/sim.h"

static const struct bench_case *const cases = board_cases;

static void print_calls(void) {
    for (kiv_sim_call call = 0; call < KIV_SIM_MALLOC; ++call)
        if (kiv_sim_calls(call) > 0)
            printf("%7u %s\n", kiv_sim_calls(call), kiv_sim_call_name(call));
}
#else
static const struct bench_case *const cases = serial_cases;

static void print_calls(void) {}
#endif

static int list(void) {
    for (const struct bench_case *each = cases; each->name != NULL; ++each)
        printf("%s\t%s\t%u\t%d\t%d\n", each->name, each->text, each->units, each->at_most.arm,
               each->at_most.added);
    return 0;
}

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "list") == 0)
        return list();
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: overhead CASE library|floor ROUNDS [calls]\n       overhead list\n");
        return 2;
    }
    for (const struct bench_case *each = cases; each->name != NULL; ++each)
        if (strcmp(each->name, argv[1]) == 0) {
            const int use_library = strcmp(argv[2], "library") == 0;
            each->start(use_library, each->size);
            each->run(use_library, strtol(argv[3], NULL, 10));
            if (argc == 5)
                print_calls();
            return 0;
        }
    fprintf(stderr, "overhead: no case is named '%s'\n", argv[1]);
    return 2;
}
