// Arbitrary device names and socket paths into the openings: each must give the status that its name
// deserves, and leave no descriptor behind once what it opened is closed.
//
// The first byte of an input says which opening and whether anybody answers; the rest is the name. Nothing
// leaves the process: the board answers for the files, the peers and the port numbers.

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kiv/platform.h"
#include "kiv/sim.h"
#include "kiv/transports.h"
#include "quiet.h"
#include "require.h"
#include "script.h"

namespace {

// The text up to the first zero byte, in memory of exactly its size: a read past its end is noticed.
class Name {
    std::vector<char> text_;

  public:
    Name(const std::uint8_t *data, std::size_t size) {
        for (; size > 0 && *data != 0; ++data, --size)
            text_.push_back(static_cast<char>(*data));
        text_.push_back('\0');
        text_.shrink_to_fit();
    }
    const char *text() const { return text_.data(); }
};

bool begins_with(const std::string &name, const char *prefix) {
    return name.rfind(prefix, 0) == 0;
}

constexpr int any_status = -1000;

int status_of_device(const std::string &name) {
    if (begins_with(name, "hci"))
        return any_status; // there may be such a controller or not
    if (begins_with(name, "btsyspath:"))
        return -EINVAL;
    if (begins_with(name, "tcpout:"))
        return ENODEV;
    return begins_with(name, "tcp:") || begins_with(name, "unix:") ? 0 : ENOENT;
}

int status_of_client(const std::string &name, bool answered) {
    const std::size_t colon = name.find(':', 7);
    if (!begins_with(name, "tcpout:") || colon == std::string::npos || colon - 7 > 19)
        return EINVAL;
    const std::string number = name.substr(colon + 1);
    char *end = nullptr;
    std::strtol(number.c_str(), &end, 10);
    in_addr address = {};
    if (end == number.c_str() || ::inet_pton(AF_INET, name.substr(7, colon - 7).c_str(), &address) != 1)
        return EINVAL;
    return answered ? 0 : ECONNREFUSED;
}

void count_call(UART_infos *, void *count) {
    ++*static_cast<int *>(count);
}

void expect(UART_infos &port, int status, int expected) {
    require(status == expected || expected == any_status, "the status");
    require((port.magic == UART_MAGIC) == (status == 0), "the record's mark");
    if (status == 0)
        require(sup_uart_close(&port) == 0, "the closing");
}

void open_device(const Name &name) {
    UART_infos port;
    // Real paths are not for this, and numbers of ports are the machine's.
    kiv_sim_fail(KIV_SIM_OPEN, 1, KIV_SIM_ALWAYS, ENOENT);
    if (begins_with(name.text(), "tcp:"))
        kiv_sim_answer(KIV_SIM_BIND, 1, KIV_SIM_ALWAYS, 0);
    expect(port, sup_uart_Init(&port, name.text(), UART_SPEED_115200, 0), status_of_device(name.text()));
}

void open_client(const Name &name, bool answered) {
    UART_infos port;
    sup_uart_Prepare(&port, nullptr);
    expect(port, sup_uart_Opened(&port, pos_open_tcp_client(&port, name.text(), 0)),
           status_of_client(name.text(), answered));
    require(pos_close_tcp_client(&port) == 0, "the second closing");
}

void open_demultiplexer(const Name &path, bool answered) {
    int connected = 0;
    UART_status_cb callbacks = {};
    callbacks.connected = count_call;
    callbacks.context = &connected;
    UART_infos port;
    sup_uart_Prepare(&port, &callbacks);
    expect(port, sup_uart_Opened(&port, pos_btgpsdemux_open(&port, path.text())), 0);
    require(connected == (answered ? 1 : 0), "the callback");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    const Name name(data + 1, size - 1);
    const bool answered = (data[0] & 4) != 0;
    const KeepsDescriptors kept;
    if (answered)
        kiv_sim_answer(KIV_SIM_CONNECT, 1, KIV_SIM_ALWAYS, 0);
    else
        kiv_sim_fail(KIV_SIM_CONNECT, 1, KIV_SIM_ALWAYS, ECONNREFUSED);
    switch (data[0] & 3) {
    case 0:
        open_client(name, answered);
        break;
    case 1:
        open_demultiplexer(name, answered);
        break;
    default:
        open_device(name);
    }
    kiv_sim_clear_faults();
    return 0;
}
