#include "history.h"

#include "sample_format.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace recorder {

namespace {

// For the core's samples: the largest positive sample of a 16-bit device is 1/32768 below full scale.
constexpr int full_scale = 32766;

} // namespace

void history::begin(int32_t device_rate) {
    begin_ = known();
    captured_ = 0;
    rate_ = device_rate;
}

void history::skip_to(uint64_t end) {
    end = std::max(end, known());
    for (uint64_t number = end - std::min<uint64_t>(end - known(), levels_.size()); number < end; ++number)
        levels_[number % levels_.size()] = {};
    pad_speech(end - std::min(end, speech_count_));
    begin_ = end;
    captured_ = 0;
}

void history::add_captured(std::span<const int16_t> pcm) {
    const auto rate = static_cast<uint64_t>(rate_);
    while (!pcm.empty()) {
        const uint64_t number = captured_ * 100 / rate;
        const uint64_t end = divided_up((number + 1) * rate, 100);
        const auto part = pcm.first(static_cast<std::size_t>(std::min<uint64_t>(pcm.size(), end - captured_)));
        captured_levels& levels = levels_[(begin_ + number) % levels_.size()];
        if (captured_ == divided_up(number * rate, 100)) levels = {};
        for (const int16_t sample : part) {
            const float x = from_s16(sample);
            levels.peak = std::max(levels.peak, std::fabs(x));
            levels.squares += static_cast<double>(x * x);
            levels.clipped += std::abs(sample) >= full_scale ? 1 : 0;
        }
        levels.count += static_cast<int32_t>(part.size());
        captured_ += part.size();
        pcm = pcm.subspan(part.size());
    }
}

void history::add_speech(std::span<const float> probabilities) {
    for (const float probability : probabilities)
        speech_[speech_count_++ % speech_.size()] = probability;
}

void history::add_lost(uint64_t count) {
    const auto rate = static_cast<uint64_t>(rate_);
    const uint64_t before = captured_ * 100 / rate;
    captured_ += count;
    const uint64_t after = captured_ * 100 / rate;
    for (uint64_t number = after - std::min<uint64_t>(after - before, levels_.size()); number < after; ++number)
        levels_[(begin_ + number + 1) % levels_.size()] = {};
    pad_speech(after - before);
}

// Nobody speaks where there is no sound.
void history::pad_speech(uint64_t count) {
    if (speech_.empty()) return;
    speech_count_ += count;
    for (uint64_t left = std::min<uint64_t>(count, speech_.size()); left > 0; --left)
        speech_[(speech_count_ - left) % speech_.size()] = 0.0F;
}

void history::report(uint64_t end, wrapper_audio_block& block) {
    block.speech_probability = -1.0F;
    const uint64_t all = known();
    end = std::min(end, all);
    if (reported_ < end) last_ = {};
    reported_ = std::max(reported_, all - std::min<uint64_t>(all, levels_.size())); // what is still kept
    for (; reported_ < end; ++reported_) {
        const captured_levels& levels = levels_[reported_ % levels_.size()];
        last_.peak = std::max(last_.peak, levels.peak);
        last_.squares += levels.squares;
        last_.count += levels.count;
        block.clipped += levels.clipped;
        signal_watch_.add(levels.peak, levels.clipped, levels.count);
        if (reported_ < speech_count_)
            block.speech_probability = std::max(block.speech_probability, speech_[reported_ % speech_.size()]);
    }
    block.captured_peak = last_.peak; // of the previous 10 ms if none began
    block.captured_rms = root_mean_square(last_.squares, static_cast<uint64_t>(last_.count));
}

std::size_t history::take_speech(float* probabilities, std::size_t capacity) {
    const uint64_t end = std::min(reported_, speech_count_);
    const uint64_t oldest = speech_count_ - std::min<uint64_t>(speech_count_, speech_.size());
    speech_taken_ = std::max(speech_taken_, oldest);
    std::size_t count = 0;
    for (; count < capacity && speech_taken_ < end; ++count)
        probabilities[count] = speech_[speech_taken_++ % speech_.size()];
    return count;
}

void history::add_speech_to(speech_gate& gate) const {
    const uint64_t end = std::min(reported_, speech_count_);
    const uint64_t oldest = speech_count_ - std::min<uint64_t>(speech_count_, speech_.size());
    while (gate.frames() < end) {
        const float probability = gate.frames() < oldest ? 0.0F : speech_[gate.frames() % speech_.size()];
        gate.add_speech({&probability, 1});
    }
}

} // namespace recorder
