// Logging and reports: formatted in memory, then given to stderr in one write, errno untouched. No lock is
// held over that write, which blocks when nobody reads a pipe: others would wait for a lock then, and for
// ever where the thread that blocks is cancelled.
//
// With a limit in the environment a line that comes too often within a second is counted and not written:
// trouble that lasts can make the same few lines many hundred times a second.

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
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

// A line that was written, by the hash of its text.
struct written_line {
    time_t second;       // when it came last,
    unsigned long times; // how often it was written in that second,
    uint32_t hash;
    unsigned used; // and when it came last, counted in lines
};
written_line written_lines[16];
unsigned lines;
unsigned left_out;  // and not told yet
time_t told_second; // when it was told last
pthread_mutex_t written_lock = PTHREAD_MUTEX_INITIALIZER;

// FNV-1a.
uint32_t hash_of(const char *text, size_t length) {
    uint32_t hash = 2166136261;
    for (const char *end = text + length; text != end; ++text)
        hash = (hash ^ static_cast<uint8_t>(*text)) * 16777619;
    return hash;
}

// The place of a line, or that of the line which has not come for longest.
written_line &place_of(uint32_t hash) {
    written_line *oldest = written_lines;
    for (written_line &line : written_lines) {
        if (line.hash == hash)
            return line;
        if (lines - line.used > lines - oldest->used)
            oldest = &line;
    }
    return *oldest;
}

// Whether a line is to be written now; untold is then how many were not, of all, if it is time to tell. Where
// somebody else is just asking, it is: a signal's handler must not wait for the thread that it interrupts.
bool is_due(const char *text, size_t length, unsigned long limit, unsigned &untold) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const uint32_t hash = hash_of(text, length);
    if (::pthread_mutex_trylock(&written_lock) != 0)
        return true;
    written_line &place = place_of(hash);
    if (place.hash != hash || place.second != now.tv_sec)
        place = {.second = now.tv_sec, .times = 0, .hash = hash, .used = 0};
    place.used = ++lines;
    const bool due = place.times < limit;
    if (!due) {
        ++left_out;
    } else if (++place.times; told_second != now.tv_sec) {
        untold = left_out;
        left_out = 0;
        told_second = now.tv_sec;
    }
    ::pthread_mutex_unlock(&written_lock);
    return due;
}

// Pieces of a line are written as they come.
void write_message(const char *text, size_t length) {
    const char *limit = ::getenv("KIV_CORE_LOG_LIMIT");
    unsigned untold = 0;
    if (limit != nullptr && length > 1 && text[length - 1] == '\n' &&
        !is_due(text, length, ::strtoul(limit, nullptr, 10), untold))
        return;
    char note[64];
    if (untold != 0)
        write_whole(note, static_cast<size_t>(::snprintf(note, sizeof note,
                                                         "kiv-core: %u repeated lines left out\n", untold)));
    write_whole(text, length);
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
    if (text == nullptr) // no memory for all of it: the beginning is better than nothing
        write_message(local, sizeof local - 1);
    else if (length > 0)
        write_message(text, static_cast<size_t>(length));
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
