#include "effects.h"

#include "failure.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace {

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
    if (wanted.agc)
        stages.push_back(make(wrapper_audio_gain_control_create, rate, wanted.agc->target_db, wanted.agc->release_ms));
}

void effect_chain::begin_with(const wrapper_audio_voice_options& voice) {
    stages.insert(stages.begin(), make(wrapper_audio_voice_create, &voice));
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

float parse_share(const std::string& text) {
    float share = -1;
    float rest = 0;
    parse_pair(text, share, rest);
    if (!(share >= 0 && share <= 1) || text.find(':') != std::string::npos)
        throw std::invalid_argument("must lie between 0 and 1");
    return share;
}
