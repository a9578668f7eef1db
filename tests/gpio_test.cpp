// GPIO pins, through the device and through the sysfs files, and interrupts of pins. The module is compiled
// into this program, so that its back end can be selected, and put back, from here.

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

#include "fixtures/fault_sweep.h"
#include "kiv/gpio.h"
#include "kiv/platform.h"
#include "linux/gpio_backend.h"

namespace kiv::test {
namespace {

using namespace std::string_literals;

const char module[] = "linux/gpio";

kiv_sim_pin_state pin_state(unsigned pin) {
    kiv_sim_pin_state state = {};
    EXPECT_EQ(kiv_sim_pin_inspect(pin, &state), 0);
    return state;
}

// Until a thread waits for the pin's interrupt.
void wait_for_waiter(unsigned pin) {
    const auto has_waiter = [](const kiv_sim_pin_state *state, void *) {
        return state->waiting != 0 ? 1 : 0;
    };
    EXPECT_EQ(kiv_sim_pin_wait(pin, has_waiter, nullptr), 0);
}

// The statement of a request: its descriptor, direction, number, the type and the name of its argument.
std::string requested(const std::string &fd, const std::string &direction, int number,
                      const std::string &type, const std::string &argument) {
    return "ret = ioctl(" + fd + ", (((" + direction + ") << (((0+8)+8)+14)) | ((('p')) << (0+8)) | (((" +
           std::to_string(number) + ")) << 0) | ((((sizeof(struct gpio_" + type + ")))) << ((0+8)+8))), &" +
           argument + ")";
}

// The statement of a call that is repeated after a signal.
std::string repeated(const std::string &left_side, const std::string &call) {
    return left_side + "({ int __ret; while((__ret = (" + call +
           ")) == -1 && (*__errno_location ()) == 4); __ret;})";
}

const std::string open_text = repeated("*fd = ", "open(\"/dev/gpio\", 02)");
const std::string close_text = repeated("", "close(fd)");

Reports refused(const char *function, const std::string &text, int error) {
    return {trace(module, function, text, error), warned(module, function)};
}

using Operation = int (*)();

constexpr Operation input = [] { return kiv_gpio_config(4, KIV_GPIO_INPUT); };
constexpr Operation low = [] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW); };
constexpr Operation high = [] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH); };
constexpr Operation set = [] { return kiv_gpio_output_set(4); };
constexpr Operation clear = [] { return kiv_gpio_output_clear(4); };
constexpr Operation read = [] { return kiv_gpio_read(4); };

// What is done to a pin, what that writes to its file, and what the pin is then.
const struct {
    Operation by_number, by_name;
    std::string text;
    int is_output, level;
} changes[] = {
    {high, [] { return kiv_gpio_n_config("led", KIV_GPIO_OUTPUT_HIGH); }, "high\0"s, 1, 1},
    {low, [] { return kiv_gpio_n_config("led", KIV_GPIO_OUTPUT_LOW); }, "low\0"s, 1, 0},
    {set, [] { return kiv_gpio_n_output_set("led"); }, "1\0"s, 1, 1},
    {clear, [] { return kiv_gpio_n_output_clear("led"); }, "0\0"s, 1, 0},
    {input, [] { return kiv_gpio_n_config("led", KIV_GPIO_INPUT); }, "in\0"s, 0, 0},
};

class Gpio : public LoggedBoardTest {
  protected:
    void SetUp() override {
        LoggedBoardTest::SetUp();
        kiv_log_dyn_level_POS = 3;
        select_gpio_backend(GPIO_BACKEND_NONE, -1);
    }
    void TearDown() override {
        if (gpio_backend == GPIO_BACKEND_DEV)
            ::close(gpio_fd);
        LoggedBoardTest::TearDown();
    }
};

// The device ---------------------------------------------------------------------------------------------

TEST_F(Gpio, FailedOpeningLeavesNothingSelected) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, ENOENT), 0);
    EXPECT_EQ(kiv_gpio_open(), ENOENT);
    reports();
    for (const auto &change : changes) {
        EXPECT_EQ(change.by_number(), -1);
        EXPECT_EQ(change.by_name(), -1);
    }
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(kiv_gpio_n_read("led"), -1);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 1u);
    EXPECT_EQ(kiv_gpio_open(), 0);
}

