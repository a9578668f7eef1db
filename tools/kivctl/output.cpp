// What the program says.
//
//   Errors     the one line, and the exit code
//   Log        what the library reports goes through this program, which knows when it is wanted
//   Data       standard output
//   JSON
//   Progress

#include "output.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "kiv/core.h"

namespace kivctl {

// Errors -------------------------------------------------------------------------------------------------

namespace {

const verb *command = nullptr;
const char *device_name = nullptr;
bool reported = false;
bool progress_shown = false;

// Gathers a line in memory, so that it leaves in one piece.
struct line {
    char text[1024];
    size_t length = 0;

    [[gnu::format(printf, 2, 0)]] void add(const char *format, va_list arguments) {
        const int more = vsnprintf(text + length, sizeof text - 1 - length, format, arguments);
        const size_t room = sizeof text - 2 - length;
        length += more < 0 ? 0 : static_cast<size_t>(more) < room ? static_cast<size_t>(more) : room;
    }
    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        add(format, arguments);
        va_end(arguments);
    }
    void begin() {
        clear_progress();
        add("kivctl: ");
        if (command != nullptr)
            add("%s%s%s: ", command->area, command->name[0] != '\0' ? " " : "", command->name);
        const char *device = __atomic_load_n(&device_name, __ATOMIC_ACQUIRE); // the watch speaks for others
        if (device != nullptr)
            add("%s: ", device);
    }
    void end() {
        text[length++] = '\n';
        write_all(STDERR_FILENO, text, length);
    }
};

[[gnu::format(printf, 2, 0)]] void say_error(const char *operation, const char *format, va_list arguments) {
    if (__atomic_exchange_n(&reported, true, __ATOMIC_RELAXED))
        return;
    line error;
    error.begin();
    if (operation != nullptr)
        error.add("%s: ", operation);
    error.add(format, arguments);
    error.end();
}

} // namespace

void name_command(const verb &what) {
    command = &what;
}

void name_device(const char *device) {
    __atomic_store_n(&device_name, device, __ATOMIC_RELEASE);
}

exit_code fail(exit_code code, const char *operation, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    say_error(operation, format, arguments);
    va_end(arguments);
    return code;
}

exit_code fail(const char *operation, int error) {
    return fail(code_of(error), operation, "%s", strerror(error));
}

exit_code misuse(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (command == nullptr)
        return fail(misused, nullptr, "%s; try kivctl -h", text);
    return fail(misused, nullptr, "%s; try kivctl %s%s%s -h", text, command->area,
                command->name[0] != '\0' ? " " : "", command->name);
}

exit_code code_of(int error) {
    switch (error) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
    case ENOSYS:
    case EOPNOTSUPP:
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
        return unavailable;
    case ETIMEDOUT:
        return timed_out;
    default:
        return failed;
    }
}

void note(const char *format, ...) {
    line text;
    text.begin();
    va_list arguments;
    va_start(arguments, format);
    text.add(format, arguments);
    va_end(arguments);
    text.end();
}

// Log ----------------------------------------------------------------------------------------------------

namespace {

bool log_wanted = false;

char first_failure[128];
bool claimed = false; // by the thread that writes it
bool published = false;

// Failing system calls end in " : " and the error text; other failures say so.
const char *failure_in(const char *message) {
    const char *text = nullptr;
    for (const char *at = message; (at = strstr(at, " : ")) != nullptr; at += 3)
        text = at + 3;
    return text != nullptr || strstr(message, "failed") == nullptr ? text : message;
}

void remember(const char *message) {
    const char *text = failure_in(message);
    if (text == nullptr || __atomic_exchange_n(&claimed, true, __ATOMIC_RELAXED))
        return;
    snprintf(first_failure, sizeof first_failure, "%.127s", text);
    first_failure[strcspn(first_failure, "\n")] = '\0';
    __atomic_store_n(&published, true, __ATOMIC_RELEASE);
}

[[gnu::format(printf, 2, 0)]] int take_report(bool is_failure, const char *format, va_list arguments) {
    const int saved = errno;
    char text[512];
    const int length = vsnprintf(text, sizeof text, format, arguments);
    if (log_wanted && length > 0)
        write_all(STDERR_FILENO, text, strlen(text));
    if (is_failure)
        remember(text);
    errno = saved;
    return length;
}

[[gnu::format(printf, 1, 2)]] void take_check(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    take_report(false, format, arguments);
    va_end(arguments);
}

} // namespace

