// Scripts of I2C transfers, pin operations and interrupts, with requests and file accesses that fail, against
// models of an EEPROM and of a chip of pins. The names of pins, and the files behind them, are arbitrary.

#include <cerrno>
#include <map>
#include <string>
#include <unistd.h>

#include "kiv/gpio.h"
#include "kiv/i2c.h"
#include "linux/gpio_backend.h"
#include "quiet.h"
#include "require.h"
#include "script.h"

namespace {

// I2C ---------------------------------------------------------------------------------------------------

constexpr std::uint32_t eeprom_address = KIV_SIM_I2C_EEPROM, nobody = 0x31;

// 256 bytes in pages of 8; after a page is written, three attempts find it busy.
class Eeprom {
    Bytes memory_ = Bytes(256, 0xff);
    std::map<unsigned, std::uint8_t> page_; // written, and not stored yet
    unsigned at_ = 0, busy_ = 0;

  public:
    bool is_busy() {
        page_.clear();
        return busy_ > 0 && busy_-- > 0;
    }
    void write(const Bytes &bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i == 0) {
                at_ = bytes[0];
                continue;
            }
            page_[at_] = bytes[i];
            at_ = (at_ & ~7U) | ((at_ + 1) & 7U);
        }
    }
    Bytes read(std::size_t count) {
        Bytes bytes;
        for (; count > 0; --count, at_ = (at_ + 1) % 256)
            bytes.push_back(memory_[at_]);
        return bytes;
    }
    void stop() {
        busy_ = page_.empty() ? busy_ : 3;
        for (const auto &[offset, byte] : page_)
            memory_[offset] = byte;
        page_.clear();
    }
};

class Bus {
    kiv_i2c_device device_ = {};
    bool open_ = false;
    Eeprom eeprom_;

    // One transfer. The buffers are filled when it succeeds as a whole.
    int model(std::vector<kiv_i2c_message> &messages, std::vector<Bytes> &buffers) {
        int status = 0;
        std::vector<Bytes> filled = buffers;
        for (std::size_t i = 0; i < messages.size() && status == 0; ++i) {
            if (device_.address != eeprom_address || eeprom_.is_busy())
                status = EREMOTEIO;
            else if ((messages[i].flags & KIV_I2C_READ) != 0)
                filled[i] = eeprom_.read(buffers[i].size());
            else
                eeprom_.write(buffers[i]);
        }
        if (device_.address == eeprom_address)
            eeprom_.stop();
        if (status == 0)
            buffers = filled;
        return status;
    }

    void open(Input &input) {
        close();
        Fault fault(input, {KIV_SIM_OPEN, KIV_SIM_IOCTL}, {EINTR, EACCES, EBUSY}, 0);
        const std::uint32_t addresses[] = {eeprom_address, nobody, input.word() % 1100, eeprom_address};
        const std::uint32_t address = addresses[input.below(4)];
        const char *const names[] = {nullptr, "/dev/i2c-0", "/dev/usb-i2c"};
        const char *const name = names[input.below(8) % 3];
        int expected = name == names[2] ? ENODEV : 0;
        for (const kiv_sim_call call : {KIV_SIM_OPEN, KIV_SIM_IOCTL})
            if (expected == 0)
                expected = fault.next(call);
        if (expected == 0 && address >= 128)
            expected = EINVAL;
        fault.arm();
        require_equal(kiv_i2c_open(&device_, name, address), expected, "the opening of a bus");
        kiv_sim_clear_faults();
        open_ = expected == 0;
    }