TEST_F(Gpio, ConfiguresReadsAndDrives) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    kiv_gpio_close();
    ASSERT_EQ(kiv_gpio_open(), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 1u) << "opened once";
    ASSERT_EQ(kiv_sim_pin_wire(4, 9), 0);
    for (const auto &change : changes) {
        EXPECT_EQ(change.by_number(), 0);
        EXPECT_EQ(pin_state(4).is_output, change.is_output);
        EXPECT_EQ(kiv_gpio_read(9), change.level);
        EXPECT_EQ(change.by_name(), -1);
    }
    for (const int unknown : {3, -1}) {
        ASSERT_EQ(high(), 0);
        EXPECT_EQ(kiv_gpio_config(4, unknown), 0);
        EXPECT_FALSE(pin_state(4).is_output) << unknown;
    }
    ASSERT_EQ(kiv_sim_pin_drive(5, 1), 0);
    for (const int level : {0x80, -1}) {
        kiv_sim_gpio_set_high(level);
        EXPECT_EQ(kiv_gpio_read(5), 1) << level;
    }
    EXPECT_EQ(kiv_gpio_n_read("led"), -1);
}

// Without a reason, -1 is a success of everything that returns an errno value.
TEST_F(Gpio, ARefusalWithoutAReason) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    for (const Operation operation : {low, clear, read}) {
        ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 1, 1, -1), 0);
        errno = 0;
        EXPECT_EQ(operation(), operation == read ? -1 : 0);
    }
    EXPECT_EQ(reports(), Reports{warned(module, "kiv_gpio_dev_read", "ret != -1")});
    // A reason counts where nobody reads the log, too.
    kiv_log_dyn_level_POS = 0;
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_IOCTL, 1, 1, EBUSY), 0);
    EXPECT_EQ(low(), EBUSY);
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, EMFILE), 0);
    kiv_gpio_irq_device irq;
    EXPECT_EQ(kiv_gpio_irq_open(&irq, 4, KIV_SIM_EDGE_BOTH), EMFILE);
    EXPECT_EQ(reports(),
              Reports({warned(module, "kiv_gpio_dev_config"), warned(module, "kiv_gpio_dev_open")}));
}

// Sysfs --------------------------------------------------------------------------------------------------

class SysfsGpio : public Gpio {
  protected:
    void SetUp() override {
        Gpio::SetUp();
        ASSERT_EQ(kiv_sim_sysfs_export("gpio4", 4, 1), 0);
        ASSERT_EQ(kiv_sim_sysfs_export("led", 4, 1), 0);
        select_gpio_backend(GPIO_BACKEND_SYSFS, -1);
    }
    static std::string written(const char *name) {
        char bytes[16];
        return {bytes, kiv_sim_sysfs_written(name, bytes, sizeof bytes)};
    }
};

TEST_F(SysfsGpio, AnOperationIsOneOpeningOneTransferOneClosingAndNoMemory) {
    EXPECT_EQ(kiv_gpio_open(), 0) << "keeps the files";
    for (const auto &change : changes)
        for (const bool by_name : {false, true}) {
            const unsigned allocations = kiv_sim_calls(KIV_SIM_MALLOC) + kiv_sim_calls(KIV_SIM_CALLOC);
            const int status = by_name ? change.by_name() : change.by_number();
            EXPECT_EQ(kiv_sim_calls(KIV_SIM_MALLOC) + kiv_sim_calls(KIV_SIM_CALLOC), allocations);
            EXPECT_EQ(status, 0);
            EXPECT_EQ(written(by_name ? "led" : "gpio4"), change.text);
            EXPECT_EQ(pin_state(4).is_output, change.is_output);
            EXPECT_EQ(pin_state(4).level, change.level);
        }
    for (const auto call : {KIV_SIM_OPEN, KIV_SIM_WRITE, KIV_SIM_CLOSE})
        EXPECT_EQ(kiv_sim_calls(call), 10u) << kiv_sim_call_name(call);
}

TEST_F(SysfsGpio, ReadsTheFirstCharacter) {
    const std::pair<const char *, int> rows[] = {{"1\n", 1}, {"0", 0}, {"", -1}, {"\n", -1}, {"2\n", -1}};
    for (const auto &[text, level] : rows) {
        ASSERT_EQ(kiv_sim_sysfs_show("gpio4", text), 0);
        EXPECT_EQ(read(), level) << text;
        ASSERT_EQ(kiv_sim_sysfs_show("led", text), 0);
        EXPECT_EQ(kiv_gpio_n_read("led"), level) << text;
    }
}

