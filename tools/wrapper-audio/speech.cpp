#include "speech.h"

#include "failure.h"
#include "file_names.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

void check(const speech_options& wanted, const std::string& path) {
    if (wanted.split && path == "-") throw failure(usage, "--split needs files, not standard output");
    if (wanted.split && !has_number(path))
        throw failure(usage, "--split: the name of the file needs a place for a number, such as talk-%03d.wav");
    if (wanted.events == "-" && path == "-")
        throw failure(usage, "--events and the sound cannot both go to standard output");
    if (wanted.pre_roll && !wanted.start && !wanted.cuts())
        throw failure(usage, "--pre-roll goes with --start-on-speech, --trim or --split");
}

speech_cutter::speech_cutter(const speech_options& wanted, int rate, event_log& events, speech_sink sink)
    : wanted_(wanted), events_(events), sink_(std::move(sink)), has_begun_(!wanted.start) {
    wrapper_audio_speech_options options;
    wrapper_audio_speech_defaults(&options);
    options.rate = rate;
    if (wanted.pre_roll) options.pre_roll_ms = static_cast<std::int32_t>(std::lround(*wanted.pre_roll * 1000));
    if (wanted.stop_after) {
        const double pause = std::min(*wanted.stop_after, options.hang_over_ms / 1000.0);
        options.hang_over_ms = static_cast<std::int32_t>(std::lround(pause * 1000));
        silence_limit_ = static_cast<std::uint64_t>((*wanted.stop_after - pause) * rate);
    }
    kept_back_ = static_cast<std::size_t>(options.pre_roll_ms + options.min_speech_ms + 1000) *
                 static_cast<std::size_t>(rate) / 1000;
    wrapper_audio_speech_gate* made = nullptr;
    const auto status = wrapper_audio_speech_gate_create(&made, &options);
    gate_.reset(made);
    if (status != WRAPPER_AUDIO_OK) throw failure(unexpected, wrapper_audio_status_text(status));
}

bool speech_cutter::add(std::span<const float> samples, std::span<const float> probabilities) {
    if (wrapper_audio_speech_gate_add(gate_.get(), samples.data(), samples.size(), probabilities.data(),
                                      probabilities.size()) != WRAPPER_AUDIO_OK)
        throw std::bad_alloc();
    position_ += samples.size();
    bool good = true;
    if (!wanted_.cuts() && has_begun_)
        good = sink_.write(samples);
    else if (!wanted_.cuts())
        waiting_.insert(waiting_.end(), samples.begin(), samples.end());
    good = good && drain();
    if (waiting_.size() > kept_back_)
        waiting_.erase(waiting_.begin(), waiting_.end() - static_cast<std::ptrdiff_t>(kept_back_));
    return good;
}

/** What is missing is also missing in what waits: an utterance begins behind it. */
bool speech_cutter::skip(std::uint64_t lost) {
    wrapper_audio_speech_gate_skip(gate_.get(), lost);
    position_ += lost;
    waiting_.clear();
    return drain();
}

bool speech_cutter::finish() {
    wrapper_audio_speech_gate_flush(gate_.get());
    return drain();
}

bool speech_cutter::is_over() const {
    return wanted_.stop_after && has_spoken_ && !speaks_ && position_ >= last_end_ + silence_limit_;
}

bool speech_cutter::drain() {
    std::array<float, 4096> samples{};
    wrapper_audio_speech_piece piece{};
    do {
        wrapper_audio_speech_gate_take(gate_.get(), samples.data(), samples.size(), &piece);
        if (!take(std::span(samples).first(piece.count), piece)) return false;
    } while (piece.count > 0 || piece.ends != 0);
    return true;
}

bool speech_cutter::take(std::span<const float> samples, const wrapper_audio_speech_piece& piece) {
    if (piece.begins != 0) {
        events_.speech(true, piece.position);
        speaks_ = has_spoken_ = true;
        if (wanted_.split && !sink_.begin_utterance()) return false;
        if (!has_begun_ && !wanted_.cuts() && !begin_at(piece.position)) return false;
    }
    if (wanted_.cuts() && !samples.empty() && !sink_.write(samples)) return false;
    if (piece.ends != 0) {
        speaks_ = false;
        last_end_ = piece.position + piece.count;
        events_.speech(false, last_end_);
        if (wanted_.split && !sink_.end_utterance()) return false;
    }
    return true;
}

/** Gives what waited from there on. */
bool speech_cutter::begin_at(std::uint64_t position) {
    has_begun_ = true;
    const auto before = static_cast<std::size_t>(std::min<std::uint64_t>(position_ - position, waiting_.size()));
    const bool good = sink_.write(std::span(waiting_).last(before));
    waiting_.clear();
    return good;
}
