#include "aligner.h"

#include "failure.h"
#include "voice.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

namespace recorder {

namespace {

// How much of what is still amiss is corrected in a second: clocks that differ by 100 ppm are followed 1 ms behind, and
// what is amiss by the most that is not a loss changes the pitch by 0.15 %, of which nobody hears less than 0.3 %.
constexpr double correction = 0.1;

// How slowly the pitch changes, so that the system's delays do not modulate it.
constexpr double inertia = 2.0; // seconds

// How long the first stream waits for the second. A monitor may deliver nothing while nobody plays.
constexpr double patience_for_second = 5.0; // seconds

double bessel_i0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= x * x / (4.0 * k * k);
        sum += term;
    }
    return sum;
}

// A sinc under Kaiser's window, `fraction` of a sample behind the middle.
template <std::size_t Taps>
std::array<float, Taps> fractional_delay(double fraction) {
    constexpr double beta = 9.0; // sidelobes 90 dB down
    constexpr double half = Taps / 2.0;
    std::array<double, Taps> exact{};
    double sum = 0.0;
    for (std::size_t i = 0; i < Taps; ++i) {
        const double t = static_cast<double>(i) - (half - 1.0) - fraction;
        const double sinc = t == 0.0 ? 1.0 : std::sin(std::numbers::pi * t) / (std::numbers::pi * t);
        const double edge = std::max(0.0, 1.0 - t * t / (half * half));
        sum += exact[i] = sinc * bessel_i0(beta * std::sqrt(edge));
    }
    std::array<float, Taps> taps{};
    std::transform(exact.begin(), exact.end(), taps.begin(), [&](double tap) { return static_cast<float>(tap / sum); });
    return taps;
}

} // namespace

aligner::aligner(int32_t rate) : rate_(rate), streams_{timeline(rate), timeline(rate)} {
    for (int phase = 0; phase <= phases; ++phase)
        filter_.push_back(fractional_delay<taps>(static_cast<double>(phase) / phases));
    const auto most = static_cast<std::size_t>((rate + 99) / 100); // 10 ms
    for (auto& each : chunk_)
        each.reserve(most);
    neighbours_.reserve(2 * most + taps);
    old_place_.reserve(most);
} // GCOVR_EXCL_BR_LINE: when this fails, GCC asks how many of the two streams are to be released

void aligner::end() {
    for (timeline& each : streams_)
        each.finish();
}

std::size_t aligner::take(std::span<float> first, std::span<float> second) {
    std::size_t done = 0;
    while (done < first.size() && (taken_ < chunk_[0].size() || next_chunk())) {
        const std::size_t count = std::min(first.size() - done, chunk_[0].size() - taken_);
        const auto copy = [&](const std::vector<float>& from, std::span<float> to) {
            std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(taken_), count,
                        to.begin() + static_cast<std::ptrdiff_t>(done));
        };
        copy(chunk_[0], first);
        copy(chunk_[1], second);
        taken_ += count;
        done += count;
    }
    return done;
}

// Prepares the next 10 ms, in pieces that do not depend on how they are taken. Returns false if it is too early.
bool aligner::next_chunk() {
    const std::uint64_t left = streams_[0].known() - static_cast<std::uint64_t>(position_);
    const std::size_t count = std::min<std::uint64_t>(left, static_cast<std::uint64_t>((rate_ + 99) / 100));
    const bool is_whole = left >= static_cast<std::uint64_t>((rate_ + 99) / 100);
    if (count == 0 || (!has_ended() && (!is_whole || waits_for_second(count)))) return false;
    for (auto& each : chunk_)
        each.resize(count);
    streams_[0].copy(position_, chunk_[0]);
    follow(chunk_[1]);
    taken_ = 0;
    position_ += static_cast<int64_t>(count);
    streams_[0].forget(position_);
    streams_[1].forget(position_ + whole_ - taps - rate_);
    return true;
}

bool aligner::waits_for_second(std::size_t count) {
    const auto is_known = [&] {
        if (streams_[1].is_empty()) return false;
        const int64_t shift = std::max(whole_, static_cast<int64_t>(wanted_shift())); // wherever it will be read
        return static_cast<int64_t>(streams_[1].known()) >= position_ + shift + static_cast<int64_t>(count) + taps;
    };
    if (is_known()) return false;
    if (streams_[0].active() - streams_[0].place_of(position_).active < patience_for_second) return true;
    streams_[1].settle(streams_[0].heard_until());
    return false;
}

