// The samples waiting for the host: a ring, and a record of what is missing in it.
#pragma once

#include <spa/utils/ringbuffer.h>

#include <cstdint>
#include <span>
#include <vector>

namespace recorder {

// Not locked. Allocates in its constructor only.
class sample_buffer {
public:
    explicit sample_buffer(std::size_t capacity);

    std::size_t available() const { return static_cast<std::size_t>(written_ - read_); }
    std::size_t room() const { return capacity_ - available(); }

    // Takes as many as there is room for; the rest counts as lost.
    void write(std::span<const float> samples);
    void lose(uint64_t count);

    struct piece {
        std::size_t count = 0;
        uint64_t lost = 0; // before the first of them
    };

    // Removes and returns consecutive samples without a loss between them.
    piece read(std::span<float> samples);

    // Samples read or lost before the next one.
    uint64_t position() const { return read_ + lost_; }
    // Samples written or lost so far.
    uint64_t end_position() const;
    uint64_t read_count() const { return read_; }
    uint64_t lost_count() const { return lost_; }

private:
    struct gap {
        uint64_t before; // the number of the sample that follows
        uint64_t lost;
    };
    static constexpr std::size_t most_gaps = 64; // further losses are added to the last one

    const std::size_t capacity_;
    std::vector<float> ring_;  // a power of two, as the ring's indices wrap around
    spa_ringbuffer indices_{}; // from 0 on
    std::vector<gap> gaps_;
    uint64_t written_ = 0;
    uint64_t read_ = 0;
    uint64_t lost_ = 0; // before `read_`
};

} // namespace recorder
