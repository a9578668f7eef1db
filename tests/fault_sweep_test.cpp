// Whatever goes wrong in a call of the library's: the rows of ports and of the platform, an area at a time.

#include <csignal>
#include <map>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "fixtures/fault_sweep.h"
#include "fixtures/serial.h"
#include "fixtures/tcp_peer.h"
#include "fixtures/unix_service.h"
#include "kiv/transports.h"

namespace kiv::test {

namespace {

constexpr char said[] = "abc"; // by whoever is at the far end

// What an operation gives, of which the bytes have to be right.
int read_well(int status) {
    return status == 0 && std::memcmp(swept_bytes, said, swept_length) != 0 ? -1 : status;
}
int read_said() {
    return read_well(read_swept(3));
}

// Statuses --------------------------------------------------------------------------------------------------

using StatusOf = Outcome (*)(const Point &at);

// The closing of a number that is not to be kept goes unnoticed.
const StatusOf opened = [](const Point &at) { return Outcome{at.is(KIV_SIM_CLOSE) ? 0 : at.error}; };
const StatusOf returned = [](const Point &at) { return Outcome{at.error}; };
// A transfer goes on after a signal and after a part; nothing is the end of the stream.
const StatusOf continued = [](const Point &at) {
    return Outcome{at.is(Fault::moves_nothing) ? EIO
                   : at.error == EINTR         ? 0
                                               : at.error,
                   {},
                   at.error == EINTR};
};

// The texts of the traces, by kind and turn of the call that fails; no text, no trace.
using Texts = std::map<kiv_sim_call, std::vector<const char *>>;

Ending tracing(const char *module, const char *function, const Texts &texts, StatusOf status_of) {
    return [=](const Point &at) {
        Outcome outcome = status_of(at);
        const auto of_call = texts.find(at.call);
        if (at.is(Fault::fails) && of_call != texts.end()) {
            const char *text = of_call->second[std::min<std::size_t>(at.nth, of_call->second.size()) - 1];
            const std::string line = trace(module, function, text, at.error);
            outcome.reported = outcome.again ? each_time(at, line) : Reports{line};
        }
        return outcome;
    };
}

// The functions of a serial port: the first one traces; all of them warn of a failure, inner ones first.
Ending warning(const std::vector<const char *> &functions, const Texts &texts, StatusOf status_of) {
    return [=](const Point &at) {
        Outcome outcome = tracing(uart, functions.front(), texts, status_of)(at);
        for (const char *function : functions)
            if (outcome.status != 0)
                outcome.reported.push_back(warned(uart, function));
        return outcome;
    };
}

// The same for a function that gives another number instead.
Ending giving(int failure, const Ending &ends) {
    return [=](const Point &at) {
        Outcome outcome = ends(at);
        outcome.status = outcome.status != 0 ? failure : 0;
        return outcome;
    };
}

// Serial ports over ttys ------------------------------------------------------------------------------------

// With three bytes to read.
void open_tty() {
    EXPECT_EQ(open_swept(tty_path), 0);
    kiv_sim_line_send(0, said, 3);
}

iovec pieces[] = {{swept_bytes, 3}, {swept_bytes + 3, 5}};

// All of it has left the port, and once.
int sent_well(int status) {
    char sent[64];
    const std::size_t count = kiv_sim_line_receive(0, sent, sizeof sent);
    const bool well = count == 8 && std::memcmp(sent, swept_bytes, 8) == 0;
    return status == 0 && !well ? -1 : status;
}

const Texts write_texts = {{KIV_SIM_WRITE, {text_of_write}}};

Texts read_texts(const std::vector<const char *> &texts) {
    return {{KIV_SIM_POLL, texts}, {KIV_SIM_READ, texts}, {KIV_SIM_SELECT, {text_of_wait}}};
}
Texts request_texts(const std::vector<const char *> &texts) {
    return {{KIV_SIM_OPEN, {text_of_open}},
            {KIV_SIM_CALLOC, {text_of_open}},
            {KIV_SIM_PIPE, {text_of_open}},
            {KIV_SIM_IOCTL, texts}};
}

const Ending opening = tracing(uart, "sup_uart_Init2", request_texts({text_of_get, text_of_set}), returned);

Ending changing(const char *function) {
    return warning({function}, request_texts({text_of_drain, text_of_get, text_of_set}), returned);
}

// A signal ends the wait for more like a time-out.
Outcome timed_reading(const Point &at) {
    const char *const function = "sup_uart_Read_partial_timeout";
    if (at.is(KIV_SIM_SELECT) && at.error == EINTR)
        return {0, {trace(uart, function, text_of_wait, EINTR)}};
    return warning({function}, read_texts({text_of_first, text_of_read}), continued)(at);
}

Outcome failed_management(const Point &at) {
    const char *const function = "sup_uart_RTS_Manage";
    const char *const text =
        at.nth == 1 ? "ret = ioctl(fd, 0x5415, &flags)" : "ret = ioctl(fd, 0x5418, &flags)";
    return {0, {trace(uart, function, text, at.error), warned(uart, function)}};
}

// What becomes of the cancellation goes unnoticed.
const Ending stopping = warning({"sup_uart_Change_Speed", "sup_uart_Stop_UART"},
                                request_texts({text_of_drain, text_of_get, text_of_set}),
                                [](const Point &at) { return Outcome{at.is(KIV_SIM_IOCTL) ? at.error : 0}; });

// Only the device's closing counts, the last of three.
Outcome closed(const Point &at) {
    return {at.nth == 3 || at.lasting ? -1 : 0};
}

kiv_linux_sfd_t *sfd;

int open_sfd() {
    sfd = kiv_linux_sopen(tty_path, O_RDWR | O_NOCTTY);
    return sfd != nullptr ? 0 : errno;
}
void open_said_sfd() {
    EXPECT_EQ(open_sfd(), 0);
    kiv_sim_line_send(0, said, 3);
}
void open_cancelled_sfd() {
    EXPECT_EQ(open_sfd(), 0);
    EXPECT_EQ(kiv_linux_sclose_cancel(sfd), 1);
}
void close_sfd() {
    if (sfd != nullptr)
        kiv_linux_sclose(sfd);
    sfd = nullptr;
}
// 0 when a call has moved something; what it has not, is told by its own errno.
int moved(ssize_t count) {
    return count > 0 ? 0 : count == 0 ? -1 : errno;
}
Outcome moving(const Point &at) {
    return {at.is(Fault::moves_nothing) ? -1 : at.error};
}

const Scene fresh = {nothing, close_swept};
const Scene tty = {open_tty, close_swept};
const Scene closing_tty = {open_tty, nothing};
const Scene fresh_sfd = {nothing, close_sfd};
const Scene descriptor = {open_said_sfd, close_sfd};
const Scene cancelled_sfd = {open_cancelled_sfd, close_sfd};
const Scene closing_sfd = {open_said_sfd, [] { sfd = nullptr; }};

const SweptOperation serial_rows[] = {
    {"sup_uart_Init", "", fresh, opening, [] { return open_swept(tty_path, 1); }},
    {"sup_uart_Init2", "", fresh, opening,
     [] { return sup_uart_Init2(&swept_port, tty_path, 9, 1, nullptr); }},
    {"sup_uart_Read", "", tty, warning({"sup_uart_Read"}, read_texts({text_of_read}), continued), read_said},
    {"sup_uart_Read_partial", "", tty,
     warning({"sup_uart_Read_partial"}, read_texts({text_of_partial}), continued),
     [] { return read_well(sup_uart_Read_partial(&swept_port, swept_bytes, &(swept_length = 3))); }},
    {"sup_uart_Read_partial_timeout", "", tty, timed_reading,
     [] {
         return read_well(sup_uart_Read_partial_timeout(&swept_port, swept_bytes, &(swept_length = 8), 0));
     }},
    {"sup_uart_Send", "", tty, warning({"sup_uart_Send"}, write_texts, continued),
     [] { return sent_well(send_swept()); }},
    {"sup_uart_Sendv", "", tty, warning({"sup_uart_Send", "sup_uart_Sendv"}, write_texts, continued),
     [] { return sent_well(sup_uart_Sendv(&swept_port, pieces, 2, &swept_length)); }},
    {"sup_uart_Change_Speed", "", tty, changing("sup_uart_Change_Speed"),
     [] { return sup_uart_Change_Speed(&swept_port, 4); }},
    {"sup_uart_Change_Parity", "", tty, changing("sup_uart_Change_Parity"),
     [] { return sup_uart_Change_Parity(&swept_port, 1); }},
    {"sup_uart_Change_StopBitsNumber", "", tty, changing("sup_uart_Change_StopBitsNumber"),
     [] { return sup_uart_Change_StopBitsNumber(&swept_port, 2); }},
    {"sup_uart_RTS_Enable", "", tty,
     warning({"sup_uart_RTS_Enable"}, request_texts({text_of_get, text_of_set}), returned),
     [] { return sup_uart_RTS_Enable(&swept_port, 1); }},
    {"sup_uart_Flush", "", tty,
     giving(-1, warning({"sup_uart_Flush"},
                        request_texts({"ret = kiv_tcflush(UART_infos->fd, queue_selector)"}), returned)),
     [] { return sup_uart_Flush(&swept_port, FLUSH_ALL); }},
    {"sup_uart_RTS_Manage", "", tty, failed_management,
     [] { return sup_uart_RTS_Manage(&swept_port, 1), 0; }},
    {"sup_uart_Stop_UART", "", tty, stopping, [] { return sup_uart_Stop_UART(&swept_port); }},
    {"sup_uart_close", "", closing_tty, giving(-1, warning({"sup_uart_close"}, {}, closed)),
     close_swept_port},
    {"sup_uart_Set_Break", "", tty, nullptr, [] { return sup_uart_Set_Break(&swept_port) - ENOSYS; }},
    {"sup_uart_Reset_Break", "", tty, nullptr, [] { return sup_uart_Reset_Break(&swept_port) - ENOSYS; }},
    {"sup_uart_Register_Status_Callback", "", tty, nullptr,
     [] { return sup_uart_Register_Status_Callback(&swept_port, nullptr) - ENOSYS; }},
    {"kiv_linux_sopen", "", fresh_sfd, returned, open_sfd},
    {"kiv_linux_sopen", "without_input", without_input(fresh_sfd), opened, open_sfd},
    {"kiv_linux_sfdno", "", descriptor, nullptr, [] { return kiv_linux_sfdno(sfd) > 2 ? 0 : -1; }},
    {"kiv_linux_sread", "", descriptor, moving, [] { return moved(kiv_linux_sread(sfd, swept_bytes, 3)); }},
    {"kiv_linux_sread", "cancelled", cancelled_sfd,
     [](const Point &at) { return Outcome{at.is(KIV_SIM_POLL) ? at.error : 0}; },
     [] { return kiv_linux_sread(sfd, swept_bytes, 3) == 0 ? 0 : errno; }},
    {"kiv_linux_sclose_cancel", "", descriptor, moving, [] { return moved(kiv_linux_sclose_cancel(sfd)); }},
    {"kiv_linux_sclose", "", closing_sfd, closed, [] { return kiv_linux_sclose(sfd); }},
    {"kiv_usb_open", "", fresh, opening, [] { return kiv_usb_open(&swept_port, tty_path); }},
    {"kiv_usb_close", "", tty, stopping, [] { return kiv_usb_close(&swept_port); }},
    {"kiv_usb_write", "", tty, giving(0, warning({"sup_uart_Send"}, write_texts, continued)),
     [] { return static_cast<int>(kiv_usb_write(&swept_port, swept_bytes, 8)) - 8; }},
    {"kiv_usb_read", "", tty, giving(-3, warning({"sup_uart_Read"}, read_texts({text_of_read}), continued)),
     [] { return static_cast<int>(kiv_usb_read(&swept_port, swept_bytes, 3)) - 3; }},
};

INSTANTIATE_TEST_SUITE_P(Serial, FaultSweep, ::testing::ValuesIn(serial_rows), row_name);

// Streams ---------------------------------------------------------------------------------------------------

// A service in a process of its own, whose calls nobody counts and no fault meets. It says the same to
// whoever comes, and keeps the last connections.
class Speaker {
    const pid_t child_;

