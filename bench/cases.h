/*
 * What bench/overhead can run: one operation, through the library or through its floor.
 */
#ifndef KIV_BENCH_CASES_H
#define KIV_BENCH_CASES_H

struct bench_case {
    const char *name;
    void (*start)(int use_library); /* once, before the first operation */
    void (*once)(int use_library);  /* one operation, with its peer's part */
    int at_most;                    /* user instructions that the library may add to an operation */
};

/* One table an area, ended by an entry without a name. */
extern const struct bench_case serial_cases[];
extern const struct bench_case unix_cases[];
extern const struct bench_case board_cases[];

/* Ends the program with a message unless what holds: a benchmark measures nothing on a failing call. */
void must(int holds, const char *what);

#endif
