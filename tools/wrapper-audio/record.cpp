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
#include <optional>
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
    options.speech = wanted.speech.any() ? 1 : 0;
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
        : wanted_(options), path_(options.speech.split ? options.path : expanded(options.path)),
          limit_(samples_wanted(options, format_of(path_, options.output))), chain_(options.effects, options.rate),
          silence_(options.rate), events_(options.speech.events, options.rate),
          microphone_(options.device, recorder_options(options)) {
        if (!wanted_.speech.any()) return;
        cutter_.emplace(wanted_.speech, wanted_.rate, events_,
                        speech_sink{.write = [this](auto samples) { return write(samples); },
                                    .begin_utterance = [this] { return create_file(); },
                                    .end_utterance = [this] { return finish_file(fine) == fine; }});
    }

    exit_code run();
    bool has_spoken() const { return cutter_ && cutter_->has_spoken(); }

private:
    bool listen();
    bool wants_more(std::uint64_t heard) const;
    bool hear(std::span<const float> samples, const wrapper_audio_block& block);
    std::span<const float> with_gap(std::span<const float> samples, const wrapper_audio_block& block);
    bool create_file();
    bool write(std::span<const float> samples);
    void show(std::span<const float> samples);
    exit_code finish_file(exit_code code);
    exit_code finish(bool good);
    double seconds() const { return static_cast<double>(level_.samples()) / wanted_.rate; }
    std::string name() const { return file_ == "-" ? "standard output" : printable(file_); }

    const record_options& wanted_;
    const std::string path_;
    const std::uint64_t limit_;
    effect_chain chain_;
    silence_watch silence_;
    losses losses_;
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    event_log events_;
    microphone microphone_;
    std::optional<speech_cutter> cutter_;
    std::string file_; // the one that is being written
    int files_ = 0;
    level level_; // of what is in it
    std::unique_ptr<output> output_;
    std::uint64_t position_ = 0; // behind what was read, lost samples included
    std::uint64_t told_ = 0;     // probabilities of speech
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
    if (!wanted_.speech.split) create_file(); // last: a device that does not open leaves an older file alone
    const bool good = listen();
    microphone_.stop();
    return finish(good);
}

bool recording::create_file() {
    ++files_;
    level_ = {};
    file_ = wanted_.speech.split ? expanded(numbered(path_, files_)) : path_;
    output_ = create_output(file_, {wanted_.rate, 1, true}, wanted_.output);
    return true;
}

/** --seconds is how long the file gets; with --trim and --split, how long to listen. */
bool recording::wants_more(std::uint64_t heard) const {
    const bool counts_what_is_kept = cutter_ && !wanted_.speech.cuts();
    return (counts_what_is_kept ? level_.samples() : heard) < limit_ && !(cutter_ && cutter_->is_over());
}

/** Returns false when the output failed. */
bool recording::listen() {
    std::vector<float> buffer(static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000)));
    wrapper_audio_block block{};
    for (std::uint64_t heard = 0; wants_more(heard);) {
        const std::uint64_t left = cutter_ && !wanted_.speech.cuts() ? limit_ : limit_ - heard;
        const auto room = std::span(buffer).first(std::min<std::uint64_t>(buffer.size(), left));
        auto samples = std::span<const float>(room.first(microphone_.read(room, block)));
        if (samples.empty()) break;
        silence_.look_at(block);
        losses_.add(block.dropped, static_cast<double>(heard + block.dropped_at) / wanted_.rate);
        if (wanted_.fill_gaps && block.dropped > 0) samples = with_gap(samples, block);
        samples = samples.first(std::min<std::uint64_t>(samples.size(), left));
        heard += samples.size();
        const bool good = cutter_ ? hear(samples, block) : write(samples = chain_.process(samples));
        if (!good) return false;
        if (screen_.redraws && !console::is_quiet() && !samples.empty()) show(samples);
    }
    if (!cutter_) return write(chain_.finish());
    if (const auto& trouble = microphone_.trouble()) events_.device_lost(position_, trouble->what());
    return cutter_->add(chain_.finish(), {}) && cutter_->finish();
}

