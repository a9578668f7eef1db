// gpio: pins by number.

#include "kiv/gpio.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "areas.h"
#include "numbers.h"
#include "output.h"
#include "port.h"
#include "watch.h"

namespace kivctl {

namespace {

constexpr char device[] = "/dev/gpio";

// The number in front of end, which is '\0' or '='. The rest is behind it.
exit_code read_pin(const char *argument, const char *end, int &pin, const char *&rest) {
    uint32_t number = 0;
    rest = argument;
    if (!parse_number(rest, end, INT_MAX, number) || (*end != '\0' && *rest == '\0'))
        return misuse(*end != '\0' ? "'%s' is not PIN=0 or PIN=1" : "'%s' is no pin number", argument);
    pin = static_cast<int>(number);
    return done;
}

exit_code read_pin(const char *argument, int &pin) {
    const char *rest = nullptr;
    return read_pin(argument, "", pin, rest);
}

exit_code read_level(const char *argument, int &pin, bool &high) {
    const char *rest = nullptr;
    const exit_code code = read_pin(argument, "=", pin, rest);
    if (code != done)
        return code;
    if (strcmp(rest, "=0") != 0 && strcmp(rest, "=1") != 0)
        return misuse("'%s' is not PIN=0 or PIN=1", argument);
    high = rest[1] == '1';
    return done;
}

exit_code open_pins() {
    name_device(device);
    const int status = kiv_gpio_open();
    return status == 0 ? done : fail("opening", status);
}

exit_code fail_pin(int pin, const char *operation, const char *text) {
    char what[64];
    snprintf(what, sizeof what, "%s pin %d", operation, pin);
    return fail(failed, what, "%s", text);
}

void print_level(bool json, int pin, int level) {
    if (json)
        json_line().number("pin", pin).number("level", level);
    else
        printf("%d=%d\n", pin, level);
}

} // namespace

exit_code gpio_get(const request &from) {
    int pin = 0;
    for (int i = 0; i < from.count; ++i)
        if (read_pin(from.arguments[i], pin) != done)
            return misused;
    exit_code code = open_pins();
    for (int i = 0; i < from.count && code == done; ++i) {
        read_pin(from.arguments[i], pin);
        const int level = kiv_gpio_read(pin);
        if (level < 0) // the reason is in the log only
            code = fail_pin(pin, "reading", first_report() != nullptr ? first_report() : "failed");
        else
            print_level(from.json, pin, level);
    }
    return code;
}

exit_code gpio_set(const request &from) {
    int pin = 0;
    bool high = false;
    for (int i = 0; i < from.count; ++i)
        if (read_level(from.arguments[i], pin, high) != done)
            return misused;
    exit_code code = open_pins();
    for (int i = 0; i < from.count && code == done; ++i) {
        read_level(from.arguments[i], pin, high);
        const int status = high ? kiv_gpio_output_set(pin) : kiv_gpio_output_clear(pin);
        if (status == EPERM)
            code = fail_pin(pin, "driving", "it is no output; make it one with kivctl gpio config PIN low");
        else if (status != 0)
            code = fail_pin(pin, "driving", strerror(status));
    }
    return code;
}

exit_code gpio_config(const request &from) {
    constexpr struct {
        const char *word;
        int value;
    } directions[] = {{"in", KIV_GPIO_INPUT}, {"low", KIV_GPIO_OUTPUT_LOW}, {"high", KIV_GPIO_OUTPUT_HIGH}};
    int pin = 0;
    if (read_pin(from.arguments[0], pin) != done)
        return misused;
    for (const auto &each : directions) {
        if (strcmp(each.word, from.arguments[1]) != 0)
            continue;
        const exit_code code = open_pins();
        const int status = code == done ? kiv_gpio_config(pin, each.value) : 0;
        return status == 0 ? code : fail_pin(pin, "configuring", strerror(status));
    }
    return misuse("'%s' is not in, low or high", from.arguments[1]);
}

exit_code gpio_wait(const request &from) {
    static kiv_gpio_irq_device interrupt; // a signal or the time limit ends the program while it is in use
    int pin = 0;
    uint32_t mode = 0;
    uint32_t wanted = 0;
    uint64_t limit = 0;
    exit_code code = read_pin(from.arguments[0], pin);
    if (code == done)
        code = read_count(from, 'm', 0, 1, mode);
    if (code == done)
        code = read_count(from, 'n', 1, 1, wanted);
    if (code == done)
        code = read_duration(from, 'T', 0, limit);
    if (code == done)
        code = start_watch(ending::is_failure);
    if (code != done)
        return code;
    name_device(device);
    interrupt.fd = -1;
    int status = kiv_gpio_irq_open(&interrupt, pin, mode);
    if (status != 0)
        return interrupt.fd == -1 ? fail("opening", status) : fail_pin(pin, "interrupt of", strerror(status));
    for (uint32_t count = 1; count <= wanted && code == done; ++count) {
        if (from.has('T'))
            set_limit(limit, timed_out, "waiting");
        status = kiv_gpio_irq_wait(&interrupt);
        clear_limit();
        if (status != 0)
            return fail_pin(pin, "waiting for", strerror(status));
        const time_text stamp;
        if (from.json)
            json_line().number("pin", pin).number("interrupt", count).text("time", stamp.text);
        else
            printf("%d interrupt %u %s\n", pin, count, stamp.text);
        code = flush_output();
    }
    kiv_gpio_irq_close(&interrupt);
    return code;
}

} // namespace kivctl
