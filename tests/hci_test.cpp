// The HCI transport on the simulated board: opening, the byte stream in both directions, signals, errors.

#include <cerrno>
#include <sys/socket.h>

#include "fixtures/fault_sweep.h"
#include "fixtures/hci.h"
#include "kiv/platform.h"
#include "kiv/transports.h"

namespace kiv::test {
namespace {

constexpr char module[] = "linux/linux_uart_bt";
constexpr char uart[] = "posix/linux_uart";

class Hci : public LoggedBoardTest {
  protected:
    UART_infos port = {};

    int open(const char *name = "hci0", const UART_status_cb *callbacks = nullptr) {
        return sup_uart_Init2(&port, name, 0, 0, callbacks);
    }
    void close() { EXPECT_EQ(sup_uart_close(&port), 0); }
    void TearDown() override {
        if (port.magic == UART_MAGIC)
            close();
        LoggedBoardTest::TearDown();
    }

    int send(const Bytes &bytes) {
        return sup_uart_Send(&port, bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    // What a read with this status gives.
    template <class Call>
    Bytes read_by(Call call, std::size_t most, int status = 0) {
        Bytes bytes(most);
        auto count = static_cast<unsigned>(most);
        EXPECT_EQ(call(&port, bytes.data(), &count), status);
        EXPECT_LE(count, most);
        bytes.resize(count);
        return bytes;
    }
    Bytes read(std::size_t length, int status = 0) { return read_by(sup_uart_Read, length, status); }
    Bytes read_partial(std::size_t most) { return read_by(sup_uart_Read_partial, most); }
};

class OpenHci : public Hci {
  protected:
    void SetUp() override {
        Hci::SetUp();
        ASSERT_EQ(open(), 0);
    }
};

std::string request_text(int number, const std::string &argument) {
    return "ret = ioctl(UART_infos->fd, (((1U) << (((0+8)+8)+14)) | ((('H')) << (0+8)) | (((" +
           std::to_string(number) + ")) << 0) | ((((sizeof(int)))) << ((0+8)+8))), " + argument + ")";
}

std::string opening_trace(const std::string &text, int error) {
    return trace(module, "pos_open_bt_generic", text, error);
}

std::string device_trace(const std::string &text, int error) {
    return trace(module, "bluez_open_dev", text, error);
}

const std::string no_device = "UART_infos->fd = bluez_open_dev(dev_id)";
const std::string raw_assertion =
    asserted(module, "pos_open_bt_generic", "\"no CAP_NET_ADMIN right ???\\n\" && ret == 0");

Reports failed_read(int error) {
    Reports expected = {asserted(module, "pos_read_bt", "bt_cache.tail > 0")};
    if (error != 0)
        expected.push_back(trace(uart, "sup_uart_Read",
                                 "ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)",
                                 error));
    expected.push_back(warned(uart, "sup_uart_Read"));
    return expected;
}

Reports failed_write(int error) {
    const std::string text = "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)";
    return {trace(uart, "sup_uart_Send", text, error), warned(uart, "sup_uart_Send")};
}

Reports failed_sendv(int error) {
    const std::string text = "ret = UART_infos->writev(UART_infos, iov, iovcnt)";
    Reports traced = {trace(uart, "sup_uart_Sendv", text, error)};
    if (error == EINTR) // made again
        return traced;
    return {traced[0], asserted(uart, "sup_uart_Sendv", "ret == len"), warned(uart, "sup_uart_Sendv")};
}

TEST_F(Hci, OpensDownRawUp) {
    unsigned requests_when_connected = 0;
    const auto connected = [](UART_infos *, void *seen) {
        *static_cast<unsigned *>(seen) += state_of().requests;
    };
    const UART_status_cb callbacks = {connected, nullptr, &requests_when_connected};
    ASSERT_EQ(open("hci0", &callbacks), 0);
    const kiv_sim_hci_state state = state_of();
    EXPECT_EQ(requests_when_connected, 3u) << "connected comes last, and once";
    ASSERT_EQ(state.requests, 3u);
    EXPECT_TRUE(state.request[0] == hci_down && state.request[1] == hci_raw && state.request[2] == hci_up);
    EXPECT_TRUE(state.up && state.raw && state.sockets == 1);

    uint8_t filter[16];
    socklen_t length = sizeof filter;
    ASSERT_EQ(::getsockopt(port.fd, 0, 2, filter, &length), 0);
    EXPECT_EQ(Bytes(filter, filter + length), Bytes(12, 0xff) + Bytes(4, 0));

    EXPECT_EQ(port.flags & 3u, 1u);
    EXPECT_EQ(sup_uart_Change_Speed(&port, UART_SPEED_9600), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), 3u);
    close();
    EXPECT_TRUE(state_of().up && state_of().raw && state_of().sockets == 0);
}

TEST_F(Hci, APositiveAnswerToRawModeIsReportedOnly) {
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 2, 1, 1), 0);
    kiv_log_dyn_level_POS = 0; // it is no trace
    EXPECT_EQ(open(), 0);
    kiv_log_dyn_level_POS = 3;
    EXPECT_EQ(reports(), Reports({raw_assertion}));
}

TEST_F(Hci, AFreshOpeningStartsEmpty) {
    ASSERT_EQ(open(), 0);
    controller_sends(event(20));
    EXPECT_EQ(read(5).size(), 5u);
    EXPECT_EQ(send({2, 1, 2}), 0);
    close();
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(send(hci_reset), 0);
    EXPECT_EQ(packets_of_host(), std::vector<Bytes>{hci_reset});
    EXPECT_EQ(read_partial(100), reset_complete);
}

TEST_F(Hci, TheNumberChoosesTheController) {
    configure([](auto &config) { config.present = 1; }, 3);
    const struct {
        const char *name;
        unsigned controller;
    } rows[] = {{"hci", 0},    {"hcifoo", 0}, {"hci1", 1},    {"hci03", 3},
                {"hci0x3", 0}, {"hci 1x", 1}, {"hci65537", 1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(open(row.name), 0);
        EXPECT_EQ(state_of(row.controller).sockets, 1u);
        close();
    }
}

TEST_F(Hci, RefusesWhatIsNoName) {
    EXPECT_EQ(pos_open_bt(&port, "hc", 0), EINVAL);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
}

TEST_F(Hci, ASocketThatDoesNotEvenCloseIsReported) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_BIND, 1, 1, ENODEV), 0);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO), 0);
    EXPECT_EQ(open(), EIO);
    EXPECT_TRUE(port.magic == 0 && port.fd == -1);
    EXPECT_EQ(reports(),
              Reports({device_trace("ret = bind(fd, (struct sockaddr *) &addr, sizeof(addr))", ENODEV),
                       device_trace("close(fd)", EIO), opening_trace(no_device, EIO)}));
}

