// Boost.Asio: its synchronous operations, which block and cannot be stopped; the same on a connection that is
// looked up under a lock, as a server has to whose client may be replaced by another thread; and its
// asynchronous ones, each begun and run to its end, which another thread can cancel.

#include <utility> // Boost 1.74 lacks it

#include <boost/asio.hpp>
#include <chrono>
#include <mutex>
#include <optional>

#include "port.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

asio::io_context context;
std::optional<asio::serial_port> tty;
std::optional<tcp::acceptor> acceptor;
std::optional<tcp::socket> client;

int open_tty(const char *path) {
    tty.emplace(context, path); // raw, 8N1
    tty->set_option(asio::serial_port::baud_rate(115200));
    tty->set_option(asio::serial_port::flow_control(asio::serial_port::flow_control::none));
    return 0;
}

void close_tty() {
    tty.reset();
}

int open_tcp(const char *) {
    acceptor.emplace(context, tcp::endpoint(tcp::v4(), 0));
    return acceptor->local_endpoint().port();
}

void accept_tcp() {
    client.emplace(acceptor->accept());
}

void close_tcp() {
    client.reset();
    acceptor.reset();
}

template <auto &Stream>
struct blocking {
    static void read(void *buffer, unsigned int length) { asio::read(*Stream, asio::buffer(buffer, length)); }

    static unsigned int read_some(void *buffer, unsigned int length) {
        return static_cast<unsigned int>(Stream->read_some(asio::buffer(buffer, length)));
    }

    static void write(const void *buffer, unsigned int length) {
        asio::write(*Stream, asio::buffer(buffer, length));
    }
};

std::mutex lock;

struct locked {
    static tcp::socket &connection() {
        const std::lock_guard held(lock);
        return *client;
    }

    static void read(void *buffer, unsigned int length) {
        asio::read(connection(), asio::buffer(buffer, length));
    }

    static unsigned int read_some(void *buffer, unsigned int length) {
        return static_cast<unsigned int>(connection().read_some(asio::buffer(buffer, length)));
    }

    static void write(const void *buffer, unsigned int length) {
        asio::write(connection(), asio::buffer(buffer, length));
    }
};

template <auto &Stream>
struct stoppable {
    static auto store(std::size_t &moved) {
        return [&moved](const error_code &error, std::size_t count) {
            must(!error || error == asio::error::operation_aborted, "asynchronous operation");
            moved = count;
        };
    }

    static void run() {
        context.restart();
        context.run();
    }

    static void read(void *buffer, unsigned int length) {
        std::size_t moved = 0;
        asio::async_read(*Stream, asio::buffer(buffer, length), store(moved));
        run();
    }

    static unsigned int read_some(void *buffer, unsigned int length) {
        std::size_t moved = 0;
        Stream->async_read_some(asio::buffer(buffer, length), store(moved));
        run();
        return static_cast<unsigned int>(moved);
    }

    static unsigned int read_timed(void *buffer, unsigned int length) {
        static asio::steady_timer timer(context);
        unsigned int taken = read_some(buffer, length);
        for (std::size_t moved = 1; moved > 0 && taken < length; taken += static_cast<unsigned int>(moved)) {
            moved = 0;
            timer.expires_after(std::chrono::milliseconds(1));
            timer.async_wait([](const error_code &error) {
                if (!error)
                    Stream->cancel();
            });
            Stream->async_read_some(asio::buffer(static_cast<char *>(buffer) + taken, length - taken),
                                    [&moved](const error_code &, std::size_t count) {
                                        moved = count;
                                        timer.cancel();
                                    });
            run();
        }
        return taken;
    }

    static void write(const void *buffer, unsigned int length) {
        std::size_t moved = 0;
        asio::async_write(*Stream, asio::buffer(buffer, length), store(moved));
        run();
    }
};

template <class Way>
constexpr port tty_port(const char *kind, unsigned int (*read_timed)(void *, unsigned int)) {
    return {kind, open_tty, nullptr, close_tty, Way::read, Way::read_some, read_timed, Way::write};
}

template <class Way>
constexpr port tcp_port(const char *kind, unsigned int (*read_timed)(void *, unsigned int)) {
    return {kind, open_tcp, accept_tcp, close_tcp, Way::read, Way::read_some, read_timed, Way::write};
}

} // namespace

const port ports[] = {
    tty_port<blocking<tty>>("tty", nullptr),
    tty_port<stoppable<tty>>("tty-async", stoppable<tty>::read_timed),
    tcp_port<blocking<client>>("tcp", nullptr),
    tcp_port<locked>("tcp-locked", nullptr),
    tcp_port<stoppable<client>>("tcp-async", stoppable<client>::read_timed),
    {},
};