void let_log_through() {
    log_wanted = true;
}

const char *first_report() {
    return __atomic_load_n(&published, __ATOMIC_ACQUIRE) ? first_failure : nullptr;
}

} // namespace kivctl

// kiv-core's reports: the program's own definitions come first in the search order.
int sup_log_msg_nocolor_raw(const char *, int level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = kivctl::take_report(level == 1, format, arguments);
    va_end(arguments);
    return length;
}

int sup_system_diag(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = kivctl::take_report(false, format, arguments);
    va_end(arguments);
    return length;
}

void kiv_assert(const char *expression, const char *file, int line, const char *function) {
    kivctl::take_check("assertion failed: %s (%s:%d in %s)\n", expression, file, line, function);
}

void kiv_warn(const char *expression, const char *file, int line, const char *function) {
    kivctl::take_check("warning: %s (%s:%d in %s)\n", expression, file, line, function);
}

namespace kivctl {

// Data ---------------------------------------------------------------------------------------------------

bool write_all(int fd, const void *data, size_t size) {
    const auto *bytes = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t count = write(fd, bytes, size);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

exit_code flush_output() {
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return done;
    const int error = errno;
    name_device(nullptr);
    return fail(failed, "standard output", "%s", strerror(error));
}

// JSON ---------------------------------------------------------------------------------------------------

namespace {

// A character of a string. Bytes from 0x80 on are part of the UTF-8 of a name, or a character of their own.
void put_character(unsigned char character, bool single) {
    if (character == '"' || character == '\\')
        printf("\\%c", character);
    else if (character < 0x20 || (single && character >= 0x7f))
        printf("\\u%04x", character);
    else
        putchar(character);
}

} // namespace

void json_line::name(const char *text) {
    printf("%s\"%s\":", first_ ? "" : ",", text);
    first_ = false;
}

json_line &json_line::text(const char *of, const char *value) {
    name(of);
    putchar('"');
    for (; *value != '\0'; ++value)
        put_character(static_cast<unsigned char>(*value), false);
    putchar('"');
    return *this;
}

json_line &json_line::number(const char *of, int64_t value) {
    name(of);
    printf("%lld", static_cast<long long>(value));
    return *this;
}

json_line &json_line::truth(const char *of, bool value) {
    name(of);
    fputs(value ? "true" : "false", stdout);
    return *this;
}

json_line &json_line::bytes(const uint8_t *data, size_t size) {
    name("hex");
    putchar('"');
    for (size_t i = 0; i < size; ++i)
        printf("%02x", data[i]);
    putchar('"');
    name("text");
    putchar('"');
    for (size_t i = 0; i < size; ++i)
        put_character(data[i], true);
    putchar('"');
    return *this;
}

// Progress -----------------------------------------------------------------------------------------------

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

time_text::time_text() : text{} {
    timespec time{};
    tm parts{};
    clock_gettime(CLOCK_REALTIME, &time);
    gmtime_r(&time.tv_sec, &parts);
    char micro[24];
    snprintf(micro, sizeof micro, ".%06ldZ", time.tv_nsec / 1000);
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + length, sizeof text - length, "%s", micro);
}

void show_progress(const char *format, ...) {
    static const bool on_terminal = isatty(STDERR_FILENO) == 1;
    if (!on_terminal)
        return;
    line text;
    text.add("\r");
    va_list arguments;
    va_start(arguments, format);
    text.add(format, arguments);
    va_end(arguments);
    text.add("\033[K");
    write_all(STDERR_FILENO, text.text, text.length);
    __atomic_store_n(&progress_shown, true, __ATOMIC_RELAXED);
}

void clear_progress() {
    if (__atomic_exchange_n(&progress_shown, false, __ATOMIC_RELAXED))
        write_all(STDERR_FILENO, "\r\033[K", 4);
}

} // namespace kivctl
