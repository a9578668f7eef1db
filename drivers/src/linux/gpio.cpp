// GPIO: pins through the device /dev/gpio or through the files of the sysfs tree, and interrupts of pins.
//
//   1. Device requests   records, request values, the back end that is selected
//   2. Reports           the statements of requests and of repeated calls
//   3. Device            its opening, and one request a pin operation
//   4. Sysfs             one file a pin operation: open, one transfer, close
//   5. Pins              the exported operations by number and by name
//   6. Interrupts        a handle is a descriptor of the device and a pin
//
// The back end is one for the process; an operation looks it up once.

#define KIV_MODULE "drivers/src/linux/gpio"

#include "kiv/gpio.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <sys/ioctl.h>

#include "common/device_request.h"
#include "common/fd.h"
#include "common/hints.h"
#include "common/report.h"
#include "common/retry.h"
#include "common/shared.h"
#include "linux/gpio_backend.h"

using kiv::GPIO_BACKEND_DEV;
using kiv::GPIO_BACKEND_NONE;
using kiv::GPIO_BACKEND_SYSFS;
using kiv::retry;
using kiv::selected_gpio_backend;
using kiv::trace_errno;

constinit int32_t kiv::gpio_backend = GPIO_BACKEND_NONE;
constinit int32_t kiv::gpio_fd = -1;

