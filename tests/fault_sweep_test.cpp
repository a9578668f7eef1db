// Every system call of every operation fails once with every kind of errno: the rows, an area at a time.

#include <memory>

#include "fixtures/fault_sweep.h"
#include "fixtures/serial.h"
#include "fixtures/tcp_peer.h"
#include "kiv/transports.h"

namespace kiv::test {

TEST_P(FaultSweep, EachCallFailsOnceWithEachError) {
    sweep();
}

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

const Scene tty = {uart, open_tty, close_port};

// The cancellation's own failure goes unnoticed.
Outcome stopping(kiv_sim_call call, unsigned, int error) {
    return call == KIV_SIM_IOCTL ? Outcome{error, true} : Outcome{0, false};
}

// Only the device's closing counts, the last of three.
Outcome closing(kiv_sim_call, unsigned nth, int) {
    return nth == 3 ? Outcome{-1, true} : Outcome{0, false};
}

Outcome warning_of_minus_one(kiv_sim_call, unsigned, int) {
    return {-1, true};
}
Outcome warning_only(kiv_sim_call, unsigned, int) {
    return {0, true};
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
    swept("open", {uart, nothing, close_port}, {"sup_uart_Init2"}, request_texts({text_of_get, text_of_set}),
          opening, [] { return sup_uart_Init(&port, tty_path, 9, 1); }),
    swept("Read", tty, {"sup_uart_Read"}, read_texts({text_of_read}), continued,
          [] { return sup_uart_Read(&port, buffer, &length); }),
    swept("Read_partial", tty, {"sup_uart_Read_partial"}, read_texts({text_of_partial}), continued,
          [] { return sup_uart_Read_partial(&port, buffer, &length); }),
    swept("Read_partial_timeout", tty, {"sup_uart_Read_partial_timeout"},
          read_texts({text_of_first, text_of_read}), continued,
          [] { return sup_uart_Read_partial_timeout(&port, buffer, &(length = 8), 0); }),
    swept("Send", tty, {"sup_uart_Send"}, write_texts, continued,
          [] { return sup_uart_Send(&port, buffer, 8); }),
    swept("Sendv", tty, {"sup_uart_Send", "sup_uart_Sendv"}, write_texts, continued,
          [] { return sup_uart_Sendv(&port, pieces, 2, &length); }),
    swept("Change_Speed", tty, {"sup_uart_Change_Speed"},
          request_texts({text_of_drain, text_of_get, text_of_set}), operation,
          [] { return sup_uart_Change_Speed(&port, 4); }),
    swept("RTS_Enable", tty, {"sup_uart_RTS_Enable"}, request_texts({text_of_get, text_of_set}), operation,
          [] { return sup_uart_RTS_Enable(&port, 1); }),
    swept("Flush", tty, {"sup_uart_Flush"},
          request_texts({"ret = kiv_tcflush(UART_infos->fd, queue_selector)"}), warning_of_minus_one,
          [] { return sup_uart_Flush(&port, FLUSH_ALL); }),
    swept("RTS_Manage", tty, {"sup_uart_RTS_Manage"},
          request_texts({"ret = ioctl(fd, 0x5415, &flags)", "ret = ioctl(fd, 0x5418, &flags)"}), warning_only,
          [] { return sup_uart_RTS_Manage(&port, 1), 0; }),
    swept("Stop_UART", tty, {"sup_uart_Change_Speed", "sup_uart_Stop_UART"},
          request_texts({text_of_drain, text_of_get, text_of_set}), stopping,
          [] { return sup_uart_Stop_UART(&port); }),
    swept("close", {uart, open_tty, nothing}, {"sup_uart_close"}, {}, closing,
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
};

const Scene server = {tcp, open_server, close_server};

const SweptOperation tcp_rows[] = {
    swept("open_server", {tcp, nothing, close_port}, {"pos_open_tcp"}, socket_texts, opening,
          [] { return sup_uart_Init(&port, "tcp:", 0, 0); }),
    swept("server_Read", server, {"pos_tcp_accept"}, accept_texts, hidden,
          [] { return sup_uart_Read(&port, buffer, &length); }),
    swept("server_Send", server, {"pos_tcp_accept"}, accept_texts, hidden,
          [] { return sup_uart_Send(&port, buffer, 8); }),
    swept("server_close", server, {}, {}, hidden, [] { return sup_uart_close(&port); }),
    swept("open_client", {tcp, listen_for_client, close_client}, {"pos_open_tcp_client"}, socket_texts,
          opening, open_client),
    swept("lost_client_Send", {tcp, lose_client, close_client}, {"pos_connect_tcp_client"}, socket_texts,
          hidden, [] { return sup_uart_Send(&port, buffer, 8); }),
};

INSTANTIATE_TEST_SUITE_P(Tcp, FaultSweep, ::testing::ValuesIn(tcp_rows), row_name);

} // namespace
} // namespace kiv::test
