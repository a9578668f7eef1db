// GPIO pins, through the device and through the sysfs files. The module is compiled into this program, so
// that its back end can be selected, and put back, from here.

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fixtures/log_capture.h"
#include "kiv/gpio.h"
#include "kiv/platform.h"
#include "linux/gpio_backend.h"

namespace kiv::test {
namespace {

const char module[] = "linux/gpio";

// The statement of a request: its direction, its number and its argument.
std::string requested(const std::string &direction, const std::string &number, const std::string &type) {
    return "ret = ioctl(gpio_fd, (((" + direction + ") << (((0+8)+8)+14)) | ((('p')) << (0+8)) | (((" +
           number + ")) << 0) | ((((sizeof(struct gpio_" + type + ")))) << ((0+8)+8))), &" +
           (type == "data" ? "data)" : "dir)");
}

// The statement of a call that is repeated after a signal.
std::string repeated(const std::string &left_side, const std::string &call) {
    std::string text = left_side;
    return text.append("({ int __ret; while((__ret = (")
        .append(call)
        .append(")) == -1 && (*__errno_location ()) == 4); __ret;})");
}

const std::string open_text = repeated("*fd = ", "open(\"/dev/gpio\", 02)");
const std::string close_text = repeated("", "close(fd)");

kiv_sim_pin_state pin_state(unsigned pin) {
    kiv_sim_pin_state state = {};
    EXPECT_EQ(kiv_sim_pin_inspect(pin, &state), 0);
    return state;
}

class Gpio : public LoggedBoardTest {
  protected:
    void SetUp() override {
        LoggedBoardTest::SetUp();
        kiv_log_dyn_level_POS = 3;
        select_gpio_backend(GPIO_BACKEND_NONE, -1);
    }
    void TearDown() override {
        if (gpio_backend == GPIO_BACKEND_DEV && gpio_fd >= 0)
            ::close(gpio_fd);
        LoggedBoardTest::TearDown();
    }
};

using Operation = std::function<int()>;

const std::vector<Operation> numbered = {
    [] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW); },
    [] { return kiv_gpio_read(4); },
    [] { return kiv_gpio_output_set(4); },
    [] { return kiv_gpio_output_clear(4); },
};
const std::vector<Operation> named = {
    [] { return kiv_gpio_n_config("led", KIV_GPIO_OUTPUT_LOW); },
    [] { return kiv_gpio_n_read("led"); },
    [] { return kiv_gpio_n_output_set("led"); },
    [] { return kiv_gpio_n_output_clear("led"); },
};

void expect_all(const std::vector<Operation> &operations, int result) {
    for (const auto &operation : operations)
        EXPECT_EQ(operation(), result);
}

// The device ---------------------------------------------------------------------------------------------

TEST_F(Gpio, OpensTheDeviceOnceAndGoesOnAfterSignals) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 3, EINTR), 0);
    EXPECT_EQ(kiv_gpio_open(), 0);
    EXPECT_EQ(kiv_gpio_open(), 0);
    kiv_gpio_close();
    EXPECT_EQ(kiv_gpio_open(), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 4u);
    EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), 0);
}

TEST_F(Gpio, FailedOpeningLeavesNothingSelected) {
    for (const int error : {ENOENT, EACCES, EMFILE}) {
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, error), 0);
        EXPECT_EQ(kiv_gpio_open(), error);
        EXPECT_EQ(reports(), Reports({trace(module, "kiv_gpio_dev_open", open_text, error),
                                      warned(module, "kiv_gpio_dev_open")}));
        expect_all(numbered, -1);
        expect_all(named, -1);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 3u);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), 0u);
    EXPECT_EQ(gpio_fd, -1);
    EXPECT_EQ(kiv_gpio_open(), 0);
}

TEST_F(Gpio, ConfiguresReadsAndDrives) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    ASSERT_EQ(kiv_sim_pin_wire(4, 9), 0);
    EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), 0);
    EXPECT_EQ(kiv_gpio_read(9), 1);
    EXPECT_EQ(kiv_gpio_output_clear(4), 0);
    EXPECT_EQ(kiv_gpio_read(9), 0);
    EXPECT_EQ(kiv_gpio_output_set(4), 0);
    EXPECT_EQ(kiv_gpio_read(9), 1);
    EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW), 0);
    EXPECT_EQ(kiv_gpio_read(9), 0);
    EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_INPUT), 0);
    EXPECT_FALSE(pin_state(4).is_output);
    for (const int unknown : {7, 3, -1}) {
        ASSERT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), 0);
        EXPECT_EQ(kiv_gpio_config(4, unknown), 0);
        EXPECT_FALSE(pin_state(4).is_output) << unknown;
    }
    ASSERT_EQ(kiv_sim_pin_drive(5, 1), 0);
    for (const int high : {0x80, -1, 0x40000000}) {
        kiv_sim_gpio_set_high(high);
        EXPECT_EQ(kiv_gpio_read(5), 1) << high;
    }
    expect_all(named, -1);
    EXPECT_EQ(reports(), Reports());
    for (const int pin : {64, -1})
        EXPECT_EQ(kiv_gpio_config(pin, KIV_GPIO_INPUT), EINVAL);
    EXPECT_EQ(kiv_gpio_read(64), -1);
    EXPECT_EQ(reports().size(), 6u);
}