    void transfer(Input &input) {
        Fault fault(input, {KIV_SIM_IOCTL}, {EINTR, EIO, ETIMEDOUT}, 0);
        std::vector<kiv_i2c_message> messages(input.below(24));
        std::vector<Bytes> buffers;
        const bool strange = input.below(16) == 0;
        for (kiv_i2c_message &each : messages) {
            const unsigned what = input.byte();
            each.flags = what % 2 != 0 ? KIV_I2C_READ : strange ? 0xABCD0000U + 0x10U * (what / 2 % 2) : 0;
            buffers.push_back(input.exactly(what / 2 + (what == 255 ? 8192 : 0)));
        }
        std::vector<Bytes> expected = buffers;
        int status = fault.next(KIV_SIM_IOCTL);
        for (std::size_t i = 0; i < messages.size(); ++i) {
            messages[i].buf = buffers[i].data();
            messages[i].len = static_cast<std::uint32_t>(buffers[i].size());
            if (status == 0 && buffers[i].size() > 8192)
                status = EINVAL;
        }
        for (const kiv_i2c_message &each : messages)
            if (status == 0 && (each.flags & 0xFFFF & ~KIV_I2C_READ) != 0)
                status = EOPNOTSUPP;
        if (messages.size() > KIV_I2C_MAX_MSGS || messages.empty())
            status = EINVAL;
        if (status == 0)
            status = model(messages, expected);
        fault.arm();
        require_equal(kiv_i2c_msg(&device_, messages.data(), static_cast<std::int32_t>(messages.size())),
                      status, "the status of a transfer");
        kiv_sim_clear_faults();
        require(buffers == expected, "the bytes of a transfer");
    }

    void plain(Input &input, bool reads) {
        Fault fault(input, {reads ? KIV_SIM_READ : KIV_SIM_WRITE}, {EINTR, EIO, 0}, 1);
        std::vector<Bytes> bytes = {input.exactly(1 + std::size_t{input.byte()})};
        std::vector<kiv_i2c_message> message = {{nullptr, 0, reads ? KIV_I2C_READ : 0}};
        std::vector<Bytes> expected = bytes;
        std::size_t length = bytes[0].size();
        std::int32_t count = 0;
        int error = EINTR;
        while (error == EINTR)
            error = fault.next(reads ? KIV_SIM_READ : KIV_SIM_WRITE, length);
        if (error == 0) {
            expected[0].resize(length);
            count = model(message, expected) == 0 ? static_cast<std::int32_t>(length) : 0;
            expected[0].insert(expected[0].end(), bytes[0].begin() + static_cast<std::ptrdiff_t>(length),
                               bytes[0].end());
        }
        auto *data = bytes[0].data();
        const auto size = static_cast<std::uint32_t>(bytes[0].size());
        fault.arm();
        require_equal(reads ? kiv_i2c_rx(&device_, data, size) : kiv_i2c_tx(&device_, data, size), count,
                      "a count");
        kiv_sim_clear_faults();
        require(bytes == expected, "the bytes that were read");
    }

    void close() {
        if (open_)
            kiv_i2c_close(&device_);
        open_ = false;
    }

  public:
    Bus() = default;
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    ~Bus() { close(); }

    void step(Input &input) {
        const unsigned what = input.below(8);
        if (what == 0 || !open_)
            open(input);
        else if (what < 4)
            transfer(input);
        else
            plain(input, what % 2 == 0);
    }
};

// GPIO --------------------------------------------------------------------------------------------------

constexpr int pins = KIV_SIM_PINS;
constexpr char tree[] = "/sys/class/gpio/";

struct Pin {
    bool is_output = false, driven = false, outside = false, claimed = false, pending = false;
    unsigned edges = 0;
    bool level() const { return is_output ? driven : outside; }
};

class Pins {
    Pin pins_[pins];
    std::map<std::string, int> names_; // of pins with files
    bool on_files_ = false;
    kiv_gpio_irq_device irq_ = {-1, -1};

    void change(Pin &pin, const Pin &to) {
        const unsigned edge = pin.level() == to.level() ? 0U : to.level() ? 1U : 2U;
        const bool pending = to.pending || (to.edges & edge) != 0;
        pin = to;
        pin.pending = pending;
    }
    int check(int number) const {
        return number < 0 || number >= pins ? EINVAL : pins_[number].claimed ? EBUSY : 0;
    }
    int configure(int number, int value) {
        const int status = check(number);
        if (status != 0)
            return status;
        Pin to = pins_[number];
        if (value != 0 && to.edges != 0)
            return EIO;
        to.is_output = value != 0;
        to.driven = value == 2;
        change(pins_[number], to);
        return 0;
    }
    // The files look at the direction first.
    int drive(int number, bool high, bool by_file) {
        const bool exists = number >= 0 && number < pins;
        int status = by_file && exists && !pins_[number].is_output ? EPERM : check(number);
        if (status == 0 && !pins_[number].is_output)
            status = EPERM;
        if (status == 0) {
            Pin to = pins_[number];
            to.driven = high;
            change(pins_[number], to);
        }
        return status;
    }