TEST_F(SysfsGpio, WithoutDirectionTheLevelIsDriven) {
    ASSERT_EQ(high(), 0);
    ASSERT_EQ(kiv_sim_sysfs_export("fixed", 4, 0), 0);
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_OUTPUT_HIGH), 0);
    EXPECT_EQ(written("fixed"), "1\0"s);
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_OUTPUT_LOW), 0);
    EXPECT_EQ(written("fixed"), "0\0"s);
    const unsigned before = kiv_sim_calls(KIV_SIM_WRITE);
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_INPUT), 0);
    EXPECT_EQ(kiv_gpio_n_config("fixed", 7), 0);
    EXPECT_EQ(kiv_gpio_config(4, 3), EINVAL) << "with a direction, only the known ones are taken";
    EXPECT_EQ(kiv_gpio_n_config("led", -1), EINVAL);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITE), before);
}

TEST_F(SysfsGpio, ReportsFollowTheLevel) {
    for (const auto &[level, count] : {std::pair(2, 5U), {1, 4U}, {0, 1U}}) {
        kiv_log_dyn_level_POS = level;
        select_gpio_backend(GPIO_BACKEND_SYSFS, -1);
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 2, EIO), 0);
        EXPECT_EQ(high(), EIO); // a message of level 2
        EXPECT_EQ(set(), EIO);  // a trace
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_WRITE, 1, 1, EIO), 0);
        EXPECT_EQ(set(), EIO); // another
        select_gpio_backend(GPIO_BACKEND_DEV, -1);
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_IOCTL, 1, 1, EIO), 0);
        EXPECT_EQ(low(), EIO); // a trace, and a warning, which no level silences
        EXPECT_EQ(reports().size(), count);
    }
}

// From three bytes on a direction counts as written; less is told by the errno of before.
TEST_F(SysfsGpio, ShortWords) {
    ASSERT_EQ(high(), 0);
    const struct {
        Operation operation;
        unsigned length;
        int result;
    } rows[] = {{input, 2, EDOM}, {low, 3, 0}};
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_shorten(KIV_SIM_WRITE, 1, 1, row.length), 0);
        errno = EDOM;
        EXPECT_EQ(row.operation(), row.result) << row.length;
    }
}

// Paths have 49 characters at most; what is there under the cut path is used.
TEST_F(SysfsGpio, LongPathsAreCut) {
    const std::string cut(33, 'n'); // fills the path with the tree's 16 characters
    ASSERT_EQ(kiv_sim_sysfs_export(cut.c_str(), 4, 1), 0);
    const std::string longer = cut + "and more";
    EXPECT_EQ(kiv_gpio_n_config(longer.c_str(), KIV_GPIO_INPUT), EISDIR);
    EXPECT_EQ(kiv_gpio_n_read(longer.c_str()), -1);
    EXPECT_EQ(reports(),
              Reports({logged(2, "can't open '/sys/class/gpio/" + cut + "':Is a directory"),
                       trace(module, "kiv_gpio_sysfs_read", repeated("rc = ", "read(fd,&buf,1)"), EISDIR)}));
    const std::string shorter(27, 'n'); // room for "/value", not for "/direction"
    ASSERT_EQ(kiv_sim_sysfs_export(shorter.c_str(), 4, 1), 0);
    EXPECT_EQ(kiv_gpio_n_config(shorter.c_str(), KIV_GPIO_INPUT), 0); // no "direct"
    EXPECT_EQ(kiv_gpio_n_read(shorter.c_str()), 0);
    EXPECT_EQ(written(shorter.c_str()), "");
}

// Interrupts ---------------------------------------------------------------------------------------------

class GpioIrq : public Gpio {
  protected:
    kiv_gpio_irq_device irq_ = {-1, -1};

    void open(unsigned mode = KIV_SIM_EDGE_RISING) {
        ASSERT_EQ(kiv_gpio_irq_open(&irq_, 8, mode), 0);
        ASSERT_EQ(irq_.pin, 8);
    }
};

