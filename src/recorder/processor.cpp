// The signal processors and their plain C functions.
#include "failure.h"
#include "limiter.h"
#include "numeric/biquad.h"
#include "numeric/in_place.h"
#include "numeric/levels.h"
#include "sample_format.h"
#include "voice.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

// The base of all processors: output waits here until the host takes it.
struct wrapper_audio_processor {
    using sample_span = recorder::sample_span;

    wrapper_audio_processor() = default;
    virtual ~wrapper_audio_processor() = default;
    wrapper_audio_processor(const wrapper_audio_processor&) = delete;
    wrapper_audio_processor& operator=(const wrapper_audio_processor&) = delete;

    virtual void process(sample_span in, std::vector<float>& out) = 0; // appends
    virtual void finish(std::vector<float>& out) = 0;                  // appends the rest, and resets
    virtual void reset() = 0;
    virtual std::size_t delay() const { return 0; }
    virtual std::vector<float>* speech() { return nullptr; }

    std::vector<float> ready;
    std::size_t taken = 0; // of `ready`
    bool flushing = false;

    std::size_t take(float* out, std::size_t capacity) {
        const std::size_t count = std::min(capacity, ready.size() - taken);
        if (count > 0) std::memcpy(out, ready.data() + taken, count * sizeof *out);
        taken += count;
        if (taken >= ready.size() - taken) { // so that no more is moved than was taken
            ready.erase(ready.begin(), ready.begin() + static_cast<std::ptrdiff_t>(taken));
            taken = 0;
        }
        return count;
    }
};

namespace recorder {

namespace {

class voice_processor : public wrapper_audio_processor {
public:
    explicit voice_processor(const wrapper_audio_voice_options& options) : chain_(options) {}

    void process(sample_span in, std::vector<float>& out) override {
        constexpr std::size_t hour = 360000; // of 10 ms
        drop_oldest(chain_.speech(), hour);
        chain_.process(in, out);
    }
    void finish(std::vector<float>& out) override { chain_.flush(out); }
    void reset() override { chain_.reset(); }
    std::size_t delay() const override { return chain_.delay(); }
    std::vector<float>* speech() override { return &chain_.speech(); }

private:
    voice_chain chain_;
};

// A filter that returns one sample per input sample.
class in_place_processor : public wrapper_audio_processor {
public:
    void process(sample_span in, std::vector<float>& out) override {
        const std::size_t old = out.size();
        std::transform(in.begin(), in.end(), std::back_inserter(out), limited);
        constexpr std::size_t most = 1 << 30; // fits the loops' counts
        for (std::size_t at = old; at < out.size(); at += most)
            filter(out.data() + at, static_cast<int32_t>(std::min(out.size() - at, most)));
    }
    void finish(std::vector<float>& /*out*/) override { reset(); }

protected:
    virtual void filter(float* block, int32_t count) = 0;
};

class high_pass : public in_place_processor {
public:
    high_pass(double cutoff_hz, double q, double rate)
        : at_rest_(numeric::high_pass(cutoff_hz, q, rate)), section_(at_rest_) {}

    void reset() override { section_ = at_rest_; }

protected:
    void filter(float* block, int32_t count) override { numeric::filter(section_, block, count); }

private:
    const numeric::biquad at_rest_;
    numeric::biquad section_;
};

class depop : public in_place_processor {
public:
    explicit depop(float coef) : coef_(coef) {}

    void reset() override { last_ = 0.0F; }

protected:
    void filter(float* block, int32_t count) override {
        const float before = last_;
        last_ = block[count - 1];
        numeric::subtract_previous(block, count, coef_);
        block[0] -= before * coef_; // which the loop leaves unchanged
    }

private:
    const float coef_;
    float last_ = 0.0F;
};

// The core's gain control on blocks of 10 ms, whatever pieces the samples arrive in.
class gain_control : public wrapper_audio_processor {
public:
    gain_control(int32_t rate, float target_db, float release_ms)
        : block_(static_cast<std::size_t>(std::lround(rate / 100.0))), target_(std::pow(10.0F, target_db / 20.0F)),
          release_(release_ms > 0.0F ? std::exp(-10.0F / release_ms) : 0.0F) {}

    void process(sample_span in, std::vector<float>& out) override {
        std::transform(in.begin(), in.end(), std::back_inserter(waiting_), limited);
        std::size_t done = 0;
        for (; waiting_.size() - done >= block_; done += block_)
            control(done, block_, out);
        waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(done));
    }
    void finish(std::vector<float>& out) override {
        if (!waiting_.empty()) control(0, waiting_.size(), out);
        reset();
    }
    void reset() override {
        waiting_.clear();
        gain_ = 1.0F;
    }
    std::size_t delay() const override { return block_ - 1; }

private:
    static constexpr float silence = 1e-6F;
    static constexpr float most = 10.0F;
    static constexpr float least = 0.1F;

    void control(std::size_t first, std::size_t length, std::vector<float>& out) {
        float* const block = waiting_.data() + first;
        const auto count = static_cast<int32_t>(length);
        const float rms = numeric::root_mean_square(numeric::sum_of_squares(block, count), count);
        if (!(rms < silence)) {
            gain_ = gain_ * release_ + (1.0F - release_) * std::clamp(target_ / rms, least, most);
            numeric::multiply(block, count, gain_);
        }
        out.insert(out.end(), block, block + length);
    }

    const std::size_t block_;
    const float target_;
    const float release_;
    float gain_ = 1.0F;
    std::vector<float> waiting_;
};

class peak_limiter : public wrapper_audio_processor {
public:
    peak_limiter(int32_t rate, float ceiling_db, float release_ms) : limiter_(rate, ceiling_db, release_ms) {}

