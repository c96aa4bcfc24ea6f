// Processors as the tests use them: released by themselves, and fed in one piece or in many.
#pragma once

#include "wrapper_audio_recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <span>
#include <vector>

struct processor_release {
    void operator()(wrapper_audio_processor* processor) const { wrapper_audio_processor_free(processor); }
};
using processor_holder = std::unique_ptr<wrapper_audio_processor, processor_release>;

inline std::ostream& operator<<(std::ostream& out, const wrapper_audio_voice_options& options) {
    return out << options.in_rate << " to " << options.out_rate << ", denoise " << options.denoise << ", speech "
               << options.speech << ", conversion " << options.conversion;
}

inline processor_holder voice(const wrapper_audio_voice_options& options) {
    wrapper_audio_processor* processor = nullptr;
    EXPECT_EQ(wrapper_audio_voice_create(&processor, &options), WRAPPER_AUDIO_OK) << options;
    return processor_holder{processor};
}

// One call with room for `capacity`.
inline std::vector<float> process(const processor_holder& processor, std::span<const float> in, std::size_t capacity) {
    std::vector<float> out(capacity);
    std::size_t count = 0;
    EXPECT_EQ(wrapper_audio_processor_process(processor.get(), in.data(), in.size(), out.data(), capacity, &count),
              WRAPPER_AUDIO_OK);
    out.resize(std::min(count, capacity));
    return out;
}

// Everything that is ready then.
inline std::vector<float> process(const processor_holder& processor, std::span<const float> in) {
    constexpr std::size_t room = 2048;
    std::vector<float> all = process(processor, in, room);
    for (std::size_t count = all.size(); count == room;) {
        const auto more = process(processor, {}, room);
        count = more.size();
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

// The rest of the stream, `capacity` at a time.
inline std::vector<float> flush(const processor_holder& processor, std::size_t capacity = 4096) {
    std::vector<float> all;
    std::vector<float> out(capacity);
    std::size_t count = capacity;
    while (count == capacity) {
        EXPECT_EQ(wrapper_audio_processor_flush(processor.get(), out.data(), capacity, &count), WRAPPER_AUDIO_OK);
        all.insert(all.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(std::min(count, capacity)));
    }
    return all;
}

// A whole stream in one piece.
inline std::vector<float> whole_stream(const processor_holder& processor, std::span<const float> in) {
    auto out = process(processor, in);
    const auto rest = flush(processor);
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
}

inline std::vector<float> whole_stream(const wrapper_audio_voice_options& options, std::span<const float> in) {
    return whole_stream(voice(options), in);
}

// A whole stream in pieces as long, and with room for as much, as `choose` says.
inline std::vector<float> in_pieces(const processor_holder& processor, std::span<const float> in,
                                    const std::function<std::size_t()>& choose) {
    std::vector<float> all;
    while (!in.empty()) {
        const auto piece = in.first(std::min(in.size(), choose()));
        const auto out = process(processor, piece, choose());
        all.insert(all.end(), out.begin(), out.end());
        in = in.subspan(piece.size());
    }
    const auto rest = flush(processor, choose() + 1);
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
}

inline std::vector<float> take_speech(const processor_holder& processor, std::size_t capacity = 100000) {
    std::vector<float> speech(capacity);
    speech.resize(wrapper_audio_processor_take_speech(processor.get(), speech.data(), capacity));
    return speech;
}
