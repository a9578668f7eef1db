// How received bytes are shown.

#include "view.h"

#include <cerrno>
#include <cstring>

#include "output.h"

namespace kivctl {

exit_code view::open(const request &from) {
    hex = from.has('x');
    time = from.has('t');
    json_ = from.json;
    log_name_ = from.value('l');
    if (log_name_ != nullptr && (log_ = fopen(log_name_, "ae")) == nullptr)
        return fail(failed, log_name_, "%s", strerror(errno));
    return done;
}

void view::put(const void *data, size_t size) {
    fwrite(data, 1, size, stdout);
    if (log_ != nullptr)
        fwrite(data, 1, size, log_);
}

void view::put_time() {
    const time_text stamp;
    put(stamp.text, strlen(stamp.text));
    put(" ", 1);
}

// Sixteen bytes a line: offset, digits, characters.
void view::put_rows(const uint8_t *data, size_t size) {
    for (size_t at = 0; at < size; at += 16) {
        const size_t count = size - at < 16 ? size - at : 16;
        char row[96];
        int used = snprintf(row, sizeof row, "%08x ", static_cast<unsigned>(offset_));
        for (size_t i = 0; i < 16; ++i)
            used +=
                i < count ? snprintf(row + used, 4, " %02x", data[at + i]) : snprintf(row + used, 4, "   ");
        used += snprintf(row + used, 4, "  |");
        for (size_t i = 0; i < count; ++i)
            row[used++] = data[at + i] >= 0x20 && data[at + i] < 0x7f ? static_cast<char>(data[at + i]) : '.';
        row[used++] = '|';
        row[used++] = '\n';
        if (time)
            put_time();
        put(row, static_cast<size_t>(used));
        offset_ += static_cast<uint32_t>(count);
    }
}

void view::put_lines(const uint8_t *data, size_t size) {
    while (size > 0) {
        const void *end = memchr(data, '\n', size);
        const size_t count =
            end != nullptr ? static_cast<size_t>(static_cast<const uint8_t *>(end) - data) + 1 : size;
        if (!in_line_)
            put_time();
        put(data, count);
        in_line_ = end == nullptr;
        data += count;
        size -= count;
    }
}

exit_code view::show(const uint8_t *data, size_t size) {
    if (json_)
        json_line().text("time", time_text().text).bytes(data, size);
    else if (hex)
        put_rows(data, size);
    else if (time)
        put_lines(data, size);
    else
        put(data, size);
    if (log_ != nullptr && fflush(log_) != 0)
        return fail(failed, log_name_, "%s", strerror(errno));
    return flush_output();
}

} // namespace kivctl
