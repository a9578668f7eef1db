// Every system call of every operation fails once with every plausible errno: the rows, an area at a time.

#include "fixtures/fault_sweep.h"
#include "fixtures/serial.h"
#include "fixtures/tcp_peer.h"
#include "kiv/transports.h"

namespace kiv::test {

TEST_P(FaultSweep, EachCallFailsOnceWithEachError) {
    sweep();
}

namespace {

// Serial ports over ttys
// ---------------------------------------------------------------------------------------

constexpr const char *line = "/dev/ttyKIV0";

UART_infos port;
kiv_linux_sfd_t *cancellable;
char buffer[8];
unsigned int length;
iovec pieces[] = {{buffer, 3}, {buffer, 5}};

void close_port(int) {
    sup_uart_close(&port);
}

// With three bytes to read.
void open_tty() {
    EXPECT_EQ(sup_uart_Init(&port, line, 9, 0), 0);
    kiv_sim_line_send(0, "abc", 3);
    length = 3;
}

SweptOperation on_tty(const char *name, std::function<int()> act, decltype(SweptOperation::ends) ends) {
    return {name, uart, open_tty, std::move(act), close_port, std::move(ends)};
}

void open_cancellable() {
    cancellable = kiv_linux_sopen(line, O_RDWR | O_NOCTTY);
}

void close_cancellable(int status) {
    if (status == 0)
        kiv_linux_sclose(cancellable);
}

Outcome stopping(kiv_sim_call call, unsigned, int error) {
    // The cancellation's own failure goes unnoticed.
    return call == KIV_SIM_IOCTL ? Outcome{error, 1, 2} : Outcome{0, 0, 0};
}

// Only the device's closing counts, the last of three.
Outcome closing_tty(kiv_sim_call, unsigned nth, int) {
    return nth == 3 ? Outcome{-1, 0, 1} : Outcome{0, 0, 0};
}
Outcome closing_cancellable(kiv_sim_call, unsigned nth, int error) {
    return {nth == 3 ? error : 0, 0, 0};
}

int errno_of(bool failed) {
    return failed ? errno : 0;
}

const SweptOperation serial_rows[] = {
    {"open tty", uart, [] {}, [] { return sup_uart_Init(&port, line, 9, 1); },
     [](int status) { status == 0 ? close_port(0) : void(); }, opening},
    on_tty(
        "Read", [] { return sup_uart_Read(&port, buffer, &length); }, continued),
    on_tty(
        "Read_partial", [] { return sup_uart_Read_partial(&port, buffer, &length); }, continued),
    on_tty(
        "Read_partial_timeout", [] { return sup_uart_Read_partial_timeout(&port, buffer, &(length = 8), 0); },
        continued),
    on_tty(
        "Send", [] { return sup_uart_Send(&port, buffer, 8); }, continued),
    on_tty(
        "Sendv", [] { return sup_uart_Sendv(&port, pieces, 2, &length); },
        [](kiv_sim_call, unsigned, int error) {
            return error == EINTR ? Outcome{0, 1, 0} : Outcome{error, 1, 2};
        }),
    on_tty(
        "Change_Speed", [] { return sup_uart_Change_Speed(&port, 4); }, operation),
    on_tty(
        "Change_Parity", [] { return sup_uart_Change_Parity(&port, 1); }, operation),
    on_tty(
        "Change_StopBitsNumber", [] { return sup_uart_Change_StopBitsNumber(&port, 2); }, operation),
    on_tty(
        "Flush", [] { return sup_uart_Flush(&port, FLUSH_ALL); },
        [](kiv_sim_call, unsigned, int) {
            return Outcome{-1, 1, 1};
        }),
    on_tty(
        "RTS_Enable", [] { return sup_uart_RTS_Enable(&port, 1); }, operation),
    on_tty(
        "RTS_Manage",
        [] {
            sup_uart_RTS_Manage(&port, 1);
            return 0;
        },
        [](kiv_sim_call, unsigned, int) {
            return Outcome{0, 1, 1};
        }),
    on_tty(
        "Stop_UART", [] { return sup_uart_Stop_UART(&port); }, stopping),
    {"close tty", uart, open_tty, [] { return sup_uart_close(&port); }, [](int) {}, closing_tty},
    {"sopen", "", [] {},
     [] {
         open_cancellable();
         return errno_of(cancellable == nullptr);
     },
     close_cancellable, silent},
    {"sread", "",
     [] {
         open_cancellable();
         kiv_sim_line_send(0, "a\n", 2); // a line: the tty is as cooked as it was
     },
     [] { return errno_of(kiv_linux_sread(cancellable, buffer, 8) != 2); },
     [](int) { kiv_linux_sclose(cancellable); }, silent},
    {"sclose_cancel", "", open_cancellable,
     [] { return errno_of(kiv_linux_sclose_cancel(cancellable) != 1); },
     [](int) { kiv_linux_sclose(cancellable); }, silent},
    {"sclose", "", open_cancellable, [] { return errno_of(kiv_linux_sclose(cancellable) != 0); }, [](int) {},
     closing_cancellable},
};

INSTANTIATE_TEST_SUITE_P(Serial, FaultSweep, ::testing::ValuesIn(serial_rows), row_name);

// TCP
// ------------------------------------------------------------------------------------------------------------

constexpr const char *tcp = "posix/linux_uart_tcp";

Listener *listener; // while a client's row is at work
std::string client_name;
Peer peers[2];

std::uint16_t number_of(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

// With two clients waiting that have sent a byte each: one may be lost.
void open_server() {
    EXPECT_EQ(sup_uart_Init(&port, "tcp:", 0, 0), 0);
    for (Peer &peer : peers) {
        peer = Peer(connect_to_port(number_of(port.fd_listen)));
        EXPECT_TRUE(peer.send("a"));
    }
    length = 1;
}

void close_server(int) {
    for (Peer &peer : peers)
        peer.reset();
    sup_uart_close(&port);
}

int open_client_port() {
    sup_uart_Prepare(&port, nullptr);
    return sup_uart_Opened(&port, pos_open_tcp_client(&port, client_name.c_str(), 0));
}

void listen_for_client() {
    listener = new Listener;
    client_name = listener->client_name();
}

// With a client port whose connection is lost.
void lose_client() {
    listen_for_client();
    EXPECT_EQ(open_client_port(), 0);
    listener->accept().reset();
    while (port.fd != -1)
        sup_uart_Send(&port, buffer, 1);
}

void close_client(int) {
    pos_close_tcp_client(&port);
    delete listener;
}

// A lost peer and dropped data are no failures; what the system refuses is traced.
Outcome hidden(kiv_sim_call call, unsigned, int) {
    const bool traced =
        call == KIV_SIM_SELECT || call == KIV_SIM_ACCEPT || call == KIV_SIM_SOCKET || call == KIV_SIM_DUP2;
    return {0, traced ? 1U : 0U, 0};
}

const SweptOperation tcp_rows[] = {
    {"open server", tcp, [] {}, [] { return sup_uart_Init(&port, "tcp:", 0, 0); },
     [](int status) { status == 0 ? close_port(0) : void(); }, opening},
    {"server Read", tcp, open_server, [] { return sup_uart_Read(&port, buffer, &length); }, close_server,
     hidden},
    {"server Send", tcp, open_server, [] { return sup_uart_Send(&port, buffer, 8); }, close_server, hidden},
    {"server close", tcp, open_server, [] { return sup_uart_close(&port); }, [](int) { close_server(0); },
     hidden},
    {"open client", tcp, listen_for_client, open_client_port, close_client,
     [](kiv_sim_call call, unsigned, int error) {
         return Outcome{error, call == KIV_SIM_SOCKET ? 1U : 0U, 0};
     }},
    {"lost client Send", tcp, lose_client, [] { return sup_uart_Send(&port, buffer, 8); }, close_client,
     hidden},
};

INSTANTIATE_TEST_SUITE_P(Tcp, FaultSweep, ::testing::ValuesIn(tcp_rows), row_name);

} // namespace
} // namespace kiv::test
