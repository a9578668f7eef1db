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

iovec pieces[] = {{swept_bytes, 3}, {swept_bytes, 5}};

// Serial ports over ttys ------------------------------------------------------------------------------------

// With three bytes to read.
void open_tty() {
    EXPECT_EQ(open_swept(tty_path), 0);
    kiv_sim_line_send(0, "abc", 3);
}

const Scene tty = {open_tty, close_swept};

using Functions = std::vector<const char *>;
using Texts = std::map<kiv_sim_call, std::vector<const char *>>;
using StatusOf = int (*)(kiv_sim_call call, unsigned nth, int error);

const StatusOf returned = [](auto, auto, int error) { return error; };
const StatusOf continued = [](auto, auto, int error) { return error == EINTR ? 0 : error; };
const StatusOf hidden = [](auto, auto, int) { return 0; };

// The texts of the traces, by kind and turn of the call that fails; no text, no trace.
Ending tracing(const char *module, const char *function, const Texts &texts, StatusOf status_of) {
    return [=](kiv_sim_call call, unsigned nth, int error) {
        Outcome outcome = {status_of(call, nth, error)};
        if (const auto of_call = texts.find(call); of_call != texts.end()) {
            const std::size_t turn = std::min<std::size_t>(nth, of_call->second.size());
            outcome.reported = {trace(module, function, of_call->second[turn - 1], error)};
        }
        return outcome;
    };
}

// The functions of a serial port: the first one traces; all of them warn of a failure, inner ones first.
Ending warning(const Functions &functions, const Texts &texts, StatusOf status_of) {
    return [=](kiv_sim_call call, unsigned nth, int error) {
        Outcome outcome = tracing(uart, functions.front(), texts, status_of)(call, nth, error);
        for (const char *function : functions)
            if (outcome.status != 0)
                outcome.reported.push_back(warned(uart, function));
        return outcome;
    };
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

Outcome failed_management(kiv_sim_call, unsigned nth, int error) {
    const char *const function = "sup_uart_RTS_Manage";
    const char *const text = nth == 1 ? "ret = ioctl(fd, 0x5415, &flags)" : "ret = ioctl(fd, 0x5418, &flags)";
    return {0, {trace(uart, function, text, error), warned(uart, function)}};
}

const SweptOperation serial_rows[] = {
    {"open",
     {nothing, close_swept},
     tracing(uart, "sup_uart_Init2", request_texts({text_of_get, text_of_set}), returned),
     [] { return open_swept(tty_path, 1); }},
    {"Read", tty, warning({"sup_uart_Read"}, read_texts({text_of_read}), continued),
     [] { return read_swept(3); }},
    {"Read_partial", tty, warning({"sup_uart_Read_partial"}, read_texts({text_of_partial}), continued),
     [] { return sup_uart_Read_partial(&swept_port, swept_bytes, &(swept_length = 3)); }},
    {"Read_partial_timeout", tty,
     warning({"sup_uart_Read_partial_timeout"}, read_texts({text_of_first, text_of_read}), continued),
     [] { return sup_uart_Read_partial_timeout(&swept_port, swept_bytes, &(swept_length = 8), 0); }},
    {"Send", tty, warning({"sup_uart_Send"}, write_texts, continued), send_swept},
    {"Sendv", tty, warning({"sup_uart_Send", "sup_uart_Sendv"}, write_texts, continued),
     [] { return sup_uart_Sendv(&swept_port, pieces, 2, &swept_length); }},
    {"Change_Speed", tty,
     warning({"sup_uart_Change_Speed"}, request_texts({text_of_drain, text_of_get, text_of_set}), returned),
     [] { return sup_uart_Change_Speed(&swept_port, 4); }},
    {"RTS_Enable", tty, warning({"sup_uart_RTS_Enable"}, request_texts({text_of_get, text_of_set}), returned),
     [] { return sup_uart_RTS_Enable(&swept_port, 1); }},
    {"Flush", tty,
     warning({"sup_uart_Flush"}, request_texts({"ret = kiv_tcflush(UART_infos->fd, queue_selector)"}),
             [](auto, auto, int) { return -1; }),
     [] { return sup_uart_Flush(&swept_port, FLUSH_ALL); }},
    {"RTS_Manage", tty, failed_management, [] { return sup_uart_RTS_Manage(&swept_port, 1), 0; }},
    // The cancellation's own failure goes unnoticed.
    {"Stop_UART", tty,
     warning({"sup_uart_Change_Speed", "sup_uart_Stop_UART"},
             request_texts({text_of_drain, text_of_get, text_of_set}),
             [](kiv_sim_call call, auto, int error) { return call == KIV_SIM_IOCTL ? error : 0; }),
     [] { return sup_uart_Stop_UART(&swept_port); }},
    // Only the device's closing counts, the last of three.
    {"close",
     {open_tty, nothing},
     warning({"sup_uart_close"}, {}, [](auto, unsigned nth, int) { return nth == 3 ? -1 : 0; }),
     [] { return sup_uart_close(&swept_port); }},
};

INSTANTIATE_TEST_SUITE_P(Serial, FaultSweep, ::testing::ValuesIn(serial_rows), row_name);

// TCP -------------------------------------------------------------------------------------------------------

std::unique_ptr<Listener> listener; // while a client's row is at work
std::string client_name;
Peer peers[2];

// With two clients waiting that have sent a byte each: one may be lost.
void open_server() {
    EXPECT_EQ(open_swept("tcp:"), 0);
    for (Peer &peer : peers) {
        peer = Peer(connect_to_port(number_of(swept_port.fd_listen)));
        EXPECT_TRUE(peer.send("a"));
    }
}

void close_server() {
    for (Peer &peer : peers)
        peer.reset();
    sup_uart_close(&swept_port);
}

int open_client() {
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_open_tcp_client(&swept_port, client_name.c_str(), 0));
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
    while (swept_port.fd != -1)
        sup_uart_Send(&swept_port, swept_bytes, 1);
}

