// The speech gate and its plain C functions.
#include "speech_gate.h"

#include "failure.h"
#include "voice.h"

#include <algorithm>
#include <iterator>
#include <memory>

namespace recorder {

namespace {

constexpr int32_t frame_ms = 10;

// A voice that sets in softly is probable before it is certain.
constexpr float likely_threshold = 0.3F;
constexpr uint64_t longest_onset = 20; // frames

uint64_t frames_in(int32_t ms) {
    return static_cast<uint64_t>((ms + frame_ms - 1) / frame_ms);
}

uint64_t samples_in(int32_t ms, int32_t rate) {
    return static_cast<uint64_t>(ms) * static_cast<uint64_t>(rate) / 1000;
}

} // namespace

speech_gate::speech_gate(const wrapper_audio_speech_options& options)
    : rate_(options.rate), begin_threshold_(options.begin_threshold), end_threshold_(options.end_threshold),
      min_speech_(std::max<uint64_t>(1, frames_in(options.min_speech_ms))), hang_over_(frames_in(options.hang_over_ms)),
      pre_roll_(samples_in(options.pre_roll_ms, options.rate)),
      longest_(options.max_ms == 0 ? never : samples_in(options.max_ms, options.rate)) {}

bool speech_gate::is_valid(const wrapper_audio_speech_options& options) {
    const auto within = [](int32_t value, int32_t least, int32_t most) { return value >= least && value <= most; };
    const auto is_zero = [](int32_t reserved) { return reserved == 0; };
    return within(options.rate, lowest_rate, highest_rate) && options.end_threshold >= 0.0F &&
           options.end_threshold <= options.begin_threshold && options.begin_threshold <= 1.0F &&
           within(options.min_speech_ms, 0, 10000) && within(options.hang_over_ms, 0, 60000) &&
           within(options.pre_roll_ms, 0, 60000) && (options.max_ms == 0 || within(options.max_ms, 100, 3600000)) &&
           std::all_of(std::begin(options.reserved), std::end(options.reserved), is_zero);
}

void speech_gate::reset() {
    frames_ = voiced_ = unvoiced_ = likely_ = position_ = given_ = 0;
    speaking_ = ended_ = false;
    ranges_.clear();
    stretches_.clear();
}

uint64_t speech_gate::first_sample(uint64_t frame) const {
    return (frame * static_cast<uint64_t>(rate_) + 99) / 100;
}

// ---- Where speech is ----

// Where speech begins if the last frames turn out to be speech.
uint64_t speech_gate::first_speech() const {
    return first_sample(frames_ - std::min(likely_, voiced_ + longest_onset));
}

void speech_gate::add_speech(std::span<const float> probabilities) {
    for (const float probability : probabilities)
        hear(probability);
    forget_silence();
}

void speech_gate::hear(float probability) {
    const bool is_voiced = probability >= (voiced_ > 0 ? end_threshold_ : begin_threshold_); // NaN is not
    voiced_ = is_voiced ? voiced_ + 1 : 0;
    unvoiced_ = is_voiced ? 0 : unvoiced_ + 1;
    likely_ = is_voiced || probability >= likely_threshold ? likely_ + 1 : 0;
    ++frames_;
    if (speaking_ && unvoiced_ >= std::max<uint64_t>(1, hang_over_)) {
        const uint64_t behind = hang_over_ > 0 ? 0 : 1; // frames that are no part of the utterance
        ranges_.back().end = first_sample(frames_ - behind);
        likely_ = std::min(likely_, behind);
        speaking_ = false;
    } else if (!speaking_ && voiced_ >= min_speech_) {
        const uint64_t speech = first_speech();
        ranges_.push_back({speech - std::min(speech, pre_roll_), speech, never});
        speaking_ = true;
    }
}

// The stream's end ends an utterance, and so does the end of what is known about it.
void speech_gate::end() {
    for (range& each : ranges_)
        each.end = std::min({each.end, position_, first_sample(frames_)});
    speaking_ = false;
    ended_ = true;
}

// ---- Samples ----

void speech_gate::add(std::span<const float> samples) {
    if (samples.empty()) return;
    if (stretches_.empty() || stretches_.back().end() != position_) stretches_.push_back({position_, {}});
    std::deque<float>& last = stretches_.back().samples;
    last.insert(last.end(), samples.begin(), samples.end());
    position_ += samples.size();
    forget_silence();
}

void speech_gate::forget(uint64_t before) {
    while (!stretches_.empty() && stretches_.front().end() <= before)
        stretches_.pop_front();
    if (stretches_.empty() || stretches_.front().begin >= before) return;
    std::deque<float>& first = stretches_.front().samples;
    first.erase(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(before - stretches_.front().begin));
    stretches_.front().begin = before;
}

// Keeps what an utterance may still begin with.
void speech_gate::forget_silence() {
    const uint64_t speech = first_speech();
    forget(ranges_.empty() ? speech - std::min(speech, pre_roll_) : ranges_.front().begin);
}

// Moves the beginning to a sample that is there, behind whatever is missing before the speech. Whether there is one yet.
bool speech_gate::find_begin(range& next) {
    const auto first = std::find_if(stretches_.begin(), stretches_.end(),
                                    [&](const stretch& each) { return each.end() > next.speech; });
    if (first == stretches_.end()) return false;
    next.begin = std::max(next.begin, first->begin);
    next.speech = std::max(next.speech, next.begin);
    return true;
}

// Whether samples are missing here.
bool speech_gate::is_cut_at(uint64_t position) const {
    return (stretches_.empty() ? position_ : stretches_.front().begin) > position;
}

wrapper_audio_speech_piece speech_gate::take(std::span<float> samples) {
    wrapper_audio_speech_piece piece{};
    while (!ranges_.empty()) {
        range& next = ranges_.front();
        const auto ends = [&] { return next.begin == next.end || is_cut_at(next.begin); };
        forget(next.begin);
        if (given_ > 0 && ends()) { // which was not yet known when its last samples were given
            piece.position = next.begin;
            piece.ends = 1;
            given_ = 0;
            return piece;
        }
        const bool has_begun = find_begin(next);
        if (next.begin >= next.end || (!has_begun && position_ >= next.end)) { // there is no more of it
            ranges_.pop_front();
            continue;
        }
        const uint64_t known = std::min(next.end, first_sample(frames_));
        if (!has_begun || samples.empty() || next.begin >= known) return piece;

        forget(next.begin);
        std::deque<float>& there = stretches_.front().samples;
        constexpr uint64_t most = std::numeric_limits<uint32_t>::max();
        const uint64_t count =
            std::min({uint64_t{samples.size()}, uint64_t{there.size()}, known - next.begin, longest_ - given_, most});
        std::copy_n(there.begin(), count, samples.begin());
        piece.position = next.begin;
        piece.count = static_cast<uint32_t>(count);
        piece.begins = given_ == 0 ? 1 : 0;
        next.begin += count;
        next.speech = next.begin;
        given_ += count;
        forget(next.begin);
        if (given_ == longest_ || ends()) {
            piece.ends = 1;
            given_ = 0;
        }
        return piece;
    }
    return piece;
}

} // namespace recorder

