// Memory for the board's own records. The shim counts malloc and calloc and may fail them, so the board takes
// neither; realloc is left alone. The compiler would make a malloc of one that starts from nothing.

#ifndef KIV_SIM_MEMORY_H
#define KIV_SIM_MEMORY_H

#include <cstddef>
#include <cstdlib>

namespace kiv::sim {

// For plain records; uninitialised, null with errno on failure, released with free.
template <class Record>
Record *allocate() {
    void *volatile nothing = nullptr;
    return static_cast<Record *>(::realloc(nothing, sizeof(Record)));
}

// The same for bytes; at least one, so that null always means failure.
inline unsigned char *allocate_bytes(std::size_t size) {
    void *volatile nothing = nullptr;
    return static_cast<unsigned char *>(::realloc(nothing, size > 0 ? size : 1));
}

} // namespace kiv::sim

#endif
