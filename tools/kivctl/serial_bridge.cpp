// serial bridge: one thread a direction, each a read and a send of the library.

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "areas.h"
#include "capture.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

namespace {

struct direction {
    UART_infos *from, *to;
    const char *from_name, *to_name;
    bt_direction bluetooth;
    uint32_t pieces;
    uint64_t bytes; // kept under the lock: a 32-bit machine has no whole access
    uint8_t data[65536];
};

UART_infos ports[2];
direction directions[2];
btsnoop_writer capture;
bool capturing = false;
int over = -1; // readable when a direction has ended
exit_code ending_code = done;
pthread_mutex_t count_lock = PTHREAD_MUTEX_INITIALIZER;

// Names the device and says what is wrong with it, before the other thread names another.
exit_code fail_at(const char *device, const char *operation, int status) {
    pthread_mutex_lock(&count_lock);
    name_device(device);
    const exit_code code = fail(operation, status);
    pthread_mutex_unlock(&count_lock);
    return code;
}

// One piece, as far as it has come. It is counted and in the capture before anybody can answer it.
exit_code carry_piece(direction &way) {
    unsigned length = sizeof way.data;
    int status = sup_uart_Read_partial(way.from, way.data, &length);
    if (status != 0)
        return fail_at(way.from_name, "receiving", status);
    pthread_mutex_lock(&count_lock);
    ++way.pieces;
    way.bytes += length;
    pthread_mutex_unlock(&count_lock);
    const exit_code code = capturing ? capture.write(way.bluetooth, way.data, length) : done;
    if (code != done)
        return code;
    status = sup_uart_Send(way.to, way.data, length);
    if (status != 0)
        return fail_at(way.to_name, "sending", status);
    return done;
}

void *carry(void *argument) {
    auto &way = *static_cast<direction *>(argument);
    exit_code code = done;
    while (code == done)
        code = carry_piece(way);
    __atomic_store_n(&ending_code, code, __ATOMIC_RELEASE);
    const uint64_t one = 1;
    if (write(over, &one, sizeof one) != sizeof one)
        leave(code);
    return nullptr;
}

exit_code start_carrying() {
    over = eventfd(0, EFD_CLOEXEC);
    if (over == -1)
        return fail("starting", errno);
    const exit_code code = start_thread(carry, &directions[0]);
    return code == done ? start_thread(carry, &directions[1]) : code;
}

struct counts {
    uint64_t bytes[2];
    uint32_t pieces[2];
};

counts take_counts() {
    pthread_mutex_lock(&count_lock);
    const counts now = {{directions[0].bytes, directions[1].bytes},
                        {directions[0].pieces, directions[1].pieces}};
    pthread_mutex_unlock(&count_lock);
    return now;
}

void print_counts(bool json, double seconds) {
    const counts all = take_counts();
    const auto there = static_cast<unsigned long long>(all.bytes[0]);
    const auto back = static_cast<unsigned long long>(all.bytes[1]);
    name_device(nullptr);
    if (json)
        json_line()
            .text("a", directions[0].from_name)
            .text("b", directions[0].to_name)
            .number("a_to_b_bytes", static_cast<int64_t>(there))
            .number("b_to_a_bytes", static_cast<int64_t>(back))
            .number("a_to_b_pieces", all.pieces[0])
            .number("b_to_a_pieces", all.pieces[1])
            .number("milliseconds", static_cast<int64_t>(seconds * 1000));
    else
        note("%llu bytes from %s to %s, %llu bytes back, in %.1f s", there, directions[0].from_name,
             directions[0].to_name, back, seconds);
    if (capturing && capture.strays() > 0)
        note("warning: %llu bytes were no Bluetooth packets",
             static_cast<unsigned long long>(capture.strays()));
}

// Until a signal comes or a direction ends.
exit_code wait_for_end() {
    pollfd entries[] = {{stop_descriptor(), POLLIN, 0}, {over, POLLIN, 0}};
    while (poll(entries, 2, 1000) <= 0) {
        const counts all = take_counts();
        show_progress("-> %llu bytes  <- %llu bytes", static_cast<unsigned long long>(all.bytes[0]),
                      static_cast<unsigned long long>(all.bytes[1]));
    }
    return entries[1].revents != 0 ? __atomic_load_n(&ending_code, __ATOMIC_ACQUIRE) : done;
}

} // namespace

exit_code serial_bridge(const request &from) {
    line_settings settings{};
    const char *file = from.value('c');
    exit_code code = read_line_settings(from, settings);
    if (code == done)
        code = start_watch(ending::is_told);
    if (code == done && file != nullptr) {
        code = capture.open(file);
        capturing = true;
    }
    for (int i = 0; i < 2 && code == done; ++i) {
        code = open_port(ports[i], from.arguments[i], settings, peer::any_time);
        directions[i].from = directions[1 - i].to = &ports[i];
        directions[i].from_name = directions[1 - i].to_name = from.arguments[i];
        directions[i].bluetooth = i == 0 ? bt_direction::to_controller : bt_direction::to_host;
    }
    if (code == done)
        code = start_carrying();
    if (code != done)
        return code;
    const double started = now();
    code = wait_for_end();
    print_counts(from.json, now() - started);
    return code;
}

} // namespace kivctl
