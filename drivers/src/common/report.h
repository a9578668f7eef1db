// Reports: the error trace of a failed call, the checks, and the warning of a failing exit.
//
// One macro makes a site, because only the preprocessor knows the enclosing function's name; all else is
// functions. What they do when there is something to report is out of line and cold, and their arguments
// travel in registers: a path that works pays a compare and a branch, a failing one a few instructions.
//
// Each module defines KIV_MODULE, its path from the root without an extension, before it includes this.
// Statement texts are part of the log's contract, so they are written out, not taken from the code.

#ifndef KIV_COMMON_REPORT_H
#define KIV_COMMON_REPORT_H

#include <cstddef>

#include "kiv/core.h"

#ifndef KIV_MODULE
#    error "define KIV_MODULE before including common/report.h"
#endif

namespace kiv {

// What is reported, and where.
struct site {
    const char *text, *function;
    int line;
};

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

#define KIV_SITE(text) (::kiv::site{::kiv::plain(text), __func__, __LINE__})

// The same site under another function's name: for a helper that does a step of a public operation, since
// a report names the operation.
[[gnu::always_inline]] inline site in(const char *function, site at) noexcept {
    return {at.text, function, at.line};
}

// The reports proper. The path comes last, so that the module's own entries below only add it.
namespace report {
[[gnu::cold]] int trace_errno(const char *text, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int trace_and_warn(const char *text, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int trace_status(const char *text, const char *function, int line, const char *path,
                               int status) noexcept;
[[gnu::cold]] int assert_failed(const char *text, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int refuse_opening(const void *port, const char *function, int line, const char *path) noexcept;
[[gnu::cold]] int warn(int status, const char *function, int line, const char *path) noexcept;
} // namespace report

// A module's entries to them.
// NOLINTBEGIN(misc-definitions-in-headers): each module gets its own, with its own path
namespace {
namespace here {
[[maybe_unused, gnu::cold, gnu::noinline]] int trace_errno(const char *text, const char *function, int line) {
    return report::trace_errno(text, function, line, KIV_MODULE);
}
[[maybe_unused, gnu::cold, gnu::noinline]] int trace_and_warn(const char *text, const char *function,
                                                              int line) {
    return report::trace_and_warn(text, function, line, KIV_MODULE);
}
[[maybe_unused, gnu::cold, gnu::noinline]] int assert_failed(const char *text, const char *function,
                                                             int line) {
    return report::assert_failed(text, function, line, KIV_MODULE);
}
[[maybe_unused, gnu::cold, gnu::noinline]] int warn(int status, const char *function, int line) {
    return report::warn(status, function, line, KIV_MODULE);
}
} // namespace here
// NOLINTEND(misc-definitions-in-headers)

// Traces a call that has just failed with errno. Returns that errno, which is also what errno is afterwards.
[[maybe_unused, gnu::always_inline]] inline int trace_errno(site at) noexcept {
    return here::trace_errno(at.text, at.function, at.line);
}

// The same for the exits that also warn of their status.
[[maybe_unused, gnu::always_inline]] inline int trace_and_warn(site at) noexcept {
    return here::trace_and_warn(at.text, at.function, at.line);
}

// Traces a helper that returned an error number instead of setting errno. Returns that number.
[[maybe_unused, gnu::always_inline]] inline int trace_status(site at, int status) noexcept {
    return report::trace_status(at.text, at.function, at.line, KIV_MODULE, status);
}

// A required pointer is null: reports the check's text and returns EINVAL.
[[maybe_unused, gnu::always_inline]] inline int refuse_null(site at) noexcept {
    return here::assert_failed(at.text, at.function, at.line);
}

// The same for an opening, of whose port and device name one is null.
[[maybe_unused, gnu::always_inline]] inline int refuse_opening(const void *port, const char *function,
                                                               int line) noexcept {
    return report::refuse_opening(port, function, line, KIV_MODULE);
}

// Warns of a failing exit, "ret == 0", and returns its status.
[[maybe_unused, gnu::always_inline]] inline int warn(int status, const char *function, int line) noexcept {
    return here::warn(status, function, line);
}
#define KIV_WARN(status) (::kiv::warn(status, __func__, __LINE__))

// A condition that is reported when it does not hold and changes nothing.
[[maybe_unused, gnu::always_inline]] inline void check(bool holds, site at) noexcept {
    if (!holds) [[unlikely]]
        here::assert_failed(at.text, at.function, at.line);
}
} // namespace

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
