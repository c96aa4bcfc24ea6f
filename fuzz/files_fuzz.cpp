// `wrapper-audio process` on files of any bytes: it ends in good order, and what it writes is what plain conversion and
// plain signal functions make of the samples that libsndfile finds in the file. Clean conversion and noise suppression
// have no plain counterpart: they are held to what one call for the whole sound gives.
#include "../tools/wrapper-audio/commands.h"
#include "../tools/wrapper-audio/console.h"
#include "../tools/wrapper-audio/stopping.h"
#include "../tools/wrapper-audio/values.h"
#include "script.h"

#include "conversion_reference.h"
#include "dsp_reference.h"
#include "limiter_reference.h"

#include <sndfile.h>
#include <wrapper_audio_recorder.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The user's side of the program: it says nothing here, and nobody presses Ctrl-C.
namespace console {
bool is_quiet() {
    return true;
}
void write_all(int /*to*/, const std::string& /*text*/) {}
void note(const std::string& /*sentence*/) {}
void error(const std::string& /*sentence*/) {}
} // namespace console
void print(const std::string& /*text*/) {}
void stop_on_signals() {}
bool stop_requested() {
    return false;
}

namespace {

// Longer sounds, going in or coming out, would only take time and disk space.
constexpr std::int64_t most_samples = 300000;
constexpr std::int64_t most_denoised = 48000;
constexpr std::int64_t most_gains = 5000000; // in the look-aheads of the limiter's reference

std::string folder;

struct closer {
    void operator()(SNDFILE* open) const { sf_close(open); }
};

struct sound {
    int rate = 0;
    std::vector<float> mono;
    bool damaged = false;
};

bool too_long(const sound& in, const process_options& wanted) {
    const auto longest_at = [&](std::int64_t rate) {
        return std::max(std::ssize(in.mono), std::ssize(in.mono) * rate / in.rate);
    };
    const std::int64_t rate = wanted.rate.value_or(in.rate);
    return longest_at(rate) > most_samples || (wanted.voice.denoise && longest_at(48000) > most_denoised) ||
           (wanted.effects.agc && longest_at(rate) * (rate / 200) > most_gains);
}

// Nothing where libsndfile finds no sound file.
std::optional<sound> sound_in(const std::string& path) {
    SF_INFO info{};
    const std::unique_ptr<SNDFILE, closer> file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file || info.samplerate < 1 || info.channels < 1) return std::nullopt;
    sound found{.rate = info.samplerate, .mono = {}, .damaged = false};
    std::vector<float> frame(static_cast<std::size_t>(info.channels));
    while (sf_readf_float(file.get(), frame.data(), 1) == 1) {
        float sum = 0.0F;
        for (const float sample : frame)
            sum = sum + sample;
        const float mean = sum / static_cast<float>(info.channels);
        found.mono.push_back(std::isfinite(mean) ? mean : 0.0F);
        found.damaged |= sf_error(file.get()) != SF_ERR_NO_ERROR;
        if (std::ssize(found.mono) > most_samples) return found;
    }
    found.damaged |= sf_error(file.get()) != SF_ERR_NO_ERROR;
    return found;
}

// As each processor limits what it is given.
void limit(std::vector<float>& samples) {
    for (float& sample : samples)
        sample = std::clamp(sample, -100.0F, 100.0F);
}

std::vector<float> in_blocks(reference::gain_control control, const std::vector<float>& in, int rate) {
    const auto length = static_cast<std::size_t>(std::max(1L, std::lround(rate / 100.0)));
    std::vector<float> out;
    for (std::size_t at = 0; at < in.size(); at += length) {
        const auto first = in.begin() + static_cast<std::ptrdiff_t>(at);
        const auto last = in.begin() + static_cast<std::ptrdiff_t>(std::min(at + length, in.size()));
        const std::vector<float> block = control({first, last});
        out.insert(out.end(), block.begin(), block.end());
    }
    return out;
}

std::vector<float> in_one_call(const std::vector<float>& in, const wrapper_audio_voice_options& options) {
    wrapper_audio_processor* voice = nullptr;
    require(wrapper_audio_voice_create(&voice, &options) == WRAPPER_AUDIO_OK, "there is a voice chain");
    const std::size_t count = reference::stream_count(in.size(), options.in_rate, options.out_rate);
    std::vector<float> out(count + 1);
    std::size_t given = 0;
    std::size_t rest = 0;
    wrapper_audio_processor_process(voice, in.data(), in.size(), out.data(), out.size(), &given);
    wrapper_audio_processor_flush(voice, out.data() + given, out.size() - given, &rest);
    wrapper_audio_processor_free(voice);
    require(given + rest == count, "as many samples as belong to the sound", std::to_string(given + rest));
    out.resize(count);
    return out;
}

std::vector<float> converted(const sound& in, const process_options& wanted, int rate) {
    const bool denoises = wanted.voice.denoise.value_or(0.0F) > 0;
    if (rate == in.rate && !denoises) return in.mono;
    if (denoises || wanted.voice.conversion == WRAPPER_AUDIO_CONVERSION_CLEAN)
        return in_one_call(in.mono, {in.rate, rate, wanted.voice.denoise.value_or(0.0F), 0, wanted.voice.conversion});
    std::vector<float> samples = in.mono;
    limit(samples);
    return reference::linear_stream(samples, in.rate, rate);
}

