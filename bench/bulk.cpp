// CPU time of bulk transfers, through the library and through its floor: 4096 bytes a round, with a process
// at the other end that gives or takes as fast as it can. The time is this thread's, so the other end is not
// in it.

#include <benchmark/benchmark.h>
#include <csignal>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ends.h"

namespace {

constexpr unsigned int block = 4096;
char data[block];

struct way {
    const char *name;
    void (*open)(ends *, int use_library);
    int (*through_library)(ends &);
    int (*through_floor)(ends &);
    bool reads;
    int blocks; // in one run: a pseudo-terminal is slower than a socket
};

int library_read(ends &of) {
    unsigned int length = block;
    return sup_uart_Read(&of.port, data, &length);
}

int library_send(ends &of) {
    return sup_uart_Send(&of.port, data, block);
}

template <auto Read, auto Near>
int floor_read(ends &of) {
    unsigned int length = block;
    return Read(Near(of), data, &length);
}

template <auto Send, auto Near>
int floor_send(ends &of) {
    return Send(Near(of), data, block);
}

straight_tty *tty(ends &of) {
    return of.tty;
}

straight_stream *stream(ends &of) {
    return &of.stream;
}

int socket(ends &of) {
    return of.stream.fd;
}

constexpr way ways[] = {
    {"tty-read", open_tty, library_read, floor_read<straight_tty_read, tty>, true, 500},
    {"tty-send", open_tty, library_send, floor_send<straight_tty_send, tty>, false, 500},
    {"tcp-read", open_tcp, library_read, floor_read<straight_stream_read, stream>, true, 4000},
    {"tcp-send", open_tcp, library_send, floor_send<straight_stream_send, stream>, false, 4000},
    {"unix-read", open_unix, library_read, floor_read<straight_socket_read, socket>, true, 4000},
    {"unix-send", open_unix, library_send, floor_send<straight_socket_send, socket>, false, 4000},
};

pid_t start_peer(int fd, bool gives) {
    const pid_t child = ::fork();
    must(child >= 0, "fork");
    if (child > 0)
        return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // it has a copy of the near end, and would wait for itself
    while ((gives ? ::write(fd, data, block) : ::read(fd, data, block)) > 0) {
    }
    ::_exit(0);
}

void transfer(benchmark::State &state, const way &how, bool use_library) {
    ends line;
    how.open(&line, use_library);
    const pid_t peer = start_peer(line.peer, how.reads);
    const auto call = use_library ? how.through_library : how.through_floor;
    for ([[maybe_unused]] auto round : state)
        must(call(line) == 0, "move");
    state.SetBytesProcessed(state.iterations() * block);
    ::kill(peer, SIGKILL);
    must(::waitpid(peer, nullptr, 0) == peer, "waitpid");
    close_ends(&line, use_library);
}

// Both ends on one processor, as on the device: how often one wakes the other is then no matter of luck.
void use_one_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
    must(::sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
}

} // namespace

int main(int argc, char **argv) {
    use_one_processor();
    for (const way &each : ways)
        for (const bool use_library : {true, false})
            benchmark::RegisterBenchmark(
                (std::string(each.name) + (use_library ? "/library" : "/floor")).c_str(),
                [&each, use_library](benchmark::State &state) { transfer(state, each, use_library); })
                ->Iterations(each.blocks);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
