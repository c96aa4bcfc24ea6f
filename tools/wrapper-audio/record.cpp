/**
 * wrapper-audio record: the microphone into a file or a pipe.
 */
#include "commands.h"
#include "console.h"
#include "file_names.h"
#include "input.h"
#include "level.h"
#include "output.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace {

constexpr std::uint64_t no_limit = std::numeric_limits<std::int64_t>::max();

std::uint64_t samples_in(const std::optional<double>& seconds, int rate, const char* option) {
    if (!seconds) return no_limit;
    const double samples = std::round(*seconds * rate);
    if (!(samples >= 1.0)) throw failure(usage, fmt::format("{}: too short for a single sample", option));
    return samples < static_cast<double>(no_limit) ? static_cast<std::uint64_t>(samples) : no_limit;
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
        : wanted_(options), limit_(samples_in(options.seconds, options.rate, "--seconds")),
          file_limit_(samples_in(options.max_file_time, options.rate, "--max-file-time")),
          chain_(options.effects, options.rate), silence_(options.rate), events_(options.speech.events, options.rate),
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
    bool next_file() { return finish_file(fine) == fine && create_file(); }
    bool write(std::span<const float> samples);
    void show(std::span<const float> samples);
    exit_code finish_file(exit_code code);
    exit_code finish(bool good);
    std::string name() const { return file_ == "-" ? "standard output" : printable(file_); }

    const record_options& wanted_;
    const std::uint64_t limit_;      // samples to keep, or to listen to
    const std::uint64_t file_limit_; // samples in each file
    effect_chain chain_;
    silence_watch silence_;
    losses losses_;
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    event_log events_;
    microphone microphone_;
    std::optional<speech_cutter> cutter_;
    std::string file_; // the one that is being written
    std::set<std::string> names_;
    int files_ = 0;
    level level_;            // of what is in it
    std::uint64_t kept_ = 0; // in all files
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
    const bool is_one_of_many = wanted_.speech.split || wanted_.max_file_time;
    const std::string name = expanded(is_one_of_many ? numbered(wanted_.path, files_) : wanted_.path);
    // Nothing that this recording has written is overwritten.
    file_ = names_.insert(name).second ? name : with_free_number(name);
    output_ = create_output(file_, {wanted_.rate, 1, true}, wanted_.output);
    return true;
}

/** --seconds is how long the file gets; with --trim and --split, how long to listen. */
bool recording::wants_more(std::uint64_t heard) const {
    const bool counts_what_is_kept = cutter_ && !wanted_.speech.cuts();
    return (counts_what_is_kept ? kept_ : heard) < limit_ && !(cutter_ && cutter_->is_over());
}

/** Returns false when the output failed. */
bool recording::listen() {
    std::vector<float> buffer(static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000)));
    wrapper_audio_block block{};
    for (std::uint64_t heard = 0; wants_more(heard);) {
        const std::uint64_t left = cutter_ && !wanted_.speech.cuts() ? limit_ : limit_ - heard;
        const auto room = std::span(buffer).first(std::min<std::uint64_t>(buffer.size(), left));
        auto samples = std::span<const float>(room.first(microphone_.read(room, block)));
        losses_.add(block.dropped, static_cast<double>(heard + block.dropped_at) / wanted_.rate);
        if (samples.empty()) break;
        silence_.look_at(block);
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
    samples = samples.first(std::min<std::uint64_t>(samples.size(), limit_ - kept_));
    if (wanted_.output.bits != sample_size::real) { // which has room above full scale
        limited_.assign(samples.begin(), samples.end());
        for (float& sample : limited_)
            sample = std::clamp(sample, -1.0F, 1.0F);
        samples = limited_;
    }
    while (!samples.empty()) {
        const auto room = [this] { return std::min(file_limit_, output_->capacity()) - level_.samples(); };
        if (room() == 0 && !next_file()) return false;
        const auto part = samples.first(std::min<std::uint64_t>(samples.size(), room()));
        const auto kept = part.first(output_->write(part));
        level_.add(kept);
        kept_ += kept.size();
        if (kept.size() < part.size()) return false;
        samples = samples.subspan(part.size());
    }
    return true;
}

void recording::show(std::span<const float> samples) {
    level now;
    now.add(samples);
    const double time = static_cast<double>(cutter_ ? position_ : kept_) / wanted_.rate;
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
        fmt::format("{}: {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}", name(),
                    static_cast<double>(level_.samples()) / wanted_.rate, wanted_.rate, decibel_text(level_.peak()),
                    decibel_text(level_.rms()),
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
    }
    if (cutter_ && !cutter_->has_spoken()) console::note("nobody spoke");
    losses_.report(wanted_.rate, wanted_.fill_gaps);
    if (output_) code = finish_file(code);
    return code == fine && events_.failed() ? file_trouble : code;
}

} // namespace

exit_code record(const record_options& wanted) {
    check(wanted.speech, wanted.path);
    if (wanted.max_file_time && wanted.path == "-")
        throw failure(usage, "--max-file-time needs files, not standard output");
    format_of(wanted.path, wanted.output); // which fails before anything begins
    recording made(wanted);
    const exit_code code = made.run();
    return wanted.for_a_command && code == fine && !made.has_spoken() ? nobody_spoke : code;
}