    template <class Service>
    [[noreturn]] static void speak(const Service &service) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        Peer guests[64];
        for (std::size_t i = 0;; i = (i + 1) % std::size(guests)) {
            guests[i] = service.accept();
            guests[i].send(said);
        }
    }

  public:
    template <class Service>
    explicit Speaker(const Service &service) : child_(::fork()) {
        if (child_ == 0)
            speak(service);
    }
    Speaker(const Speaker &) = delete;
    Speaker &operator=(const Speaker &) = delete;
    ~Speaker() {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
};

void skip_pauses() {
    kiv_sim_answer(KIV_SIM_USLEEP, 1, KIV_SIM_ALWAYS, 0);
    kiv_sim_answer(KIV_SIM_NANOSLEEP, 1, KIV_SIM_ALWAYS, 0);
}

// The connection is lost, and its number kept for the next one.
void lose_connection() {
    kiv_sim_fail(KIV_SIM_SEND, 1, 1, EPIPE);
    EXPECT_EQ(sup_uart_Send(&swept_port, swept_bytes, 1), 0);
    EXPECT_EQ(swept_port.fd, -1);
    skip_pauses();
}

// The kept number is given up for a connection when there is no descriptor to spare.
bool is_exhausted(const Point &at) {
    return at.error == EMFILE || at.error == ENFILE;
}

// A reader goes on until it has something: only what has nothing to do with that is not made again.
Outcome reading_on(const Point &at) {
    const bool needed = !at.is(KIV_SIM_CLOSE) && !at.is(KIV_SIM_DUP2) && !at.is(KIV_SIM_SHUTDOWN);
    return {0, {}, needed && !at.is(Fault::moves_less)};
}

// TCP -------------------------------------------------------------------------------------------------------

Peer peers[storm + 2];

// With clients waiting that have spoken already. What goes wrong may cost all of them but one.
void open_server() {
    EXPECT_EQ(open_swept("tcp:"), 0);
    EXPECT_EQ(::listen(swept_port.fd_listen, static_cast<int>(std::size(peers))), 0);
    for (Peer &peer : peers) {
        peer = Peer(connect_to_port(number_of(swept_port.fd_listen)));
        EXPECT_TRUE(peer.send(said));
    }
    skip_pauses();
}
void lose_client() {
    open_server();
    EXPECT_EQ(read_said(), 0);
    lose_connection();
}
void close_server() {
    for (Peer &peer : peers)
        peer.reset();
    close_swept();
}

int open_tcp() {
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_open_tcp(&swept_port, "tcp:", 0));
}

const Texts accept_texts = {
    {KIV_SIM_SELECT,
     {"ret = select(UART_infos->fd_listen+1, &readfds, ((void *)0), ((void *)0), "
      "block?((void *)0):&timeout)"}},
    {KIV_SIM_ACCEPT, {text_of_accept}},
};
const Texts socket_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"}},
    {KIV_SIM_DUP, {"UART_infos->fd_listen = socket(2, SOCK_STREAM, 0)"}},
    {KIV_SIM_SETSOCKOPT, {"ret = setsockopt(UART_infos->fd_listen, 1, 2, &opt, sizeof(opt))"}},
    {KIV_SIM_BIND, {"ret = bind(UART_infos->fd_listen, (struct sockaddr *)&addr, sizeof(addr))"}},
    {KIV_SIM_LISTEN, {"ret = listen(UART_infos->fd_listen, 1)"}},
};

