// /dev/gpio: the attachment of the chip to descriptors.
//
//   Openings       what a descriptor stands for, and how poll learns of an interrupt
//   Environment    wires for programs without a test around them
//   Requests       the ioctl table, and the wait
//   Back door      what is around the pins
//
// A descriptor is an eventfd, which is readable while an interrupt of its opening waits to be fetched.
// Everything is guarded by the lock of the board's pins.

#include <cstdlib>
#include <cstring>
#include <sys/eventfd.h>

#include "device.h"
#include "environment.h"
#include "gpio_board.h"
#include "memory.h"
#include "real.h"

namespace kiv::sim {

constinit gpio_board gpio;

namespace {

// Openings ---------------------------------------------------------------------------------------------

struct opening {
    opening *next;
    int signal; // another descriptor of the eventfd
    bool signalled;
    bool gone; // the board has been reset since
};

constinit opening *openings = nullptr;
constinit unsigned waiting[gpio_chip::pins] = {};

int result_of(int error) {
    return error == 0 ? 0 : fail(error);
}

void set_signal(opening &of, bool wanted) {
    if (of.signalled == wanted)
        return;
    std::uint64_t count = 1;
    if (wanted ? real().write(of.signal, &count, sizeof count) > 0
               : real().read(of.signal, &count, sizeof count) > 0)
        of.signalled = wanted;
}

constexpr char gpio_path[] = "/dev/gpio";

bool knows_path(const char *path) {
    return ::strcmp(path, gpio_path) == 0;
}

// Both descriptors, or -1 with errno.
int make_descriptors(int flags, int &signal) {
    const int fd = ::eventfd(0, ((flags & O_CLOEXEC) != 0 ? EFD_CLOEXEC : 0) |
                                    ((flags & O_NONBLOCK) != 0 ? EFD_NONBLOCK : 0));
    if (fd == -1)
        return -1;
    signal = own(real().fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (signal != -1)
        return fd;
    const errno_keeper keeper;
    real().close(fd);
    return -1;
}

extern const operations gpio_operations;

int open_gpio(const char *, int flags, opened &made) {
    const guard hold(gpio.lock);
    read_gpio_environment();
    auto *fresh = allocate<opening>();
    if (fresh == nullptr)
        return -1;
    *fresh = {.next = openings, .signal = -1, .signalled = false, .gone = false};
    const int fd = make_descriptors(flags, fresh->signal);
    if (fd == -1) {
        const errno_keeper keeper;
        ::free(fresh);
        return -1;
    }
    openings = fresh;
    made = opened{.ops = &gpio_operations, .state = fresh};
    return fd;
}

void release_gpio(void *state) {
    auto *ended = static_cast<opening *>(state);
    const guard hold(gpio.lock);
    opening **link = &openings;
    while (*link != ended)
        link = &(*link)->next;
    *link = ended->next;
    gpio.chip.close_interrupts(ended);
    announce_pins();
    real().close(ended->signal);
    ::free(ended);
}

ssize_t refuse_transfer(int, void *, const iovec *, int) {
    return fail(EINVAL);
}

short correct_revents(void *state, short, short revents) {
    const guard hold(gpio.lock);
    if (static_cast<opening *>(state)->gone)
        return static_cast<short>(revents | POLLERR | POLLHUP);
    return static_cast<short>(revents & ~(POLLOUT | POLLWRNORM));
}

// Requests ---------------------------------------------------------------------------------------------

struct record {
    std::int32_t pin;
    std::int32_t argument;
};

bool is_waiting_allowed(int fd) {
    return (real().fcntl(fd, F_GETFL, 0) & O_NONBLOCK) == 0;
}

// Blocks as a driver does. Whoever closes the interrupt meanwhile, or resets the board, ends it.
int wait_for_interrupt(int fd, const opening &from, int pin) {
    if (!gpio.chip.owns_interrupt(pin, &from))
        return EINVAL;
    if (gpio.chip.take_interrupt(pin))
        return 0;
    if (!is_waiting_allowed(fd))
        return EAGAIN;
    ++waiting[pin];
    gpio.changed.notify_all();
    int status = 0;
    do {
        if (!gpio.changed.wait(gpio.lock))
            status = EINTR;
        else if (from.gone || !gpio.chip.owns_interrupt(pin, &from))
            status = ENODEV;
    } while (status == 0 && !gpio.chip.take_interrupt(pin));
    --waiting[pin];
    return status;
}

// Numbers and not _IOW: they are what programs depend on.
int answer(int fd, opening &from, unsigned request, record &asked) {
    switch (request) {
    case 0x40087000:
        return gpio.chip.configure(asked.pin, asked.argument);
    case 0xc0087001:
        return gpio.chip.read(asked.pin, asked.argument);
    case 0x40087002:
        return gpio.chip.drive(asked.pin, asked.argument);
    case 0x40087003:
        return gpio.chip.open_interrupt(asked.pin, asked.argument, &from);
    case 0x40087004:
        return gpio.chip.close_interrupt(asked.pin, &from);
    case 0x40087005:
        return wait_for_interrupt(fd, from, asked.pin);
    default:
        return ENOTTY;
    }
}

int request_gpio(int fd, void *state, unsigned request, void *argument) {
    if (request == FIONBIO || request == FIOCLEX || request == FIONCLEX)
        return real().ioctl(fd, request, argument);
    if (argument == nullptr)
        return fail(EFAULT);
    auto &from = *static_cast<opening *>(state);
    const guard hold(gpio.lock);
    if (from.gone)
        return fail(ENODEV);
    record asked;
    ::memcpy(&asked, argument, sizeof asked);
    const int error = answer(fd, from, request, asked);
    announce_pins();
    if (error == 0 && request == 0xc0087001)
        ::memcpy(argument, &asked, sizeof asked);
    return result_of(error);
}

const operations gpio_operations = {
    .ioctl = request_gpio,
    .read = refuse_transfer,
    .write = refuse_transfer,
    .revents = correct_revents,
    .node = [](void *) { return gpio_path; },
    .release = release_gpio,
};

// Environment ------------------------------------------------------------------------------------------

// The number at `text`, which is moved behind it; -1 when that is no pin.
int take_pin(const char *&text) {
    char *end = nullptr;
    const long number = ::strtol(text, &end, 10);
    const bool is_pin = end != text && number >= 0 && number < gpio_chip::pins;
    text = end;
    return is_pin ? static_cast<int>(number) : -1;
}

// "3=4"; moves `text` behind it.
bool take_wire(const char *&text) {
    const int pin = take_pin(text);
    if (pin < 0 || *text != '=')
        return false;
    const int other = take_pin(++text);
    if (other < 0)
        return false;
    gpio.chip.wire(pin, other);
    return true;
}

// "led=7"; likewise.
bool take_directory(const char *&text) {
    const char *name = text;
    const std::size_t length = ::strcspn(text, "= ");
    text += length;
    if (*text != '=')
        return false;
    const int pin = take_pin(++text);
    return pin >= 0 && export_pin(name, length, pin, true) == 0;
}

// A list with blanks between its members; a mistake ends it.
void read_list(const char *variable, bool (*take)(const char *&text), const char *expected) {
    const char *text = ::getenv(variable);
    while (text != nullptr && *text != '\0') {
        const char *member = text;
        if (!take(text) || (*text != ' ' && *text != '\0'))
            return complain(variable, member, expected);
        text += ::strspn(text, " ");
    }
}

void reset_gpio() {
    const guard hold(gpio.lock);
    gpio.chip = gpio_chip();
    gpio.environment_read = false;
    for (opening *each = openings; each != nullptr; each = each->next) {
        each->gone = true;
        set_signal(*each, true);
    }
    gpio.changed.notify_all();
}

} // namespace

void read_gpio_environment() {
    if (gpio.environment_read)
        return;
    gpio.environment_read = true;
    read_list("KIV_SIM_WIRES", take_wire, "PIN=PIN ...");
    read_list("KIV_SIM_SYSFS", take_directory, "NAME=PIN ...");
}

void announce_pins() {
    const errno_keeper keeper;
    for (opening *each = openings; each != nullptr; each = each->next)
        set_signal(*each, each->gone || gpio.chip.has_interrupt(each));
    gpio.changed.notify_all();
}

extern const device gpio_device;
const device gpio_device = {
    .knows_path = knows_path, .has_node = knows_path, .open = open_gpio, .reset = reset_gpio};

// Back door --------------------------------------------------------------------------------------------

namespace {

void fill(int pin, kiv_sim_pin_state &state) {
    state = {.is_output = gpio.chip.is_output(pin) ? 1 : 0,
             .level = gpio.chip.is_high(pin) ? 1 : 0,
             .irq_mode = gpio.chip.interrupt_mode(pin),
             .irq_pending = gpio.chip.is_pending(pin) ? 1 : 0,
             .waiting = waiting[pin]};
}

} // namespace

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_pin_inspect(unsigned pin, kiv_sim_pin_state *state) {
    return with_pin(pin, [=](int valid) {
        fill(valid, *state);
        return 0;
    });
}

int kiv_sim_pin_wait(unsigned pin, int (*done)(const kiv_sim_pin_state *state, void *context),
                     void *context) {
    return with_pin(pin, [=](int valid) {
        kiv_sim_pin_state state;
        for (fill(valid, state); done(&state, context) == 0; fill(valid, state))
            gpio.changed.wait(gpio.lock);
        return 0;
    });
}

int kiv_sim_pin_wire(unsigned pin, unsigned other) {
    if (other >= KIV_SIM_PINS)
        return EINVAL;
    return with_pin(pin, [=](int valid) {
        gpio.chip.wire(valid, static_cast<int>(other));
        return 0;
    });
}

int kiv_sim_pin_unwire(unsigned pin) {
    return with_pin(pin, [](int valid) {
        gpio.chip.unwire(valid);
        return 0;
    });
}

int kiv_sim_pin_drive(unsigned pin, int level) {
    return with_pin(pin, [=](int valid) {
        gpio.chip.drive_outside(valid, level);
        return 0;
    });
}

int kiv_sim_pin_claim(unsigned pin, int claimed) {
    return with_pin(pin, [=](int valid) {
        gpio.chip.claim(valid, claimed != 0);
        return 0;
    });
}

void kiv_sim_gpio_set_high(int value) {
    const guard hold(gpio.lock);
    gpio.chip.set_high(value);
}