namespace {

// 1. Device requests ------------------------------------------------------------------------------------

struct gpio_direction {
    int32_t pin;
    int32_t direction; // as the values of a configuration
};
struct gpio_data {
    int32_t pin;
    int32_t value; // the level: to drive, or filled in by the device
};
struct gpio_irq {
    int32_t pin;
    int32_t mode;
};

// The device's driver knows the records by these bytes.
static_assert(sizeof(gpio_direction) == 8 && offsetof(gpio_direction, direction) == 4);
static_assert(sizeof(gpio_data) == 8 && offsetof(gpio_data, value) == 4);
static_assert(sizeof(gpio_irq) == 8 && offsetof(gpio_irq, mode) == 4);

enum request_number : unsigned int {
    set_direction = 0,
    get_level = 1,
    set_level = 2,
    open_irq = 3,
    close_irq = 4,
    wait_irq = 5
};

constexpr unsigned long set_direction_request = _IOW('p', set_direction, gpio_direction);
constexpr unsigned long get_level_request = _IOWR('p', get_level, gpio_data);
constexpr unsigned long set_level_request = _IOW('p', set_level, gpio_data);
constexpr unsigned long open_irq_request = _IOW('p', open_irq, gpio_irq);
constexpr unsigned long close_irq_request = _IOW('p', close_irq, gpio_irq);
constexpr unsigned long wait_irq_request = _IOW('p', wait_irq, gpio_irq);

static_assert(set_direction_request == 0x40087000 && get_level_request == 0xC0087001);
static_assert(set_level_request == 0x40087002 && open_irq_request == 0x40087003);
static_assert(close_irq_request == 0x40087004 && wait_irq_request == 0x40087005);

int device_fd() {
    return kiv::seen(kiv::gpio_fd);
}

// 2. Reports --------------------------------------------------------------------------------------------

// The log shows statements as the preprocessor spells them. Ten repeated calls written out would be nearly
// the same text, so what they have in common stands here once.
constexpr char repeated_statement[] =
    "%s({ int __ret; while((__ret = (%s)) == -1 && (*__errno_location ()) == 4); __ret;})";
constexpr char open_device[] = R"(open("/dev/gpio", 02))"; // the longest of the calls
constexpr char write_text[] = R"(write(fd,"%s",%u))";

constexpr size_t statement_size = 128;
static_assert(sizeof repeated_statement + sizeof "*fd = " + sizeof open_device <= statement_size);
static_assert(statement_size + sizeof KIV_MODULE ":%d in %s,  : %s\n" <= kiv::format_size);

// Traces a request that has failed; its number tells the rest of its statement. Returns its errno.
KIV_COLD int trace_request(request_number number, const char *function, int line) {
    kiv::request_statement request = {.fd = "device->fd",
                                      .direction = "1U",
                                      .type = 'p',
                                      .number = number,
                                      .size = "struct gpio_irq",
                                      .argument = "&data"};
    if (number < open_irq) {
        request.fd = "gpio_fd";
        request.size = "struct gpio_data";
    }
    if (number == get_level)
        request.direction = "2U|1U";
    if (number == set_direction) {
        request.size = "struct gpio_direction";
        request.argument = "&dir";
    }
    return kiv::report::trace_request(request, function, line, KIV_MODULE);
}

// The failing exit of a request: its errno, traced and warned of, or 0 for a refusal without a reason.
KIV_COLD int refused(request_number number, const char *function, int line) {
    const int status = trace_request(number, function, line);
    return status == 0 ? 0 : kiv::warn(status, function, line);
}

// Composes the statement of a call that is repeated after a signal, and traces it. Returns its errno.
KIV_COLD int trace_repeated(const char *left_side, const char *call, const char *function, int line) {
    if (!kiv::pos_wants(1))
        return errno;
    char statement[statement_size];
    {
        const kiv::errno_guard keep;
        ::snprintf(statement, sizeof statement, repeated_statement, left_side, call);
    }
    return trace_errno(statement, function, line);
}

// 3. Device ---------------------------------------------------------------------------------------------

int open_file(const char *path, int flags) {
    return retry([=] { return ::open(path, flags); });
}

int kiv_gpio_dev_open(int32_t *fd) {
    *fd = kiv::above_standard(open_file("/dev/gpio", O_RDWR));
    if (*fd >= 0)
        return 0;
    const int status = trace_repeated("*fd = ", kiv::plain(open_device), __func__, __LINE__);
    return status == 0 ? 0 : KIV_WARN(status);
}

int kiv_gpio_dev_config(int pin, int value) {
    const bool is_known = static_cast<unsigned int>(value) <= KIV_GPIO_OUTPUT_HIGH;
    gpio_direction dir = {.pin = pin, .direction = is_known ? value : KIV_GPIO_INPUT};
    if (::ioctl(device_fd(), set_direction_request, &dir) == -1)
        return refused(set_direction, __func__, __LINE__);
    return 0;
}

// The exit of a read that has failed.
KIV_COLD int no_level(const char *function, int line) {
    trace_request(get_level, function, line);
    kiv_warn("ret != -1", KIV_MODULE, line, function);
    return -1;
}

int kiv_gpio_dev_read(int pin) {
    gpio_data data = {.pin = pin, .value = 0};
    if (::ioctl(device_fd(), get_level_request, &data) == -1)
        return no_level(__func__, __LINE__);
    return data.value != 0 ? 1 : 0;
}

int kiv_gpio_dev_write(int pin, int level) {
    gpio_data data = {.pin = pin, .value = level};
    if (::ioctl(device_fd(), set_level_request, &data) == -1)
        return refused(set_level, __func__, __LINE__);
    return 0;
}

// 4. Sysfs ----------------------------------------------------------------------------------------------

constexpr size_t path_size = 50;

// Where the pins are: a directory each, "gpio" and its number or a name of its own.
#define KIV_GPIO_TREE "/sys/class/gpio"

// Traces a write, whose statement shows the text and its size.
KIV_COLD void trace_write(const char *text, size_t size, const char *function, int line) {
    if (!kiv::pos_wants(1))
        return;
    char call[32];
    {
        const kiv::errno_guard keep;
        ::snprintf(call, sizeof call, write_text, text, static_cast<unsigned int>(size));
    }
    trace_repeated("rc = ", call, function, line);
}

// The only close of the module that is repeated after a signal. Beware: Linux has given the descriptor up
// even when its close says EINTR, so that the second call fails with EBADF, or closes what another thread
// has just opened under the same number. Files of sysfs close without waiting, so no signal gets in between.
void close_repeatedly(int fd, const char *function, int line) {
    if (retry([=] { return ::close(fd); }) == -1)
        trace_repeated("", kiv::plain("close(fd)"), function, line);
}

// Writes a text with its terminating zero byte, or nothing for a null one, and closes the file. Returns what
// write returned, and errno as the last failure left it.
ssize_t finish_file(int fd, const char *text, const char *function, int line) {
    ssize_t rc = 0;
    if (text != nullptr) {
        const size_t size = ::strlen(text) + 1;
        rc = retry([=] { return ::write(fd, text, size); });
        if (rc == -1)
            trace_write(text, size, function, line);
    }
    close_repeatedly(fd, function, line);
    return rc;
}

int kiv_gpio_sysfs_write(const char *directory, int level) {
    char strbuf[path_size];
    if (::snprintf(strbuf, sizeof strbuf, "%s/value", directory) < 1)
        return errno;
    const int fd = open_file(strbuf, O_WRONLY);
    if (fd == -1)
        return trace_repeated("rc = ", kiv::plain("open(strbuf,01)"), __func__, __LINE__);
    const ssize_t rc = finish_file(fd, level != 0 ? "1" : "0", __func__, __LINE__);
    return rc == 2 ? 0 : errno;
}

// The kernel's words for the values of a configuration; null for what it has no word for.
const char *direction_text(int value) {
    switch (value) {
    case KIV_GPIO_INPUT:
        return "in";
    case KIV_GPIO_OUTPUT_LOW:
        return "low";
    case KIV_GPIO_OUTPUT_HIGH:
        return "high";
    default:
        return nullptr;
    }
}

// The "direction" file of a pin does not open. A pin without one has a fixed direction: what is left of a
// configuration is the level.
int config_without_direction(const char *directory, const char *path, int value) {
    const int error = errno;
    if (error == ENOENT) {
        const bool is_output = value == KIV_GPIO_OUTPUT_LOW || value == KIV_GPIO_OUTPUT_HIGH;
        return is_output ? kiv_gpio_sysfs_write(directory, value == KIV_GPIO_OUTPUT_HIGH) : 0;
    }
    if (kiv::pos_wants(2)) {
        const kiv::error_text text(error);
        sup_log_msg_nocolor_raw(kiv::pos_category_name, 2, "can't open '%s':%s", path, text.get());
    }
    return error;
}

int kiv_gpio_sysfs_config(const char *directory, int value) {
    char strbuf[path_size];
    if (::snprintf(strbuf, sizeof strbuf, "%s/direction", directory) < 1)
        return errno;
    const int fd = open_file(strbuf, O_WRONLY);
    if (fd == -1)
        return config_without_direction(directory, strbuf, value);
    const char *text = direction_text(value);
    const ssize_t rc = finish_file(fd, text, __func__, __LINE__);
    if (text == nullptr)
        return EINVAL;
    return rc > 2 ? 0 : errno;
}

int kiv_gpio_sysfs_read(const char *directory, int /*value*/) {
    char strbuf[path_size];
    if (::snprintf(strbuf, sizeof strbuf, "%s/value", directory) < 1)
        return -1;
    const int fd = open_file(strbuf, O_RDONLY);
    if (fd == -1) {
        trace_repeated("rc = ", kiv::plain("open(strbuf,00)"), __func__, __LINE__);
        return -1;
    }
    char buf = '\0';
    const ssize_t rc = retry([=, &buf] { return ::read(fd, &buf, 1); });
    if (rc == -1)
        trace_repeated("rc = ", kiv::plain("read(fd,&buf,1)"), __func__, __LINE__);
    close_repeatedly(fd, __func__, __LINE__);
    if (rc != 1 || (buf != '0' && buf != '1'))
        return -1;
    return buf - '0';
}

// The directory of a pin, by number or by name.
class pin_directory {
  public:
    explicit pin_directory(int pin) { ::snprintf(path_, sizeof path_, KIV_GPIO_TREE "/gpio%d", pin); }
    explicit pin_directory(const char *name) {
        ::snprintf(path_, sizeof path_, "%s/%s", KIV_GPIO_TREE, name);
    }
    [[nodiscard]] const char *path() const { return path_; }

