// System calls that a signal interrupts, made again.

#ifndef KIV_COMMON_RETRY_H
#define KIV_COMMON_RETRY_H

#include <cerrno>

namespace kiv {

// Silently, for as long as the call gives -1 with EINTR. call holds the bare system call and nothing else.
// Not for close, connect and timed waits: what is left of those after a signal is another thing.
template <typename Call>
[[gnu::always_inline]] inline auto retry(Call call) noexcept -> decltype(call()) {
    decltype(call()) result;
    do
        result = call();
    while (result == -1 && errno == EINTR);
    return result;
}

} // namespace kiv

#endif