struct DeviceRow {
    Operation operation;
    const char *function;
    std::string text;
    bool reads;
};

const std::vector<DeviceRow> device_rows = {
    {numbered[0], "kiv_gpio_dev_config", requested("1U", "0", "direction"), false},
    {numbered[1], "kiv_gpio_dev_read", requested("2U|1U", "1", "data"), true},
    {numbered[2], "kiv_gpio_dev_write", requested("1U", "2", "data"), false},
    {numbered[3], "kiv_gpio_dev_write", requested("1U", "2", "data"), false},
};

// The reports of a refused request at one log level.
Reports refusal(const DeviceRow &row, int error) {
    Reports expected;
    if (error != 0 && kiv_log_dyn_level_POS >= 1)
        expected.push_back(trace(module, row.function, row.text, error));
    if (row.reads || error != 0)
        expected.push_back(warned(module, row.function, row.reads ? "ret != -1" : "ret == 0"));
    return expected;
}

// Without a reason, -1 is a success of everything that returns an errno value.
TEST_F(Gpio, RefusedRequestsAreReportedAndNotRepeated) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    for (const int level : {0, 1, 2, 3})
        for (const int error : {EINTR, EBUSY, ENODEV, 0})
            for (const auto &row : device_rows) {
                kiv_log_dyn_level_POS = level;
                const unsigned before = kiv_sim_calls(KIV_SIM_IOCTL);
                errno = 0;
                ASSERT_EQ(error == 0 ? kiv_sim_answer(KIV_SIM_IOCTL, 1, 1, -1)
                                     : kiv_sim_fail(KIV_SIM_IOCTL, 1, 1, error),
                          0);
                EXPECT_EQ(row.operation(), row.reads ? -1 : error);
                EXPECT_EQ(reports(), refusal(row, error)) << "level " << level;
                EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), before + 1);
                kiv_sim_clear_faults();
            }
    EXPECT_EQ(gpio_backend, GPIO_BACKEND_DEV);
}

TEST_F(Gpio, PinsServeManyThreads) {
    ASSERT_EQ(kiv_gpio_open(), 0);
    std::vector<std::thread> threads;
    for (int pin = 0; pin < 8; pin += 2) {
        ASSERT_EQ(kiv_sim_pin_wire(static_cast<unsigned>(pin), static_cast<unsigned>(pin) + 1), 0);
        threads.emplace_back([pin] {
            EXPECT_EQ(kiv_gpio_config(pin, KIV_GPIO_OUTPUT_LOW), 0);
            for (int round = 0; round < 200; ++round) {
                EXPECT_EQ(kiv_gpio_output_set(pin), 0);
                EXPECT_EQ(kiv_gpio_read(pin + 1), 1);
                EXPECT_EQ(kiv_gpio_output_clear(pin), 0);
                EXPECT_EQ(kiv_gpio_read(pin + 1), 0);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
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

    // Makes pin 4 an output behind the files' back, for directories without "direction".
    static void make_output() {
        EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW), 0);
        EXPECT_TRUE(pin_state(4).is_output);
    }

    static std::string written(const char *name) {
        char bytes[16];
        return {bytes, kiv_sim_sysfs_written(name, bytes, sizeof bytes)};
    }
};

std::string with_zero(const std::string &text) {
    return text + '\0';
}

// Each operation: what it writes, what the pin is then, and that it costs one open, one transfer, one close
// and no memory.
TEST_F(SysfsGpio, OneFileAnOperation) {
    const Operation high = [] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH); };
    const Operation high_by_name = [] { return kiv_gpio_n_config("led", KIV_GPIO_OUTPUT_HIGH); };
    const Operation input = [] { return kiv_gpio_config(4, KIV_GPIO_INPUT); };
    const Operation input_by_name = [] { return kiv_gpio_n_config("led", KIV_GPIO_INPUT); };
    const struct {
        Operation by_number, by_name;
        std::string text;
        bool is_output;
        int level;
    } rows[] = {
        {high, high_by_name, "high", true, 1},  {numbered[0], named[0], "low", true, 0},
        {numbered[2], named[2], "1", true, 1},  {numbered[3], named[3], "0", true, 0},
        {input, input_by_name, "in", false, 0},
    };
    EXPECT_EQ(kiv_gpio_open(), 0) << "keeps the files";
    unsigned operations = 0;
    for (const auto &row : rows)
        for (const bool by_name : {false, true}) {
            EXPECT_EQ(by_name ? row.by_name() : row.by_number(), 0) << row.text;
            EXPECT_EQ(written(by_name ? "led" : "gpio4"), with_zero(row.text));
            EXPECT_EQ(pin_state(4).is_output, row.is_output ? 1 : 0);
            EXPECT_EQ(pin_state(4).level, row.level);
            ++operations;
        }
    for (const auto call : {KIV_SIM_OPEN, KIV_SIM_WRITE, KIV_SIM_CLOSE})
        EXPECT_EQ(kiv_sim_calls(call), operations) << kiv_sim_call_name(call);
}

