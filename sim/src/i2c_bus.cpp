// The I2C bus behind /dev/i2c-0: the requests of i2c-dev with the kernel's own limits, and the chips on it.
//
//   1. The bus        its chips, who answers, who may use it
//   2. Transfers      messages as the controller plays them
//   3. The device     what a program asks for
//   4. The back door

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "device.h"
#include "eeprom_model.h"
#include "i2c_slave.h"
#include "kiv/sim.h"
#include "memory.h"
#include "real.h"
#include "rtc_model.h"
#include "smbus.h"
#include "waiting.h"

namespace kiv::sim {
namespace {

// 1. The bus ---------------------------------------------------------------------------------------------

constexpr char bus_path[] = "/dev/i2c-0";
constexpr unsigned addresses = 128;

std::int64_t real_time() {
    return ::time(nullptr);
}

struct seat {
    unsigned address;
    i2c_slave chip;
    bool present;
};

// Everything here is guarded by bus_lock.
constinit mutex bus_lock;
constinit event bus_free;
constinit eeprom_model eeprom;
constinit rtc_model clock_chip(real_time);
constinit seat seats[] = {{KIV_SIM_I2C_EEPROM, slave_of(eeprom), true},
                          {KIV_SIM_I2C_CLOCK, slave_of(clock_chip), true}};
constinit bool claimed[addresses] = {};
constinit bool bus_held = false;
constinit int absent_error = EREMOTEIO;
constinit kiv_sim_i2c_state seen = {};
constinit unsigned generation = 0; // of the board: what was opened before a reset sees the bus gone

const i2c_slave *chip_at(unsigned address) {
    for (const seat &each : seats)
        if (each.address == address && each.present)
            return &each.chip;
    return nullptr;
}

// 2. Transfers -------------------------------------------------------------------------------------------

// Plays one message. Returns 0, or the errno of a slave that did not acknowledge.
int play(const i2c_slave &chip, const i2c_msg &message) {
    const bool reading = (message.flags & I2C_M_RD) != 0;
    if (!chip.start(chip.chip, reading))
        return absent_error;
    for (unsigned i = 0; i < message.len; ++i)
        if (reading)
            message.buf[i] = chip.get(chip.chip);
        else if (!chip.put(chip.chip, message.buf[i]))
            return absent_error;
    return 0;
}

// Ends at the first message that nobody acknowledges. The stop reaches every chip that was spoken to.
int play_all(const i2c_msg *messages, unsigned count) {
    int error = 0;
    for (unsigned i = 0; i < count && error == 0; ++i) {
        const i2c_slave *chip = chip_at(messages[i].addr);
        error = chip != nullptr ? play(*chip, messages[i]) : absent_error;
    }
    for (const seat &each : seats)
        for (unsigned i = 0; i < count; ++i)
            if (messages[i].addr == each.address && each.present) {
                each.chip.stop(each.chip.chip);
                break;
            }
    return error;
}

// One transfer of the controller, when the bus is free. Returns 0, or -1 with errno.
int transfer(const i2c_msg *messages, unsigned count) {
    const guard hold(bus_lock);
    ++seen.waiting;
    bool woken = true;
    while (bus_held && woken)
        woken = bus_free.wait(bus_lock);
    --seen.waiting;
    if (!woken)
        return -1;
    ++seen.transfers;
    const int error = play_all(messages, count);
    if (error == 0)
        return 0;
    ++seen.refused;
    return fail(error);
}

// 3. The device ------------------------------------------------------------------------------------------

constexpr unsigned longest_message = 8192;

struct client {
    unsigned address;
    int access;
    unsigned generation;
};

// Whether the bus that this client has opened is still there; false with errno.
bool is_there(const client &of) {
    const guard hold(bus_lock);
    if (of.generation == generation)
        return true;
    errno = ENODEV;
    return false;
}

unsigned total_length(const i2c_msg *messages, unsigned count) {
    unsigned length = 0;
    for (unsigned i = 0; i < count; ++i)
        length += messages[i].len;
    return length;
}

// The kernel's checks, in its order, then the controller's. Returns 0 or an errno.
int refusal_of(const i2c_rdwr_ioctl_data &wanted) {
    if (wanted.msgs == nullptr || wanted.nmsgs == 0 || wanted.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
        return EINVAL;
    for (unsigned i = 0; i < wanted.nmsgs; ++i) {
        if (wanted.msgs[i].len > longest_message)
            return EINVAL;
        if (wanted.msgs[i].buf == nullptr && wanted.msgs[i].len > 0)
            return EFAULT;
    }
    // Plain messages to seven-bit addresses are all that this controller does.
    for (unsigned i = 0; i < wanted.nmsgs; ++i)
        if ((wanted.msgs[i].flags & ~(I2C_M_RD | I2C_M_DMA_SAFE)) != 0)
            return EOPNOTSUPP;
    return 0;
}

void remember(const i2c_rdwr_ioctl_data &wanted) {
    const guard hold(bus_lock);
    seen.last_count = wanted.nmsgs;
    if (wanted.msgs == nullptr || wanted.nmsgs > KIV_SIM_I2C_MESSAGES)
        return; // the kernel does not look at the messages either
    for (unsigned i = 0; i < wanted.nmsgs; ++i)
        seen.last[i] = {
            .address = wanted.msgs[i].addr, .flags = wanted.msgs[i].flags, .length = wanted.msgs[i].len};
}

// The kernel works on copies: what was read reaches the program only when the whole transfer has succeeded.
int transfer_copies(const i2c_rdwr_ioctl_data &wanted) {
    auto *bytes = allocate_bytes(total_length(wanted.msgs, wanted.nmsgs));
    if (bytes == nullptr)
        return -1;
    i2c_msg copies[I2C_RDWR_IOCTL_MAX_MSGS];
    std::uint8_t *room = bytes;
    for (unsigned i = 0; i < wanted.nmsgs; ++i) {
        copies[i] = wanted.msgs[i];
        copies[i].buf = room;
        room += copies[i].len;
        if (copies[i].len > 0)
            ::memcpy(copies[i].buf, wanted.msgs[i].buf, copies[i].len);
    }
    const int result = transfer(copies, wanted.nmsgs);
    for (unsigned i = 0; i < wanted.nmsgs && result == 0; ++i)
        if ((copies[i].flags & I2C_M_RD) != 0 && copies[i].len > 0)
            ::memcpy(wanted.msgs[i].buf, copies[i].buf, copies[i].len);
    ::free(bytes);
    return result;
}

int combined_transfer(const void *argument) {
    if (argument == nullptr)
        return fail(EFAULT);
    i2c_rdwr_ioctl_data wanted;
    ::memcpy(&wanted, argument, sizeof wanted);
    remember(wanted);
    const int refusal = refusal_of(wanted);
    if (refusal != 0)
        return fail(refusal);
    return transfer_copies(wanted) == 0 ? static_cast<int>(wanted.nmsgs) : -1;
}

// What the kernel makes of messages, but for checksums, which the chips do not know.
constexpr unsigned long functions = I2C_FUNC_I2C | (I2C_FUNC_SMBUS_EMUL & ~I2C_FUNC_SMBUS_PEC);

int smbus_operation(const client &of, const i2c_smbus_ioctl_data *wanted) {
    if (wanted == nullptr)
        return fail(EFAULT);
    if (wanted->read_write != I2C_SMBUS_READ && wanted->read_write != I2C_SMBUS_WRITE)
        return fail(EINVAL);
    smbus_transfer made;
    const int refusal = made.compose(of.address, wanted->read_write == I2C_SMBUS_READ, wanted->command,
                                     wanted->size, wanted->data);
    if (refusal != 0)
        return fail(refusal);
    if (transfer(made.messages(), made.count()) != 0)
        return -1;
    if (wanted->data != nullptr)
        made.give(*wanted->data);
    return 0;
}

int bind_address(client &to, unsigned long address, bool force) {
    if (address >= addresses)
        return fail(EINVAL);
    const guard hold(bus_lock);
    if (claimed[address] && !force)
        return fail(EBUSY);
    to.address = static_cast<unsigned>(address);
    return 0;
}

int request(int, void *state, unsigned number, void *argument) {
    auto &to = *static_cast<client *>(state);
    if (!is_there(to))
        return -1;
    const auto value = reinterpret_cast<std::uintptr_t>(argument);
    switch (number) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        return bind_address(to, value, number == I2C_SLAVE_FORCE);
    case I2C_RDWR:
        return combined_transfer(argument);
    case I2C_FUNCS:
        *static_cast<unsigned long *>(argument) = functions;
        return 0;
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        return 0;
    case I2C_TENBIT:
    case I2C_PEC:
        return value == 0 ? 0 : fail(EOPNOTSUPP);
    case I2C_SMBUS:
        return smbus_operation(to, static_cast<const i2c_smbus_ioctl_data *>(argument));
    default:
        return fail(ENOTTY);
    }
}

// One plain transfer a piece, which is also how the kernel splits a gathered one.
ssize_t plain_transfer(const client &to, const iovec *pieces, int count, std::uint16_t flags, int forbidden) {
    if (to.access == forbidden)
        return fail(EBADF);
    if (!is_there(to))
        return -1;
    ssize_t done = 0;
    for (int i = 0; i < count; ++i) {
        const std::size_t length =
            pieces[i].iov_len < longest_message ? pieces[i].iov_len : std::size_t{longest_message};
        if (pieces[i].iov_base == nullptr && length > 0) {
            errno = EFAULT;
            return done > 0 ? done : -1;
        }
        const i2c_msg message = {.addr = static_cast<std::uint16_t>(to.address),
                                 .flags = flags,
                                 .len = static_cast<std::uint16_t>(length),
                                 .buf = static_cast<std::uint8_t *>(pieces[i].iov_base)};
        if (transfer(&message, 1) != 0)
            return done > 0 ? done : -1;
        done += static_cast<ssize_t>(length);
        if (length < pieces[i].iov_len)
            break;
    }
    return done;
}

ssize_t read_bytes(int, void *state, const iovec *pieces, int count) {
    return plain_transfer(*static_cast<client *>(state), pieces, count, I2C_M_RD, O_WRONLY);
}

ssize_t write_bytes(int, void *state, const iovec *pieces, int count) {
    return plain_transfer(*static_cast<client *>(state), pieces, count, 0, O_RDONLY);
}

void release(void *state) {
    const guard hold(bus_lock);
    if (static_cast<client *>(state)->generation == generation)
        --seen.open_files;
    ::free(state);
}

constexpr operations bus_operations = {.ioctl = request,
                                       .read = read_bytes,
                                       .write = write_bytes,
                                       .node = [](void *) { return bus_path; },
                                       .release = release};

bool knows_path(const char *path) {
    return ::strcmp(path, bus_path) == 0;
}

int open_bus(const char *, int flags, opened &made) {
    auto *to = allocate<client>();
    if (to == nullptr)
        return -1;
    const int fd = real().open("/dev/null", flags & (O_ACCMODE | O_CLOEXEC | O_NONBLOCK));
    if (fd < 0) {
        const errno_keeper keeper;
        ::free(to);
        return -1;
    }
    made = {.ops = &bus_operations, .state = to};
    const guard hold(bus_lock);
    *to = {.address = 0, .access = flags & O_ACCMODE, .generation = generation};
    ++seen.open_files;
    return fd;
}

void reset() {
    const guard hold(bus_lock);
    eeprom = eeprom_model();
    clock_chip = rtc_model(real_time);
    for (seat &each : seats)
        each.present = true;
    ::memset(claimed, 0, sizeof claimed);
    absent_error = EREMOTEIO;
    const unsigned waiting = seen.waiting;
    seen = {};
    seen.waiting = waiting;
    ++generation;
    bus_held = false;
    bus_free.notify_all();
}

// 4. The back door ---------------------------------------------------------------------------------------

// Runs `action`, which returns 0 or an errno, on the bus, locked.
template <class Action>
int on_bus(Action action) {
    const errno_keeper keeper;
    const guard hold(bus_lock);
    return action();
}

} // namespace

extern const device i2c_device;
const device i2c_device = {
    .knows_path = knows_path, .has_node = knows_path, .open = open_bus, .reset = reset};

} // namespace kiv::sim