// Writing -----------------------------------------------------------------------------------------------

const Bytes packets[] = {hci_reset, command(1), command(255), acl(0),  acl(3),
                         acl(1024), sco(0),     sco(2),       sco(255)};

TEST_F(OpenHci, PacketsCutAnywhereGoOutOnceAndWhole) {
    EXPECT_EQ(port.write(&port, "", 0), 0); // nothing is no packet
    Bytes stream;
    for (const Bytes &packet : packets) {
        stream = stream + packet;
        for (std::size_t cut = 1; cut < packet.size(); ++cut) {
            ASSERT_EQ(send(part(packet, 0, cut)), 0);
            ASSERT_EQ(packets_of_host(), std::vector<Bytes>()) << cut;
            ASSERT_EQ(send(part(packet, cut)), 0);
            ASSERT_EQ(packets_of_host(), std::vector<Bytes>{packet}) << cut;
        }
    }
    for (const std::size_t piece : {std::size_t{1}, std::size_t{17}, stream.size()}) {
        for (std::size_t at = 0; at < stream.size(); at += piece)
            ASSERT_EQ(send(part(stream, at, piece)), 0);
        EXPECT_EQ(packets_of_host(), std::vector<Bytes>(std::begin(packets), std::end(packets))) << piece;
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITE), state_of().packets) << "one write a packet";
}

TEST_F(OpenHci, JunkIsDroppedAndLogged) {
    // Of a packet that is too long the header only: what follows is read as the start of the next one.
    for (const Bytes &junk : {Bytes{4, 0}, {255}, {2, 0x2a, 0x20, 0x01, 0x04}, {2, 0, 0, 0xff, 0xff}}) {
        EXPECT_EQ(send(junk + hci_reset), 0);
        EXPECT_EQ(packets_of_host(), std::vector<Bytes>{hci_reset});
    }
    EXPECT_EQ(reports(), Reports({logged(1, "Invalid BT packet 4\n"), logged(1, "Invalid BT packet 0\n"),
                                  logged(1, "Invalid BT packet 255\n"),
                                  logged(1, "Invalid BT packet : too big : 1030\n"),
                                  logged(1, "Invalid BT packet : too big : 65540\n")}));
}

