// What the program says: data on standard output, one error line on standard error.
#ifndef KIVCTL_OUTPUT_H
#define KIVCTL_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "cli.h"

namespace kivctl {

// Errors -------------------------------------------------------------------------------------------------

// What the error line begins with.
void name_command(const verb &what);
void name_device(const char *device);

// Prints the error line, unless that has been done: "kivctl: AREA VERB: DEVICE: operation: text". Any thread
// may fail, the first one is heard. Each returns the exit code.
exit_code fail(const char *operation, int error);
[[gnu::format(printf, 3, 4)]] exit_code fail(exit_code code, const char *operation, const char *format, ...);
[[gnu::format(printf, 1, 2)]] exit_code misuse(const char *format, ...);

// The code for an errno value: some of them say that there is no such thing here.
exit_code code_of(int error);

// A line that is no error.
[[gnu::format(printf, 1, 2)]] void note(const char *format, ...);

// Lets through what the library reports. Otherwise it is only remembered.
void let_log_through();
// The error text of the first failure that the library has reported; null: there was none.
const char *first_report();

// Data ---------------------------------------------------------------------------------------------------

// Whole, or false with errno.
bool write_all(int fd, const void *data, size_t size);

// Sends out what was printed. Failed: that could not be written, which has been said.
exit_code flush_output();

// One JSON object, built from its members in order, as a line of standard output.
class json_line {
  public:
    json_line() { putchar('{'); }
    ~json_line() { puts("}"); }
    json_line(const json_line &) = delete;
    json_line &operator=(const json_line &) = delete;
    json_line(json_line &&) = delete;
    json_line &operator=(json_line &&) = delete;

    json_line &text(const char *name, const char *value); // UTF-8
    json_line &number(const char *name, int64_t value);
    json_line &truth(const char *name, bool value);
    // Twice: hexadecimal digits, and characters of one byte each.
    json_line &bytes(const uint8_t *data, size_t size);

  private:
    void name(const char *text);
    bool first_ = true;
};

// Seconds since some moment, and the time of day to the microsecond.
double now();
struct time_text {
    char text[40];
    time_text(); // 2026-01-31T12:34:56.123456Z
};

// A line on a terminal that is written over, for what lasts. On anything else it says nothing. Every other
// line takes its place.
[[gnu::format(printf, 1, 2)]] void show_progress(const char *format, ...);
void clear_progress();

} // namespace kivctl

#endif