// How many samples the place in the second stream that belongs to the time of the chunk is ahead of that in the first.
double aligner::wanted_shift() const {
    return (streams_[0].place_of(position_).lateness - streams_[1].place_of(position_ + whole_).lateness) * rate_;
}

// Reads the second stream at the time of the chunk.
void aligner::follow(std::span<float> to) {
    if (streams_[1].is_empty()) {
        std::fill(to.begin(), to.end(), 0.0F);
        return;
    }
    const double wanted = wanted_shift();
    const double amiss = wanted - (static_cast<double>(whole_) + part_);
    const bool jumps = std::abs(amiss) >= timeline::tolerance * rate_;
    if (is_placed_ && !jumps) {
        const double length = static_cast<double>(to.size()) / rate_;
        drift_ += (amiss * correction / rate_ - drift_) * length / inertia;
        read_second(1.0 + drift_, to);
        return;
    }
    if (is_placed_) {
        old_place_.resize(to.size());
        read_second(1.0, old_place_);
    }
    whole_ = static_cast<int64_t>(std::floor(wanted));
    part_ = wanted - std::floor(wanted);
    read_second(1.0, to);
    if (is_placed_) {
        for (std::size_t i = 0; i < to.size(); ++i) {
            const float share = static_cast<float>(i) / static_cast<float>(to.size());
            to[i] = share * to[i] + (1.0F - share) * old_place_[i];
        }
    }
    is_placed_ = true;
}

// Reads samples of the second stream from its place on, which advances by `step` from one to the next.
void aligner::read_second(double step, std::span<float> to) {
    const auto span = static_cast<std::size_t>(std::ceil(static_cast<double>(to.size()) * step));
    neighbours_.resize(span + taps + 1);
    streams_[1].copy(position_ + whole_ - (taps / 2 - 1), neighbours_);
    for (std::size_t i = 0; i < to.size(); ++i) {
        const double place = part_ + static_cast<double>(i) * step;
        const auto sample = static_cast<std::size_t>(place);
        const double fraction = (place - static_cast<double>(sample)) * phases;
        const auto phase = static_cast<std::size_t>(fraction);
        const auto share = static_cast<float>(fraction - static_cast<double>(phase));
        const float* const at = neighbours_.data() + sample;
        float sums[2] = {0.0F, 0.0F};
        for (std::size_t tap = 0; tap < taps; ++tap) {
            sums[0] += at[tap] * filter_[phase][tap];
            sums[1] += at[tap] * filter_[phase + 1][tap];
        }
        to[i] = sums[0] + share * (sums[1] - sums[0]);
    }
    const double moved = part_ + static_cast<double>(to.size()) * (step - 1.0);
    whole_ += static_cast<int64_t>(std::floor(moved));
    part_ = moved - std::floor(moved);
}

} // namespace recorder

using recorder::guarded;

wrapper_audio_status wrapper_audio_aligner_create(wrapper_audio_aligner** aligner, int32_t rate) noexcept {
    if (aligner == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *aligner = nullptr;
    if (rate < recorder::lowest_rate || rate > recorder::highest_rate) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        *aligner = std::make_unique<wrapper_audio_aligner>(rate).release();
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_aligner_add(wrapper_audio_aligner* aligner, int32_t side, const float* samples,
                                               std::size_t count, int64_t time) noexcept {
    if (aligner == nullptr || side < 0 || side > 1 || (samples == nullptr && count > 0))
        return WRAPPER_AUDIO_INVALID_ARGUMENT;
    if (aligner->aligner.has_ended()) return WRAPPER_AUDIO_INVALID_STATE;
    return guarded([&] {
        aligner->aligner.add(static_cast<std::size_t>(side), {samples, count}, time);
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_aligner_take(wrapper_audio_aligner* aligner, float* first, float* second,
                                                std::size_t capacity, std::size_t* count) noexcept {
    if (count != nullptr) *count = 0;
    if (aligner == nullptr || count == nullptr || ((first == nullptr || second == nullptr) && capacity > 0))
        return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *count = aligner->aligner.take({first, capacity}, {second, capacity});
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_aligner_flush(wrapper_audio_aligner* aligner) noexcept {
    if (aligner == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        aligner->aligner.end();
        return WRAPPER_AUDIO_OK;
    });
}

void wrapper_audio_aligner_free(wrapper_audio_aligner* aligner) noexcept {
    delete aligner;
}