TEST_F(GpioIrq, WaitsForTheEdgesOfItsMode) {
    const struct {
        unsigned mode;
        int before, after;
    } rows[] = {{KIV_SIM_EDGE_RISING, 0, 1}, {KIV_SIM_EDGE_FALLING, 1, 0}, {KIV_SIM_EDGE_BOTH, 0, 1}};
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_pin_drive(8, row.before), 0);
        open(row.mode);
        std::thread waiter([this] { EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0); });
        wait_for_waiter(8);
        EXPECT_EQ(pin_state(8).irq_mode, static_cast<int>(row.mode));
        EXPECT_EQ(kiv_sim_pin_drive(8, row.after), 0);
        waiter.join();
        EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
    }
}

TEST_F(GpioIrq, MissingDeviceLeavesTheHandleAlone) {
    irq_ = {-7, 123};
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, ENOENT), 0);
    EXPECT_EQ(kiv_gpio_irq_open(&irq_, 8, KIV_SIM_EDGE_RISING), ENOENT);
    EXPECT_TRUE(irq_.fd == -7 && irq_.pin == 123);
    reports();
}

// The device's own number says nothing; -1 without an errno neither.
TEST_F(GpioIrq, AnyOtherResultIsASuccess) {
    for (const long result : {5L, -2L, -1L}) {
        ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 1, 2, result), 0);
        errno = result == -1 ? 0 : EDOM;
        open();
        EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0) << result;
        EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
    }
}

TEST_F(GpioIrq, ClosingClosesTheInterrupt) {
    open();
    const int copy = ::dup(irq_.fd); // which keeps the descriptor's own end from doing it
    EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
    EXPECT_EQ(pin_state(8).irq_mode, 0);
    ::close(copy);
}

// Whatever goes wrong --------------------------------------------------------------------------------------

kiv_gpio_irq_device irq;

void select_device() {
    select_gpio_backend(GPIO_BACKEND_NONE, -1);
    EXPECT_EQ(kiv_gpio_open(), 0);
}
void select_driven_device() {
    select_device();
    EXPECT_EQ(low(), 0);
}
void deselect_device() {
    if (gpio_backend == GPIO_BACKEND_DEV)
        ::close(gpio_fd);
    select_gpio_backend(GPIO_BACKEND_NONE, -1);
}
void select_files() {
    kiv_sim_sysfs_export("gpio4", 4, 1);
    kiv_sim_sysfs_export("led", 4, 1);
    select_gpio_backend(GPIO_BACKEND_SYSFS, -1);
    EXPECT_EQ(high(), 0);
    errno = EDOM; // a transfer that the kernel cuts short sets none: the status is the errno of before
}
int open_irq() {
    return kiv_gpio_irq_open(&irq, 8, KIV_SIM_EDGE_BOTH);
}
void open_pending_irq() {
    EXPECT_EQ(open_irq(), 0);
    kiv_sim_pin_drive(8, 1);
    kiv_sim_pin_drive(8, 0);
}
void close_irq() {
    if (irq.fd != -1)
        kiv_gpio_irq_close(&irq);
    irq.fd = -1;
}

// An opening is made again after a signal, a request is not.
Ending refusing(const char *function, const std::string &request) {
    return [=](const Point &at) {
        if (at.is(KIV_SIM_IOCTL))
            return Outcome{at.error, refused(function, request, at.error)};
        if (at.is(KIV_SIM_CLOSE)) // of a number that is not to be kept
            return Outcome{0};
        return at.error == EINTR ? Outcome{0, {}, true}
                                 : Outcome{at.error, refused("kiv_gpio_dev_open", open_text, at.error)};
    };
}
Outcome refused_read(const Point &at) {
    const char *const function = "kiv_gpio_dev_read";
    return {-1,
            {trace(module, function, requested("gpio_fd", "2U|1U", 1, "data", "data"), at.error),
             warned(module, function, "ret != -1")}};
}