    // A path has 49 characters at most.
    static std::string cut(const std::string &path) { return path.substr(0, 49); }
    // The pin whose file a name leads to, or -1.
    int pin_at(const std::string &name, const char *file) const {
        const std::string path = cut(cut(tree + name) + "/" + file);
        for (const auto &[each, number] : names_)
            if (path == tree + each + "/" + file)
                return number;
        return -1;
    }

    // One operation on a pin: 0 configures, 1 reads, 2 drives. Its calls are the request, or opening and
    // transfer.
    int model_on_device(Fault &fault, unsigned what, int number, int value) {
        const int error = fault.next(KIV_SIM_IOCTL);
        if (error != 0)
            return what == 1 ? -1 : error;
        if (what == 0)
            return configure(number, value >= 0 && value <= 2 ? value : 0);
        if (what == 2)
            return drive(number, value != 0, false);
        return check(number) != 0 ? -1 : pins_[number].level() ? 1 : 0;
    }
    int model_on_files(Fault &fault, unsigned what, const std::string &name, int value) {
        const int number = pin_at(name, what == 0 ? "direction" : "value");
        int error = EINTR;
        while (error == EINTR)
            error = fault.next(KIV_SIM_OPEN);
        if (error == 0 && number == -1)
            error = ENOENT;
        if (error != 0 && what == 1)
            return -1;
        if (error == ENOENT && what == 0) // a fixed direction: what is left is the level
            return value == 1 || value == 2 ? model_on_files(fault, 2, name, value - 1) : 0;
        if (error != 0)
            return error;
        if (what == 0 && (value < 0 || value > 2))
            return EINVAL;
        do
            error = fault.next(what == 1 ? KIV_SIM_READ : KIV_SIM_WRITE);
        while (error == EINTR);
        if (what == 1)
            return error != 0 || check(number) != 0 ? -1 : pins_[number].level() ? 1 : 0;
        if (error != 0)
            return error;
        return what == 0 ? configure(number, value) : drive(number, value != 0, true);
    }

    static int act(unsigned what, int number, const std::string *name, int value) {
        if (what == 0)
            return name != nullptr ? kiv_gpio_n_config(name->c_str(), value) : kiv_gpio_config(number, value);
        if (what == 1)
            return name != nullptr ? kiv_gpio_n_read(name->c_str()) : kiv_gpio_read(number);
        if (value != 0)
            return name != nullptr ? kiv_gpio_n_output_set(name->c_str()) : kiv_gpio_output_set(number);
        return name != nullptr ? kiv_gpio_n_output_clear(name->c_str()) : kiv_gpio_output_clear(number);
    }

    void operate(Input &input) {
        Fault fault(input, {KIV_SIM_IOCTL, KIV_SIM_OPEN, KIV_SIM_WRITE}, {EINTR, EIO, EACCES}, 16);
        const unsigned what = input.below(3);
        const int number = some_pin(input);
        const int value = static_cast<int>(input.below(5)) - 1;
        const bool named = input.below(2) != 0;
        const std::string name = named ? some_name(input) : "gpio" + std::to_string(number);
        const int level = what == 2 ? value & 1 : value;
        Fault model = fault;
        const int expected = on_files_ ? model_on_files(model, what, name, level)
                             : named   ? -1
                                       : model_on_device(model, what, number, level);
        fault.arm();
        const int status = act(what, number, named ? &name : nullptr, level);
        kiv_sim_clear_faults();
        if (name.find('/') == std::string::npos && on_files_)
            require(status == expected || (expected == ENOENT && status == EISDIR), "a result on files");
        else if (!on_files_)
            require_equal(status, expected, "a result on the device");
    }

