// The HCI transport on the simulated board: opening, the byte stream in both directions, signals, errors.

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "fixtures/hci.h"
#include "fixtures/log_capture.h"
#include "fixtures/signal.h"
#include "kiv/platform.h"
#include "kiv/transports.h"

namespace kiv::test {
namespace {

constexpr unsigned up = 0x400448c9;
constexpr unsigned down = 0x400448ca;
constexpr unsigned raw = 0x400448dc;

class Hci : public LoggedBoardTest {
  protected:
    UART_infos port = {};
    bool opened = false;

    int open(const char *name = "hci0", const UART_status_cb *callbacks = nullptr) {
        const int status = sup_uart_Init2(&port, name, 0, 0, callbacks);
        opened = status == 0;
        return status;
    }
    void close() {
        opened = false;
        EXPECT_EQ(sup_uart_close(&port), 0);
    }
    void TearDown() override {
        if (opened)
            close();
        LoggedBoardTest::TearDown();
    }

    int send(const Bytes &bytes) {
        return sup_uart_Send(&port, bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    Bytes read(std::size_t length) {
        Bytes bytes(length);
        auto count = static_cast<unsigned>(length);
        EXPECT_EQ(sup_uart_Read(&port, bytes.data(), &count), 0);
        return bytes;
    }
    Bytes read_partial(std::size_t most) {
        Bytes bytes(most);
        auto count = static_cast<unsigned>(most);
        EXPECT_EQ(sup_uart_Read_partial(&port, bytes.data(), &count), 0);
        bytes.resize(count);
        return bytes;
    }
};

std::string request_text(int number, const std::string &argument) {
    return "ret = ioctl(UART_infos->fd, (((1U) << (((0+8)+8)+14)) | ((('H')) << (0+8)) | (((" +
           std::to_string(number) + ")) << 0) | ((((sizeof(int)))) << ((0+8)+8))), " + argument + ")";
}

std::string opening_trace(const std::string &text, int error,
                          const std::string &function = "pos_open_bt_generic") {
    return trace("linux/linux_uart_bt", function, text, error);
}

const char raw_assertion[] = "\"no CAP_NET_ADMIN right ???\\n\" && ret == 0";

TEST_F(Hci, OpensDownRawUp) {
    unsigned requests_when_connected = 0;
    const UART_status_cb callbacks = {
        .connected = [](UART_infos *,
                        void *context) { *static_cast<unsigned *>(context) += state_of().requests; },
        .disconnected = nullptr,
        .context = &requests_when_connected};
    ASSERT_EQ(open("hci0", &callbacks), 0);
    const kiv_sim_hci_state state = state_of();
    EXPECT_EQ(requests_when_connected, 3u) << "connected comes last, and once";
    ASSERT_EQ(state.requests, 3u);
    EXPECT_EQ(state.request[0], down);
    EXPECT_EQ(state.request[1], raw);
    EXPECT_EQ(state.request[2], up);
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
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(reports(), Reports({asserted("linux/linux_uart_bt", "pos_open_bt_generic", raw_assertion)}));
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
    } rows[] = {{"hci", 0}, {"hcifoo", 0}, {"hci1", 1}, {"hci03", 3}, {"hci 1x", 1}, {"hci65537", 1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(open(row.name), 0);
        EXPECT_EQ(state_of(row.controller).sockets, 1u);
        close();
    }
}

TEST_F(Hci, EveryStepOfTheOpeningCanFail) {
    const std::string failed = "UART_infos->fd = bluez_open_dev(dev_id)";
    const std::string binds = "ret = bind(fd, (struct sockaddr *) &addr, sizeof(addr))";
    const struct {
        std::function<void()> arrange;
        int status;
        Reports expected;
    } rows[] = {
        {[] { kiv_sim_fail(KIV_SIM_SOCKET, 1, 1, EAFNOSUPPORT); },
         EAFNOSUPPORT,
         {opening_trace("fd = socket(31, SOCK_RAW, 1)", EAFNOSUPPORT, "bluez_open_dev"),
          opening_trace(failed, EAFNOSUPPORT)}},
        {[] {
             kiv_sim_fail(KIV_SIM_BIND, 1, 1, ENODEV);
             kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO);
         },
         EIO,
         {opening_trace(binds, ENODEV, "bluez_open_dev"), opening_trace("close(fd)", EIO, "bluez_open_dev"),
          opening_trace(failed, EIO)}},
        {[] { kiv_sim_fail(KIV_SIM_SETSOCKOPT, 1, 1, ENOPROTOOPT); },
         ENOPROTOOPT,
         {opening_trace("ret = setsockopt(UART_infos->fd, 0, 2, &filter, sizeof(filter))", ENOPROTOOPT)}},
        {[] { configure([](auto &config) { config.capable = 0; }); },
         EPERM,
         {opening_trace(request_text(202, "dev_id"), EPERM)}},
        {[] { configure([](auto &config) { config.set_raw_error = EOPNOTSUPP; }); },
         EOPNOTSUPP,
         {opening_trace(request_text(220, "1"), EOPNOTSUPP),
          asserted("linux/linux_uart_bt", "pos_open_bt_generic", raw_assertion)}},
        {[] { kiv_sim_fail_ioctl(up, 1, 1, ERFKILL); },
         ERFKILL,
         {opening_trace(request_text(201, "dev_id"), ERFKILL)}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.expected.front());
        kiv_sim_reset();
        row.arrange();
        const auto before = open_descriptors();
        EXPECT_EQ(open(), row.status);
        EXPECT_EQ(reports(), row.expected);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(port.magic, 0u);
        EXPECT_EQ(port.fd, -1);

        // Silenced, the failure is the same, and what is no trace is still reported.
        kiv_sim_reset();
        row.arrange();
        kiv_log_dyn_level_POS = 0;
        EXPECT_EQ(open(), row.status);
        kiv_log_dyn_level_POS = 3;
        Reports assertions;
        for (const std::string &report : row.expected)
            if (report.rfind("assert: ", 0) == 0)
                assertions.push_back(report);
        EXPECT_EQ(reports(), assertions);
    }
}

TEST_F(Hci, RefusesWhatIsNoName) {
    EXPECT_EQ(pos_open_bt(nullptr, "hci0", 0), EINVAL);
    EXPECT_EQ(pos_open_bt(&port, nullptr, 0), EINVAL);
    EXPECT_EQ(reports(),
              Reports({asserted("linux/linux_uart_bt", "pos_open_bt", "(UART_infos) != ((void *)0)"),
                       asserted("linux/linux_uart_bt", "pos_open_bt", "(device_name) != ((void *)0)")}));
    EXPECT_EQ(pos_open_bt(&port, "hc", 0), EINVAL);
    const Reports refusal = {logged(1, "pos_open_bt_generic: type TYPE_SYSPATH invalid here\n", "uart_bt")};
    kiv_log_dyn_level_POS = 0;
    EXPECT_EQ(open("btsyspath:/sys/class/bluetooth/hci0"), -EINVAL);
    EXPECT_EQ(reports(), refusal) << "the category is its own";
    kiv_log_dyn_level_uart_bt = 0;
    EXPECT_EQ(open("btsyspath:x"), -EINVAL);
    EXPECT_EQ(pos_open_bt_syspath(nullptr, nullptr, 0), -EINVAL);
    kiv_log_dyn_level_POS = kiv_log_dyn_level_uart_bt = 3;
    EXPECT_EQ(port.magic, 0u);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_SOCKET), 0u);
}

const Bytes packets[] = {hci_reset, command(1), command(255), acl(0),  acl(3),
                         acl(1024), sco(0),     sco(2),       sco(255)};

class HciWrite : public Hci {
  protected:
    void SetUp() override {
        Hci::SetUp();
        configure([](auto &config) { config.answers = 0; });
        ASSERT_EQ(open(), 0);
    }
};

TEST_F(HciWrite, PacketsCutAnywhereGoOutOnceAndWhole) {
    Bytes stream;
    for (const Bytes &packet : packets) {
        stream = stream + packet;
        for (std::size_t cut = 1; cut < packet.size(); ++cut) {
            const auto middle = packet.begin() + static_cast<std::ptrdiff_t>(cut);
            ASSERT_EQ(send(Bytes(packet.begin(), middle)), 0);
            ASSERT_EQ(packets_of_host(), std::vector<Bytes>()) << cut;
            ASSERT_EQ(send(Bytes(middle, packet.end())), 0);
            ASSERT_EQ(packets_of_host(), std::vector<Bytes>{packet}) << cut;
        }
    }
    for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{17}, stream.size()}) {
        for (std::size_t at = 0; at < stream.size(); at += piece)
            ASSERT_EQ(sup_uart_Send(&port, stream.data() + at,
                                    static_cast<unsigned>(std::min(piece, stream.size() - at))),
                      0);
        EXPECT_EQ(packets_of_host(), std::vector<Bytes>(std::begin(packets), std::end(packets))) << piece;
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITE), state_of().packets) << "one write a packet";
}

