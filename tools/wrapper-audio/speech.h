/**
 * Speech decides what of a stream is kept.
 */
#ifndef SPEECH_H
#define SPEECH_H

#include "events.h"

#include <wrapper_audio_recorder.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct speech_options {
    bool start = false;               // with the first utterance
    bool trim = false;                // keep utterances only
    bool split = false;               // each in a file of its own
    std::optional<double> stop_after; // seconds without speech, once somebody has spoken
    std::optional<double> pre_roll;   // seconds
    std::string events;               // a file, or "-"

    bool any() const { return start || trim || split || stop_after || !events.empty(); }
    bool cuts() const { return trim || split; }
};

/** Throws a failure for options that do not go together. `path` is what sound is written to. */
void check(const speech_options& wanted, const std::string& path);

/** Where what is kept goes. Each returns false when it failed. */
struct speech_sink {
    std::function<bool(std::span<const float>)> write;
    std::function<bool()> begin_utterance = [] { return true; }; // with --split
    std::function<bool()> end_utterance = [] { return true; };
};

/** Takes a stream and the probabilities of speech in it, and gives what is to be kept. */
class speech_cutter {
public:
    speech_cutter(const speech_options& wanted, int rate, event_log& events, speech_sink sink);

    /** Returns false when the sink failed. */
    bool add(std::span<const float> samples, std::span<const float> probabilities);
    bool skip(std::uint64_t lost);
    bool finish();

    bool speaks() const { return speaks_; }
    bool has_spoken() const { return has_spoken_; }

    /** Whether nothing more is wanted, since it has been silent for so long. */
    bool is_over() const;

private:
    bool drain();
    bool take(std::span<const float> samples, const wrapper_audio_speech_piece& piece);
    bool begin_at(std::uint64_t position);

    struct closer {
        void operator()(wrapper_audio_speech_gate* made) const { wrapper_audio_speech_gate_free(made); }
    };
    const speech_options wanted_;
    event_log& events_;
    const speech_sink sink_;
    std::unique_ptr<wrapper_audio_speech_gate, closer> gate_;
    std::uint64_t silence_limit_ = 0; // samples behind the end of an utterance
    std::size_t kept_back_ = 0;       // samples
    std::vector<float> waiting_;      // for speech to start
    bool has_begun_;
    bool speaks_ = false;
    bool has_spoken_ = false;
    std::uint64_t position_ = 0;
    std::uint64_t last_end_ = 0;
};

#endif