std::vector<std::int16_t> processed(const sound& in, const process_options& wanted) {
    const int rate = wanted.rate.value_or(in.rate);
    std::vector<float> samples = converted(in, wanted, rate);
    if (wanted.effects.depop) {
        limit(samples);
        samples.insert(samples.begin(), 0.0F); // before the first sample there was silence
        samples = reference::depopped(samples, *wanted.effects.depop);
        samples.erase(samples.begin());
    }
    if (wanted.effects.highpass) {
        limit(samples);
        samples = reference::high_pass(wanted.effects.highpass->corner_hz, wanted.effects.highpass->q, rate)(samples);
    }
    if (wanted.effects.agc) {
        limit(samples);
        samples = in_blocks({wanted.effects.agc->target_db, wanted.effects.agc->release_ms}, samples, rate);
        limit(samples);
        samples = reference::limited(samples, rate, -1.0F, 100.0F);
    }
    std::vector<std::int16_t> rounded;
    for (const float sample : samples) {
        const float scaled = sample * 32768.0F;
        rounded.push_back(static_cast<std::int16_t>(scaled >= 32767.0F    ? 32767L
                                                    : scaled <= -32768.0F ? -32768L
                                                                          : std::lrint(scaled)));
    }
    return rounded;
}

std::vector<std::int16_t> samples_written(const process_options& wanted, int rate) {
    SF_INFO info{};
    const bool raw = wanted.out.ends_with(".raw");
    if (raw)
        info = {.frames = 0,
                .samplerate = rate,
                .channels = 1,
                .format = SF_FORMAT_RAW | SF_FORMAT_PCM_16,
                .sections = 0,
                .seekable = 0};
    const std::unique_ptr<SNDFILE, closer> file(sf_open(wanted.out.c_str(), SFM_READ, &info));
    require(file != nullptr, "what was written can be read", sf_strerror(nullptr));
    require(info.samplerate == rate && info.channels == 1, "the header of what was written");
    std::vector<std::int16_t> samples(static_cast<std::size_t>(info.frames));
    sf_readf_short(file.get(), samples.data(), info.frames);
    return samples;
}

process_options read_options(script& bytes) {
    constexpr int rates[] = {8000, 16000, 44100, 48000, 96000, 100, 384000};
    constexpr const char* names[] = {"/out.raw", "/out.wav", "/out.flac"};
    process_options wanted;
    wanted.in = folder + "/in";
    const unsigned rate = bytes.below(std::size(rates) + 1);
    if (rate > 0) wanted.rate = rates[rate - 1];
    const unsigned effects = bytes.below(8);
    if ((effects & 1) != 0) wanted.effects.highpass = parse_high_pass("100:0.9");
    if ((effects & 2) != 0) wanted.effects.depop = 0.95F;
    if ((effects & 4) != 0) wanted.effects.agc = parse_gain_control("-20:150");
    const unsigned rest = bytes.below(4 * std::size(names));
    wanted.out = folder + names[rest % std::size(names)];
    const unsigned voice = static_cast<unsigned>(rest / std::size(names));
    if ((voice & 1) != 0) wanted.voice.conversion = WRAPPER_AUDIO_CONVERSION_LINEAR;
    if ((voice & 2) != 0) wanted.voice.denoise = (voice & 1) != 0 ? 0.5F : 1.0F;
    return wanted;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// The library's lines would be all that one sees.
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    std::string name = (std::filesystem::temp_directory_path() / "wrapper-audio.XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "there is a temporary folder");
    folder = name;
    std::atexit([] { std::filesystem::remove_all(folder); });
    stderr = std::fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t option_bytes = 3;
    script script(bytes, std::min(size, option_bytes));
    const process_options wanted = read_options(script);
    const std::size_t skipped = std::min(size, option_bytes);
    std::ofstream(wanted.in, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes) + skipped, static_cast<std::streamsize>(size - skipped));
    std::filesystem::remove(wanted.out);

    const std::optional<sound> in = sound_in(wanted.in);
    if (in && too_long(*in, wanted)) return 0;
    bool good = false;
    try {
        good = process(wanted) == fine;
        require(good, "the command succeeds or throws");
    } catch (const failure& trouble) {
        require(trouble.code == file_trouble || trouble.code == usage || trouble.code == input_breaks_off,
                "a failure of the file", trouble.what());
        good = trouble.code == input_breaks_off && in && !in->damaged; // all that the file holds was processed
        require(std::string(trouble.what()).find('\n') == std::string::npos, "one sentence", trouble.what());
    }
    require(in.has_value() || !good, "what is no sound file fails");
    require(!in || !good || !in->damaged, "a damaged file fails");
    if (!good) return 0;
    const std::vector<std::int16_t> expected = processed(*in, wanted);
    if (expected.empty() && wanted.out.ends_with(".flac")) return 0; // libsndfile writes no header then
    const std::vector<std::int16_t> written = samples_written(wanted, wanted.rate.value_or(in->rate));
    require(written.size() == expected.size(), "as many samples as expected",
            std::to_string(written.size()) + " instead of " + std::to_string(expected.size()));
    for (std::size_t i = 0; i < written.size(); ++i)
        require(written[i] == expected[i], "the samples expected", std::to_string(i));
    return 0;
}
