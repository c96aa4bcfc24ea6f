// The signal processors and the speech gate on any numbers, in pieces of any size: what comes out does not depend on the
// pieces, its length is the one promised, and no sample is spoilt.
#include "script.h"
#include "wrapper_audio_recorder.h"

#include "speech_reference.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

constexpr std::size_t most_samples = 6000;
constexpr std::size_t most_output = 60000;
constexpr std::uint8_t speech_gate = 255; // the first byte of an input for one

struct release {
    void operator()(wrapper_audio_processor* processor) const { wrapper_audio_processor_free(processor); }
};
using processor = std::unique_ptr<wrapper_audio_processor, release>;

struct made {
    processor handle;
    bool valid = true;
    bool is_voice = false;
    float ceiling = INFINITY; // of the output's magnitude
    wrapper_audio_voice_options voice{};
};

bool is_rate(std::int32_t rate) {
    return rate >= 100 && rate <= 768000;
}

constexpr std::int32_t rates[] = {48000, 16000, 44100, 8000, 11025, 100, 768000, 47999};
constexpr float usual_floats[] = {0.0F, 1.0F, -1.0F, 0.5F, 0.707F, 100.0F, -20.0F};

// A processor of any kind with any settings, and whether these are allowed.
made make(script& bytes) {
    made result;
    wrapper_audio_processor* handle = nullptr;
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    const unsigned kind = bytes.below(6);
    const auto rate = bytes.usual(rates);
    if (kind > 3) {
        wrapper_audio_voice_options& voice = result.voice;
        voice.in_rate = rate;
        voice.out_rate = bytes.usual(rates);
        voice.denoise = bytes.usual(usual_floats);
        voice.speech = static_cast<std::int32_t>(bytes.below(3));
        voice.conversion = static_cast<std::int32_t>(bytes.below(3));
        status = wrapper_audio_voice_create(&handle, &voice);
        result.valid = is_rate(voice.in_rate) && is_rate(voice.out_rate) && voice.denoise >= 0.0F &&
                       voice.denoise <= 1.0F && voice.speech < 2 && voice.conversion < 2;
        result.is_voice = true;
    } else {
        const auto one = bytes.usual(usual_floats);
        const auto two = bytes.usual(usual_floats);
        if (kind == 0) {
            status = wrapper_audio_depop_create(&handle, one);
            result.valid = one >= 0.0F && one <= 1.0F;
        } else if (kind == 1) {
            status = wrapper_audio_high_pass_create(&handle, rate, one, two);
            result.valid =
                is_rate(rate) && one > 0.0F && static_cast<double>(one) < rate / 2.0 && two >= 0.05F && two <= 50.0F;
        } else {
            const auto create = kind == 2 ? wrapper_audio_gain_control_create : wrapper_audio_limiter_create;
            status = create(&handle, rate, one, two);
            if (kind == 3) result.ceiling = std::pow(10.0F, one / 20.0F);
            result.valid = is_rate(rate) && one >= -60.0F && one <= 0.0F && two >= 0.0F && two <= 60000.0F;
        }
    }
    result.handle.reset(handle);
    require(status == (result.valid ? WRAPPER_AUDIO_OK : WRAPPER_AUDIO_INVALID_ARGUMENT), "settings are judged",
            std::to_string(status));
    require((handle != nullptr) == result.valid, "a processor is made if its settings are allowed");
    return result;
}

// Outside the range of sound, too; infinities and NaN for a voice chain, which takes them for silence.
std::vector<float> read_samples(script& bytes, bool any_bits) {
    std::vector<float> samples(std::min<std::size_t>(bytes.number<std::uint16_t>(), most_samples));
    const unsigned kind = bytes.below(3);
    std::uint32_t state = bytes.number<std::uint32_t>();
    for (float& sample : samples) {
        state = state * 1664525 + 1013904223;
        sample = static_cast<float>(static_cast<std::int32_t>(state)) / 2147483648.0F;
        if (kind == 1) sample *= 1e-38F;
        if (kind == 2 && any_bits && state % 64 == 0) sample = bytes.number<float>();
    }
    return samples;
}