TEST_F(SysfsGpio, AllocatesNothing) {
    if (kiv_sim_reaches(KIV_SIM_MALLOC) == 0)
        GTEST_SKIP() << "allocations cannot be counted here";
    const unsigned before = kiv_sim_calls(KIV_SIM_MALLOC) + kiv_sim_calls(KIV_SIM_CALLOC);
    const int results[] = {kiv_gpio_n_config("led", KIV_GPIO_OUTPUT_HIGH), kiv_gpio_n_read("led"),
                           kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW), kiv_gpio_read(4)};
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_MALLOC) + kiv_sim_calls(KIV_SIM_CALLOC), before);
    EXPECT_EQ(std::vector<int>(std::begin(results), std::end(results)), std::vector<int>({0, 1, 0, 0}));
}

TEST_F(SysfsGpio, ReadsTheFirstCharacter) {
    const struct {
        const char *text;
        int level;
    } rows[] = {{"1\n", 1}, {"0\n", 0}, {"1", 1}, {"", -1}, {"x\n", -1}, {"\n", -1}, {"2\n", -1}};
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_sysfs_show("gpio4", row.text), 0);
        EXPECT_EQ(kiv_gpio_read(4), row.level) << row.text;
        ASSERT_EQ(kiv_sim_sysfs_show("led", row.text), 0);
        EXPECT_EQ(kiv_gpio_n_read("led"), row.level) << row.text;
    }
}

TEST_F(SysfsGpio, WithoutDirectionTheLevelIsDriven) {
    make_output();
    ASSERT_EQ(kiv_sim_sysfs_export("fixed", 4, 0), 0);
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_OUTPUT_HIGH), 0);
    EXPECT_EQ(written("fixed"), with_zero("1"));
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_OUTPUT_LOW), 0);
    EXPECT_EQ(written("fixed"), with_zero("0"));
    const unsigned before = kiv_sim_calls(KIV_SIM_WRITE);
    EXPECT_EQ(kiv_gpio_n_config("fixed", KIV_GPIO_INPUT), 0);
    EXPECT_EQ(kiv_gpio_n_config("fixed", 7), 0);
    EXPECT_EQ(kiv_gpio_config(4, 3), EINVAL) << "with a direction, only the known ones are taken";
    EXPECT_EQ(kiv_gpio_n_config("led", -1), EINVAL);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_WRITE), before);
}

// Every system call of every operation fails once.
TEST_F(SysfsGpio, EachFailureIsTraced) {
    const Operation &set = numbered[2], &clear = named[3], &read = numbered[1], &low = named[0];
    const Operation input = [] { return kiv_gpio_config(4, KIV_GPIO_INPUT); };
    const Operation high = [] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH); };
    const struct {
        Operation operation;
        kiv_sim_call call;
        int result; // with EIO
        const char *function;
        std::string text;
    } rows[] = {
        {set, KIV_SIM_OPEN, EIO, "kiv_gpio_sysfs_write", repeated("rc = ", "open(strbuf,01)")},
        {set, KIV_SIM_WRITE, EIO, "kiv_gpio_sysfs_write", repeated("rc = ", "write(fd,\"1\",2)")},
        {set, KIV_SIM_CLOSE, 0, "kiv_gpio_sysfs_write", close_text},
        {clear, KIV_SIM_WRITE, EIO, "kiv_gpio_sysfs_write", repeated("rc = ", "write(fd,\"0\",2)")},
        {read, KIV_SIM_OPEN, -1, "kiv_gpio_sysfs_read", repeated("rc = ", "open(strbuf,00)")},
        {read, KIV_SIM_READ, -1, "kiv_gpio_sysfs_read", repeated("rc = ", "read(fd,&buf,1)")},
        {read, KIV_SIM_CLOSE, 0, "kiv_gpio_sysfs_read", close_text},
        {input, KIV_SIM_WRITE, EIO, "kiv_gpio_sysfs_config", repeated("rc = ", "write(fd,\"in\",3)")},
        {low, KIV_SIM_WRITE, EIO, "kiv_gpio_sysfs_config", repeated("rc = ", "write(fd,\"low\",4)")},
        {high, KIV_SIM_WRITE, EIO, "kiv_gpio_sysfs_config", repeated("rc = ", "write(fd,\"high\",5)")},
        {high, KIV_SIM_CLOSE, 0, "kiv_gpio_sysfs_config", close_text},
    };
    for (const auto &row : rows)
        for (const int level : {0, 1, 3}) {
            kiv_log_dyn_level_POS = 3;
            make_output();
            kiv_log_dyn_level_POS = level;
            ASSERT_EQ(kiv_sim_fail(row.call, 1, 1, EIO), 0);
            EXPECT_EQ(row.operation(), row.result) << row.text;
            EXPECT_EQ(reports(), times(level >= 1 ? 1 : 0, trace(module, row.function, row.text, EIO)));
            kiv_sim_clear_faults();
        }
}

