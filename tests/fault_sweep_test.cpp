// Every system call of every operation fails once with every kind of errno: the rows, an area at a time.

#include <csignal>
#include <map>
#include <memory>

#include "fixtures/fault_sweep.h"
#include "fixtures/serial.h"
#include "fixtures/tcp_peer.h"
#include "fixtures/unix_service.h"
#include "kiv/transports.h"

namespace kiv::test {

namespace {

UART_infos port;
char buffer[8];
unsigned int length;
iovec pieces[] = {{buffer, 3}, {buffer, 5}};

void nothing() {}

void close_port() {
    if (port.magic == UART_MAGIC)
        sup_uart_close(&port);
}

// Serial ports over ttys ------------------------------------------------------------------------------------

// With three bytes to read.
void open_tty() {
    EXPECT_EQ(sup_uart_Init(&port, tty_path, 9, 0), 0);
    kiv_sim_line_send(0, "abc", 3);
    length = 3;
}

const Scene tty = {open_tty, close_port};

struct Status {
    int status;
    bool warned;
};
using Functions = std::vector<const char *>;
using Texts = std::map<kiv_sim_call, std::vector<const char *>>;
using StatusOf = Status (*)(kiv_sim_call call, unsigned nth, int error);

Status opening(kiv_sim_call, unsigned, int error) {
    return {error, false};
}
Status operation(kiv_sim_call, unsigned, int error) {
    return {error, true};
}
Status continued(kiv_sim_call, unsigned, int error) {
    return error == EINTR ? Status{0, false} : Status{error, true};
}
Status hidden(kiv_sim_call, unsigned, int) {
    return {0, false};
}
// The cancellation's own failure goes unnoticed.
Status stopping(kiv_sim_call call, unsigned, int error) {
    return call == KIV_SIM_IOCTL ? Status{error, true} : Status{0, false};
}
// Only the device's closing counts, the last of three.
Status closing(kiv_sim_call, unsigned nth, int) {
    return nth == 3 ? Status{-1, true} : Status{0, false};
}
Status warning_of_minus_one(kiv_sim_call, unsigned, int) {
    return {-1, true};
}
Status warning_only(kiv_sim_call, unsigned, int) {
    return {0, true};
}

// The functions: the first one traces; all of them warn, inner ones first. The texts: of the traces, by kind
// and turn of the call that fails; no text, no trace.
Ending tracing(const char *module, const Functions &functions, const Texts &texts, StatusOf ends) {
    return [=](kiv_sim_call call, unsigned nth, int error) {
        const auto [status, is_warned] = ends(call, nth, error);
        Outcome outcome = {status};
        if (const auto of_call = texts.find(call); of_call != texts.end()) {
            const std::size_t turn = std::min<std::size_t>(nth, of_call->second.size());
            outcome.reported = {trace(module, functions.front(), of_call->second[turn - 1], error)};
        }
        if (is_warned)
            for (const char *function : functions)
                outcome.reported.push_back(warned(module, function));
        return outcome;
    };
}

SweptOperation on_tty(const char *name, const Scene &scene, const Functions &functions, const Texts &texts,
                      StatusOf ends, Operation act) {
    return {name, scene, tracing(uart, functions, texts, ends), std::move(act)};
}
SweptOperation on_tcp(const char *name, const Scene &scene, const Functions &functions, const Texts &texts,
                      StatusOf ends, Operation act) {
    return {name, scene, tracing(tcp, functions, texts, ends), std::move(act)};
}

const Texts write_texts = {{KIV_SIM_WRITE, {text_of_write}}};

Texts read_texts(std::vector<const char *> texts) {
    return {{KIV_SIM_POLL, texts}, {KIV_SIM_READ, texts}, {KIV_SIM_SELECT, {text_of_wait}}};
}

Texts request_texts(std::vector<const char *> texts) {
    return {{KIV_SIM_OPEN, {text_of_open}},
            {KIV_SIM_CALLOC, {text_of_open}},
            {KIV_SIM_PIPE, {text_of_open}},
            {KIV_SIM_IOCTL, std::move(texts)}};
}

const SweptOperation serial_rows[] = {
    on_tty("open", {nothing, close_port}, {"sup_uart_Init2"}, request_texts({text_of_get, text_of_set}),
           opening, [] { return sup_uart_Init(&port, tty_path, 9, 1); }),
    on_tty("Read", tty, {"sup_uart_Read"}, read_texts({text_of_read}), continued,
           [] { return sup_uart_Read(&port, buffer, &length); }),
    on_tty("Read_partial", tty, {"sup_uart_Read_partial"}, read_texts({text_of_partial}), continued,
           [] { return sup_uart_Read_partial(&port, buffer, &length); }),
    on_tty("Read_partial_timeout", tty, {"sup_uart_Read_partial_timeout"},
           read_texts({text_of_first, text_of_read}), continued,
           [] { return sup_uart_Read_partial_timeout(&port, buffer, &(length = 8), 0); }),
    on_tty("Send", tty, {"sup_uart_Send"}, write_texts, continued,
           [] { return sup_uart_Send(&port, buffer, 8); }),
    on_tty("Sendv", tty, {"sup_uart_Send", "sup_uart_Sendv"}, write_texts, continued,
           [] { return sup_uart_Sendv(&port, pieces, 2, &length); }),
    on_tty("Change_Speed", tty, {"sup_uart_Change_Speed"},
           request_texts({text_of_drain, text_of_get, text_of_set}), operation,
           [] { return sup_uart_Change_Speed(&port, 4); }),
    on_tty("RTS_Enable", tty, {"sup_uart_RTS_Enable"}, request_texts({text_of_get, text_of_set}), operation,
           [] { return sup_uart_RTS_Enable(&port, 1); }),
    on_tty("Flush", tty, {"sup_uart_Flush"},
           request_texts({"ret = kiv_tcflush(UART_infos->fd, queue_selector)"}), warning_of_minus_one,
           [] { return sup_uart_Flush(&port, FLUSH_ALL); }),
    on_tty("RTS_Manage", tty, {"sup_uart_RTS_Manage"},
           request_texts({"ret = ioctl(fd, 0x5415, &flags)", "ret = ioctl(fd, 0x5418, &flags)"}),
           warning_only, [] { return sup_uart_RTS_Manage(&port, 1), 0; }),
    on_tty("Stop_UART", tty, {"sup_uart_Change_Speed", "sup_uart_Stop_UART"},
           request_texts({text_of_drain, text_of_get, text_of_set}), stopping,
           [] { return sup_uart_Stop_UART(&port); }),
    on_tty("close", {open_tty, nothing}, {"sup_uart_close"}, {}, closing,
           [] { return sup_uart_close(&port); }),
};

INSTANTIATE_TEST_SUITE_P(Serial, FaultSweep, ::testing::ValuesIn(serial_rows), row_name);

// TCP -------------------------------------------------------------------------------------------------------

std::unique_ptr<Listener> listener; // while a client's row is at work
std::string client_name;
Peer peers[2];

// With two clients waiting that have sent a byte each: one may be lost.
void open_server() {
    EXPECT_EQ(sup_uart_Init(&port, "tcp:", 0, 0), 0);
    for (Peer &peer : peers) {
        peer = Peer(connect_to_port(number_of(port.fd_listen)));
        EXPECT_TRUE(peer.send("a"));
    }
    length = 1;
}

void close_server() {
    for (Peer &peer : peers)
        peer.reset();
    sup_uart_close(&port);
}

int open_client() {
    sup_uart_Prepare(&port, nullptr);
    return sup_uart_Opened(&port, pos_open_tcp_client(&port, client_name.c_str(), 0));
}

void listen_for_client() {
    listener = std::make_unique<Listener>();
    client_name = listener->client_name();
}

// With a client port whose connection is lost.
void lose_client() {
    listen_for_client();
    EXPECT_EQ(open_client(), 0);
    listener->accept().reset();
    while (port.fd != -1)
        sup_uart_Send(&port, buffer, 1);
}

void close_client() {
    pos_close_tcp_client(&port);
    listener.reset();
}

// A lost peer and dropped data are no failures; what the system refuses is traced.
const Texts accept_texts = {
    {KIV_SIM_SELECT,
     {"ret = select(UART_infos->fd_listen+1, &readfds, ((void *)0), ((void *)0), "
      "block?((void *)0):&timeout)"}},
    {KIV_SIM_ACCEPT, {text_of_accept}},
};

const Texts socket_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"}},
    {KIV_SIM_SETSOCKOPT, {"ret = setsockopt(UART_infos->fd_listen, 1, 2, &opt, sizeof(opt))"}},
    {KIV_SIM_BIND, {"ret = bind(UART_infos->fd_listen, (struct sockaddr *)&addr, sizeof(addr))"}},
    {KIV_SIM_LISTEN, {"ret = listen(UART_infos->fd_listen, 1)"}},
    {KIV_SIM_DUP2, {"ret = dup2(fd, UART_infos->fd_listen)"}},
};

const Scene server = {open_server, close_server};

const SweptOperation tcp_rows[] = {
    on_tcp("open_server", {nothing, close_port}, {"pos_open_tcp"}, socket_texts, opening,
           [] { return sup_uart_Init(&port, "tcp:", 0, 0); }),
    on_tcp("server_Read", server, {"pos_tcp_accept"}, accept_texts, hidden,
           [] { return sup_uart_Read(&port, buffer, &length); }),
    on_tcp("server_Send", server, {"pos_tcp_accept"}, accept_texts, hidden,
           [] { return sup_uart_Send(&port, buffer, 8); }),
    on_tcp("server_close", server, {}, {}, hidden, [] { return sup_uart_close(&port); }),
    on_tcp("open_client", {listen_for_client, close_client}, {"pos_open_tcp_client"}, socket_texts, opening,
           open_client),
    on_tcp("lost_client_Send", {lose_client, close_client}, {"pos_connect_tcp_client"}, socket_texts, hidden,
           [] { return sup_uart_Send(&port, buffer, 8); }),
};

INSTANTIATE_TEST_SUITE_P(Tcp, FaultSweep, ::testing::ValuesIn(tcp_rows), row_name);

// Unix sockets ----------------------------------------------------------------------------------------------

constexpr const char *btgpsdemux = "posix/linux_uart_btgpsdemux";
std::unique_ptr<UnixService> service;
std::string unix_name;

void start_service() {
    service = std::make_unique<UnixService>(own_name("swept"));
    unix_name = "unix:" + service->name();
    service->start();
    kiv_sim_answer(KIV_SIM_USLEEP, 1, KIV_SIM_ALWAYS, 0); // pauses are skipped
}
void stop_service() {
    close_port();
    service.reset();
}
int open_unix() {
    return sup_uart_Init(&port, unix_name.c_str(), 0, 0);
}
int open_demultiplexer() {
    ::signal(SIGPIPE, SIG_IGN);
    sup_uart_Prepare(&port, nullptr);
    return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, service->name().c_str()));
}