// A lost peer and dropped data are no failures; what the system refuses is traced.
Ending server(StatusOf status_of) {
    return tracing(tcp, "pos_tcp_accept", accept_texts, status_of);
}
Ending client(StatusOf status_of) {
    return tracing(tcp, "pos_connect_tcp_client", socket_texts, status_of);
}
// The same after a loss: without a descriptor to spare, the first attempt is made again at once and untraced.
Ending after_loss(Ending ends) {
    return [ends = std::move(ends)](const Point &at) {
        Outcome outcome = ends(at);
        if (is_exhausted(at) && !outcome.reported.empty())
            outcome.reported.resize(at.lasting ? std::max<std::size_t>(outcome.reported.size() - 1, 1) : 0);
        return outcome;
    };
}

std::unique_ptr<Speaker> tcp_speaker;
std::string client_name;

void find_speaker() {
    if (tcp_speaker == nullptr) {
        const Listener listener;
        client_name = listener.client_name();
        tcp_speaker = std::make_unique<Speaker>(listener);
    }
    skip_pauses();
}
int open_client(unsigned int options = 0) {
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_open_tcp_client(&swept_port, client_name.c_str(), options));
}
void open_connected_client() {
    find_speaker();
    EXPECT_EQ(open_client(), 0);
}
void lose_service() {
    open_connected_client();
    lose_connection();
}
int close_client() {
    return pos_close_tcp_client(&swept_port);
}

