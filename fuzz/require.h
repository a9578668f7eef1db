// What a fuzzer demands of the library: an input that breaks it ends the run, which keeps the input.

#ifndef KIV_FUZZ_REQUIRE_H
#define KIV_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void fail(const char *what) {
    std::fprintf(stderr, "wrong: %s\n", what);
    std::abort();
}

inline void require(bool holds, const char *what) {
    if (!holds)
        fail(what);
}

inline void require_equal(long got, long expected, const char *what) {
    if (got != expected) {
        std::fprintf(stderr, "%ld instead of %ld: ", got, expected);
        fail(what);
    }
}

#endif
