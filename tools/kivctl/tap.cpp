// tap: an interface of the system whose frames pass through this program.

#include "kiv/network.h"

#include <cerrno>
#include <cstring>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "areas.h"
#include "capture.h"
#include "interface.h"
#include "numbers.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

namespace {

int32_t tap = -1;
char name[IFNAMSIZ];
uint8_t frame[longest_frame];

// Makes the interface that a verb names; name is then what the system calls it.
exit_code make_interface(const request &from) {
    const char *wanted = from.arguments[0];
    uint8_t address[6];
    exit_code code = read_hardware_address(from, 'M', address);
    if (code == done && (*wanted == '\0' || strlen(wanted) >= IFNAMSIZ))
        code = misuse("a name has 1 to %d characters", IFNAMSIZ - 1);
    if (code != done)
        return code;
    name_device(wanted);
    if (kiv_eth_open(&tap, wanted, address) != 0)
        return fail_making(wanted);
    ifreq request{};
    if (ioctl(tap, TUNGETIFF, &request) == -1)
        return fail("asking for the name", errno);
    memcpy(name, request.ifr_name, sizeof name);
    name[sizeof name - 1] = '\0';
    name_device(name);
    return from.has('u') ? set_up(name) : done;
}

void print_frame(bool json, uint32_t number, uint32_t size) {
    const unsigned protocol = frame[12] * 256U + frame[13];
    char addresses[2][18];
    for (size_t i = 0; i < 2; ++i) {
        const uint8_t *at = frame + 6 * i;
        snprintf(addresses[i], sizeof addresses[i], "%02x:%02x:%02x:%02x:%02x:%02x", at[0], at[1], at[2],
                 at[3], at[4], at[5]);
    }
    if (json)
        json_line()
            .number("frame", number)
            .text("source", addresses[1])
            .text("destination", addresses[0])
            .number("protocol", protocol)
            .number("length", size);
    else
        printf("%s > %s 0x%04x %u bytes\n", addresses[1], addresses[0], protocol, size);
}

exit_code take_frame(const request &from, pcap_writer &file, uint32_t number) {
    const int payload =
        kiv_eth_read(&tap, frame, frame + KIV_ETH_HEADER_SIZE, sizeof frame - KIV_ETH_HEADER_SIZE);
    if (payload < 0)
        return fail("reading a frame", -payload);
    const uint32_t size = KIV_ETH_HEADER_SIZE + static_cast<uint32_t>(payload);
    print_frame(from.json, number, size);
    const exit_code code =
        file.write(frame, KIV_ETH_HEADER_SIZE, frame + KIV_ETH_HEADER_SIZE, static_cast<size_t>(payload));
    return code == done ? flush_output() : code;
}

} // namespace

exit_code tap_open(const request &from) {
    uint32_t most = 0;
    pcap_writer file;
    exit_code code = read_count(from, 'n', 1, 0, most);
    if (code == done)
        code = start_watch(ending::is_told);
    if (code == done)
        code = make_interface(from);
    if (code == done)
        code = file.open(from.value('w'));
    if (code != done)
        return code;
    if (from.json)
        json_line().text("interface", name);
    else
        printf("%s\n", name);
    code = flush_output();
    pollfd entries[] = {{tap, POLLIN, 0}, {stop_descriptor(), POLLIN, 0}};
    for (uint32_t number = 1; code == done && (most == 0 || number <= most);) {
        if (poll(entries, 2, -1) <= 0)
            continue;
        if (entries[1].revents != 0)
            break;
        code = take_frame(from, file, number++);
    }
    kiv_eth_close(&tap);
    return code;
}

// Send ---------------------------------------------------------------------------------------------------

namespace {

exit_code send_frame(size_t size, uint32_t &count) {
    if (size < KIV_ETH_HEADER_SIZE)
        return fail(failed, "sending", "a frame has at least %d bytes", KIV_ETH_HEADER_SIZE);
    const int sent = kiv_eth_write(&tap, frame, frame + KIV_ETH_HEADER_SIZE,
                                   static_cast<unsigned>(size - KIV_ETH_HEADER_SIZE));
    if (sent == -EIO)
        return fail(failed, "sending", "the interface is down; --up sets it up");
    if (sent < 0)
        return fail("sending", -sent);
    ++count;
    return done;
}

exit_code send_file(const char *file_name, uint32_t &count) {
    pcap_reader file;
    exit_code code = file.open(file_name);
    for (size_t size = 1; code == done && size != 0;) {
        size = sizeof frame;
        code = file.next(frame, size);
        if (code == done && size != 0)
            code = send_frame(size, count);
    }
    return code;
}

// Frames are looked at before the first one is sent.
exit_code check_frames(const request &from) {
    for (int i = 1; i < from.count; ++i) {
        size_t size = sizeof frame;
        if (!parse_hex(from.arguments[i], frame, size))
            return misuse("'%s' are no bytes in hexadecimal digits", from.arguments[i]);
        if (size < KIV_ETH_HEADER_SIZE)
            return misuse("a frame has at least %d bytes", KIV_ETH_HEADER_SIZE);
    }
    return from.count > 1 || from.has('i') ? done : misuse("it takes frames, or a file of them with -r");
}

} // namespace

exit_code tap_send(const request &from) {
    uint32_t count = 0;
    exit_code code = check_frames(from);
    if (code == done)
        code = start_watch(ending::is_failure);
    if (code == done)
        code = make_interface(from);
    for (int i = 1; i < from.count && code == done; ++i) {
        size_t size = sizeof frame;
        parse_hex(from.arguments[i], frame, size);
        code = send_frame(size, count);
    }
    if (code == done && from.has('i'))
        code = send_file(from.value('i'), count);
    if (code == done && from.json)
        json_line().text("interface", name).number("frames", count);
    return code;
}

} // namespace kivctl
