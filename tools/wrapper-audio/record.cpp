/**
 * wrapper-audio record: the microphone into a file or a pipe.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "output.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

std::uint64_t samples_wanted(const record_options& wanted, sound_format format) {
    const std::uint64_t limit = sample_limit(format, wanted.output);
    if (!wanted.seconds) return limit;
    const double samples = std::round(*wanted.seconds * wanted.rate);
    if (!(samples >= 1.0)) throw failure(usage, "--seconds: too short for a single sample");
    if (!(samples <= static_cast<double>(limit)))
        throw failure(usage,
                      "--seconds: longer than such a file can be at this rate (WAV: 4 GiB; --type rf64 holds more)");
    return static_cast<std::uint64_t>(samples);
}

wrapper_audio_recorder_options recorder_options(const record_options& wanted) {
    wrapper_audio_recorder_options options{};
    options.rate = wanted.rate;
    options.denoise = wanted.voice.denoise.value_or(0.0F);
    options.conversion = wanted.voice.conversion;
    return options;
}

/** Sound that came too late to be kept, or was lost inside the system. */
class losses {
public:
    void add(std::uint64_t samples, double at) {
        if (samples == 0) return;
        lost += samples;
        if (++places <= 3) where += fmt::format("{}{}", where.empty() ? "" : ", ", time_text(at));
    }

    void report(int rate, bool filled) const {
        if (lost == 0) return;
        console::error(fmt::format("{:.2f} s of sound ({} samples) were lost at {}{}{}: this computer, or whoever "
                                   "reads the sound, was too slow",
                                   static_cast<double>(lost) / rate, lost, where,
                                   places > 3 ? fmt::format(" and {} other places", places - 3) : "",
                                   filled ? " and replaced by silence" : ""));
    }

private:
    std::uint64_t lost = 0;
    int places = 0;
    std::string where;
};

class recording {
public:
    explicit recording(const record_options& options)
        : wanted_(options), path_(expanded(options.path)),
          limit_(samples_wanted(options, format_of(path_, options.output))), chain_(options.effects, options.rate),
          silence_(options.rate), microphone_(options.device, recorder_options(options)) {}

    exit_code run();

private:
    exit_code listen();
    std::span<const float> with_gap(std::span<const float> samples, const wrapper_audio_block& block);
    exit_code keep(std::span<const float> samples);
    void show(std::span<const float> samples);
    exit_code finish(exit_code code);
    double seconds() const { return static_cast<double>(level_.samples()) / wanted_.rate; }
    std::string name() const { return path_ == "-" ? "standard output" : printable(path_); }

    const record_options& wanted_;
    const std::string path_;
    const std::uint64_t limit_;
    effect_chain chain_;
    silence_watch silence_;
    losses losses_;
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    level level_;
    microphone microphone_;
    std::unique_ptr<output> output_;
    std::vector<float> filled_;
    std::vector<float> limited_;
};

exit_code recording::run() {
    const wrapper_audio_recorder_info info = microphone_.info();
    if (info.denoising != WRAPPER_AUDIO_DENOISING_OFF)
        console::note(denoising_text(info.denoising, info.device_rate));
    else if (wanted_.voice.denoise)
        report_no_denoising(wanted_.voice.must_denoise);
    stop_on_signals();
    output_ = create_output(path_, {wanted_.rate, 1, true}, // last: a device that does not open leaves a file alone
                            wanted_.output);
    const exit_code code = listen();
    microphone_.stop();
    return finish(code);
}

exit_code recording::listen() {
    std::vector<float> buffer(static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000)));
    wrapper_audio_block block{};
    for (std::uint64_t heard = 0; heard < limit_;) {
        const auto room = std::span(buffer).first(std::min<std::uint64_t>(buffer.size(), limit_ - heard));
        auto samples = std::span<const float>(room.first(microphone_.read(room, block)));
        if (samples.empty()) break;
        silence_.look_at(block);
        losses_.add(block.dropped, static_cast<double>(heard + block.dropped_at) / wanted_.rate);
        if (wanted_.fill_gaps && block.dropped > 0) samples = with_gap(samples, block);
        samples = samples.first(std::min<std::uint64_t>(samples.size(), limit_ - heard));
        heard += samples.size();
        if (const exit_code code = keep(chain_.process(samples)); code != fine) return code;
    }
    return keep(chain_.finish());
}

/** What was read, with silence where samples are missing. */
std::span<const float> recording::with_gap(std::span<const float> samples, const wrapper_audio_block& block) {
    const auto gap = static_cast<std::ptrdiff_t>(block.dropped_at);
    filled_.assign(samples.begin(), samples.begin() + gap);
    filled_.resize(filled_.size() + block.dropped);
    filled_.insert(filled_.end(), samples.begin() + gap, samples.end());
    return filled_;
}

exit_code recording::keep(std::span<const float> samples) {
    if (wanted_.output.bits != sample_size::real) { // which has room above full scale
        limited_.assign(samples.begin(), samples.end());
        for (float& sample : limited_)
            sample = std::clamp(sample, -1.0F, 1.0F);
        samples = limited_;
    }
    const auto kept = samples.first(output_->write(samples));
    level_.add(kept);
    if (kept.size() < samples.size()) return file_trouble;
    if (screen_.redraws && !console::is_quiet() && !kept.empty()) show(kept);
    return fine;
}

void recording::show(std::span<const float> samples) {
    level now;
    now.add(samples);
    meter_.hold(seconds(), now.peak());
    if (!status_line::is_due()) return;
    const std::string time = fmt::format("{:>8} ", time_text(seconds()));
    status_line::show(screen_, meter_.line(screen_, seconds(), time, now.rms(), now.peak()));
}

/** Closes the file and says how it went. */
exit_code recording::finish(exit_code code) {
    status_line::finish();
    const bool failed = code == file_trouble;
    const bool closed = output_->close();
    if (output_->reader_gone()) return fine;
    if (failed || !closed) {
        console::error(fmt::format("cannot write {}{}: {}", failed ? "" : "the end of ", name(), output_->reason()));
        code = file_trouble;
    } else if (const auto& trouble = microphone_.trouble()) {
        console::error(trouble->text(fmt::format("; {} keeps what was recorded before", name())));
        code = trouble->code;
    } else if (level_.samples() == limit_ && !wanted_.seconds) {
        console::note(fmt::format("the recording ends here: {} is as long as such a file can be", name()));
    }
    losses_.report(wanted_.rate, wanted_.fill_gaps);
    const wrapper_audio_recorder_info info = microphone_.info();
    const std::string result =
        fmt::format("{}: {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}", name(), seconds(), wanted_.rate,
                    decibel_text(level_.peak()), decibel_text(level_.rms()),
                    wanted_.voice.denoise ? ", " + denoising_text(info.denoising, info.device_rate) : "");
    if (path_ == "-")
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}

} // namespace

exit_code record(const record_options& wanted) {
    return recording(wanted).run();
}