/** Lets speech decide. Every sample keeps its place, whatever was lost. */
bool recording::hear(std::span<const float> samples, const wrapper_audio_block& block) {
    const std::uint64_t behind = block.dropped_at > 0 ? block.dropped : 0;
    const std::uint64_t before = block.position - position_;
    const std::uint64_t end = block.position + block.count + behind;
    std::vector<float> speech = microphone_.take_speech();
    const std::uint64_t due =
        (end * 100 + static_cast<std::uint64_t>(wanted_.rate) - 1) / static_cast<std::uint64_t>(wanted_.rate);
    // Of what nobody has taken for long the oldest are not kept.
    if (before + behind > 0 && told_ + speech.size() < due)
        speech.insert(speech.begin(), due - told_ - speech.size(), 0);
    told_ += speech.size();
    const auto lose = [&](std::uint64_t at, std::uint64_t count) {
        if (count == 0) return true;
        events_.dropped(at, count);
        return cutter_->add(chain_.finish(), {}) && cutter_->skip(count);
    };
    const auto first = samples.first(behind > 0 ? block.dropped_at : 0);
    const bool good = lose(position_, before) && cutter_->add(chain_.process(first), {}) &&
                      lose(block.position + first.size(), behind) &&
                      cutter_->add(chain_.process(samples.subspan(first.size())), speech);
    events_.listen(end - samples.size(), samples);
    position_ = end;
    return good;
}

/** What was read, with silence where samples are missing. */
std::span<const float> recording::with_gap(std::span<const float> samples, const wrapper_audio_block& block) {
    const auto gap = static_cast<std::ptrdiff_t>(block.dropped_at);
    filled_.assign(samples.begin(), samples.begin() + gap);
    filled_.resize(filled_.size() + block.dropped);
    filled_.insert(filled_.end(), samples.begin() + gap, samples.end());
    return filled_;
}

bool recording::write(std::span<const float> samples) {
    samples = samples.first(std::min<std::uint64_t>(samples.size(), limit_ - level_.samples()));
    if (wanted_.output.bits != sample_size::real) { // which has room above full scale
        limited_.assign(samples.begin(), samples.end());
        for (float& sample : limited_)
            sample = std::clamp(sample, -1.0F, 1.0F);
        samples = limited_;
    }
    const auto kept = samples.first(output_->write(samples));
    level_.add(kept);
    return kept.size() == samples.size();
}

void recording::show(std::span<const float> samples) {
    level now;
    now.add(samples);
    const double time = cutter_ ? static_cast<double>(position_) / wanted_.rate : seconds();
    meter_.hold(time, now.peak());
    if (!status_line::is_due()) return;
    const char* const speech = !cutter_ ? "" : cutter_->speaks() ? "speech " : "       ";
    const std::string head = fmt::format("{:>8} {}", time_text(time), speech);
    status_line::show(screen_, meter_.line(screen_, time, head, now.rms(), now.peak()));
}

/** Closes the file and says how it went. */
exit_code recording::finish_file(exit_code code) {
    const bool failed = code == file_trouble;
    const bool closed = output_->close();
    if (output_->reader_gone()) return fine;
    if (failed || !closed) {
        console::error(fmt::format("cannot write {}{}: {}", failed ? "" : "the end of ", name(), output_->reason()));
        code = file_trouble;
    }
    const wrapper_audio_recorder_info info = microphone_.info();
    const std::string result =
        fmt::format("{}: {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}", name(), seconds(), wanted_.rate,
                    decibel_text(level_.peak()), decibel_text(level_.rms()),
                    wanted_.voice.denoise ? ", " + denoising_text(info.denoising, info.device_rate) : "");
    output_.reset();
    if (file_ == "-" || wanted_.speech.events == "-" || wanted_.for_a_command)
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}

exit_code recording::finish(bool good) {
    status_line::finish();
    if (output_ && output_->reader_gone()) return fine;
    exit_code code = good ? fine : file_trouble;
    if (good && microphone_.trouble()) {
        console::error(microphone_.trouble()->text(
            fmt::format("; {} what was recorded before", output_ ? name() + " keeps" : "the files keep")));
        code = microphone_.trouble()->code;
    } else if (output_ && level_.samples() == limit_ && !wanted_.seconds) {
        console::note(fmt::format("the recording ends here: {} is as long as such a file can be", name()));
    }
    if (cutter_ && !cutter_->has_spoken()) console::note("nobody spoke");
    losses_.report(wanted_.rate, wanted_.fill_gaps);
    if (output_) code = finish_file(code);
    return code == fine && events_.failed() ? file_trouble : code;
}

} // namespace

exit_code record(const record_options& wanted) {
    check(wanted.speech, wanted.path);
    recording made(wanted);
    const exit_code code = made.run();
    return wanted.for_a_command && code == fine && !made.has_spoken() ? nobody_spoke : code;
}
