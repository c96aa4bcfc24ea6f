// Finds speech in a stream of samples by the probabilities that come with it, and gives the samples of utterances only.
#pragma once

#include "wrapper_audio_recorder.h"

#include <cstdint>
#include <deque>
#include <limits>
#include <span>

namespace recorder {

// Not locked.
class speech_gate {
public:
    explicit speech_gate(const wrapper_audio_speech_options& options);

    static bool is_valid(const wrapper_audio_speech_options& options);

    int32_t rate() const { return rate_; }
    uint64_t position() const { return position_; } // of the next sample
    uint64_t frames() const { return frames_; }     // probabilities so far
    bool has_ended() const { return ended_; }

    // Samples and probabilities may each run ahead of the other.
    void add(std::span<const float> samples);
    void add_speech(std::span<const float> probabilities);
    void skip(uint64_t count) { position_ += count; }
    void end();
    void reset();

    wrapper_audio_speech_piece take(std::span<float> samples);

private:
    static constexpr uint64_t never = std::numeric_limits<uint64_t>::max();

    // What one utterance would be if no sample were missing and it had no maximum length.
    struct range {
        uint64_t begin;  // of what is still to be given, or earlier: the samples of the range before are gone by then
        uint64_t speech; // where speech begins; the same as `begin` once samples have been given
        uint64_t end;    // never: not yet known
    };
    struct stretch { // of samples among which none is missing
        uint64_t begin;
        std::deque<float> samples;

        uint64_t end() const { return begin + samples.size(); }
    };

    uint64_t first_sample(uint64_t frame) const;
    uint64_t first_speech() const;
    void hear(float probability);
    void forget(uint64_t before);
    void forget_silence();
    bool find_begin(range& next);
    bool is_cut_at(uint64_t position) const;

    const int32_t rate_;
    const float begin_threshold_;
    const float end_threshold_;
    const uint64_t min_speech_; // frames
    const uint64_t hang_over_;  // frames
    const uint64_t pre_roll_;   // samples
    const uint64_t longest_;    // samples

    uint64_t frames_ = 0;
    uint64_t voiced_ = 0;   // frames in succession
    uint64_t unvoiced_ = 0; // frames in succession
    uint64_t likely_ = 0;   // frames in succession, voiced or likely, since the last utterance
    bool speaking_ = false; // the last of the ranges has no end yet
    std::deque<range> ranges_;

    uint64_t position_ = 0;
    std::deque<stretch> stretches_;
    uint64_t given_ = 0; // samples of the utterance that is being given; 0: none is
    bool ended_ = false;
};

} // namespace recorder

struct wrapper_audio_speech_gate {
    explicit wrapper_audio_speech_gate(const wrapper_audio_speech_options& options) : gate(options) {}

    recorder::speech_gate gate;
};