std::vector<float> run(wrapper_audio_processor* handle, const std::vector<float>& in, script& pieces, bool whole) {
    std::vector<float> out;
    std::vector<float> room(most_output);
    const auto take = [&](wrapper_audio_status status, std::size_t count, std::size_t capacity) {
        require(status == WRAPPER_AUDIO_OK, "samples are taken");
        require(count <= capacity, "no more is given than fits");
        out.insert(out.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(count));
    };
    std::size_t count = 0;
    for (std::size_t at = 0; at < in.size();) {
        const std::size_t length =
            whole ? in.size() : std::min<std::size_t>(in.size() - at, 1 + 7U * pieces.below(200));
        const std::size_t capacity = whole ? room.size() : std::size_t{3} * pieces.below(256);
        const auto status =
            wrapper_audio_processor_process(handle, in.data() + at, length, room.data(), capacity, &count);
        take(status, count, capacity);
        at += length;
    }
    for (bool more = true; more && out.size() < 40 * most_output;) {
        const std::size_t capacity = whole ? room.size() : 1 + std::size_t{50} * pieces.below(256);
        take(wrapper_audio_processor_flush(handle, room.data(), capacity, &count), count, capacity);
        more = count == capacity;
    }
    return out;
}

constexpr std::int32_t usual_times[] = {0, 10, 25, 60, 100, 300, -1, 60000};

