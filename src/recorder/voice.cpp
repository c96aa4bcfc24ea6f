#include "voice.h"

#include "audio_system.h"
#include "numeric/pcm16.h"
#include "numeric/rate_conversion.h"

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <new>

namespace recorder {

namespace {

// By soxr: its high quality passes what is below 0.91 of the lower Nyquist frequency and stops what is above Nyquist.
class clean_converter : public rate_converter {
public:
    clean_converter(int32_t in_rate, int32_t out_rate) {
        const soxr_io_spec_t floats = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        const soxr_runtime_spec_t one_thread = soxr_runtime_spec(1);
        soxr_error_t error = nullptr;
        state_.reset(soxr_create(in_rate, out_rate, 1, &error, &floats, &quality, &one_thread));
        if (error != nullptr) throw std::bad_alloc();
    }

    void convert(sample_span in, std::vector<float>& out) override {
        float block[1024];
        std::size_t given = 0;
        do {
            std::size_t taken = 0;
            // A null input would end the stream.
            const float* const from = in.empty() ? block : in.data();
            if (soxr_process(state_.get(), from, in.size(), &taken, block, std::size(block), &given) != nullptr)
                throw std::bad_alloc();
            in = in.subspan(taken);
            out.insert(out.end(), block, block + given);
        } while (!in.empty() || given == std::size(block));
    }

private:
    struct release {
        void operator()(soxr_t state) const { soxr_delete(state); }
    };
    std::unique_ptr<soxr, release> state_;
};

// The core's means over integer ratios, continued across block boundaries.
class mean_converter : public rate_converter {
public:
    explicit mean_converter(int32_t ratio) : ratio_(static_cast<std::size_t>(ratio)) {}

    void convert(sample_span in, std::vector<float>& out) override {
        waiting_.insert(waiting_.end(), in.begin(), in.end());
        const std::size_t count = waiting_.size() / ratio_;
        const std::size_t old = out.size();
        out.resize(old + count);
        numeric::plain::group_means(waiting_.data(), static_cast<int32_t>(ratio_), out.data() + old,
                                    static_cast<int32_t>(count));
        waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(count * ratio_));
    }

private:
    const std::size_t ratio_;
    std::vector<float> waiting_;
};

// The core's linear interpolation, continued across block boundaries. Positions are integer multiples of 1 / out_rate,
// so none is ever rounded.
class linear_converter : public rate_converter {
public:
    linear_converter(int32_t in_rate, int32_t out_rate)
        : in_rate_(static_cast<uint64_t>(in_rate)), out_rate_(static_cast<uint64_t>(out_rate)) {}

    void convert(sample_span in, std::vector<float>& out) override {
        waiting_.insert(waiting_.end(), in.begin(), in.end());
        std::size_t left = 0;
        for (; left = static_cast<std::size_t>(position_ / out_rate_), left + 1 < waiting_.size();
             position_ += in_rate_) {
            const double fraction = static_cast<double>(position_ % out_rate_) / static_cast<double>(out_rate_);
            out.push_back(static_cast<float>(static_cast<double>(waiting_[left]) * (1.0 - fraction) +
                                             fraction * static_cast<double>(waiting_[left + 1])));
        }
        const std::size_t done = std::min(left, waiting_.size());
        waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(done));
        position_ -= done * out_rate_;
    }

private:
    const uint64_t in_rate_;
    const uint64_t out_rate_;
    uint64_t position_ = 0; // of the next output, from the first sample that waits
    std::vector<float> waiting_;
};

// How long a converter may hold samples back, in seconds: measured by feeding it pieces of 10 ms.
double longest_delay(int32_t in_rate, int32_t out_rate, wrapper_audio_conversion conversion) {
    if (conversion == WRAPPER_AUDIO_CONVERSION_LINEAR) return 1.0 / in_rate + 1.0 / out_rate;
    const auto converter = make_rate_converter(in_rate, out_rate, conversion);
    const std::vector<float> piece(static_cast<std::size_t>(in_rate / 100));
    std::vector<float> out;
    double longest = 0.0;
    double in_time = 0.0;
    std::size_t given = 0;
    for (int pieces = 0, bursts = 0; bursts < 4 || pieces < 100; ++pieces) {
        in_time += static_cast<double>(piece.size()) / in_rate;
        longest = std::max(longest, in_time - static_cast<double>(given) / out_rate);
        out.clear();
        converter->convert(piece, out);
        given += out.size();
        bursts += out.empty() ? 0 : 1;
    }
    return longest;
}

} // namespace