    void interrupt(Input &input) {
        Fault fault(input, {KIV_SIM_IOCTL, KIV_SIM_OPEN}, {EINTR, EIO, EACCES}, 0);
        const unsigned what = input.below(3);
        const int number = some_pin(input);
        if (irq_.fd == -1) {
            const unsigned mode = what + 1 < 4 ? what + 1 : input.word();
            int error = EINTR;
            while (error == EINTR)
                error = fault.next(KIV_SIM_OPEN);
            const bool opened = error == 0;
            if (opened)
                error = fault.next(KIV_SIM_IOCTL);
            if (error == 0)
                error = check(number);
            if (error == 0)
                error = mode < 1 || mode > 3 ? EINVAL : pins_[number].is_output ? EIO : 0;
            fault.arm();
            require_equal(kiv_gpio_irq_open(&irq_, number, mode), error, "the opening of an interrupt");
            kiv_sim_clear_faults();
            require((irq_.fd != -1) == opened && (!opened || irq_.pin == number), "the handle");
            if (error == 0)
                pins_[number].edges = mode;
            else if (opened)
                close();
            return;
        }
        Pin &pin = pins_[irq_.pin];
        if (what == 0)
            return close();
        const int error = fault.next(KIV_SIM_IOCTL);
        if (error == 0 && !pin.pending)
            return; // it would wait
        fault.arm();
        require_equal(kiv_gpio_irq_wait(&irq_), error, "a wait");
        kiv_sim_clear_faults();
        pin.pending = pin.pending && error != 0;
    }
    void close() {
        if (irq_.fd == -1)
            return;
        require_equal(kiv_gpio_irq_close(&irq_), 0, "the closing of an interrupt");
        if (irq_.pin >= 0 && irq_.pin < pins)
            pins_[irq_.pin].edges = 0, pins_[irq_.pin].pending = false;
        irq_ = {-1, -1};
    }

    void outside(Input &input) {
        const unsigned what = input.below(4);
        const auto number = static_cast<unsigned>(some_pin(input));
        const bool on = input.below(2) != 0;
        const std::string name = some_name(input);
        if (number < pins && what == 0) {
            kiv_sim_pin_claim(number, on ? 1 : 0);
            pins_[number].claimed = on;
        } else if (number < pins && what == 1) {
            kiv_sim_pin_drive(number, on ? 1 : 0);
            Pin to = pins_[number];
            to.outside = on;
            change(pins_[number], to);
        } else if (what == 2) {
            const bool fits = number < pins && !name.empty() && name.size() < 40 &&
                              name.find('/') == std::string::npos && names_.count(name) == 0 &&
                              names_.size() < 16;
            require((kiv_sim_sysfs_export(name.c_str(), number, 1) == 0) == fits, "a directory is made");
            if (fits)
                names_[name] = static_cast<int>(number);
        } else {
            select(on);
        }
    }

    void select(bool files) {
        if (kiv::selected_gpio_backend() == kiv::GPIO_BACKEND_DEV)
            ::close(kiv::gpio_fd);
        on_files_ = files;
        kiv::select_gpio_backend(files ? kiv::GPIO_BACKEND_SYSFS : kiv::GPIO_BACKEND_NONE, -1);
        if (!files)
            require(kiv_gpio_open() == 0, "the opening of the device");
    }

    static int some_pin(Input &input) {
        const unsigned what = input.byte();
        return what < 248 ? static_cast<int>(what % 4) : what < 252 ? static_cast<int>(what - 190) : -1;
    }
    // Mostly one that may be there.
    static std::string some_name(Input &input) {
        const unsigned what = input.byte();
        if (what < 192)
            return "gpio" + std::to_string(what % 4);
        std::string name(what % 2 != 0 ? 30 : 0, 'n');
        for (const std::uint8_t byte : input.bytes(what % 32))
            name += static_cast<char>(byte);
        return name.substr(0, name.find('\0'));
    }

  public:
    Pins() { select(false); }
    Pins(const Pins &) = delete;
    Pins &operator=(const Pins &) = delete;
    ~Pins() {
        close();
        select(true);
    }

    void step(Input &input) {
        const unsigned what = input.below(8);
        if (what < 2)
            outside(input);
        else if (what < 4)
            interrupt(input);
        else
            operate(input);
        for (unsigned i = 0; i < 4; ++i) {
            kiv_sim_pin_state state;
            kiv_sim_pin_inspect(i, &state);
            const Pin &pin = pins_[i];
            require((state.is_output != 0) == pin.is_output && (state.level != 0) == pin.level(), "a pin");
            require((state.irq_pending != 0) == pin.pending, "an interrupt");
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const KeepsDescriptors kept;
    Input input(data, size);
    kiv_sim_reset();
    kiv_sim_i2c_plug(KIV_SIM_I2C_CLOCK, 0); // an EEPROM is all that the model knows
    {
        Bus bus;
        Pins pins_of_the_board;
        while (!input.empty())
            input.below(2) != 0 ? bus.step(input) : pins_of_the_board.step(input);
    }
    return 0;
}