void close_client() {
    pos_close_tcp_client(&swept_port);
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
};

const Scene server = {open_server, close_server};

const SweptOperation tcp_rows[] = {
    {"open_server",
     {nothing, close_swept},
     tracing(tcp, "pos_open_tcp", socket_texts, returned),
     [] { return open_swept("tcp:"); }},
    {"server_Read", server, tracing(tcp, "pos_tcp_accept", accept_texts, hidden),
     [] { return read_swept(1); }},
    {"server_Send", server, tracing(tcp, "pos_tcp_accept", accept_texts, hidden), send_swept},
    {"server_close", server, unnoticed, [] { return sup_uart_close(&swept_port); }},
    {"open_client",
     {listen_for_client, close_client},
     tracing(tcp, "pos_open_tcp_client", socket_texts, returned),
     open_client},
    {"lost_client_Send",
     {lose_client, close_client},
     tracing(tcp, "pos_connect_tcp_client", socket_texts, hidden),
     send_swept},
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
    close_swept();
    service.reset();
}
int open_unix() {
    return open_swept(unix_name.c_str());
}
int open_demultiplexer() {
    ::signal(SIGPIPE, SIG_IGN);
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_btgpsdemux_open(&swept_port, service->name().c_str()));
}

// With a port whose connection is lost, and a service that is there again.
void lose_unix() {
    start_service();
    EXPECT_EQ(open_unix(), 0);
    ::shutdown(swept_port.fd, SHUT_RDWR);
    EXPECT_EQ(sup_uart_Send(&swept_port, swept_bytes, 1), 0);
}
void lose_demultiplexer() {
    start_service();
    EXPECT_EQ(open_demultiplexer(), 0);
    ::shutdown(swept_port.fd, SHUT_RDWR); // which the next write notices
}

const Texts unix_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd= socket(1, SOCK_STREAM, 0)"}},
    {KIV_SIM_SETSOCKOPT, {"ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))"}}};
const char *const text_of_socket = "fd = socket(1, SOCK_STREAM, 0)";
const Texts demultiplexer_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd = socket(1, SOCK_STREAM, 0)", text_of_socket}}};

// Nobody may be listening yet.
const StatusOf connecting = [](kiv_sim_call call, auto, int error) {
    return call == KIV_SIM_CONNECT || call == KIV_SIM_CLOSE ? 0 : error;
};

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
     tracing("posix/linux_uart_unix", "pos_open_unix", unix_texts, connecting),
     open_unix},
    {"lost_Send", {lose_unix, stop_service}, unnoticed, send_swept},
    {"open_demultiplexer",
     {start_service, stop_service},
     tracing(btgpsdemux, "pos_btgpsdemux_open", demultiplexer_texts, connecting),
     open_demultiplexer},
    {"lost_demultiplexer_Send", {lose_demultiplexer, stop_service}, without_socket, send_swept},
};

INSTANTIATE_TEST_SUITE_P(Unix, FaultSweep, ::testing::ValuesIn(unix_rows), row_name);

} // namespace
} // namespace kiv::test