float limited(float sample) {
    constexpr float limit = 100.0F;
    return std::isfinite(sample) ? std::clamp(sample, -limit, limit) : 0.0F;
}

std::unique_ptr<rate_converter> make_rate_converter(int32_t in_rate, int32_t out_rate,
                                                    wrapper_audio_conversion conversion) {
    if (in_rate == out_rate) return nullptr;
    if (conversion == WRAPPER_AUDIO_CONVERSION_CLEAN) return std::make_unique<clean_converter>(in_rate, out_rate);
    if (in_rate % out_rate == 0) return std::make_unique<mean_converter>(in_rate / out_rate);
    return std::make_unique<linear_converter>(in_rate, out_rate);
}

void drop_oldest(std::vector<float>& values, std::size_t most) {
    const std::size_t surplus = values.size() - std::min(values.size(), most);
    values.erase(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(surplus));
}

noise_suppressor::noise_suppressor(float strength) : state_(rnnoise_create(nullptr)), strength_(strength) {
    if (state_ == nullptr) throw std::bad_alloc();
}

void noise_suppressor::process(sample_span in, std::vector<float>& out, std::vector<float>* undenoised,
                               std::vector<float>& speech) {
    while (!in.empty()) {
        const auto part = in.first(std::min(in.size(), static_cast<std::size_t>(frame - filled_)));
        std::copy(part.begin(), part.end(), frames_[count_ % std::size(frames_)] + filled_);
        filled_ += static_cast<int32_t>(part.size());
        in = in.subspan(part.size());
        if (filled_ < frame) return;
        process_frame(out, undenoised, speech);
        filled_ = 0;
        ++count_;
    }
}

void noise_suppressor::process_frame(std::vector<float>& out, std::vector<float>* undenoised,
                                     std::vector<float>& speech) {
    float denoised[frame];
    const std::span next{frames_[count_ % std::size(frames_)]};
    numeric::scale_to_pcm16_range(next.data(), frame, denoised);
    const float probability = rnnoise_process_frame(state_.get(), denoised, denoised);
    near_.hear(next);
    if (count_ < delayed_frames) return;
    numeric::scale_from_pcm16_range(denoised, frame, denoised);
    const std::span original{frames_[(count_ - delayed_frames) % std::size(frames_)]};
    const float near = near_.weigh(probability, original, denoised);
    if (strength_ < 1.0F) {
        std::transform(denoised, denoised + frame, original.begin(), denoised,
                       [&](float without_noise, float with_noise) {
                           return strength_ * without_noise + (1.0F - strength_) * with_noise;
                       });
    }
    out.insert(out.end(), denoised, denoised + frame);
    if (undenoised != nullptr) undenoised->insert(undenoised->end(), original.begin(), original.end());
    speech.push_back(near);
}

bool voice_chain::is_valid(const wrapper_audio_voice_options& options) {
    const auto is_rate = [](int32_t rate) { return rate >= lowest_rate && rate <= highest_rate; };
    return is_rate(options.in_rate) && is_rate(options.out_rate) && options.denoise >= 0.0F &&
           options.denoise <= 1.0F && (options.speech == 0 || options.speech == 1) &&
           (options.conversion == WRAPPER_AUDIO_CONVERSION_CLEAN ||
            options.conversion == WRAPPER_AUDIO_CONVERSION_LINEAR);
}

voice_chain::voice_chain(const wrapper_audio_voice_options& options, bool keeps_undenoised) : options_(options) {
    if (keeps_undenoised) undenoised_.emplace();
    reset();
    const auto conversion = static_cast<wrapper_audio_conversion>(options.conversion);
    double seconds = 0.0;
    const auto add_stage = [&](int32_t from, int32_t to) {
        if (from != to) seconds += longest_delay(from, to, conversion);
    };
    if (denoises()) {
        constexpr int32_t kept = (noise_suppressor::delayed_frames + 1) * noise_suppressor::frame - 1;
        seconds += static_cast<double>(kept) / denoiser_rate;
        add_stage(options.in_rate, denoiser_rate);
        add_stage(denoiser_rate, options.out_rate);
    } else {
        add_stage(options.in_rate, options.out_rate);
    }
    delay_ = static_cast<std::size_t>(std::ceil(seconds * options.out_rate));
}