// Until it is connected.
Outcome waiting_client(const Point &at) {
    if (at.is(KIV_SIM_CONNECT))
        return {0, {}, true};
    return tracing(tcp, "pos_open_tcp_client", socket_texts, returned)(at);
}

const Scene waiting_clients = {open_server, close_server};
const Scene lost_client = {lose_client, close_server};
const Scene speaking_service = {find_speaker, close_client};
const Scene closing_client = {open_connected_client, nothing};
const Scene lost_service = {lose_service, close_client};

const SweptOperation tcp_rows[] = {
    {"pos_open_tcp", "", fresh, tracing(tcp, "pos_open_tcp", socket_texts, returned), open_tcp},
    {"pos_open_tcp", "without_input", without_input(fresh),
     tracing(tcp, "pos_open_tcp", socket_texts, opened), open_tcp},
    {"sup_uart_Read", "server", waiting_clients, server(reading_on), read_said},
    {"sup_uart_Read", "server_again", lost_client, after_loss(server(reading_on)), read_said},
    {"sup_uart_Send", "server", waiting_clients, server(unnoticed), send_swept},
    {"sup_uart_Send", "server_again", lost_client, after_loss(server(unnoticed)), send_swept},
    {"sup_uart_close", "server", lost_client, unnoticed, close_swept_port},
    {"pos_open_tcp_client", "", speaking_service, tracing(tcp, "pos_open_tcp_client", socket_texts, returned),
     [] { return open_client(); }},
    {"pos_open_tcp_client", "waiting", speaking_service, waiting_client,
     [] { return open_client(UART_OPTION_WAIT_PEER); }},
    {"sup_uart_Read", "client_again", lost_service, after_loss(client(reading_on)), read_said},
    {"sup_uart_Send", "client_again", lost_service, after_loss(client(unnoticed)), send_swept},
    {"pos_close_tcp_client", "", closing_client, unnoticed, close_client},
};

