#include "effects.h"

#include <fmt/format.h>
#include <wrapper_audio.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace {

constexpr float design_rate = 16000.0F; // the rate that the library designs its high-pass for

/** "A[:B]" into two numbers; the second keeps its value when it is not there. */
void parse_pair(const std::string& text, float& first, float& second) {
    const std::size_t colon = text.find(':');
    const auto number = [&text](std::string_view part, float& value) {
        if (part.starts_with('+')) part.remove_prefix(1);
        const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value);
        if (error != std::errc() || end != part.data() + part.size() || !std::isfinite(value))
            throw std::invalid_argument(fmt::format("'{}' is not a number or a pair of numbers", text));
    };
    number(std::string_view(text).substr(0, colon), first);
    if (colon != std::string::npos) number(std::string_view(text).substr(colon + 1), second);
}

} // namespace

effect_chain::effect_chain(const effect_options& wanted, int rate)
    : wanted_(wanted), gain_block_(static_cast<std::size_t>(std::max(1L, std::lround(rate / 100.0)))) {
    if (wanted_.highpass)
        wrapper_audio_hpf_init(wanted_.highpass->corner_hz * design_rate / static_cast<float>(rate),
                               wanted_.highpass->q);
    if (wanted_.agc) wrapper_audio_agc_init(wanted_.agc->target_db, wanted_.agc->release_ms);
}

std::span<float> effect_chain::process(std::span<const float> samples) {
    const std::size_t old = waiting_.size();
    waiting_.insert(waiting_.end(), samples.begin(), samples.end());
    const auto added = std::span(waiting_).subspan(old);
    if (wanted_.depop) depop(added);
    if (wanted_.highpass) wrapper_audio_hpf_process(nullptr, added.data(), static_cast<std::int32_t>(added.size()));

    // The time constant of the gain holds for blocks of 10 ms: what is left over waits for the next call.
    const std::size_t complete = wanted_.agc ? waiting_.size() / gain_block_ * gain_block_ : waiting_.size();
    const auto middle = waiting_.begin() + static_cast<std::ptrdiff_t>(complete);
    ready_.assign(waiting_.begin(), middle);
    waiting_.erase(waiting_.begin(), middle);
    if (wanted_.agc) control_gain(ready_);
    return ready_;
}

std::span<float> effect_chain::finish() {
    ready_.swap(waiting_);
    waiting_.clear();
    if (wanted_.agc) control_gain(ready_);
    return ready_;
}

/** The library forgets the last sample of a call, so each call begins with the last sample of the one before. */
void effect_chain::depop(std::span<float> samples) {
    if (samples.empty()) return;
    scratch_.assign(1, last_sample_);
    scratch_.insert(scratch_.end(), samples.begin(), samples.end());
    last_sample_ = samples.back();
    wrapper_audio_depop_process(nullptr, scratch_.data(), static_cast<std::int32_t>(scratch_.size()), *wanted_.depop);
    std::copy(scratch_.begin() + 1, scratch_.end(), samples.begin());
}

void effect_chain::control_gain(std::span<float> samples) {
    while (!samples.empty()) {
        const auto block = samples.first(std::min(gain_block_, samples.size()));
        wrapper_audio_agc_process(nullptr, block.data(), static_cast<std::int32_t>(block.size()));
        samples = samples.subspan(block.size());
    }
}

void to_floats(std::span<const std::int16_t> samples, std::vector<float>& floats) {
    floats.resize(samples.size());
    std::transform(samples.begin(), samples.end(), floats.begin(),
                   [](std::int16_t sample) { return static_cast<float>(sample) / 32768.0F; });
}

void to_16_bits(std::span<const float> floats, std::vector<std::int16_t>& samples) {
    samples.resize(floats.size());
    std::transform(floats.begin(), floats.end(), samples.begin(), [](float value) {
        return static_cast<std::int16_t>(std::lrint(std::clamp(value * 32768.0F, -32768.0F, 32767.0F)));
    });
}

high_pass parse_high_pass(const std::string& text) {
    high_pass parsed;
    parse_pair(text, parsed.corner_hz, parsed.q);
    if (!(parsed.corner_hz > 0)) throw std::invalid_argument("the corner must be above 0 Hz");
    if (!(parsed.q >= 0.05F && parsed.q <= 50)) throw std::invalid_argument("Q must lie between 0.05 and 50");
    return parsed;
}

gain_control parse_gain_control(const std::string& text) {
    gain_control parsed;
    parse_pair(text, parsed.target_db, parsed.release_ms);
    if (!(parsed.target_db >= -60 && parsed.target_db <= 0))
        throw std::invalid_argument("the level must lie between -60 and 0 dB");
    if (!(parsed.release_ms >= 0 && parsed.release_ms <= 60000))
        throw std::invalid_argument("the release must lie between 0 and 60000 ms");
    return parsed;
}
