// The watch. Its thread waits for signals and for the time limit.

#include "watch.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "output.h"

namespace kivctl {

namespace {

int signals = -1;
int timer = -1;
int stop = -1;
ending signal_ending = ending::is_failure;

// The limit, for the thread that keeps it.
pthread_mutex_t limit_lock = PTHREAD_MUTEX_INITIALIZER;
exit_code limit_code = timed_out;
const char *limit_what = "";

void (*restore_at_end)() = nullptr;

void take_signal() {
    signalfd_siginfo got{};
    if (read(signals, &got, sizeof got) != sizeof got)
        return;
    const uint64_t one = 1;
    if (signal_ending == ending::is_told && write(stop, &one, sizeof one) == sizeof one) {
        signal_ending = ending::is_failure; // whoever asks twice does not want to wait
        return;
    }
    leave(signal_ending == ending::is_done ? done : fail(failed, nullptr, "interrupted"));
}

void take_timer() {
    uint64_t times = 0;
    pthread_mutex_lock(&limit_lock);
    const bool due = read(timer, &times, sizeof times) == sizeof times; // it may have been set anew meanwhile
    if (due && limit_code != done)
        fail(limit_code, limit_what, "nothing within the time-out");
    if (due)
        leave(limit_code);
    pthread_mutex_unlock(&limit_lock);
}

void *keep_watch(void *) {
    pollfd entries[] = {{signals, POLLIN, 0}, {timer, POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) < 0)
            continue;
        if (entries[0].revents != 0)
            take_signal();
        if (entries[1].revents != 0)
            take_timer();
    }
}

} // namespace

exit_code start_watch(ending by_signal) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction before {};
        // What was ignored, by nohup for one, stays so: a blocked signal would come all the same.
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal_ending = by_signal;
    signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signals == -1 || timer == -1 || stop == -1)
        return fail("preparing for signals", errno);
    return start_thread(keep_watch, nullptr);
}

exit_code start_thread(void *(*entry)(void *), void *argument) {
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, entry, argument);
    if (error != 0)
        return fail("starting a thread", error);
    pthread_detach(thread);
    return done;
}

int stop_descriptor() {
    return stop;
}

void set_limit(uint64_t microseconds, exit_code code, const char *what) {
    itimerspec time{};
    const uint64_t least = microseconds > 0 ? microseconds : 1; // zero would be no limit
    time.it_value.tv_sec = static_cast<time_t>(least / 1000000);
    time.it_value.tv_nsec = static_cast<long>(least % 1000000 * 1000);
    pthread_mutex_lock(&limit_lock);
    limit_code = code;
    limit_what = what;
    timerfd_settime(timer, 0, &time, nullptr);
    pthread_mutex_unlock(&limit_lock);
}

void clear_limit() {
    const itimerspec never{};
    pthread_mutex_lock(&limit_lock);
    timerfd_settime(timer, 0, &never, nullptr);
    pthread_mutex_unlock(&limit_lock);
}

void at_end(void (*restore)()) {
    __atomic_store_n(&restore_at_end, restore, __ATOMIC_RELEASE);
}

void leave(exit_code code) {
    static pthread_mutex_t once = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&once); // never released: the first thread to leave ends the program
    void (*restore)() = __atomic_load_n(&restore_at_end, __ATOMIC_ACQUIRE);
    if (restore != nullptr)
        restore();
    clear_progress();
    _exit(code);
}

} // namespace kivctl
