// The utterances of a whole stream, written down as they are defined: with everything there at once, frame by frame and
// sample by sample.
#pragma once

#include "wrapper_audio_recorder.h"

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <vector>

namespace reference {

struct utterance {
    int64_t begin = 0;
    int64_t end = 0;

    bool operator==(const utterance&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const utterance& each) {
        return out << each.begin << " to " << each.end;
    }
};

// `there` says of each sample of the stream whether it was not lost.
inline std::vector<utterance> utterances(const wrapper_audio_speech_options& options, const std::vector<bool>& there,
                                         const std::vector<float>& probabilities) {
    const auto frames = [](int ms) { return (ms + 9) / 10; };
    const int64_t least = std::max(1, frames(options.min_speech_ms));
    const int64_t hang_over = frames(options.hang_over_ms);
    const int64_t pre_roll = int64_t{options.pre_roll_ms} * options.rate / 1000;
    const int64_t longest = int64_t{options.max_ms} * options.rate / 1000;
    const int64_t count = std::ssize(probabilities);
    const auto first_sample = [&](int64_t frame) { return (frame * options.rate + 99) / 100; };
    const auto has = [&](int64_t sample) { return bool{there[static_cast<std::size_t>(sample)]}; };

    std::vector<bool> voiced;
    for (const float probability : probabilities) {
        const bool was = !voiced.empty() && voiced.back();
        voiced.push_back(probability >= options.begin_threshold || (was && probability >= options.end_threshold));
    }
    const auto is_voiced = [&](int64_t frame) { return bool{voiced[static_cast<std::size_t>(frame)]}; };
    // How many frames from this one on are like it.
    const auto alike = [&](int64_t frame) {
        int64_t length = 1;
        while (frame + length < count && is_voiced(frame + length) == is_voiced(frame))
            ++length;
        return length;
    };

    std::vector<utterance> found;
    int64_t last_end = 0;
    int64_t end_frame = 0; // of the last utterance
    for (int64_t frame = 0; frame < count;) {
        if (!is_voiced(frame) || alike(frame) < least) {
            frame += alike(frame);
            continue;
        }
        int64_t onset = frame; // speech that sets in softly
        while (onset > end_frame && frame - onset < 20 && probabilities[static_cast<std::size_t>(onset - 1)] >= 0.3F)
            --onset;
        const int64_t speech = first_sample(onset);
        end_frame = count;
        for (frame += alike(frame); frame < count; frame += alike(frame)) {
            if (is_voiced(frame) || alike(frame) < std::max<int64_t>(1, hang_over)) continue;
            end_frame = frame + hang_over;
            frame += std::max<int64_t>(1, hang_over);
            break;
        }
        int64_t begin = std::max({int64_t{0}, last_end, speech - pre_roll});
        last_end = first_sample(end_frame);
        const int64_t end = std::min(last_end, std::ssize(there));

        int64_t known = speech; // the first sample of the speech that is there
        while (known < end && !has(known))
            ++known;
        if (known >= end) continue;
        int64_t at = known;
        while (at > begin && has(at - 1))
            --at;
        for (begin = at; at < end; ++at) {
            if (!has(at)) {
                if (at > begin) found.push_back({begin, at});
                begin = at + 1;
            } else if (longest > 0 && at - begin == longest) {
                found.push_back({begin, at});
                begin = at;
            }
        }
        if (at > begin) found.push_back({begin, at});
    }
    return found;
}

} // namespace reference
