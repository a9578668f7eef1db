// Reads and sends on a pseudo-terminal and over TCP, each beside its floor: bare calls that do the same.
//
// The peer's part (a write before each read, a read after each send) is in both, so the difference of a pair
// is the library's.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "kiv/uart.h"
#include "straight.h"

namespace {

void must(bool holds, const char *what) {
    if (!holds) {
        std::perror(what);
        std::exit(2);
    }
}

void move_all(ssize_t (*call)(int, void *, size_t), int fd, char *data, size_t length) {
    for (size_t done = 0; done < length;) {
        const ssize_t count = call(fd, data + done, length - done);
        must(count > 0, "peer");
        done += static_cast<size_t>(count);
    }
}

void feed(int fd, std::vector<char> &data) {
    move_all([](int to, void *from, size_t length) { return ::write(to, from, length); }, fd, data.data(),
             data.size());
}

void drain(int fd, std::vector<char> &data) {
    move_all(::read, fd, data.data(), data.size());
}

int open_master() {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    must(master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0, "pty");
    return master;
}

struct library_tty {
    int peer = open_master();
    UART_infos port{};
    library_tty() { must(sup_uart_Init(&port, ::ptsname(peer), UART_SPEED_115200, 0) == 0, "sup_uart_Init"); }
    ~library_tty() { sup_uart_close(&port), ::close(peer); }
    int read(void *buffer, unsigned int *length) { return sup_uart_Read(&port, buffer, length); }
    int send(const void *buffer, unsigned int length) { return sup_uart_Send(&port, buffer, length); }
};

struct floor_tty {
    int peer = open_master();
    straight_tty *tty = nullptr;
    floor_tty() { must(straight_tty_open(&tty, ::ptsname(peer)) == 0, "straight_tty_open"); }
    ~floor_tty() { straight_tty_close(tty), ::close(peer); }
    int read(void *buffer, unsigned int *length) { return straight_tty_read(tty, buffer, length); }
    int send(const void *buffer, unsigned int length) { return straight_tty_send(tty, buffer, length); }
};

int connect_to(int listener) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    must(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) == 0, "getsockname");
    const int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    must(::connect(peer, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "connect");
    return peer;
}

struct library_tcp {
    UART_infos port{};
    int peer = -1;
    library_tcp() {
        must(sup_uart_Init(&port, "tcp:0", 0, 0) == 0, "sup_uart_Init");
        peer = connect_to(port.fd_listen);
    }
    ~library_tcp() { sup_uart_close(&port), ::close(peer); }
    int read(void *buffer, unsigned int *length) { return sup_uart_Read(&port, buffer, length); }
    int send(const void *buffer, unsigned int length) { return sup_uart_Send(&port, buffer, length); }
};

struct floor_tcp {
    int listener = -1, peer = -1;
    sup_mutex_t lock{};
    straight_stream stream{};
    floor_tcp() {
        must(straight_stream_open(&listener, 0) == 0 && sup_mutex_init(&lock, 0) == 0,
             "straight_stream_open");
        peer = connect_to(listener);
        stream = {.fd = ::accept(listener, nullptr, nullptr), .lock = &lock};
    }
    ~floor_tcp() { ::close(stream.fd), ::close(peer), ::close(listener), sup_mutex_destroy(&lock); }
    int read(void *buffer, unsigned int *length) { return straight_stream_read(&stream, buffer, length); }
    int send(const void *buffer, unsigned int length) {
        return straight_stream_send(&stream, buffer, length);
    }
};

template <class Port>
void read_block(benchmark::State &state) {
    Port port;
    std::vector<char> data(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto round : state) {
        auto length = static_cast<unsigned int>(data.size());
        feed(port.peer, data);
        must(port.read(data.data(), &length) == 0, "read");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <class Port>
void send_block(benchmark::State &state) {
    Port port;
    std::vector<char> data(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto round : state) {
        must(port.send(data.data(), static_cast<unsigned int>(data.size())) == 0, "send");
        drain(port.peer, data);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// There and back, with the peer's two calls in between.
template <class Port>
void round_trip(benchmark::State &state) {
    Port port;
    std::vector<char> data(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto round : state) {
        auto length = static_cast<unsigned int>(data.size());
        must(port.send(data.data(), length) == 0, "send");
        drain(port.peer, data);
        feed(port.peer, data);
        must(port.read(data.data(), &length) == 0, "read");
    }
}

// One way as fast as it goes, a thread taking it away.
template <class Port>
void bulk(benchmark::State &state) {
    Port port;
    std::vector<char> data(static_cast<size_t>(state.range(0)));
    if constexpr (requires { port.stream; })
        static_cast<void>(0);
    else
        must(port.send(data.data(), 1) == 0 && ::read(port.peer, data.data(), 1) == 1, "first byte");
    std::thread sink([&port, size = data.size()] {
        std::vector<char> taken(size);
        while (::read(port.peer, taken.data(), taken.size()) > 0) {
        }
    });
    for ([[maybe_unused]] auto round : state)
        must(port.send(data.data(), static_cast<unsigned int>(data.size())) == 0, "send");
    ::shutdown(port.peer, SHUT_RDWR);
    sink.join();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// A pseudo-terminal takes up to 4095 bytes before its reader must run: one short of a full page.
BENCHMARK(read_block<floor_tty>)->Arg(1)->Arg(64)->Arg(4095);
BENCHMARK(read_block<library_tty>)->Arg(1)->Arg(64)->Arg(4095);
BENCHMARK(send_block<floor_tty>)->Arg(1)->Arg(64)->Arg(4095);
BENCHMARK(send_block<library_tty>)->Arg(1)->Arg(64)->Arg(4095);
BENCHMARK(round_trip<floor_tcp>)->Arg(1)->Arg(64)->Arg(4096);
BENCHMARK(round_trip<library_tcp>)->Arg(1)->Arg(64)->Arg(4096);
BENCHMARK(bulk<floor_tcp>)->Arg(65536);
BENCHMARK(bulk<library_tcp>)->Arg(65536);

} // namespace

BENCHMARK_MAIN();