TEST_F(HciWrite, JunkIsDroppedAndLogged) {
    // Of a packet that is too long the header only: what follows is read as the start of the next one.
    const Bytes junk[] = {{4, 0}, {255}, {2, 0x2a, 0x20, 0x01, 0x04}, {2, 0, 0, 0xff, 0xff}};
    for (const int level : {3, 0}) {
        kiv_log_dyn_level_POS = level;
        for (const Bytes &each : junk) {
            EXPECT_EQ(send(each + hci_reset), 0);
            EXPECT_EQ(packets_of_host(), std::vector<Bytes>{hci_reset});
        }
        EXPECT_EQ(reports(), level == 0 ? Reports()
                                        : Reports({logged(1, "Invalid BT packet 4\n"),
                                                   logged(1, "Invalid BT packet 0\n"),
                                                   logged(1, "Invalid BT packet 255\n"),
                                                   logged(1, "Invalid BT packet : too big : 1030\n"),
                                                   logged(1, "Invalid BT packet : too big : 65540\n")}));
    }
    kiv_log_dyn_level_POS = 3;
}

Reports failed_write(int error) {
    return {trace("posix/linux_uart", "sup_uart_Send",
                  "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)", error),
            warned("posix/linux_uart", "sup_uart_Send")};
}

TEST_F(HciWrite, ARefusedPacketIsDroppedAndTheNextOneIsFine) {
    // The refusal comes with the last byte of the payload, or of a header that has no payload.
    for (const Bytes &packet : {acl(7), acl(0), hci_reset}) {
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITE, 1, 1, ENETDOWN), 0);
        EXPECT_EQ(send(packet + sco(3)), ENETDOWN);
        EXPECT_EQ(reports(), failed_write(ENETDOWN));
        EXPECT_EQ(send(command(2)), 0);
        EXPECT_EQ(packets_of_host(), std::vector<Bytes>{command(2)});
    }
}