// A speech gate with any settings on any stream, with losses: its utterances are those of the reference.
void listen(script& bytes) {
    wrapper_audio_speech_options options;
    wrapper_audio_speech_defaults(&options);
    options.rate = bytes.usual(rates);
    if (bytes.flag()) options.begin_threshold = bytes.usual(usual_floats);
    if (bytes.flag()) options.end_threshold = bytes.usual(usual_floats);
    options.min_speech_ms = bytes.usual(usual_times);
    options.hang_over_ms = bytes.usual(usual_times);
    options.pre_roll_ms = bytes.usual(usual_times);
    options.max_ms = bytes.usual(usual_times);
    const bool valid = is_rate(options.rate) && options.begin_threshold <= 1.0F && options.end_threshold >= 0.0F &&
                       options.end_threshold <= options.begin_threshold && options.min_speech_ms >= 0 &&
                       options.min_speech_ms <= 10000 && options.hang_over_ms >= 0 && options.hang_over_ms <= 60000 &&
                       options.pre_roll_ms >= 0 && options.pre_roll_ms <= 60000 &&
                       (options.max_ms == 0 || (options.max_ms >= 100 && options.max_ms <= 3600000));
    wrapper_audio_speech_gate* gate = nullptr;
    const auto status = wrapper_audio_speech_gate_create(&gate, &options);
    const std::unique_ptr<wrapper_audio_speech_gate, void (*)(wrapper_audio_speech_gate*)> holder(
        gate, [](wrapper_audio_speech_gate* made) { wrapper_audio_speech_gate_free(made); });
    require(status == (valid ? WRAPPER_AUDIO_OK : WRAPPER_AUDIO_INVALID_ARGUMENT), "settings are judged",
            std::to_string(status));
    require((gate != nullptr) == valid, "a gate is made if its settings are allowed");
    if (!valid) return;

    std::vector<bool> there;
    std::vector<float> probabilities;
    std::vector<reference::utterance> found;
    std::vector<float> samples(700);
    bool open = false;
    const auto take = [&](std::size_t capacity) {
        wrapper_audio_speech_piece piece;
        require(wrapper_audio_speech_gate_take(gate, samples.data(), capacity, &piece) == WRAPPER_AUDIO_OK, "is taken");
        require(piece.count <= capacity, "no more is given than fits");
        const auto position = static_cast<std::int64_t>(piece.position);
        if (piece.count > 0) {
            require((piece.begins != 0) != open, "an utterance begins once");
            if (!open) found.push_back({position, position});
            open = true;
        }
        const bool said = piece.count > 0 || piece.ends != 0;
        if (said) {
            require(open && found.back().end == position, "an utterance has all its samples");
            found.back().end += piece.count;
        }
        for (std::size_t i = 0; i < piece.count; ++i)
            require(samples[i] == static_cast<float>(piece.position + i), "each at its position");
        if (piece.ends != 0) open = false;
        return said;
    };
    std::vector<float> piece;
    while (!bytes.at_end() && there.size() < 100000) {
        const auto length = std::min<std::size_t>(std::size_t{bytes.number<std::uint8_t>()} * 8, 1000);
        piece.assign(length, 0.0F);
        for (float& sample : piece)
            sample = static_cast<float>(there.size() + static_cast<std::size_t>(&sample - piece.data()));
        const bool lost = bytes.below(8) == 0;
        const std::size_t before = probabilities.size();
        for (unsigned left = bytes.below(40), value = left; left > 0; --left) {
            if (left % 8 == 0) value = bytes.below(17);
            probabilities.push_back(value == 16 ? bytes.number<float>() : static_cast<float>(value) / 15.0F);
        }
        if (lost) wrapper_audio_speech_gate_skip(gate, piece.size());
        there.insert(there.end(), piece.size(), !lost);
        require(wrapper_audio_speech_gate_add(gate, piece.data(), lost ? 0 : piece.size(),
                                              probabilities.data() + before,
                                              probabilities.size() - before) == WRAPPER_AUDIO_OK,
                "a gate takes anything");
        for (unsigned left = bytes.below(4); left > 0; --left)
            take(bytes.below(256));
    }
    wrapper_audio_speech_gate_flush(gate);
    while (take(samples.size())) {
    }
    require(!open, "the last utterance ends");
    require(found == reference::utterances(options, there, probabilities), "the utterances are those defined");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0 && data[0] == speech_gate) {
        script bytes(data + 1, size - 1);
        listen(bytes);
        return 0;
    }
    script bytes(data, size);
    const made made = make(bytes);
    if (!made.valid) return 0;
    wrapper_audio_processor* const handle = made.handle.get();
    const auto& [in_rate, out_rate, denoise, speech, conversion] = made.voice;
    auto in = read_samples(bytes, made.is_voice);
    // So that no input is slow: neither a second of megahertz out of every sample, nor minutes of filters.
    if (made.is_voice) in.resize(std::min(in.size(), std::size_t{4} * static_cast<std::size_t>(in_rate) / 100 + 7));

    const std::vector<float> out = run(handle, in, bytes, true);
    const std::size_t expected = made.is_voice ? static_cast<std::size_t>((2 * static_cast<std::uint64_t>(in.size()) *
                                                                               static_cast<std::uint64_t>(out_rate) +
                                                                           static_cast<std::uint64_t>(in_rate)) /
                                                                          (2 * static_cast<std::uint64_t>(in_rate)))
                                               : in.size();
    require(out.size() == expected, "as many samples come out as promised",
            std::to_string(out.size()) + " instead of " + std::to_string(expected));
    if (made.is_voice && (denoise > 0.0F || speech != 0)) {
        std::vector<float> probabilities(most_samples);
        const std::size_t told =
            wrapper_audio_processor_take_speech(handle, probabilities.data(), probabilities.size());
        const auto begun =
            (in.size() * 100 + static_cast<std::size_t>(in_rate) - 1) / static_cast<std::size_t>(in_rate);
        require(told == begun, "each 10 ms has its probability of speech",
                std::to_string(told) + " instead of " + std::to_string(begun));
        for (std::size_t i = 0; i < told; ++i)
            require(probabilities[i] >= 0.0F && probabilities[i] <= 1.0F, "a probability is one");
    }
    for (const float sample : out)
        require(std::abs(sample) <= made.ceiling || made.ceiling == INFINITY, "a limiter limits",
                std::to_string(sample));
    const std::vector<float> again = run(handle, in, bytes, false);
    require(out.size() == again.size() && (out.empty() || std::memcmp(out.data(), again.data(), out.size() * 4) == 0),
            "the pieces make no difference");
    return 0;
}
