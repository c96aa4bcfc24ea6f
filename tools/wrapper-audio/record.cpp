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
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace {

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
    options.undenoised = wanted.undenoised.empty() ? 0 : 1;
    options.reconnect = wanted.reconnect ? 1 : 0;
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

/** What is kept: the effects on it, the file that is being written, and the level of what is in that. */
struct kept_sound {
    kept_sound(std::string to, const record_options& wanted)
        : path(std::move(to)), chain(wanted.effects, wanted.rate) {}

    bool reader_gone() const { return file && file->reader_gone(); }
    std::string shown_name() const { return name == "-" ? "standard output" : printable(name); }

    std::string path;
    effect_chain chain;
    std::vector<float> filled; // with silence
    std::string name;
    int files = 0;
    std::unique_ptr<output> file;
    level heard;
    std::uint64_t count = 0; // of samples in all files
    bool failed = false;
};

/** What is recorded, and the same undenoised if that is wanted. */
std::vector<kept_sound> sounds_of(const record_options& wanted) {
    std::vector<kept_sound> kept;
    kept.emplace_back(wanted.path, wanted);
    if (!wanted.undenoised.empty()) kept.emplace_back(wanted.undenoised, wanted);
    return kept;
}

class recording {
public:
    explicit recording(const record_options& options)
        : wanted_(options), limit_(samples_in(options.seconds, options.rate, "--seconds")),
          file_limit_(samples_in(options.max_file_time, options.rate, "--max-file-time")), kept_(sounds_of(options)),
          events_(options.speech.events, options.rate),
          microphone_(options.system ? device_list().system() : options.device, recorder_options(options),
                      options.system ? [](const std::string&) {} : console::note) {
        if (!wanted_.speech.any()) return;
        cutter_ = std::make_unique<speech_cutter>(
            wanted_.speech, wanted_.rate, events_,
            speech_sink{.write = [this](auto samples) { return write(kept_.front(), samples); },
                        .begin_utterance = [this] { return create_file(kept_.front()); },
                        .end_utterance = [this] { return finish_file(kept_.front(), fine) == fine; }});
    }

    exit_code run();
    bool has_spoken() const { return cutter_ && cutter_->has_spoken(); }

private:
    bool listen();
    bool wants_more(std::uint64_t heard) const;
    void account(const wrapper_audio_block& block, std::uint64_t heard);
    bool hear(std::span<const float> samples, const wrapper_audio_block& block);
    std::span<const float> with_gap(kept_sound& sound, std::span<const float> samples,
                                    const wrapper_audio_block& block) const;
    bool create_file(kept_sound& sound);
    bool next_file(kept_sound& sound) { return finish_file(sound, fine) == fine && create_file(sound); }
    bool write(kept_sound& sound, std::span<const float> samples);
    void show(std::span<const float> samples);
    exit_code finish_file(kept_sound& sound, exit_code code);
    exit_code finish(bool good);

    const record_options& wanted_;
    const std::uint64_t limit_;      // samples to keep, or to listen to
    const std::uint64_t file_limit_; // samples in each file
    std::vector<kept_sound> kept_;   // the undenoised sound behind the other
    losses losses_;
    bool is_lost_ = false;   // the device
    std::uint64_t away_ = 0; // samples that it has not delivered
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    event_log events_;
    microphone microphone_;
    std::unique_ptr<speech_cutter> cutter_;
    std::set<std::string> names_;
    std::uint64_t position_ = 0; // behind what was read, lost samples included
    std::uint64_t told_ = 0;     // probabilities of speech
    std::vector<float> limited_;
};

exit_code recording::run() {
    const wrapper_audio_recorder_info info = microphone_.info();
    if (info.denoising != WRAPPER_AUDIO_DENOISING_OFF)
        console::note(denoising_text(info.denoising, info.device_rate));
    else if (wanted_.voice.denoise)
        report_no_denoising(wanted_.voice.must_denoise);
    stop_on_signals();
    // Last: a device that does not open leaves an older file alone.
    for (kept_sound& each : kept_)
        if (!wanted_.speech.split) create_file(each);
    const bool good = listen();
    microphone_.stop();
    return finish(good);
}

bool recording::create_file(kept_sound& sound) {
    ++sound.files;
    sound.heard = {};
    const bool is_one_of_many = wanted_.speech.split || wanted_.max_file_time;
    const std::string name = expanded(is_one_of_many ? numbered(sound.path, sound.files) : sound.path);
    // Nothing that this recording has written is overwritten.
    sound.name = names_.insert(name).second ? name : with_free_number(name);
    sound.file = create_output(sound.name, {wanted_.rate, 1, true}, wanted_.output);
    return true;
}

/** --seconds is how long the file gets; with --trim and --split, how long to listen. */
bool recording::wants_more(std::uint64_t heard) const {
    const bool counts_what_is_kept = cutter_ && !wanted_.speech.cuts();
    return (counts_what_is_kept ? kept_.front().count : heard) < limit_ && !(cutter_ && cutter_->is_over());
}

/** Says where sound was lost: at once if the device was, and otherwise at the end. */
void recording::account(const wrapper_audio_block& block, std::uint64_t heard) {
    const bool is_away = microphone_.is_lost();
    if (is_away && !is_lost_) {
        is_lost_ = true;
        away_ = 0;
        events_.device_lost(position_, microphone_.reason());
        console::error(microphone_.reason() + "; the recording goes on when it is back");
    }
    if (!is_lost_) {
        losses_.add(block.dropped, static_cast<double>(heard + block.dropped_at) / wanted_.rate);
        return;
    }
    away_ += block.dropped;
    if (is_away || away_ == 0 || block.count == 0) return; // what is read may be from before
    is_lost_ = false;
    events_.device_back(block.position);
    console::note(fmt::format("'{}' is back; {:.1f} s are {}", printable(microphone_.name()),
                              static_cast<double>(away_) / wanted_.rate,
                              wanted_.fill_gaps ? "replaced by silence" : "missing"));
}

/** Returns false when an output failed. */
bool recording::listen() {
    std::vector<float> buffer(static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000)));
    std::vector<float> undenoised(kept_.size() > 1 ? buffer.size() : 0);
    wrapper_audio_block block{};
    for (std::uint64_t heard = 0; wants_more(heard);) {
        const std::uint64_t left = cutter_ && !wanted_.speech.cuts() ? limit_ : limit_ - heard;
        const auto room = std::span(buffer).first(std::min<std::uint64_t>(buffer.size(), left));
        const std::size_t count = microphone_.read(room, block, undenoised);
        account(block, heard);
        if (count == 0 && block.dropped == 0) break;
        const auto whole = [&](kept_sound& sound, std::span<const float> samples) {
            samples = with_gap(sound, samples.first(count), block);
            return samples.first(std::min<std::uint64_t>(samples.size(), left));
        };
        auto samples = whole(kept_.front(), buffer);
        heard += samples.size();
        bool good =
            cutter_ ? hear(samples, block) : write(kept_.front(), samples = kept_.front().chain.process(samples));
        if (kept_.size() > 1)
            good = write(kept_.back(), kept_.back().chain.process(whole(kept_.back(), undenoised))) && good;
        if (!good) return false;
        if (screen_.redraws && !console::is_quiet() && !samples.empty()) show(samples);
    }
    if (!cutter_)
        return std::all_of(kept_.begin(), kept_.end(), [&](auto& each) { return write(each, each.chain.finish()); });
    if (const auto& trouble = microphone_.trouble()) events_.device_lost(position_, trouble->what());
    return cutter_->add(kept_.front().chain.finish(), {}) && cutter_->finish();
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
    effect_chain& chain = kept_.front().chain;
    const auto lose = [&](std::uint64_t at, std::uint64_t count) {
        if (count == 0) return true;
        events_.dropped(at, count);
        return cutter_->add(chain.finish(), {}) && cutter_->skip(count);
    };
    const auto first = samples.first(behind > 0 ? block.dropped_at : 0);
    const bool good = lose(position_, before) && cutter_->add(chain.process(first), {}) &&
                      lose(block.position + first.size(), behind) &&
                      cutter_->add(chain.process(samples.subspan(first.size())), speech);
    events_.listen(end - samples.size(), samples);
    events_.signal(end, microphone_.signal());
    position_ = end;
    return good;
}