// A close is made again after a signal as well: the kernel has closed the descriptor even so, which the next
// attempt finds out. A failed close is only traced.
Ending failing(const char *function, const std::string &opening, const std::string &transfer) {
    return [=](const Point &at) {
        const bool again = at.error == EINTR;
        if (at.is(KIV_SIM_CLOSE))
            return Outcome{0, {trace(module, function, close_text, again ? EBADF : at.error)}, again};
        if (again)
            return Outcome{0, {}, true};
        if (!at.is(Fault::fails))
            return Outcome{EDOM};
        const std::string text = repeated("rc = ", at.is(KIV_SIM_OPEN) ? opening : transfer);
        return Outcome{at.error, {trace(module, function, text, at.error)}};
    };
}
// The opening of a direction has a message of its own, without a line end.
Ending failed_direction(const std::string &pin) {
    return [=](const Point &at) {
        if (at.is(KIV_SIM_OPEN) && at.error != EINTR)
            return Outcome{
                at.error,
                {logged(2, "can't open '/sys/class/gpio/" + pin + "/direction':" + std::strerror(at.error))}};
        Point refused = at; // so says the kernel of a part of the word
        if (at.is(Fault::moves_less))
            refused = {at.call, at.nth, Fault::fails, EINVAL, at.lasting};
        return failing("kiv_gpio_sysfs_config", "", "write(fd,\"high\",5)")(refused);
    };
}
Outcome failed_level(const Point &at) {
    Outcome outcome = failing("kiv_gpio_sysfs_read", "open(strbuf,00)", "read(fd,&buf,1)")(at);
    outcome.status = outcome.status != 0 ? -1 : 0;
    return outcome;
}
Ending failed_text(const std::string &text) {
    return failing("kiv_gpio_sysfs_write", "open(strbuf,01)", "write(fd,\"" + text + "\",2)");
}

const Ending failed_data = refusing("kiv_gpio_dev_write", requested("gpio_fd", "1U", 2, "data", "data"));
const Scene device = {select_device, deselect_device};
const Scene driven_device = {select_driven_device, deselect_device};
const Scene files = {select_files, nothing};
const Scene undecided = {nothing, deselect_device};
const Scene fresh_irq = {[] { irq.fd = -1; }, close_irq};
const Scene closing_irq = {open_pending_irq, nothing};
const Scene pending = {open_pending_irq, close_irq};

const SweptOperation rows[] = {
    {"kiv_gpio_open", "", undecided, refusing("", ""), kiv_gpio_open},
    {"kiv_gpio_open", "without_input", without_input(undecided), refusing("", ""), kiv_gpio_open},
    {"kiv_gpio_close", "", device, nullptr, [] { return kiv_gpio_close(), 0; }},
    {"kiv_gpio_config", "", device,
     refusing("kiv_gpio_dev_config", requested("gpio_fd", "1U", 0, "direction", "dir")), low},
    {"kiv_gpio_output_set", "", driven_device, failed_data, set},
    {"kiv_gpio_output_clear", "", driven_device, failed_data, clear},
    {"kiv_gpio_read", "", device, refused_read, read},
    {"kiv_gpio_config", "file", files, failed_direction("gpio4"), high},
    {"kiv_gpio_output_set", "file", files, failed_text("1"), set},
    {"kiv_gpio_output_clear", "file", files, failed_text("0"), clear},
    {"kiv_gpio_read", "file", files, failed_level, [] { return read() == 1 ? 0 : -1; }},
    {"kiv_gpio_n_config", "", files, failed_direction("led"), changes[0].by_name},
    {"kiv_gpio_n_output_set", "", files, failed_text("1"), changes[2].by_name},
    {"kiv_gpio_n_output_clear", "", files, failed_text("0"), changes[3].by_name},
    {"kiv_gpio_n_read", "", files, failed_level, [] { return kiv_gpio_n_read("led") == 1 ? 0 : -1; }},
    {"kiv_gpio_irq_open", "", fresh_irq,
     refusing("kiv_gpio_irq_open", requested("device->fd", "1U", 3, "irq", "data")), open_irq},
    {"kiv_gpio_irq_wait", "", pending,
     refusing("kiv_gpio_irq_wait", requested("device->fd", "1U", 5, "irq", "data")),
     [] { return kiv_gpio_irq_wait(&irq); }},
    {"kiv_gpio_irq_close", "", closing_irq, unnoticed, [] { return kiv_gpio_irq_close(&irq); }},
};

INSTANTIATE_TEST_SUITE_P(Gpio, FaultSweep, ::testing::ValuesIn(rows), row_name);

} // namespace
} // namespace kiv::test
