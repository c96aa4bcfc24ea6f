#include "loudness.h"

#include "effects.h"
#include "failure.h"
#include "stopping.h"

#include <ebur128.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace {

constexpr double highest_true_peak_db = -1.1; // other meters find up to 0.1 dB more
constexpr double near_enough = 0.05;          // LU

/** libebur128, on sound in pieces. */
class meter {
public:
    meter(int rate, int channels)
        : state(ebur128_init(static_cast<unsigned>(channels), static_cast<unsigned long>(rate),
                             EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK)),
          channels_(static_cast<std::size_t>(channels)) {
        if (state == nullptr) throw failure(unexpected, "libebur128 cannot measure sound of this kind");
    }
    meter(const meter&) = delete;
    meter& operator=(const meter&) = delete;
    ~meter() { ebur128_destroy(&state); }

    void add(std::span<const float> samples) {
        if (ebur128_add_frames_float(state, samples.data(), samples.size() / channels_) != EBUR128_SUCCESS)
            throw failure(unexpected, wrapper_audio_status_text(WRAPPER_AUDIO_OUT_OF_MEMORY));
    }

    loudness_measured result() {
        loudness_measured measured;
        double highest = 0;
        ebur128_loudness_global(state, &measured.lufs);
        for (unsigned channel = 0; channel < channels_; ++channel) {
            double peak = 0;
            ebur128_true_peak(state, channel, &peak);
            highest = std::max(highest, peak);
        }
        measured.true_peak_db = highest > 0 ? 20 * std::log10(highest) : -std::numeric_limits<double>::infinity();
        return measured;
    }

private:
    ebur128_state* state;
    const std::size_t channels_;
};

} // namespace

loudness_stage::loudness_stage(double target_lufs, int rate, int channels)
    : target_lufs_(target_lufs), rate_(rate), channels_(channels), kept_(std::tmpfile()) {
    if (!kept_) throw failure(file_trouble, fmt::format("cannot make a temporary file: {}", std::strerror(errno)));
}

void loudness_stage::add(std::span<const float> samples) {
    if (samples.empty()) return; // of which there may be no address
    if (std::fwrite(samples.data(), sizeof(float), samples.size(), kept_.get()) != samples.size())
        throw failure(file_trouble, fmt::format("cannot keep the sound in a temporary file: {}", std::strerror(errno)));
}

/** Gives all of the sound to `take`, with this gain and limited. */
bool loudness_stage::play(const setting& with, const std::function<bool(std::span<const float>)>& take) {
    const auto gain = static_cast<float>(std::pow(10.0, with.gain_db / 20));
    const auto width = static_cast<std::size_t>(channels_);
    std::vector<effect_chain> limiters(width);
    for (effect_chain& each : limiters)
        each.end_with_limiter(rate_, static_cast<float>(with.ceiling_db));
    std::vector<float> samples(65536 / width * width);
    std::vector<float> channel;
    std::vector<float> woven;
    std::rewind(kept_.get());
    for (bool at_end = false; !at_end;) {
        const std::size_t count = std::fread(samples.data(), sizeof(float), samples.size(), kept_.get());
        if (std::ferror(kept_.get()) != 0 || stop_requested()) return false;
        at_end = count < samples.size();
        for (std::size_t i = 0; i < width; ++i) {
            channel.clear();
            for (std::size_t at = i; at < count; at += width)
                channel.push_back(samples[at] * gain);
            std::size_t place = i;
            const auto put = [&](std::span<const float> limited) {
                for (const float sample : limited) {
                    woven.resize(std::max(woven.size(), place - i + width));
                    woven[std::exchange(place, place + width)] = sample;
                }
            };
            put(limiters[i].process(channel));
            if (at_end) put(limiters[i].finish());
        }
        if (!take(woven)) return false;
        woven.clear();
    }
    return true;
}

loudness_measured loudness_stage::measure(const setting& with) {
    meter measuring(rate_, channels_);
    play(with, [&](std::span<const float> samples) {
        measuring.add(samples);
        return true;
    });
    return measuring.result();
}

bool loudness_stage::finish(const std::function<bool(std::span<const float>)>& write) {
    setting with;
    result_ = measure(with);
    if (!std::isfinite(result_.lufs)) return play(with, write);
    with.gain_db = target_lufs_ - result_.lufs;
    // The limiter takes some loudness away and knows nothing of what is between the samples: look, and try again.
    for (int tries = 12; !stop_requested(); --tries) {
        result_ = measure(with);
        const double excess = result_.true_peak_db - highest_true_peak_db;
        const double missing = target_lufs_ - result_.lufs;
        if (excess <= 0 && (std::abs(missing) < near_enough || tries <= 0)) break;
        if (excess > 0) with.ceiling_db -= excess + 0.02;
        if (tries > 0) with.gain_db += missing;
    }
    return play(with, write);
}

std::string loudness_stage::text() const {
    return fmt::format(", loudness {:.1f} LUFS, true peak {:.1f} dBTP", result_.lufs, result_.true_peak_db);
}

std::string loudness_stage::shortfall() const {
    if (!std::isfinite(result_.lufs)) return "too quiet or too short to have a loudness";
    if (std::abs(result_.lufs - target_lufs_) < 0.1) return "";
    return fmt::format("only {:.1f} LUFS, as its peaks leave little room for more", result_.lufs);
}
