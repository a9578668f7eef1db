// Serial ports of every kind under scripts of operations, with calls that are interrupted, shortened or fail:
// every byte arrives once, in its order, and every status, count and setting is the one that a model tells.
//
// The first byte of an input is the kind of port. A read that would wait, says the model, is left out. On a
// stream a failed call is the end of the connection, whatever its reason.

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kiv/transports.h"
#include "quiet.h"
#include "require.h"
#include "script.h"

int sup_thread_delay(unsigned int, int) {
    return 0;
}

namespace {

enum kind { tty, tcp_server, tcp_client, unix_client, demultiplexer, kinds };

// The other side: a simulated line, or sockets of this process.
class Far {
    const kind kind_;
    int listener_ = -1, peer_ = -1;
    sockaddr_storage address_ = {};
    socklen_t size_ = 0;

    template <class Address>
    Address &as() {
        return reinterpret_cast<Address &>(address_);
    }
    static std::string name() { return "kiv-fuzz-" + std::to_string(::getpid()); }

    void listen_at(int family) {
        size_ = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_un);
        address_.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET)
            as<sockaddr_in>().sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            name().copy(as<sockaddr_un>().sun_path + 1, name().size());
        listener_ = ::socket(family, SOCK_STREAM, 0);
        require(::bind(listener_, &as<sockaddr>(), size_) == 0 && ::listen(listener_, 8) == 0, "listening");
        ::getsockname(listener_, &as<sockaddr>(), &size_);
    }

  public:
    explicit Far(kind which) : kind_(which) {
        if (which >= tcp_client)
            listen_at(which == tcp_client ? AF_INET : AF_UNIX);
    }
    Far(const Far &) = delete;
    Far &operator=(const Far &) = delete;
    ~Far() {
        ::close(peer_);
        ::close(listener_);
    }
    int open(UART_infos &port) {
        sup_uart_Prepare(&port, nullptr);
        const std::string number = std::to_string(ntohs(as<sockaddr_in>().sin_port));
        switch (kind_) {
        case tty:
            return sup_uart_Init(&port, "/dev/ttyKIV0", UART_SPEED_115200, 0);
        case tcp_server:
            return sup_uart_Init(&port, "tcp:", 0, 0);
        case tcp_client:
            return sup_uart_Opened(&port,
                                   pos_open_tcp_client(&port, ("tcpout:127.0.0.1:" + number).c_str(), 0));
        case unix_client:
            return sup_uart_Init(&port, ("unix:@" + name()).c_str(), 0, 0);
        default:
            return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, ("@" + name()).c_str()));
        }
    }
    // The other end of the port's next connection; the one before is closed.
    void join(const UART_infos &port) {
        ::close(peer_);
        if (kind_ == tcp_server) {
            size_ = sizeof address_;
            ::getsockname(port.fd_listen, &as<sockaddr>(), &size_);
            as<sockaddr_in>().sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            peer_ = ::socket(AF_INET, SOCK_STREAM, 0);
            require(::connect(peer_, &as<sockaddr>(), size_) == 0, "connecting");
        } else {
            peer_ = ::accept(listener_, nullptr, nullptr);
        }
        const timeval limit = {10, 0}; // only what is missing takes so long
        require(::setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0, "a connection");
    }
    void send(const Bytes &bytes) const {
        const std::size_t sent = kind_ == tty
                                     ? kiv_sim_line_send(0, bytes.data(), bytes.size())
                                     : static_cast<std::size_t>(::send(peer_, bytes.data(), bytes.size(), 0));
        require(sent == bytes.size(), "sending to the port");
    }
    void expect(const Bytes &expected) const {
        Bytes got(expected.size() + 1);
        ssize_t count = 0;
        if (kind_ == tty) {
            count = static_cast<ssize_t>(kiv_sim_line_receive(0, got.data(), got.size()));
        } else {
            if (!expected.empty())
                count = ::recv(peer_, got.data(), expected.size(), MSG_WAITALL);
            count += std::max<ssize_t>(0, ::recv(peer_, got.data() + expected.size(), 1, MSG_DONTWAIT));
        }
        got.resize(static_cast<std::size_t>(count));
        require(got == expected, "what the other side gets");
    }
    void expect_end() const {
        char byte;
        require(::recv(peer_, &byte, 1, 0) <= 0, "the connection ends");
    }
};

