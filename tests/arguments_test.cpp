// Arguments that are none: null pointers, to every function that looks at them, and records that were never
// opened.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>

#include "fixtures/serial.h"
#include "kiv/i2c.h"
#include "kiv/transports.h"

namespace kiv::test {
namespace {

class Arguments : public SerialTest {};

char byte;
unsigned int count;
kiv_i2c_device slave;
kiv_i2c_message message = {};
const iovec piece = {&byte, 1};

// The calls of a serial port's record, and what they give for one that was never opened.
const struct PortCall {
    const char *function;
    int (*call)(UART_infos *port);
    int status = EBADF;
} port_calls[] = {
    {"sup_uart_Read", [](UART_infos *port) { return sup_uart_Read(port, &byte, &(count = 1)); }},
    {"sup_uart_Read_partial",
     [](UART_infos *port) { return sup_uart_Read_partial(port, &byte, &(count = 1)); }},
    {"sup_uart_Read_partial_timeout",
     [](UART_infos *port) { return sup_uart_Read_partial_timeout(port, &byte, &(count = 1), 0); }},
    {"sup_uart_Send", [](UART_infos *port) { return sup_uart_Send(port, "", 1); }},
    {"sup_uart_Sendv", [](UART_infos *port) { return sup_uart_Sendv(port, &piece, 1, &count); }},
    {"sup_uart_Change_Speed", [](UART_infos *port) { return sup_uart_Change_Speed(port, 9); }},
    {"sup_uart_Change_Parity", [](UART_infos *port) { return sup_uart_Change_Parity(port, 0); }},
    {"sup_uart_Change_StopBitsNumber",
     [](UART_infos *port) { return sup_uart_Change_StopBitsNumber(port, 0); }},
    {"sup_uart_Flush", [](UART_infos *port) { return sup_uart_Flush(port, 0); }, -1},
    {"sup_uart_RTS_Enable", [](UART_infos *port) { return sup_uart_RTS_Enable(port, 0); }},
    {"sup_uart_Stop_UART", sup_uart_Stop_UART},
    {"sup_uart_close", sup_uart_close, -1},
};

TEST_F(Arguments, NullPointersAreRefused) {
    for (const auto &[function, call, status] : port_calls) {
        EXPECT_EQ(call(nullptr), EINVAL) << function;
        EXPECT_EQ(reports(), Reports({asserted(uart, function, "(UART_infos) != ((void *)0)")}));
    }
    const char *const i2c = "linux/i2c", *const unix_port = "posix/linux_uart_unix",
                      *const tcp = "posix/linux_uart_tcp", *const hci = "linux/linux_uart_bt";
    const struct {
        const char *module, *function, *argument;
        std::function<int()> call;
        int status = EINVAL;
    } rows[] = {
        {uart, "sup_uart_Init2", "UART_infos", [] { return sup_uart_Init(nullptr, nullptr, 9, 0); }},
        {uart, "sup_uart_Init2", "device_name", [this] { return sup_uart_Init(&port_, nullptr, 9, 0); }},
        {tcp, "pos_open_tcp", "UART_infos", [] { return pos_open_tcp(nullptr, "tcp:", 0); }},
        {tcp, "pos_open_tcp", "device_name", [this] { return pos_open_tcp(&port_, nullptr, 0); }},
        {tcp, "pos_open_tcp_client", "UART_infos",
         [] { return pos_open_tcp_client(nullptr, "tcpout:127.0.0.1:1", 0); }},
        {tcp, "pos_open_tcp_client", "device_name",
         [this] { return pos_open_tcp_client(&port_, nullptr, 0); }},
        {tcp, "pos_close_tcp_client", "UART_infos", [] { return pos_close_tcp_client(nullptr); }},
        {unix_port, "pos_open_unix", "UART_infos", [] { return pos_open_unix(nullptr, "unix:@x", 0); }},
        {unix_port, "pos_open_unix", "device_name", [this] { return pos_open_unix(&port_, nullptr, 0); }},
        {hci, "pos_open_bt", "UART_infos", [] { return pos_open_bt(nullptr, "hci0", 0); }},
        {hci, "pos_open_bt", "device_name", [this] { return pos_open_bt(&port_, nullptr, 0); }},
        {i2c, "kiv_i2c_close", "device", [] { return kiv_i2c_close(nullptr), 0; }, 0},
        {i2c, "kiv_i2c_open", "device", [] { return kiv_i2c_open(nullptr, nullptr, 0x50); }},
        {i2c, "kiv_i2c_tx", "device", [] { return kiv_i2c_tx(nullptr, &byte, 1); }, 0},
        {i2c, "kiv_i2c_tx", "tx_data", [] { return kiv_i2c_tx(&slave, nullptr, 1); }, 0},
        {i2c, "kiv_i2c_rx", "device", [] { return kiv_i2c_rx(nullptr, &byte, 1); }, 0},
        {i2c, "kiv_i2c_rx", "rx_data", [] { return kiv_i2c_rx(&slave, nullptr, 0); }, 0},
        {i2c, "kiv_i2c_msg", "device", [] { return kiv_i2c_msg(nullptr, &message, 1); }},
        {i2c, "kiv_i2c_msg", "msgs", [] { return kiv_i2c_msg(&slave, nullptr, 99); }},
        // These report nothing.
        {nullptr, nullptr, nullptr, [] { return pos_btgpsdemux_open(nullptr, "@gps"); }, -EINVAL},
        {nullptr, nullptr, nullptr, [this] { return pos_btgpsdemux_open(&port_, nullptr); }, -EINVAL},
        {nullptr, nullptr, nullptr, [] { return get_product_name(nullptr, 8); }, -EINVAL},
    };
    UART_infos before;
    std::memset(&before, 0x5A, sizeof before);
    port_ = before;
    for (const auto &[module, function, argument, call, status] : rows) {
        SCOPED_TRACE(&module - &rows[0].module);
        EXPECT_EQ(call(), status);
        Reports expected;
        if (module != nullptr)
            expected = {asserted(module, function, "(" + std::string(argument) + ") != ((void *)0)")};
        EXPECT_EQ(reports(), expected);
    }
    EXPECT_EQ(std::memcmp(&port_, &before, sizeof before), 0) << "the record is left alone";
    for (const kiv_sim_call call : {KIV_SIM_OPEN, KIV_SIM_SOCKET, KIV_SIM_FOPEN, KIV_SIM_IOCTL})
        EXPECT_EQ(kiv_sim_calls(call), 0U) << kiv_sim_call_name(call);
}

// A record that was never opened is refused before anything acts on the descriptor 0 of a cleared one. What
// it holds besides is used, and survived.
TEST_F(Arguments, RecordsThatWereNeverOpenedAreSurvived) {
    constexpr int nobodys = 1000;
    const int refusal = error_of(::ioctl(nobodys, get_settings, &byte)); // an emulator knows no such request
    for (const int fd : {0, nobodys}) {
        for (const auto &[function, call, status] : port_calls) {
            SCOPED_TRACE(function + std::string(" on ") + std::to_string(fd));
            const std::string name = function;
            const bool closes = name == "sup_uart_close";
            port_ = {};
            port_.fd = fd;
            count = 1;
            errno = 0;
            const int given = call(&port_);
            const Reports seen = reports();
            if (closes) { // does not look at the magic
                EXPECT_EQ(given, -1);
                EXPECT_EQ(errno, EBADF);
                EXPECT_EQ(seen, Reports({warned(uart, function)}));
                continue;
            }
            EXPECT_EQ(seen.at(0), asserted(uart, function, "UART_infos->magic == 0xc0decafe"));
            if (name.find("Read") != std::string::npos) {
                EXPECT_EQ(count, 0U) << "nothing was read";
            }
            if (fd == 0) {
                EXPECT_EQ(given, EBADF);
                EXPECT_EQ(seen.size(), 2U) << "the second is the warning";
            } else {
                EXPECT_EQ(given, name == "sup_uart_RTS_Enable" ? refusal : status);
            }
        }
    }
}

// A record that was filled in by hand, without an opening, works, and each use of it is reported.
TEST_F(Arguments, WhatAnUnopenedRecordHoldsIsUsed) {
    const auto take = [](UART_infos *, unsigned int) { return 0; };
    const struct {
        const char *function;
        void (*fill)(UART_infos &port, int (*take)(UART_infos *, unsigned int));
    } rows[] = {
        {"sup_uart_Read", [](auto &port, auto) { port.read = [](auto, auto, auto) { return 1; }; }},
        {"sup_uart_Read",
         [](auto &port, auto) { port.kiv_linux_sfd = kiv_linux_sopen("/dev/zero", O_RDONLY); }},
        {"sup_uart_Send", [](auto &port, auto) { port.write = [](auto, auto, auto) { return 1; }; }},
        {"sup_uart_Sendv", [](auto &port, auto) { port.writev = [](auto, auto, auto) { return 1; }; }},
        {"sup_uart_Change_Speed", [](auto &port, auto change) { port.change_speed = change; }},
        {"sup_uart_Change_Parity", [](auto &port, auto change) { port.change_parity = change; }},
        {"sup_uart_Change_StopBitsNumber", [](auto &port, auto change) { port.change_stop_bits = change; }},
    };
    for (const auto &[function, fill] : rows) {
        port_ = {};
        fill(port_, take);
        for (const PortCall &each : port_calls) {
            if (std::strcmp(each.function, function) == 0) {
                EXPECT_EQ(each.call(&port_), 0) << function;
            }
        }
        EXPECT_EQ(reports(), Reports({asserted(uart, function, "UART_infos->magic == 0xc0decafe")}));
        if (port_.kiv_linux_sfd != nullptr)
            kiv_linux_sclose(port_.kiv_linux_sfd);
    }
}

// It has no status to tell.
TEST_F(Arguments, TheRtsLineOfNoPortIsOnlyReported) {
    constexpr const char *function = "sup_uart_RTS_Manage";
    sup_uart_RTS_Manage(nullptr, UART_RTS_RAISE);
    EXPECT_EQ(reports(), Reports({asserted(uart, function, "(UART_infos) != ((void *)0)")}));
    port_ = {};
    sup_uart_RTS_Manage(&port_, UART_RTS_RAISE);
    EXPECT_EQ(reports(),
              Reports({asserted(uart, function, "UART_infos->magic == 0xc0decafe"), warned(uart, function)}));
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), 0U);
}

} // namespace
} // namespace kiv::test