// The message has no line end, and is no trace: it has a level of its own.
TEST_F(SysfsGpio, DirectionThatDoesNotOpen) {
    for (const int level : {0, 1, 2, 3}) {
        kiv_log_dyn_level_POS = level;
        ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, EACCES), 0);
        EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), EACCES);
        EXPECT_EQ(reports(),
                  times(level >= 2 ? 1 : 0,
                        logged(2, "can't open '/sys/class/gpio/gpio4/direction':Permission denied")));
    }
}

TEST_F(SysfsGpio, SignalsAreNotNoticed) {
    for (const auto call : {KIV_SIM_OPEN, KIV_SIM_WRITE}) {
        ASSERT_EQ(kiv_sim_fail(call, 1, 3, EINTR), 0);
        EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), 0);
        ASSERT_EQ(kiv_sim_fail(call, 1, 3, EINTR), 0);
        EXPECT_EQ(kiv_gpio_output_set(4), 0);
    }
    for (const auto call : {KIV_SIM_OPEN, KIV_SIM_READ}) {
        ASSERT_EQ(kiv_sim_fail(call, 1, 3, EINTR), 0);
        EXPECT_EQ(kiv_gpio_read(4), 1);
    }
    EXPECT_EQ(kiv_sim_faults_fired(), 18u);
}

// The kernel has closed the descriptor even so, which the second attempt then finds out.
TEST_F(SysfsGpio, InterruptedCloseIsRepeated) {
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EINTR), 0);
    EXPECT_EQ(kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 2u);
    EXPECT_EQ(reports(), Reports({trace(module, "kiv_gpio_sysfs_config", close_text, EBADF)}));
}

// A transfer that the kernel cuts short sets no errno: the result is the errno of before.
TEST_F(SysfsGpio, ShortTransfers) {
    make_output();
    const struct {
        Operation operation;
        kiv_sim_call call;
        unsigned length;
        int result;
    } rows[] = {
        {numbered[2], KIV_SIM_WRITE, 1, EDOM},
        {[] { return kiv_gpio_config(4, KIV_GPIO_INPUT); }, KIV_SIM_WRITE, 2, EDOM},
        {numbered[0], KIV_SIM_WRITE, 3, 0},
        {[] { return kiv_gpio_config(4, KIV_GPIO_OUTPUT_HIGH); }, KIV_SIM_WRITE, 4, 0},
        {numbered[1], KIV_SIM_READ, 0, -1},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_shorten(row.call, 1, 1, row.length), 0);
        errno = EDOM;
        EXPECT_EQ(row.operation(), row.result) << row.length;
    }
}

// Paths have 49 characters at most; what is there under the cut path is used.
TEST_F(SysfsGpio, LongPathsAreCut) {
    const std::string cut(33, 'n'); // fills the path with the tree's 16 characters
    ASSERT_EQ(kiv_sim_sysfs_export(cut.c_str(), 4, 1), 0);
    for (const std::string &name : {cut, cut + "and more"}) {
        EXPECT_EQ(kiv_gpio_n_config(name.c_str(), KIV_GPIO_INPUT), EISDIR);
        EXPECT_EQ(kiv_gpio_n_read(name.c_str()), -1);
        EXPECT_EQ(reports(), Reports({logged(2, "can't open '/sys/class/gpio/" + cut + "':Is a directory"),
                                      trace(module, "kiv_gpio_sysfs_read",
                                            repeated("rc = ", "read(fd,&buf,1)"), EISDIR)}));
    }
    const std::string shorter(27, 'n'); // room for "/value", not for "/direction"
    ASSERT_EQ(kiv_sim_sysfs_export(shorter.c_str(), 4, 1), 0);
    EXPECT_EQ(kiv_gpio_n_config(shorter.c_str(), KIV_GPIO_INPUT), 0); // no "direct"
    EXPECT_EQ(kiv_gpio_n_read(shorter.c_str()), 0);
    EXPECT_EQ(written(shorter.c_str()), "");
}

} // namespace
} // namespace kiv::test