struct Result {
    int status;
    std::size_t count;
};

class Session {
    const kind kind_;
    const kiv_sim_call writes_;
    UART_infos port_ = {};
    Far far_;
    Bytes unread_;                         // sent to the port
    unsigned stops_ = 0;                   // of a tty, not used up
    bool gone_ = false, readable_ = false; // a tty that hung up
    bool connected_ = false;               // a stream

    void open() {
        kiv_sim_reset();
        disarm();
        require(far_.open(port_) == 0, "opening");
        unread_.clear();
        stops_ = 0;
        gone_ = false;
        connected_ = kind_ >= tcp_client;
        if (connected_)
            far_.join(port_);
    }
    // No pause of the library's is worth a wait.
    static void disarm() {
        kiv_sim_clear_faults();
        kiv_sim_answer(KIV_SIM_USLEEP, 1, KIV_SIM_ALWAYS, 0);
    }

    // One call that brings something, made again after a signal. Nothing: it would wait.
    std::optional<Result> read_once(Fault &fault, std::size_t room, std::size_t taken) {
        for (;;) {
            const std::size_t there = unread_.size() - taken;
            std::size_t count = std::min(room, there);
            int error = kind_ == tty ? fault.next(KIV_SIM_POLL) : 0;
            if (error == 0 && there == 0 && !gone_) {
                if (stops_ == 0)
                    return std::nullopt;
                --stops_;
                return Result{EIO, 0};
            }
            if (error == 0 && (!gone_ || readable_))
                error = fault.next(KIV_SIM_READ, count);
            if (error != EINTR)
                return Result{error == 0 && count == 0 ? EIO : error, error == 0 ? count : 0};
        }
    }

    // 0: sup_uart_Read, 1: _partial, 2: _partial_timeout. The count is what has left the queue.
    std::optional<Result> model_read(Fault fault, unsigned how, std::size_t size) {
        Result sum = {size == 0 && how == 0 ? EIO : 0, 0};
        while (sum.status == 0 && sum.count < size) {
            if (how == 2 && sum.count > 0) {
                const int error = fault.next(KIV_SIM_SELECT);
                if (error != 0 || unread_.size() == sum.count)
                    return Result{error == EINTR ? 0 : error, sum.count};
            }
            const auto step = read_once(fault, how == 2 && sum.count == 0 ? 1 : size - sum.count, sum.count);
            if (!step.has_value())
                return std::nullopt;
            sum = {step->status, sum.count + step->count};
            if (how == 1)
                break;
        }
        return sum;
    }

    void read(Input &input) {
        Fault fault = kind_ == tty ? Fault(input, {KIV_SIM_READ, KIV_SIM_POLL, KIV_SIM_SELECT},
                                           {EINTR, EIO, ENOMEM, 0}, 0)
                                   : Fault(input, {KIV_SIM_READ}, {0}, 1);
        const unsigned how = input.below(3);
        const std::size_t size = std::size_t{input.byte()} * (1 + input.below(3));
        const bool is_tcp = kind_ == tcp_server || kind_ == tcp_client; // where bytes may take their time
        if ((kind_ != tty && !connected_) || (is_tcp && how == 2))
            return;
        const unsigned stops = stops_;
        const auto expected = model_read(fault, how, size);
        if (!expected.has_value()) {
            stops_ = stops;
            return;
        }
        Bytes buffer(size, 0xEE);
        auto length = static_cast<unsigned>(size);
        fault.arm();
        const int status = how == 0   ? sup_uart_Read(&port_, buffer.data(), &length)
                           : how == 1 ? sup_uart_Read_partial(&port_, buffer.data(), &length)
                                      : sup_uart_Read_partial_timeout(&port_, buffer.data(), &length, 0);
        disarm();
        require_equal(status, expected->status, "the status of a read");
        const bool told = status == 0 || (how == 0 && size > 0);
        if (!is_tcp || how != 1 || status != 0)
            require_equal(length, static_cast<long>(told ? expected->count : size), "the count of a read");
        const std::size_t taken = told ? length : expected->count;
        require(taken <= expected->count && (taken > 0 || expected->count == 0), "a count in its bounds");
        Bytes image(unread_.begin(), unread_.begin() + static_cast<std::ptrdiff_t>(taken));
        image.resize(size, 0xEE);
        require(buffer == image, "the bytes that are read");
        unread_.erase(unread_.begin(), unread_.begin() + static_cast<std::ptrdiff_t>(taken));
    }