// A raw HCI socket takes its packets at once; a socket with a full queue stands in for it here, so that the
// write really blocks.
TEST_F(HciWrite, AWriteInterruptedByASignalKeepsTheFraming) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(::dup2(ends[0], port.fd), port.fd);
    ::close(ends[0]);
    unsigned queued = 0;
    for (const Bytes filling(1000); ::send(port.fd, filling.data(), filling.size(), MSG_DONTWAIT) > 0;
         ++queued)
        ;
    const unsigned before = kiv_sim_calls(KIV_SIM_WRITE);
    std::atomic<int> status{-1};
    std::thread writer([&] { status = send(acl(9) + sco(5)); });
    {
        Interrupter interrupter(writer.native_handle());
        kiv_sim_wait_calls(KIV_SIM_WRITE, before + 3);
    }
    std::uint8_t packet[1029];
    for (; queued > 0; --queued)
        EXPECT_EQ(::recv(ends[1], packet, sizeof packet, 0), 1000);
    writer.join();
    EXPECT_EQ(status, 0);
    for (const Bytes &expected : {acl(9), sco(5)}) {
        const ssize_t length = ::recv(ends[1], packet, sizeof packet, MSG_DONTWAIT);
        EXPECT_EQ(Bytes(packet, packet + (length > 0 ? length : 0)), expected);
    }
    ::close(ends[1]);
}