// With a port whose connection is lost, and a service that is there again.
void lose_unix() {
    start_service();
    EXPECT_EQ(open_unix(), 0);
    ::shutdown(port.fd, SHUT_RDWR);
    EXPECT_EQ(sup_uart_Send(&port, buffer, 1), 0);
}
void lose_demultiplexer() {
    start_service();
    EXPECT_EQ(open_demultiplexer(), 0);
    ::shutdown(port.fd, SHUT_RDWR); // which the next write notices
}

const Texts unix_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd= socket(1, SOCK_STREAM, 0)"}},
    {KIV_SIM_SETSOCKOPT, {"ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))"}}};
const char *const text_of_socket = "fd = socket(1, SOCK_STREAM, 0)";
const Texts demultiplexer_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd = socket(1, SOCK_STREAM, 0)", text_of_socket}}};

// Nobody may be listening yet.
Status connecting(kiv_sim_call call, unsigned, int error) {
    return {call == KIV_SIM_CONNECT || call == KIV_SIM_CLOSE ? 0 : error, false};
}

// The one failure that reaches the caller.
Outcome without_socket(kiv_sim_call call, unsigned, int error) {
    if (call != KIV_SIM_SOCKET)
        return {0};
    Outcome outcome = {error,
                       {trace(btgpsdemux, "btgpsdemux_reconnect", text_of_socket, error),
                        trace(uart, "sup_uart_Send", text_of_write, error), warned(uart, "sup_uart_Send")}};
    if (error == EINTR) { // made again
        outcome.status = 0;
        outcome.reported.pop_back();
    }
    return outcome;
}

const SweptOperation unix_rows[] = {
    {"open",
     {start_service, stop_service},
     tracing("posix/linux_uart_unix", {"pos_open_unix"}, unix_texts, connecting),
     open_unix},
    {"lost_Send", {lose_unix, stop_service}, unnoticed, [] { return sup_uart_Send(&port, buffer, 8); }},
    {"open_demultiplexer",
     {start_service, stop_service},
     tracing(btgpsdemux, {"pos_btgpsdemux_open"}, demultiplexer_texts, connecting),
     open_demultiplexer},
    {"lost_demultiplexer_Send",
     {lose_demultiplexer, stop_service},
     without_socket,
     [] { return sup_uart_Send(&port, buffer, 8); }},
};

INSTANTIATE_TEST_SUITE_P(Unix, FaultSweep, ::testing::ValuesIn(unix_rows), row_name);

} // namespace
} // namespace kiv::test