    // What arrives of the pieces, a row for each connection; the first is the present one, if there is any.
    int model_send(Fault &fault, const std::vector<Bytes> &pieces, std::vector<Bytes> &arrived, bool &lost) {
        arrived.emplace_back();
        for (const Bytes &piece : pieces) {
            if (piece.empty())
                return EIO;
            if (kind_ > tcp_server && !connected_) {
                connected_ = true; // there is always a service
                arrived.emplace_back();
            }
            for (std::size_t at = 0; at < piece.size() && (kind_ == tty || connected_);) {
                std::size_t count = piece.size() - at;
                int error = fault.next(writes_, count);
                if (error == EINTR && kind_ == tty)
                    continue;
                error = error == 0 && (gone_ || count == 0) ? EIO : error;
                if (error != 0 && kind_ == tty)
                    return error;
                if (error == 0) {
                    const auto from = piece.begin() + static_cast<std::ptrdiff_t>(at);
                    arrived.back().insert(arrived.back().end(), from,
                                          from + static_cast<std::ptrdiff_t>(count));
                    at += count;
                    continue;
                }
                lost = true;
                unread_.clear();
                connected_ = kind_ == demultiplexer; // which goes on with the next one at once
                if (connected_)
                    arrived.emplace_back();
            }
        }
        return 0;
    }

    void send(Input &input) {
        Fault fault(input, {writes_}, {EINTR, EIO, EPIPE, 0}, 0);
        std::vector<Bytes> pieces(1 + input.below(3));
        for (Bytes &piece : pieces)
            piece = input.exactly(std::size_t{input.byte()} * (1 + input.below(4)));
        const bool was_connected = connected_;
        std::vector<Bytes> arrived;
        bool lost = false;
        Fault model = fault;
        const int expected = model_send(model, pieces, arrived, lost);
        fault.arm();
        if (pieces.size() == 1) {
            require_equal(sup_uart_Send(&port_, pieces[0].data(), static_cast<unsigned>(pieces[0].size())),
                          expected, "the status of a send");
        } else {
            std::vector<iovec> all;
            std::size_t whole = 0;
            for (Bytes &piece : pieces) {
                all.push_back({piece.data(), piece.size()});
                whole += piece.size();
            }
            unsigned sent = 0;
            const int status = sup_uart_Sendv(&port_, all.data(), static_cast<int>(all.size()), &sent);
            require_equal(status, expected, "the status of a gathered send");
            require(status != 0 || sent == whole, "the count of a gathered send");
        }
        disarm();
        for (std::size_t i = 0; i < arrived.size(); ++i) {
            if (i > 0)
                far_.join(port_);
            if (kind_ == tty || i > 0 || was_connected)
                far_.expect(arrived[i]);
            if (lost && i == 0 && was_connected)
                far_.expect_end();
        }
    }

    // Bytes for the port, or the next client of a server, which sends its bytes before the last one's are
    // read.
    void other_side(Input &input) {
        const bool another = input.below(4) == 0 && kind_ == tcp_server;
        const Bytes bytes = input.bytes(input.byte());
        if (gone_ || unread_.size() > 2000 || (kind_ != tty && !connected_ && !another))
            return;
        if (another)
            far_.join(port_);
        far_.send(bytes);
        unread_.insert(unread_.end(), bytes.begin(), bytes.end());
        if (another && connected_ &&
            !bytes.empty()) { // all of it, since a send in between would go to the last
            Bytes buffer(unread_.size());
            auto length = static_cast<unsigned>(buffer.size());
            require(sup_uart_Read(&port_, buffer.data(), &length) == 0 && buffer == unread_,
                    "over two clients");
            unread_.clear();
        } else if (another && connected_) {
            require(sup_uart_close(&port_) == 0, "closing");
            open(); // the port does not know yet that its client has left
        } else {
            connected_ = kind_ != tty;
        }
    }