using namespace recorder;

void wrapper_audio_speech_defaults(wrapper_audio_speech_options* options) noexcept {
    if (options == nullptr) return;
    *options = {};
    options->rate = 16000;
    options->begin_threshold = 0.95F;
    options->end_threshold = 0.9F;
    options->min_speech_ms = 100;
    options->hang_over_ms = 500;
    options->pre_roll_ms = 300;
}

wrapper_audio_status wrapper_audio_speech_gate_create(wrapper_audio_speech_gate** gate,
                                                      const wrapper_audio_speech_options* options) noexcept {
    if (gate == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *gate = nullptr;
    wrapper_audio_speech_options wanted;
    wrapper_audio_speech_defaults(&wanted);
    if (options != nullptr) wanted = *options;
    if (!speech_gate::is_valid(wanted)) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        *gate = std::make_unique<wrapper_audio_speech_gate>(wanted).release();
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_speech_gate_add(wrapper_audio_speech_gate* gate, const float* samples,
                                                   std::size_t count, const float* probabilities,
                                                   std::size_t probability_count) noexcept {
    if (gate == nullptr || (samples == nullptr && count > 0) || (probabilities == nullptr && probability_count > 0))
        return WRAPPER_AUDIO_INVALID_ARGUMENT;
    if (gate->gate.has_ended()) return WRAPPER_AUDIO_INVALID_STATE;
    return guarded([&] {
        gate->gate.add({samples, count});
        gate->gate.add_speech({probabilities, probability_count});
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_speech_gate_skip(wrapper_audio_speech_gate* gate, uint64_t count) noexcept {
    constexpr uint64_t most = uint64_t{1} << 62; // positions do not wrap around
    if (gate == nullptr || count > most) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    if (gate->gate.has_ended() || gate->gate.position() > most) return WRAPPER_AUDIO_INVALID_STATE;
    gate->gate.skip(count);
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_speech_gate_flush(wrapper_audio_speech_gate* gate) noexcept {
    if (gate == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    gate->gate.end();
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_speech_gate_take(wrapper_audio_speech_gate* gate, float* samples,
                                                    std::size_t capacity, wrapper_audio_speech_piece* piece) noexcept {
    if (piece != nullptr) *piece = {};
    if (gate == nullptr || piece == nullptr || (samples == nullptr && capacity > 0))
        return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *piece = gate->gate.take({samples, capacity});
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_speech_gate_reset(wrapper_audio_speech_gate* gate) noexcept {
    if (gate == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    gate->gate.reset();
    return WRAPPER_AUDIO_OK;
}

void wrapper_audio_speech_gate_free(wrapper_audio_speech_gate* gate) noexcept {
    delete gate;
}
