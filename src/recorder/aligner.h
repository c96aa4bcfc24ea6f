// Two streams from devices whose clocks differ, brought to the time of the first.
#pragma once

#include "timeline.h"
#include "wrapper_audio_recorder.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace recorder {

// Not locked. The first stream passes as it is. The second is read at the place in it that belongs to the same time: it
// drifts, so slowly that nobody hears it, after what both clocks say.
class aligner {
public:
    explicit aligner(int32_t rate);

    int32_t rate() const { return rate_; }
    bool has_ended() const { return streams_[0].has_ended(); }
    void add(std::size_t side, std::span<const float> samples, int64_t time) {
        streams_[side].add(samples, static_cast<double>(time) * 1e-9);
    }
    void end();

    // Returns how many samples of both there were.
    std::size_t take(std::span<float> first, std::span<float> second);

private:
    static constexpr int taps = 64; // of the filter that reads between samples
    static constexpr int phases = 256;

    bool next_chunk();
    bool waits_for_second(std::size_t count);
    double wanted_shift() const;
    void follow(std::span<float> to);
    void read_second(double step, std::span<float> to);

    const int32_t rate_;
    std::array<timeline, 2> streams_;
    std::vector<std::array<float, taps>> filter_;
    std::size_t taken_ = 0; // of the chunk
    std::array<std::vector<float>, 2> chunk_;
    std::vector<float> neighbours_; // of what is read of the second stream
    std::vector<float> old_place_;
    int64_t position_ = 0; // in the first stream, of the next chunk
    int64_t whole_ = 0;    // the place in the second stream, relative to that: samples
    double part_ = 0.0;    // and a part of one, 0 to 1
    double drift_ = 0.0;   // how much faster the second stream is read
    bool is_placed_ = false;
};

} // namespace recorder

struct wrapper_audio_aligner {
    explicit wrapper_audio_aligner(int32_t rate) : aligner(rate) {}

    recorder::aligner aligner;
};