TEST_F(OpenHci, ARefusedPacketIsDroppedAndTheNextOneIsFine) {
    // The refusal comes with the last byte of the payload, or of a header that has no payload.
    for (const Bytes &packet : {acl(7), acl(0), hci_reset}) {
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITE, 1, 1, ENETDOWN), 0);
        EXPECT_EQ(send(packet + sco(3)), ENETDOWN);
        EXPECT_EQ(reports(), failed_write(ENETDOWN));
        EXPECT_EQ(send(command(2)), 0);
        EXPECT_EQ(packets_of_host(), std::vector<Bytes>{command(2)});
    }
}

TEST_F(OpenHci, GatheredPiecesAreOnePacketPastTheAssembler) {
    ASSERT_EQ(send({1, 0x45}), 0);
    Bytes packet = {2, 0x2a, 0x20, 3, 0, 7, 8, 9};
    const iovec pieces[] = {{&packet[0], 1}, {&packet[1], 4}, {nullptr, 0}, {&packet[5], 3}};
    unsigned sent = 0;
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 4, &sent), 0);
    EXPECT_EQ(sent, 8u);
    EXPECT_EQ(packets_of_host(), std::vector<Bytes>{packet});

    packet[0] = 4;
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 4, &sent), EINVAL);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(reports(), failed_sendv(EINVAL));
    EXPECT_EQ(send({0xfc, 0}), 0);
    EXPECT_EQ(packets_of_host(), (std::vector<Bytes>{{1, 0x45, 0xfc, 0}}));
}

// Reading -----------------------------------------------------------------------------------------------

TEST_F(OpenHci, PacketsAreOneStreamWhateverIsAskedFor) {
    const Bytes from_controller[] = {event(0), acl(1024), sco(5), event(255), {4}};
    Bytes stream;
    for (const Bytes &packet : from_controller)
        stream = stream + packet;
    for (const std::size_t piece : {1u, 2u, 3u, 255u, 1028u, 1029u, 4000u}) {
        SCOPED_TRACE(piece);
        for (const Bytes &packet : from_controller)
            controller_sends(packet);
        const unsigned before = kiv_sim_calls(KIV_SIM_READ);
        Bytes got;
        while (got.size() < stream.size())
            got = got + read_partial(piece);
        EXPECT_EQ(got, stream);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_READ) - before, 5u) << "one read a packet";
    }
    // Room for more does not matter while a packet is not used up.
    controller_sends(event(4));
    controller_sends(event(0));
    EXPECT_EQ(read_partial(1), part(event(4), 0, 1));
    EXPECT_EQ(read_partial(4000), part(event(4), 1));
    EXPECT_EQ(read_partial(4000), event(0));
    // A complete read goes on over the ends of packets.
    controller_sends(acl(700));
    controller_sends(acl(100));
    EXPECT_EQ(read(3), part(acl(700), 0, 3));
    EXPECT_EQ(read(700 + 107), part(acl(700), 3) + acl(100));
    // Nor does it matter when the socket gives a packet in parts.
    configure([](auto &config) { config.fragment = 4; });
    controller_sends(event(30));
    EXPECT_EQ(read(33), event(30));
}

TEST_F(OpenHci, ATimedReadDoesNotSeeTheCache) {
    const auto at_once = [](UART_infos *of, void *to, unsigned *length) {
        return sup_uart_Read_partial_timeout(of, to, length, 0);
    };
    controller_sends(event(10));
    EXPECT_EQ(read_by(at_once, 13), part(event(10), 0, 1));
    EXPECT_EQ(read_partial(100), part(event(10), 1));

    // The next packet on the socket ends the wait, and the cache comes first.
    controller_sends(event(4));
    controller_sends(event(0));
    EXPECT_EQ(read_by(at_once, 13), event(4) + event(0));
}