    // The settings of the line, and its ending.
    void line(Input &input) {
        static const std::map<unsigned, unsigned> rates = {
            {0, 0},       {1, 2400},     {2, 4800},     {4, 9600},    {6, 19200},
            {7, 38400},   {8, 57600},    {9, 115200},   {11, 230400}, {13, 460800},
            {15, 921600}, {16, 1500000}, {17, 2000000}, {18, 3000000}};
        constexpr std::uint32_t baud = 0x100F, parity = 0x100, odd = 0x200, two_stops = 0x40,
                                rts_cts = 0x80000000;
        const unsigned what = input.below(7);
        Fault fault(input, {KIV_SIM_IOCTL}, {EINTR, EIO, ENOTTY}, 0);
        const unsigned value = input.below(4) == 0 ? input.word() : input.byte() % 20;
        if (gone_)
            return;
        kiv_sim_line_state before, after;
        kiv_sim_line_inspect(0, &before);
        std::uint32_t cflag = before.c_cflag, rate = before.c_ospeed;
        int expected = 0;
        const unsigned requests = what == 3 ? 1 : what == 4 || what == 5 ? 2 : 3;
        const bool is_change = what < 3 || what == 6;
        for (unsigned i = 0; i < requests && expected == 0; ++i) {
            expected = fault.next(KIV_SIM_IOCTL);
            if (is_change && i == 1 && expected == 0) // after the settings were read
                expected = what == 0   ? (value > 115200 || rates.count(value) != 0 ? 0 : EINVAL)
                           : what == 1 ? (value <= 2 ? 0 : -EINVAL)
                           : what == 2 ? (value == 0 || value == 2 ? 0 : -EINVAL)
                                       : 0;
        }
        const bool changes = expected == 0;
        if (changes && (what == 0 || what == 6)) {
            const unsigned asked = what == 6 ? 0 : rates.count(value) != 0 ? rates.at(value) : value;
            rate = asked <= 4000000 ? asked : rate;
        }
        if (changes && what == 1)
            cflag = value == UART_PARITY_NONE ? cflag & ~parity
                                              : cflag | parity | (value == UART_PARITY_ODD ? odd : 0);
        if (changes && what == 2)
            cflag = value == 2 ? cflag | two_stops : cflag & ~two_stops;
        if (changes && what == 5)
            cflag = value != 0 ? cflag | rts_cts : cflag & ~rts_cts;
        if (what == 3 && expected != 0)
            expected = -1;

        fault.arm();
        const int status = what == 0   ? sup_uart_Change_Speed(&port_, value)
                           : what == 1 ? sup_uart_Change_Parity(&port_, value)
                           : what == 2 ? sup_uart_Change_StopBitsNumber(&port_, value)
                           : what == 3 ? sup_uart_Flush(&port_, value)
                           : what == 4 ? (sup_uart_RTS_Manage(&port_, value), expected)
                           : what == 5 ? sup_uart_RTS_Enable(&port_, value)
                                       : sup_uart_Stop_UART(&port_);
        disarm();
        require_equal(status, expected, "the status of a setting");
        kiv_sim_line_inspect(0, &after);
        require((after.c_cflag & ~baud) == (cflag & ~baud), "the settings");
        require(after.c_ospeed == rate, "the speed");
        if (what == 4 && changes)
            require(((after.modem & KIV_SIM_RTS) != 0) == (value == UART_RTS_RAISE), "RTS");
        stops_ += what == 6 ? 1 : 0;
        if (what == 3 && changes && value != UART_FLUSH_OUTPUT)
            unread_.clear();
    }

  public:
    explicit Session(kind which)
        : kind_(which), writes_(which == tty || which == demultiplexer ? KIV_SIM_WRITE : KIV_SIM_SEND),
          far_(which) {
        open();
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() { sup_uart_close(&port_); }

    void step(Input &input) {
        const Undisturbed quiet;
        switch (input.below(8)) {
        case 0:
        case 1:
            return read(input);
        case 2:
        case 3:
            return send(input);
        case 4:
        case 5:
            return other_side(input);
        case 6:
            return kind_ == tty ? line(input) : void();
        default:
            const unsigned what = input.byte();
            if (kind_ == tty && what % 2 != 0 && !gone_) {
                gone_ = true;
                readable_ = what % 4 == 3;
                unread_.clear();
                require(kiv_sim_line_hang_up(0, readable_ ? 1 : 0) == 0, "hanging up");
            } else if (what % 8 == 0) {
                require(sup_uart_close(&port_) == 0, "closing");
                open();
            }
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    static_cast<void>(ignored);
    const KeepsDescriptors kept;
    Input input(data, size);
    Session session(static_cast<kind>(input.below(kinds)));
    while (!input.empty())
        session.step(input);
    return 0;
}
