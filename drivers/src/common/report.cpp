#define KIV_MODULE "drivers/src/common/report"

#include "common/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kiv {
namespace {

// The C library has strerror_r in two shapes; the result tells which one this is. One overload is idle.
[[maybe_unused]] const char *text_of(int, const char *buffer) {
    return buffer;
}
[[maybe_unused]] const char *text_of(const char *text, const char *) {
    return text;
}

} // namespace

error_text::error_text(int error) noexcept {
    const int before = errno;
    buffer_[0] = '\0';
    text_ = text_of(::strerror_r(error, buffer_, sizeof buffer_), buffer_);
    errno = before;
}

void log_failure(const char *format, int argument) noexcept {
    if (!pos_wants(1))
        return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    sup_log_msg_nocolor_raw(pos_category_name, 1, format, argument);
#pragma GCC diagnostic pop
}

namespace report {
namespace {

// Writes one trace line. When the message is written, errno is as it was on entry.
void write_trace(const char *text, const char *function, int line, const char *path, int error) noexcept {
    const int before = errno;
    char format[format_size];
    ::snprintf(format, sizeof format, "%s:%%d in %%s, %s : %%s\n", path, text);
    errno = before;
    const error_text reason(error);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    sup_log_msg_nocolor_raw(pos_category_name, 1, format, line, function, reason.get());
#pragma GCC diagnostic pop
}

} // namespace

int trace_errno(const char *text, const char *function, int line, const char *path) noexcept {
    const int old_errno = errno;
    if (old_errno != 0 && pos_wants(1)) {
        write_trace(text, function, line, path, old_errno);
        if (errno != old_errno) {
            kiv_assert("__old_errno == (*__errno_location ())", path, line, function);
            errno = old_errno;
        }
    }
    return old_errno;
}

int trace_and_warn(const char *text, const char *function, int line, const char *path) noexcept {
    return warn(trace_errno(text, function, line, path), function, line, path);
}

int trace_status(const char *text, const char *function, int line, const char *path, int status) noexcept {
    if (pos_wants(1))
        write_trace(text, function, line, path, status);
    return status;
}

int assert_failed(const char *text, const char *function, int line, const char *path) noexcept {
    kiv_assert(text, path, line, function);
    return EINVAL;
}

int check_opening(const void *port, const char *device_name, const char *function, int line,
                  const char *path) noexcept {
    if (port == nullptr)
        return assert_failed("(UART_infos) != ((void *)0)", function, line, path);
    if (device_name == nullptr)
        return assert_failed("(device_name) != ((void *)0)", function, line, path);
    return 0;
}

int warn(int status, const char *function, int line, const char *path) noexcept {
    kiv_warn("ret == 0", path, line, function);
    return status;
}

} // namespace report
} // namespace kiv