  private:
    char path_[path_size];
};

// An operation on a pin that the device does not serve. Without the sysfs pins there is none.
using file_operation = int(const char *directory, int value);

template <typename Pin>
KIV_COLD int on_files(file_operation *operation, Pin pin, int value) {
    if (selected_gpio_backend() != GPIO_BACKEND_SYSFS)
        return -1;
    return operation(pin_directory(pin).path(), value);
}

} // namespace

// 5. Pins -----------------------------------------------------------------------------------------------

int kiv_gpio_open(void) {
    if (selected_gpio_backend() != GPIO_BACKEND_NONE)
        return 0;
    int32_t fd;
    const int status = kiv_gpio_dev_open(&fd);
    if (status == 0)
        kiv::select_gpio_backend(GPIO_BACKEND_DEV, fd);
    return status;
}

void kiv_gpio_close(void) {}

int kiv_gpio_config(int pin, int value) {
    if (selected_gpio_backend() == GPIO_BACKEND_DEV)
        return kiv_gpio_dev_config(pin, value);
    return on_files(kiv_gpio_sysfs_config, pin, value);
}

int kiv_gpio_read(int pin) {
    if (selected_gpio_backend() == GPIO_BACKEND_DEV)
        return kiv_gpio_dev_read(pin);
    return on_files(kiv_gpio_sysfs_read, pin, 0);
}