INSTANTIATE_TEST_SUITE_P(Tcp, FaultSweep, ::testing::ValuesIn(tcp_rows), row_name);

// Unix sockets ----------------------------------------------------------------------------------------------

constexpr const char *btgpsdemux = "posix/linux_uart_btgpsdemux";
std::unique_ptr<Speaker> unix_speaker;

std::string service_name, unix_name;

void find_unix_speaker() {
    if (unix_speaker == nullptr) {
        service_name = own_name("swept");
        unix_name = "unix:" + service_name;
        UnixService service(service_name);
        service.start();
        unix_speaker = std::make_unique<Speaker>(service);
    }
    skip_pauses();
}
int open_unix() {
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_open_unix(&swept_port, unix_name.c_str(), 0));
}
int open_demultiplexer() {
    ::signal(SIGPIPE, SIG_IGN);
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_btgpsdemux_open(&swept_port, service_name.c_str()));
}
void lose_unix() {
    find_unix_speaker();
    EXPECT_EQ(open_unix(), 0);
    lose_connection();
}
// Which the next call notices.
void lose_demultiplexer() {
    find_unix_speaker();
    EXPECT_EQ(open_demultiplexer(), 0);
    EXPECT_EQ(read_said(), 0);
    ::shutdown(swept_port.fd, SHUT_RDWR);
}

const Texts unix_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd= socket(1, SOCK_STREAM, 0)"}},
    {KIV_SIM_SETSOCKOPT, {"ret = setsockopt(UART_infos->fd, 1, 2, &opt, sizeof(opt))"}}};
const char *const text_of_socket = "fd = socket(1, SOCK_STREAM, 0)";
const Texts demultiplexer_texts = {
    {KIV_SIM_SOCKET, {"UART_infos->fd = socket(1, SOCK_STREAM, 0)", text_of_socket}}};