void voice_chain::reset() {
    const auto conversion = static_cast<wrapper_audio_conversion>(options_.conversion);
    in_ = make_rate_converter(options_.in_rate, denoises() ? denoiser_rate : options_.out_rate, conversion);
    suppressor_ = denoises() ? std::make_unique<noise_suppressor>(options_.denoise) : nullptr;
    const auto restart = [&](output& each) {
        each.converter = denoises() ? make_rate_converter(denoiser_rate, options_.out_rate, conversion) : nullptr;
        each.ready.clear();
    };
    restart(out_);
    if (undenoised_) restart(*undenoised_);
    speech_.clear();
    taken_ = 0;
    given_ = 0;
    told_ = 0;
    last_ = 0.0F;
}

// How many samples belong to the input so far: times the ratio of the rates, rounded to the nearest, halves up.
uint64_t voice_chain::due() const {
    const auto in_rate = static_cast<uint64_t>(options_.in_rate);
    const auto out_rate = static_cast<uint64_t>(options_.out_rate);
    return taken_ / in_rate * out_rate + (2 * (taken_ % in_rate) * out_rate + in_rate) / (2 * in_rate);
}

void voice_chain::run(sample_span in) {
    if (suppressor_ == nullptr) {
        if (in_ != nullptr)
            in_->convert(in, out_.ready);
        else
            out_.ready.insert(out_.ready.end(), in.begin(), in.end());
        return;
    }
    at_48000_.clear();
    if (in_ != nullptr) {
        in_->convert(in, at_48000_);
        in = at_48000_;
    }
    const std::size_t old = speech_.size();
    suppressor_->process(in, out_.next_in(), undenoised_ ? &undenoised_->next_in() : nullptr, speech_);
    told_ += speech_.size() - old;
    out_.convert();
    if (undenoised_) undenoised_->convert();
}

std::vector<float>& voice_chain::output::next_in() {
    at_48000.clear();
    return converter != nullptr ? at_48000 : ready;
}

void voice_chain::output::convert() {
    if (converter != nullptr) converter->convert(at_48000, ready);
}

void voice_chain::output::give(std::size_t count, std::vector<float>& out) {
    const auto end = ready.begin() + static_cast<std::ptrdiff_t>(count);
    out.insert(out.end(), ready.begin(), end);
    ready.erase(ready.begin(), end);
}

void voice_chain::give(std::vector<float>& out, std::vector<float>* undenoised) {
    const std::size_t count = std::min(out_.ready.size(), static_cast<std::size_t>(due() - given_));
    out_.give(count, out);
    if (undenoised_) undenoised_->give(count, *undenoised);
    given_ += count;
}

// In pieces of at most 10 ms, so that a long input needs no more memory than a short one.
void voice_chain::process(sample_span in, std::vector<float>& out, std::vector<float>* undenoised) {
    float piece[highest_rate / 100];
    const auto length = static_cast<std::size_t>(options_.in_rate / 100);
    while (!in.empty()) {
        const auto part = in.first(std::min(in.size(), length));
        std::transform(part.begin(), part.end(), piece, limited);
        last_ = piece[part.size() - 1];
        taken_ += part.size();
        run({piece, part.size()});
        give(out, undenoised);
        in = in.subspan(part.size());
    }
}

// What is inside comes out when as much is put in after it: silence, or for linear interpolation, more of the last
// sample.
void voice_chain::flush(std::vector<float>& out, std::vector<float>* undenoised) {
    const float filling = options_.conversion == WRAPPER_AUDIO_CONVERSION_LINEAR ? last_ : 0.0F;
    const std::vector<float> piece(static_cast<std::size_t>(options_.in_rate / 100), filling);
    const auto in_rate = static_cast<uint64_t>(options_.in_rate);
    const uint64_t begun = suppressor_ == nullptr // 10 ms
                               ? 0
                               : taken_ / in_rate * 100 + (taken_ % in_rate * 100 + in_rate - 1) / in_rate;
    while (given_ + out_.ready.size() < due() || told_ < begun)
        run(piece);
    give(out, undenoised);
    speech_.resize(speech_.size() - std::min<std::size_t>(speech_.size(), told_ - begun));
    auto told = std::move(speech_);
    reset();
    speech_ = std::move(told);
}

} // namespace recorder