using namespace kiv::sim;

int kiv_sim_i2c_inspect(kiv_sim_i2c_state *state) {
    return on_bus([=] {
        *state = seen;
        state->pages_written = eeprom.pages_written();
        return 0;
    });
}

int kiv_sim_i2c_set_absent_error(int error) {
    return on_bus([=] {
        if (error < 1)
            return EINVAL;
        absent_error = error;
        return 0;
    });
}

int kiv_sim_i2c_plug(unsigned address, int present) {
    return on_bus([=] {
        for (seat &each : seats)
            if (each.address == address) {
                each.present = present != 0;
                return 0;
            }
        return EINVAL;
    });
}

int kiv_sim_i2c_claim(unsigned address, int by_driver) {
    return on_bus([=] {
        if (address >= addresses)
            return EINVAL;
        claimed[address] = by_driver != 0;
        return 0;
    });
}

void kiv_sim_i2c_hold(int held) {
    on_bus([=] {
        bus_held = held != 0;
        bus_free.notify_all();
        return 0;
    });
}

int kiv_sim_eeprom_load(size_t offset, const void *data, size_t length) {
    return on_bus([=] {
        if (offset > eeprom_model::size || length > eeprom_model::size - offset)
            return EINVAL;
        if (length > 0)
            ::memcpy(&eeprom.at(0) + offset, data, length);
        return 0;
    });
}

int kiv_sim_eeprom_dump(size_t offset, void *data, size_t length) {
    return on_bus([=] {
        if (offset > eeprom_model::size || length > eeprom_model::size - offset)
            return EINVAL;
        if (length > 0)
            ::memcpy(data, &eeprom.at(0) + offset, length);
        return 0;
    });
}

void kiv_sim_eeprom_set_busy(unsigned polls) {
    on_bus([=] {
        eeprom.set_busy_polls(polls);
        return 0;
    });
}

int kiv_sim_clock_set(int64_t time, int frozen) {
    constexpr int64_t first = 946684800; // 2000-01-01
    constexpr int64_t end = 4102444800;  // 2100-01-01
    return on_bus([=] {
        if (time < first || time >= end)
            return EINVAL;
        clock_chip.freeze(frozen != 0);
        clock_chip.set(time);
        return 0;
    });
}

int64_t kiv_sim_clock_time(void) {
    int64_t time = 0;
    on_bus([&] {
        time = clock_chip.now();
        return 0;
    });
    return time;
}
