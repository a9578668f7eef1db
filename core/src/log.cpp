// Logging and reports: formatted in memory, then given to stderr in one write, errno untouched. No lock is
// held over that write, which blocks when nobody reads a pipe: others would wait for a lock then, and for
// ever where the thread that blocks is cancelled.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "kiv/core.h"

namespace {

// A signal can end a long write early; the rest follows.
void write_whole(const char *text, size_t length) {
    while (length > 0) {
        const ssize_t done = ::write(STDERR_FILENO, text, length);
        if (done == -1 && errno == EINTR)
            continue;
        if (done <= 0)
            break; // there is nowhere left to report it
        text += done;
        length -= static_cast<size_t>(done);
    }
}

[[gnu::format(printf, 1, 0)]] int write_formatted(const char *format, va_list arguments) {
    const int saved_errno = errno;
    char local[512];
    char *text = local;
    va_list again;
    va_copy(again, arguments);
    const int length = ::vsnprintf(local, sizeof local, format, arguments);
    if (length >= static_cast<int>(sizeof local)) {
        const size_t needed = static_cast<size_t>(length) + 1;
        text = static_cast<char *>(::malloc(needed));
        if (text != nullptr)
            ::vsnprintf(text, needed, format, again);
    }
    va_end(again);
    if (text == nullptr)
        write_whole(local, sizeof local - 1); // no memory for all of it: the beginning is better than nothing
    else if (length > 0)
        write_whole(text, static_cast<size_t>(length));
    if (text != local)
        ::free(text);
    errno = saved_errno;
    return length;
}

void report(const char *kind, const char *expression, const char *file, int line, const char *function) {
    sup_system_diag("%s: %s (%s:%d in %s)\n", kind, expression, file, line, function);
}

} // namespace

// The stand-in has no use for categories: levels are tested before it is called. It keeps none, since the
// library that owns one can be unloaded.
int kiv_log_dyn_add(kiv_log_category *category) {
    const bool is_complete = category != nullptr && category->level != nullptr && category->name != nullptr;
    return is_complete ? 0 : EINVAL;
}

int sup_log_msg_nocolor_raw(const char *, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = write_formatted(format, arguments);
    va_end(arguments);
    return length;
}

int sup_system_diag(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = write_formatted(format, arguments);
    va_end(arguments);
    return length;
}

void kiv_assert(const char *expression, const char *file, int line, const char *function) {
    report("assertion failed", expression, file, line, function);
}

void kiv_warn(const char *expression, const char *file, int line, const char *function) {
    report("warning", expression, file, line, function);
}