TEST_F(HciWrite, GatheredPiecesAreOnePacketPastTheAssembler) {
    const Bytes half = {1, 0x45};
    ASSERT_EQ(send(half), 0);
    Bytes indicator = {2};
    Bytes header = {0x2a, 0x20, 3, 0};
    Bytes data = {7, 8, 9};
    const iovec pieces[] = {{indicator.data(), indicator.size()},
                            {header.data(), header.size()},
                            {nullptr, 0},
                            {data.data(), data.size()}};
    unsigned sent = 0;
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITEV, 1, 1, EINTR), 0);
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 4, &sent), 0);
    const std::string text = "ret = UART_infos->writev(UART_infos, iov, iovcnt)";
    EXPECT_EQ(reports(), Reports({trace("posix/linux_uart", "sup_uart_Sendv", text, EINTR)}));
    EXPECT_EQ(sent, 8u);
    EXPECT_EQ(packets_of_host(), std::vector<Bytes>{indicator + header + data});

    indicator[0] = 4;
    EXPECT_EQ(sup_uart_Sendv(&port, pieces, 4, &sent), EINVAL);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(reports(), Reports({trace("posix/linux_uart", "sup_uart_Sendv", text, EINVAL),
                                  asserted("posix/linux_uart", "sup_uart_Sendv", "ret == len"),
                                  warned("posix/linux_uart", "sup_uart_Sendv")}));
    EXPECT_EQ(send({0xfc, 0}), 0);
    EXPECT_EQ(packets_of_host(), (std::vector<Bytes>{{1, 0x45, 0xfc, 0}}));
}

class HciRead : public Hci {
  protected:
    void SetUp() override {
        Hci::SetUp();
        ASSERT_EQ(open(), 0);
    }
};

TEST_F(HciRead, PacketsAreOneStreamWhateverIsAskedFor) {
    const Bytes from_controller[] = {event(0), acl(1024), sco(5), event(255), {4}};
    Bytes stream;
    for (const Bytes &packet : from_controller)
        stream = stream + packet;
    for (const std::size_t piece : {1u, 2u, 3u, 255u, 1029u, 4000u}) {
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
    // A complete read goes on over the ends of packets.
    controller_sends(acl(700));
    controller_sends(acl(100));
    Bytes got = read(3);
    got = got + read(700);
    got = got + read(107);
    EXPECT_EQ(got, acl(700) + acl(100));
    // Nor does it matter when the socket gives a packet in parts.
    configure([](auto &config) { config.fragment = 4; });
    controller_sends(event(30));
    EXPECT_EQ(read(33), event(30));
}

TEST_F(HciRead, ATimedReadDoesNotSeeTheCache) {
    controller_sends(event(10));
    Bytes bytes(13);
    unsigned length = 13;
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port, bytes.data(), &length, 0), 0);
    EXPECT_EQ(length, 1u);
    EXPECT_EQ(read_partial(100).size(), 12u);

    // The next packet on the socket ends the wait, and the cache comes first.
    controller_sends(event(4));
    controller_sends(event(0));
    length = 13;
    EXPECT_EQ(sup_uart_Read_partial_timeout(&port, bytes.data(), &length, 0), 0);
    bytes.resize(length);
    EXPECT_EQ(bytes, event(4) + event(0));
}

std::string failed_read() {
    return "ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)";
}

