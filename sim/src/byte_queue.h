// Bytes in order, as many as come: what a far end has not taken yet.

#ifndef KIV_SIM_BYTE_QUEUE_H
#define KIV_SIM_BYTE_QUEUE_H

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace kiv::sim {

class byte_queue {
    unsigned char *bytes_ = nullptr;
    std::size_t first_ = 0, end_ = 0, room_ = 0;

  public:
    std::size_t size() const { return end_ - first_; }
    const unsigned char *data() const { return bytes_ + first_; }
    void clear() { first_ = end_ = 0; }

    // A board that has run out of memory has nothing sensible left to do.
    void append(const void *data, std::size_t length) {
        if (end_ + length > room_) {
            room_ = (end_ + length) * 2;
            bytes_ = static_cast<unsigned char *>(::realloc(bytes_, room_));
            if (bytes_ == nullptr)
                ::abort();
        }
        if (length > 0)
            ::memcpy(bytes_ + end_, data, length);
        end_ += length;
    }

    // Gives the memory back as well; for queues that do not live as long as the board.
    void release() {
        ::free(bytes_);
        *this = byte_queue();
    }

    void drop(std::size_t length) {
        first_ += length;
        if (first_ == end_)
            clear();
    }

    std::size_t take(void *buffer, std::size_t room) {
        const std::size_t length = room < size() ? room : size();
        if (length > 0)
            ::memcpy(buffer, data(), length);
        drop(length);
        return length;
    }
};

} // namespace kiv::sim

#endif
