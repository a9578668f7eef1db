// Reports: the error trace of a failed call, the checks, and the warning of a failing exit.
//
// Macros name a site, because only the preprocessor knows the enclosing function's name; all else is
// functions, out of line: a path that works pays a compare and a branch.
//
// Each module defines KIV_MODULE, its path from the root without an extension, before it includes this.
// Statement texts are part of the log's contract, so they are written out, not taken from the code.

#ifndef KIV_COMMON_REPORT_H
#define KIV_COMMON_REPORT_H

#include <cerrno>
#include <cstddef>

#include "common/hints.h"
#include "kiv/core.h"

#ifndef KIV_MODULE
#    error "define KIV_MODULE before including common/report.h"
#endif

namespace kiv {

// The texts become part of a format: a percent sign in one does not compile, for the call of this.
void a_statement_text_holds_a_percent_sign();

// Room for the format of a trace: path, text, and what stands around them.
constexpr size_t format_size = 384;

template <size_t Size>
consteval const char *plain(const char (&text)[Size]) {
    static_assert(Size + sizeof KIV_MODULE ":%d in %s,  : %s\n" <= format_size, "a trace would be cut");
    for (const char c : text)
        if (c == '%')
            a_statement_text_holds_a_percent_sign();
    return text;
}

// Where a report comes from, as three arguments: the statement or check, the function, the line. The second
// is for a helper that does a step on behalf of a public operation, since a report names the operation.
#define KIV_SITE(text) ::kiv::plain(text), __func__, __LINE__
#define KIV_ON_BEHALF_OF(operation, text) ::kiv::plain(text), operation, __LINE__

// The reports proper. The path comes last, so that the arguments of a site stay where they are.
namespace report {
[[gnu::cold]] int trace_errno(const char *text, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int trace_and_warn(const char *text, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int trace_status(const char *text, const char *function, int line, const char *path,
                               int status) noexcept;
[[gnu::cold]] int assert_failed(const char *text, const char *function, int line, const char *path) noexcept;
int check_opening(const void *port, const char *device_name, const char *function, int line,
                  const char *path) noexcept;
[[gnu::cold]] int warn(int status, const char *function, int line, const char *path) noexcept;
} // namespace report

// A module's entries to them, which add its path. text, function and line are a site's.
// NOLINTBEGIN(misc-definitions-in-headers): each module gets its own
namespace {

// Traces a call that has just failed with errno. Returns that errno, which is also what errno is afterwards.
[[maybe_unused]] KIV_COLD int trace_errno(const char *text, const char *function, int line) noexcept {
    return report::trace_errno(text, function, line, KIV_MODULE);
}

// The same for the exits that also warn of their status.
[[maybe_unused]] KIV_COLD int trace_and_warn(const char *text, const char *function, int line) noexcept {
    return report::trace_and_warn(text, function, line, KIV_MODULE);
}

// Traces a helper that returned an error number instead of setting errno. Returns that number.
[[maybe_unused]] KIV_COLD int trace_status(const char *text, const char *function, int line,
                                           int status) noexcept {
    return report::trace_status(text, function, line, KIV_MODULE, status);
}

// A required pointer is null: reports the check's text and returns EINVAL.
[[maybe_unused]] KIV_COLD int refuse_null(const char *text, const char *function, int line) noexcept {
    return report::assert_failed(text, function, line, KIV_MODULE);
}

// The beginning of an opening: refuses a null record or name. Returns 0 or EINVAL.
[[maybe_unused]] inline int check_opening(const void *port, const char *device_name, const char *function,
                                          int line) noexcept {
    return report::check_opening(port, device_name, function, line, KIV_MODULE);
}

// Warns of a failing exit, "ret == 0", and returns its status.
[[maybe_unused]] KIV_COLD int warn(int status, const char *function, int line) noexcept {
    return report::warn(status, function, line, KIV_MODULE);
}
#define KIV_WARN(status) (::kiv::warn(status, __func__, __LINE__))

// A condition that is reported when it does not hold and changes nothing.
[[maybe_unused, gnu::always_inline]] inline void check(bool holds, const char *text, const char *function,
                                                       int line) noexcept {
    if (!holds)
        refuse_null(text, function, line);
}

// A failed call that is traced when this goes: declared before the hold of a lock, it is traced when that is
// free again. A log that blocks must not hold up every port that shares the lock.
class late_trace {
  public:
    late_trace() noexcept = default;
    ~late_trace() { write(); }
    late_trace(const late_trace &) = delete;
    late_trace &operator=(const late_trace &) = delete;

    // The call of this site has just failed with errno.
    void note(const char *text, const char *function, int line) noexcept {
        text_ = text;
        function_ = function;
        line_ = line;
        error_ = errno;
    }
    void write() noexcept {
        if (error_ == 0)
            return;
        errno = error_;
        trace_errno(text_, function_, line_);
        error_ = 0;
    }

  private:
    const char *text_ = nullptr;
    const char *function_ = nullptr;
    int line_ = 0;
    int error_ = 0;
};

} // namespace
// NOLINTEND(misc-definitions-in-headers)

// The text of an error number, for a message that is not a trace. errno stays as it is.
class error_text {
  public:
    explicit error_text(int error) noexcept;
    [[nodiscard]] const char *get() const noexcept { return text_; }

  private:
    char buffer_[96];
    const char *text_; // the buffer, or the C library's own
};

// Writes a message of level 1 in category POS that is no trace, if such are wanted. The argument is for a
// format that has a place for one number.
[[gnu::cold]] void log_failure(const char *format, int argument = 0) noexcept;

// Categories: their registered names, and whether a message of this level is wanted now.
[[gnu::visibility("hidden")]] extern const char pos_category_name[];
[[gnu::visibility("hidden")]] extern const char uart_bt_category_name[];
bool pos_wants(int level) noexcept;
bool uart_bt_wants(int level) noexcept;

} // namespace kiv

#endif