namespace {

int drive(int pin, int level) {
    if (selected_gpio_backend() == GPIO_BACKEND_DEV)
        return kiv_gpio_dev_write(pin, level);
    return on_files(kiv_gpio_sysfs_write, pin, level);
}

} // namespace

int kiv_gpio_output_set(int pin) {
    return drive(pin, 1);
}

int kiv_gpio_output_clear(int pin) {
    return drive(pin, 0);
}

int kiv_gpio_n_config(const char *name, int value) {
    return on_files(kiv_gpio_sysfs_config, name, value);
}

int kiv_gpio_n_read(const char *name) {
    return on_files(kiv_gpio_sysfs_read, name, 0);
}

int kiv_gpio_n_output_set(const char *name) {
    return on_files(kiv_gpio_sysfs_write, name, 1);
}

int kiv_gpio_n_output_clear(const char *name) {
    return on_files(kiv_gpio_sysfs_write, name, 0);
}

// 6. Interrupts -----------------------------------------------------------------------------------------

// A request that fails leaves the descriptor in the handle: the caller closes it.
int kiv_gpio_irq_open(kiv_gpio_irq_device *device, int pin, unsigned int mode) {
    int32_t fd;
    const int status = kiv_gpio_dev_open(&fd);
    if (status != 0)
        return status;
    *device = {.fd = fd, .pin = pin};
    gpio_irq data = {.pin = pin, .mode = static_cast<int32_t>(mode)};
    if (::ioctl(fd, open_irq_request, &data) == -1)
        return refused(open_irq, __func__, __LINE__);
    return 0;
}

int kiv_gpio_irq_wait(const kiv_gpio_irq_device *device) {
    gpio_irq data = {.pin = device->pin, .mode = 0};
    if (::ioctl(device->fd, wait_irq_request, &data) == -1)
        return refused(wait_irq, __func__, __LINE__);
    return 0;
}

int kiv_gpio_irq_close(const kiv_gpio_irq_device *device) {
    gpio_irq data = {.pin = device->pin, .mode = 0};
    ::ioctl(device->fd, close_irq_request, &data);
    ::close(device->fd);
    return 0;
}
