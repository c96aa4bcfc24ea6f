#include "sample_buffer.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace recorder {

namespace {

uint32_t bytes(std::size_t samples) {
    return static_cast<uint32_t>(samples * sizeof(float));
}

} // namespace

sample_buffer::sample_buffer(std::size_t capacity) : capacity_(capacity), ring_(std::bit_ceil(capacity)) {
    gaps_.reserve(most_gaps);
}

void sample_buffer::write(std::span<const float> samples) {
    const auto kept = samples.first(std::min(samples.size(), room()));
    if (!kept.empty()) { // an empty one may have no memory
        uint32_t index = 0;
        spa_ringbuffer_get_write_index(&indices_, &index);
        spa_ringbuffer_write_data(&indices_, ring_.data(), bytes(ring_.size()), index % bytes(ring_.size()),
                                  kept.data(), bytes(kept.size()));
        spa_ringbuffer_write_update(&indices_, static_cast<int32_t>(index + bytes(kept.size())));
        written_ += kept.size();
    }
    lose(samples.size() - kept.size());
}

void sample_buffer::lose(uint64_t count) {
    if (count == 0) return;
    if (!gaps_.empty() && (gaps_.back().before == written_ || gaps_.size() == most_gaps))
        gaps_.back().lost += count;
    else
        gaps_.push_back({written_, count});
}

uint64_t sample_buffer::end_position() const {
    return std::accumulate(gaps_.begin(), gaps_.end(), position() + available(),
                           [](uint64_t sum, const gap& each) { return sum + each.lost; });
}

sample_buffer::piece sample_buffer::read(std::span<float> samples) {
    piece read;
    if (!gaps_.empty() && gaps_.front().before == read_) {
        read.lost = gaps_.front().lost;
        lost_ += read.lost;
        gaps_.erase(gaps_.begin());
    }
    const uint64_t end = gaps_.empty() ? written_ : gaps_.front().before;
    read.count = std::min(samples.size(), static_cast<std::size_t>(end - read_));
    if (read.count == 0) return read;
    uint32_t index = 0;
    spa_ringbuffer_get_read_index(&indices_, &index);
    spa_ringbuffer_read_data(&indices_, ring_.data(), bytes(ring_.size()), index % bytes(ring_.size()), samples.data(),
                             bytes(read.count));
    spa_ringbuffer_read_update(&indices_, static_cast<int32_t>(index + bytes(read.count)));
    read_ += read.count;
    return read;
}

} // namespace recorder