/** What was read, with silence where samples are missing if that is wanted. */
std::span<const float> recording::with_gap(kept_sound& sound, std::span<const float> samples,
                                           const wrapper_audio_block& block) const {
    if (!wanted_.fill_gaps || block.dropped == 0) return samples;
    const auto gap = static_cast<std::ptrdiff_t>(block.dropped_at);
    sound.filled.assign(samples.begin(), samples.begin() + gap);
    sound.filled.resize(sound.filled.size() + block.dropped);
    sound.filled.insert(sound.filled.end(), samples.begin() + gap, samples.end());
    return sound.filled;
}

bool recording::write(kept_sound& sound, std::span<const float> samples) {
    samples = samples.first(std::min<std::uint64_t>(samples.size(), limit_ - sound.count));
    if (wanted_.output.bits != sample_size::real) { // which has room above full scale
        limited_.assign(samples.begin(), samples.end());
        for (float& sample : limited_)
            sample = std::clamp(sample, -1.0F, 1.0F);
        samples = limited_;
    }
    while (!samples.empty()) {
        const auto room = [&] { return std::min(file_limit_, sound.file->capacity()) - sound.heard.samples(); };
        if (room() == 0 && !next_file(sound)) return false;
        const auto part = samples.first(std::min<std::uint64_t>(samples.size(), room()));
        const auto kept = part.first(sound.file->write(part));
        sound.heard.add(kept);
        sound.count += kept.size();
        sound.failed = kept.size() < part.size();
        if (sound.failed) return false;
        samples = samples.subspan(part.size());
    }
    return true;
}