// Nobody may be listening yet.
const StatusOf connecting = [](const Point &at) {
    return Outcome{at.is(KIV_SIM_CONNECT) || at.is(KIV_SIM_CLOSE) ? 0 : at.error};
};

// The one failure that reaches the caller is that of a socket.
Ending reconnecting(const char *function, const char *text) {
    return [=](const Point &at) {
        if (!at.is(KIV_SIM_SOCKET))
            return reading_on(at);
        if (is_exhausted(at) && !at.lasting)
            return Outcome{0};
        return Outcome{at.error,
                       {trace(btgpsdemux, "btgpsdemux_reconnect", text_of_socket, at.error),
                        trace(uart, function, text, at.error), warned(uart, function)}};
    };
}

const Scene unix_service = {find_unix_speaker, close_swept};
const Scene lost_unix = {lose_unix, close_swept};
const Scene lost_demultiplexer = {lose_demultiplexer, close_swept};

const SweptOperation unix_rows[] = {
    {"pos_open_unix", "", unix_service,
     tracing("posix/linux_uart_unix", "pos_open_unix", unix_texts, connecting), open_unix},
    {"sup_uart_Read", "again", lost_unix,
     [](const Point &at) { return is_exhausted(at) && !at.lasting ? Outcome{0} : reading_on(at); },
     read_said},
    {"sup_uart_Send", "again", lost_unix, unnoticed, send_swept},
    {"sup_uart_close", "", lost_unix, unnoticed, close_swept_port},
    {"pos_btgpsdemux_open", "", unix_service,
     tracing(btgpsdemux, "pos_btgpsdemux_open", demultiplexer_texts, connecting), open_demultiplexer},
    {"sup_uart_Read", "demultiplexer", lost_demultiplexer, reconnecting("sup_uart_Read", text_of_read),
     read_said},
    {"sup_uart_Send", "demultiplexer", lost_demultiplexer, reconnecting("sup_uart_Send", text_of_write),
     send_swept},
    {"sup_uart_close", "demultiplexer", lost_demultiplexer, unnoticed, close_swept_port},
};

INSTANTIATE_TEST_SUITE_P(Unix, FaultSweep, ::testing::ValuesIn(unix_rows), row_name);

// The platform ----------------------------------------------------------------------------------------------

constexpr int no_attribute = -1;
constexpr const char *fat_file = "/dev/null"; // any file that there is

void make_processor() {
    const std::string text = "Hardware\t: Board\nRevision\t: 000e\n";
    EXPECT_EQ(kiv_sim_cpuinfo_set(text.data(), text.size()), 0);
}
void make_hidden_file() {
    EXPECT_EQ(kiv_sim_fat_set(fat_file, KIV_FAT_HIDDEN), 0);
}
int ask_attribute() {
    std::uint32_t attributes = ~0U;
    const int status = kiv_fs_get_fat_attribute(fat_file, &attributes);
    return status == 0 && attributes == 0 ? no_attribute : status;
}

// A stream that has no buffer reads byte by byte.
Ending identifying(int sign, int failure) {
    return [=](const Point &at) {
        const bool opens = at.is(KIV_SIM_FOPEN) || at.nth == 1;
        return Outcome{opens ? sign * at.error + failure : 0};
    };
}

// Where the request fails there is no attribute.
Outcome asked(const Point &at) {
    return {at.is(KIV_SIM_OPEN) ? at.error : at.is(KIV_SIM_IOCTL) ? no_attribute : 0};
}

const Scene processor = {make_processor, nothing};
const Scene hidden_file = {make_hidden_file, nothing};

const SweptOperation platform_rows[] = {
    {"get_product_name", "", processor, identifying(-1, 0), [] { return get_product_name(swept_bytes, 64); }},
    {"get_product_revision", "", processor, identifying(0, -14),
     [] { return static_cast<int>(get_product_revision()) - 14; }},
    {"kiv_fs_get_fat_attribute", "", hidden_file, asked, ask_attribute},
};

INSTANTIATE_TEST_SUITE_P(Platform, FaultSweep, ::testing::ValuesIn(platform_rows), row_name);

} // namespace
} // namespace kiv::test
