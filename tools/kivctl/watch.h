// The watch: signals and time limits.
//
// A signal that interrupts a port's read or write ends the connection of a stream, so no signal reaches the
// threads that use ports: they are blocked, and one thread takes them. It keeps the time limits, too, since
// many calls of the library wait without one.
#ifndef KIVCTL_WATCH_H
#define KIVCTL_WATCH_H

#include <cstdint>

#include "cli.h"

namespace kivctl {

enum class ending {
    is_failure, // a signal ends the program with an error line
    is_done,    // it was to go on until somebody stops it
    is_told     // the same, and the verb does it itself: stop_descriptor() becomes readable
};

// Call it before the first port is opened and the first thread is made.
exit_code start_watch(ending by_signal);

int stop_descriptor();

// From now on the program ends with this code when so much time has passed: timed_out with an error line that
// tells what was waited for, done silently. Another call replaces the limit.
void set_limit(uint64_t microseconds, exit_code code, const char *what);
void clear_limit();

// Called before the program ends, once, in whatever way that happens.
void at_end(void (*restore)());

// Starts a thread that nobody waits for: the program ends without asking it.
exit_code start_thread(void *(*entry)(void *), void *argument);

// Ends the program: other threads may be inside the library, so nothing is taken apart.
[[noreturn]] void leave(exit_code code);

} // namespace kivctl

#endif