void recording::show(std::span<const float> samples) {
    level now;
    now.add(samples);
    const double time = static_cast<double>(cutter_ ? position_ : kept_.front().count) / wanted_.rate;
    meter_.hold(time, now.peak());
    if (!status_line::is_due()) return;
    const char* const speech = !cutter_ ? "" : cutter_->speaks() ? "speech " : "       ";
    const std::string head = fmt::format("{:>8} {}", time_text(time), speech);
    status_line::show(screen_, meter_.line(screen_, time, head, now.rms(), now.peak()));
}

/** Closes the file and says how it went. */
exit_code recording::finish_file(kept_sound& sound, exit_code code) {
    const bool closed = sound.file->close();
    if (sound.reader_gone()) return code;
    if (sound.failed || !closed) {
        console::error(fmt::format("cannot write {}{}: {}", sound.failed ? "" : "the end of ", sound.shown_name(),
                                   sound.file->reason()));
        code = file_trouble;
    }
    const wrapper_audio_recorder_info info = microphone_.info();
    const bool is_denoised = wanted_.voice.denoise && &sound == &kept_.front();
    const std::string result = fmt::format("{}: {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}", sound.shown_name(),
                                           static_cast<double>(sound.heard.samples()) / wanted_.rate, wanted_.rate,
                                           decibel_text(sound.heard.peak()), decibel_text(sound.heard.rms()),
                                           is_denoised ? ", " + denoising_text(info.denoising, info.device_rate) : "");
    sound.file.reset();
    const bool is_sound_printed = wanted_.path == "-" || wanted_.undenoised == "-";
    if (is_sound_printed || wanted_.speech.events == "-" || wanted_.for_a_command)
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}

exit_code recording::finish(bool good) {
    status_line::finish();
    const kept_sound& first = kept_.front();
    const bool reader_gone =
        std::any_of(kept_.begin(), kept_.end(), [](const auto& each) { return each.reader_gone(); });
    if (reader_gone && kept_.size() == 1) return fine;
    exit_code code = good || reader_gone ? fine : file_trouble;
    if (good && microphone_.trouble()) {
        console::error(microphone_.trouble()->text(fmt::format(
            "; {} what was recorded before", first.file ? first.shown_name() + " keeps" : "the files keep")));
        code = microphone_.trouble()->code;
    }
    if (cutter_ && !cutter_->has_spoken()) console::note("nobody spoke");
    losses_.report(wanted_.rate, wanted_.fill_gaps);
    for (kept_sound& each : kept_)
        if (each.file) code = finish_file(each, code);
    return code == fine && events_.failed() ? file_trouble : code;
}

} // namespace

exit_code record(const record_options& wanted) {
    check(wanted.speech, wanted.path);
    if (wanted.max_file_time && wanted.path == "-")
        throw failure(usage, "--max-file-time needs files, not standard output");
    format_of(wanted.path, wanted.output); // which fails before anything begins
    if (!wanted.undenoised.empty()) {
        if (!(wanted.voice.denoise.value_or(0.0F) > 0.0F))
            throw failure(usage, "--undenoised goes with --denoise, and a strength above 0");
        if (wanted.undenoised == wanted.path) throw failure(usage, "--undenoised needs a file of its own");
        format_of(wanted.undenoised, wanted.output);
    }
    if (wanted.both) return record_both(wanted, samples_in(wanted.seconds, wanted.rate, "--seconds"));
    recording made(wanted);
    const exit_code code = made.run();
    return wanted.for_a_command && code == fine && !made.has_spoken() ? nobody_spoke : code;
}
