// The trace of a device request that has failed. Its statement, as the preprocessor leaves it, is long and
// nearly the same for each request, so it is composed when it is needed.

#ifndef KIV_COMMON_DEVICE_REQUEST_H
#define KIV_COMMON_DEVICE_REQUEST_H

namespace kiv {

struct request_statement {
    const char *fd;
    const char *direction; // "1U": to the device; "2U|1U": both ways
    char type;
    unsigned int number;
    const char *size; // of what is handed over
    const char *argument;
};

namespace report {
// Like trace_errno, whose path it takes, too: the modules name it.
[[gnu::cold]] int trace_request(const request_statement &request, const char *function, int line,
                                const char *path) noexcept;
} // namespace report

} // namespace kiv

#endif