TEST_F(OpenHci, AfterAFailedReadTheNextOneReadsTheSocket) {
    for (const int error : {ENOMEM, 0}) {
        controller_sends(event(10));
        ASSERT_EQ(
            error != 0 ? kiv_sim_fail(KIV_SIM_READ, 2, 1, error) : kiv_sim_answer(KIV_SIM_READ, 2, 1, 0), 0);
        EXPECT_EQ(read(14, error != 0 ? error : EIO), event(10));
        EXPECT_EQ(reports(), failed_read(error));
        kiv_sim_clear_faults();
        controller_sends(sco(6));
        EXPECT_EQ(read(10), sco(6));
    }
}

// Whatever goes wrong -----------------------------------------------------------------------------------

// With packets to read: of one that is read in part, the rest is lost.
void open_with_packets() {
    EXPECT_EQ(open_swept("hci0"), 0);
    for (int i = 0; i < 4; ++i)
        controller_sends(event(1));
}
void close_and_clear() {
    close_swept();
    packets_of_host();
}

int open_controller() {
    sup_uart_Prepare(&swept_port, nullptr);
    return sup_uart_Opened(&swept_port, pos_open_bt(&swept_port, "hci0", 0));
}

Outcome failed_opening(const Point &at) {
    switch (at.call) {
    case KIV_SIM_CLOSE: // of a number that is not to be kept
        return {0};
    case KIV_SIM_SOCKET:
    case KIV_SIM_DUP:
        return {at.error,
                {device_trace("fd = socket(31, SOCK_RAW, 1)", at.error), opening_trace(no_device, at.error)}};
    case KIV_SIM_BIND:
        return {at.error,
                {device_trace("ret = bind(fd, (struct sockaddr *) &addr, sizeof(addr))", at.error),
                 opening_trace(no_device, at.error)}};
    case KIV_SIM_SETSOCKOPT:
        return {at.error,
                {opening_trace("ret = setsockopt(UART_infos->fd, 0, 2, &filter, sizeof(filter))", at.error)}};
    default: // down, raw mode, up
        if (at.nth == 2)
            return {at.error, {opening_trace(request_text(220, "1"), at.error), raw_assertion}};
        return {at.error, {opening_trace(request_text(at.nth == 1 ? 202 : 201, "dev_id"), at.error)}};
    }
}
Outcome reading(const Point &at) {
    if (at.is(Fault::moves_less))
        return {0};
    return {at.is(Fault::fails) ? at.error : EIO, failed_read(at.error)};
}
// The kernel refuses a part of a packet. One that it has not taken is over all the same.
int write_error(const Point &at) {
    return at.is(Fault::moves_less) ? EINVAL : at.error;
}
Outcome writing(const Point &at) {
    const int error = write_error(at);
    return error != 0 ? Outcome{error, failed_write(error)} : Outcome{0};
}
Outcome gathering(const Point &at) {
    const int error = write_error(at);
    const Reports failed = failed_sendv(error);
    if (error == 0)
        return {0, {failed[1]}};
    return error == EINTR ? Outcome{0, each_time(at, failed[0]), true} : Outcome{error, failed};
}

const iovec swept_piece = {const_cast<std::uint8_t *>(hci_reset.data()), 4};
const Scene fresh = {nothing, close_swept};
const Scene untraced = {[] { kiv_log_dyn_level_uart_bt = 0; }, [] { kiv_log_dyn_level_uart_bt = 3; }};
const Scene opened = {open_with_packets, close_and_clear};

const SweptOperation rows[] = {
    {"pos_open_bt", "", fresh, failed_opening, open_controller},
    {"pos_open_bt", "without_input", without_input(fresh), failed_opening, open_controller},
    {"pos_open_bt_syspath", "", untraced, nullptr,
     [] { return pos_open_bt_syspath(&swept_port, "/sys", 0) + EINVAL; }},
    {"sup_uart_Read", "", opened, repeating(reading), [] { return read_swept(4); }},
    {"sup_uart_Send", "", opened, repeating(writing),
     [] { return sup_uart_Send(&swept_port, hci_reset.data(), 4); }},
    {"sup_uart_Sendv", "", opened, gathering,
     [] { return sup_uart_Sendv(&swept_port, &swept_piece, 1, &swept_length); }},
    {"sup_uart_close", "", opened, unnoticed, close_swept_port},
};

INSTANTIATE_TEST_SUITE_P(Hci, FaultSweep, ::testing::ValuesIn(rows), row_name);

} // namespace
} // namespace kiv::test