    void process(sample_span in, std::vector<float>& out) override {
        for (const float sample : in)
            push(limited(sample), out);
    }
    void finish(std::vector<float>& out) override {
        for (std::size_t i = 0; i < limiter_.look_ahead(); ++i)
            push(0.0F, out);
        reset();
    }
    void reset() override { limiter_.reset(); }
    std::size_t delay() const override { return limiter_.look_ahead(); }

private:
    void push(float sample, std::vector<float>& out) {
        const float given = limiter_.process(sample);
        if (limiter_.taken() > limiter_.look_ahead()) out.push_back(given);
    }

    limiter limiter_;
};

bool is_rate(int32_t rate) {
    return rate >= lowest_rate && rate <= highest_rate;
}

template <typename Make>
wrapper_audio_status create(wrapper_audio_processor** processor, bool valid, Make make) noexcept {
    if (processor == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *processor = nullptr;
    if (!valid) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        *processor = make().release();
        return WRAPPER_AUDIO_OK;
    });
}

// What a call that returns samples needs.
bool has_room(const wrapper_audio_processor* processor, const float* out, std::size_t capacity,
              std::size_t* out_count) {
    if (out_count != nullptr) *out_count = 0;
    return processor != nullptr && out_count != nullptr && (out != nullptr || capacity == 0);
}

} // namespace

} // namespace recorder

using namespace recorder;

wrapper_audio_status wrapper_audio_voice_create(wrapper_audio_processor** processor,
                                                const wrapper_audio_voice_options* options) noexcept {
    const bool valid = options != nullptr && voice_chain::is_valid(*options);
    return create(processor, valid, [&] { return std::make_unique<voice_processor>(*options); });
}

wrapper_audio_status wrapper_audio_high_pass_create(wrapper_audio_processor** processor, int32_t rate, float cutoff_hz,
                                                    float q) noexcept {
    const double corner = static_cast<double>(cutoff_hz);
    const bool valid = is_rate(rate) && corner > 0.0 && corner < rate / 2.0 && q >= 0.05F && q <= 50.0F;
    return create(processor, valid, [&] { return std::make_unique<high_pass>(corner, static_cast<double>(q), rate); });
}

wrapper_audio_status wrapper_audio_depop_create(wrapper_audio_processor** processor, float coef) noexcept {
    return create(processor, coef >= 0.0F && coef <= 1.0F, [&] { return std::make_unique<depop>(coef); });
}

wrapper_audio_status wrapper_audio_gain_control_create(wrapper_audio_processor** processor, int32_t rate,
                                                       float target_db, float release_ms) noexcept {
    const bool valid =
        is_rate(rate) && target_db >= -60.0F && target_db <= 0.0F && release_ms >= 0.0F && release_ms <= 60000.0F;
    return create(processor, valid, [&] { return std::make_unique<gain_control>(rate, target_db, release_ms); });
}

wrapper_audio_status wrapper_audio_limiter_create(wrapper_audio_processor** processor, int32_t rate, float ceiling_db,
                                                  float release_ms) noexcept {
    const bool valid =
        is_rate(rate) && ceiling_db >= -60.0F && ceiling_db <= 0.0F && release_ms >= 0.0F && release_ms <= 60000.0F;
    return create(processor, valid, [&] { return std::make_unique<peak_limiter>(rate, ceiling_db, release_ms); });
}

wrapper_audio_status wrapper_audio_processor_process(wrapper_audio_processor* processor, const float* in,
                                                     std::size_t in_count, float* out, std::size_t capacity,
                                                     std::size_t* out_count) noexcept {
    if (!has_room(processor, out, capacity, out_count)) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    if (in == nullptr && in_count > 0) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    if (processor->flushing) return WRAPPER_AUDIO_INVALID_STATE;
    return guarded([&] {
        processor->process({in, in_count}, processor->ready);
        *out_count = processor->take(out, capacity);
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_processor_flush(wrapper_audio_processor* processor, float* out, std::size_t capacity,
                                                   std::size_t* out_count) noexcept {
    if (!has_room(processor, out, capacity, out_count)) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        if (!processor->flushing) processor->finish(processor->ready);
        processor->flushing = true;
        *out_count = processor->take(out, capacity);
        if (*out_count < capacity) processor->flushing = false;
        return WRAPPER_AUDIO_OK;
    });
}

std::size_t wrapper_audio_processor_take_speech(wrapper_audio_processor* processor, float* probabilities,
                                                std::size_t capacity) noexcept {
    if (processor == nullptr || probabilities == nullptr || processor->speech() == nullptr) return 0;
    std::vector<float>& speech = *processor->speech();
    const std::size_t count = std::min(capacity, speech.size());
    const auto end = speech.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(speech.begin(), end, probabilities);
    speech.erase(speech.begin(), end);
    return count;
}

std::size_t wrapper_audio_processor_delay(const wrapper_audio_processor* processor) noexcept {
    return processor == nullptr ? 0 : processor->delay();
}

wrapper_audio_status wrapper_audio_processor_reset(wrapper_audio_processor* processor) noexcept {
    if (processor == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        processor->reset();
        processor->ready.clear();
        processor->taken = 0;
        processor->flushing = false;
        return WRAPPER_AUDIO_OK;
    });
}

void wrapper_audio_processor_free(wrapper_audio_processor* processor) noexcept {
    delete processor;
}

wrapper_audio_status wrapper_audio_s16_to_f32(const int16_t* in, std::size_t count, float* out) noexcept {
    if ((in == nullptr || out == nullptr) && count > 0) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    std::transform(in, in + count, out, from_s16);
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_f32_to_s16(const float* in, std::size_t count, int16_t* out) noexcept {
    if ((in == nullptr || out == nullptr) && count > 0) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    std::transform(in, in + count, out, to_s16);
    return WRAPPER_AUDIO_OK;
}