TEST_F(HciRead, AfterAFailedReadTheNextOneReadsTheSocket) {
    const std::string assertion = asserted("linux/linux_uart_bt", "pos_read_bt", "bt_cache.tail > 0");
    const struct {
        std::function<void()> arrange;
        int status;
        Reports expected;
    } rows[] = {
        {[] { kiv_sim_fail(KIV_SIM_READ, 2, 1, ENOMEM); },
         ENOMEM,
         {assertion, trace("posix/linux_uart", "sup_uart_Read", failed_read(), ENOMEM),
          warned("posix/linux_uart", "sup_uart_Read")}},
        {[] { kiv_sim_answer(KIV_SIM_READ, 2, 1, 0); },
         EIO,
         {assertion, warned("posix/linux_uart", "sup_uart_Read")}},
    };
    for (const auto &row : rows) {
        controller_sends(event(10));
        row.arrange();
        Bytes bytes(14);
        unsigned length = 14;
        EXPECT_EQ(sup_uart_Read(&port, bytes.data(), &length), row.status);
        EXPECT_EQ(length, 13u);
        EXPECT_EQ(reports(), row.expected);
        controller_sends(sco(6));
        EXPECT_EQ(read(10), sco(6));
    }
}

TEST_F(HciRead, AControllerThatGoesAwayEndsTheStream) {
    for (const int error : {EPIPE, 0}) {
        SCOPED_TRACE(error);
        std::thread unplugger([=] {
            kiv_sim_wait_calls(KIV_SIM_READ, error != 0 ? 1 : 2);
            kiv_sim_hci_unplug(0, error);
        });
        Bytes bytes(1);
        unsigned length = 1;
        const int status = error != 0 ? error : EIO;
        EXPECT_EQ(sup_uart_Read(&port, bytes.data(), &length), status);
        unplugger.join();
        Reports expected = {asserted("linux/linux_uart_bt", "pos_read_bt", "bt_cache.tail > 0")};
        if (error != 0)
            expected.push_back(trace("posix/linux_uart", "sup_uart_Read", failed_read(), error));
        expected.push_back(warned("posix/linux_uart", "sup_uart_Read"));
        EXPECT_EQ(reports(), expected);
        EXPECT_EQ(send(hci_reset), EPIPE);
        EXPECT_EQ(reports(), failed_write(EPIPE));
        close();
        configure([](auto &config) { config.present = 1; });
        ASSERT_EQ(open(), 0);
    }
}

TEST_F(HciRead, AnInterruptedReadIsMadeAgainUnseen) {
    const unsigned before = kiv_sim_calls(KIV_SIM_READ);
    Bytes got;
    std::thread reader([&] { got = read(4); });
    {
        Interrupter interrupter(reader.native_handle());
        kiv_sim_wait_calls(KIV_SIM_READ, before + 3);
    }
    controller_sends(event(1));
    reader.join();
    EXPECT_EQ(got, event(1));
}

TEST_F(HciRead, AReaderAndAWriterDoNotDisturbEachOther) {
    constexpr std::size_t rounds = 400;
    std::atomic<std::size_t> echoed{0};
    std::thread writer([&] {
        for (std::size_t i = 0; i < rounds; ++i) {
            const Bytes packet = acl(i * 13 % 1025);
            const auto middle = packet.begin() + static_cast<std::ptrdiff_t>(1 + i % (packet.size() - 1));
            EXPECT_EQ(send(Bytes(packet.begin(), middle)), 0);
            EXPECT_EQ(send(Bytes(middle, packet.end())), 0);
            while (i >= echoed + 50) // the socket's queue loses what it cannot hold
                std::this_thread::yield();
        }
    });
    const Bytes freed = {4, 0x13, 5, 1, 0x2a, 0, 1, 0};
    for (; echoed < rounds && !HasFailure(); ++echoed) {
        EXPECT_EQ(read(freed.size()), freed);
        const Bytes packet = acl(echoed * 13 % 1025);
        const Bytes indicator = read(1);
        EXPECT_EQ(indicator + read(packet.size() - 1), packet);
    }
    echoed = rounds;
    writer.join();
    EXPECT_EQ(state_of().lost, 0u);
}

} // namespace
} // namespace kiv::test
