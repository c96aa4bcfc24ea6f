#include "effects.h"

#include "console.h"
#include "failure.h"

#include <fmt/format.h>

#include <utility>

namespace {

constexpr float highest_peak_db = -1.0F;
constexpr float limiter_release_ms = 100.0F;

void check(wrapper_audio_status status) {
    if (status != WRAPPER_AUDIO_OK) throw failure(unexpected, wrapper_audio_status_text(status));
}

} // namespace

effect_chain::effect_chain(const effect_options& wanted, int rate) {
    if (wanted.depop) stages.push_back(make(wrapper_audio_depop_create, *wanted.depop));
    if (wanted.highpass) {
        const auto [corner, q] = *wanted.highpass;
        if (corner * 2 >= static_cast<float>(rate))
            throw failure(usage, fmt::format("--highpass: the corner must be below half the rate, {} Hz", rate / 2));
        stages.push_back(make(wrapper_audio_high_pass_create, rate, corner, q));
    }
    if (wanted.agc) {
        stages.push_back(make(wrapper_audio_gain_control_create, rate, wanted.agc->target_db, wanted.agc->release_ms));
        end_with_limiter(rate, highest_peak_db);
    }
}

void effect_chain::begin_with(const wrapper_audio_voice_options& voice) {
    stages.insert(stages.begin(), make(wrapper_audio_voice_create, &voice));
}

void effect_chain::end_with_limiter(int rate, float ceiling_db) {
    stages.push_back(make(wrapper_audio_limiter_create, rate, ceiling_db, limiter_release_ms));
}

std::vector<float> effect_chain::take_speech() {
    std::vector<float> probabilities;
    for (std::size_t room = 64, taken = room; taken == room;) {
        const std::size_t old = probabilities.size();
        probabilities.resize(old + room);
        taken = wrapper_audio_processor_take_speech(stages.front().processor.get(), probabilities.data() + old, room);
        probabilities.resize(old + taken);
    }
    return probabilities;
}

template <class Create, class... Arguments>
effect_chain::stage effect_chain::make(Create create, Arguments... arguments) {
    wrapper_audio_processor* made = nullptr;
    check(create(&made, arguments...));
    stage result;
    result.processor.reset(made);
    return result;
}

std::span<const float> effect_chain::run(std::span<const float> samples, bool at_end) {
    for (stage& each : stages) {
        pass(each, samples, at_end);
        samples = each.out;
    }
    return samples;
}

void effect_chain::pass(stage& through, std::span<const float> samples, bool at_end) {
    constexpr std::size_t room = 4096;
    through.out.clear();
    const auto take = [&](auto call) {
        for (std::size_t given = room; given == room;) {
            const std::size_t old = through.out.size();
            through.out.resize(old + room);
            check(call(through.out.data() + old, &given));
            through.out.resize(old + given);
        }
    };
    take([&](float* to, std::size_t* given) {
        const auto in = std::exchange(samples, {}); // all of it goes in at the first call
        return wrapper_audio_processor_process(through.processor.get(), in.data(), in.size(), to, room, given);
    });
    if (at_end)
        take([&](float* to, std::size_t* given) {
            return wrapper_audio_processor_flush(through.processor.get(), to, room, given);
        });
}

std::string denoising_text(std::int32_t denoising, int rate, const char* whose) {
    switch (denoising) {
    case WRAPPER_AUDIO_DENOISING_NATIVE:
        return fmt::format("denoising at {} Hz, {} own rate", rate, whose);
    case WRAPPER_AUDIO_DENOISING_CONVERTED:
        return fmt::format("denoising, converted from {} Hz", rate);
    default:
        return "nothing is denoised";
    }
}

void report_no_denoising(bool must_denoise) {
    const std::string sentence = denoising_text(WRAPPER_AUDIO_DENOISING_OFF, 0);
    if (must_denoise) throw failure(not_denoised, sentence, "With --denoise=required, --strength must be above 0");
    console::error(sentence); // not a note: it must be hard to miss
}
