/**
 * wrapper-audio record: the microphone into a file or a pipe.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "recorded_files.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace {

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

/** What is kept: the effects on it, and the files it is written to. */
struct kept_sound {
    /** The samples become those that were written. Those behind a gap go into another file. */
    bool write(std::span<const float>& samples, std::optional<std::size_t> gap) {
        if (gap) {
            const auto before = samples.first(*gap);
            samples = samples.subspan(*gap);
            if (!files.write(chain.process(before)) || !files.write(chain.finish())) return false;
            is_behind_gap = true;
        }
        if (is_behind_gap && !samples.empty()) {
            if (!files.next()) return false;
            is_behind_gap = false;
        }
        samples = chain.process(samples);
        return files.write(samples);
    }

    effect_chain chain;
    recorded_files files;
    std::vector<float> filled = {}; // with silence
    bool is_behind_gap = false;     // of the last file
};

class recording {
public:
    recording(const record_options& options, std::uint64_t limit);

    exit_code run();
    bool has_spoken() const { return cutter_ && cutter_->has_spoken(); }

private:
    void keep(const std::string& path, std::function<std::string()> remark = nullptr);
    std::string denoising() const;
    bool listen();
    bool wants_more(std::uint64_t heard) const;
    bool account(const wrapper_audio_block& block, std::uint64_t heard);
    bool hear(std::span<const float> samples, const wrapper_audio_block& block);
    std::span<const float> with_gap(kept_sound& sound, std::span<const float> samples,
                                    const wrapper_audio_block& block) const;
    void show(std::span<const float> samples);
    exit_code finish(bool good);

    const record_options& wanted_;
    const std::uint64_t limit_;    // samples to keep, or to listen to
    std::vector<kept_sound> kept_; // the undenoised sound behind the other
    losses losses_;
    bool is_lost_ = false;   // the device
    std::uint64_t away_ = 0; // samples that it has not delivered
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    event_log events_;
    microphone microphone_;
    std::unique_ptr<speech_cutter> cutter_;
    std::uint64_t position_ = 0; // behind what was read, lost samples included
    std::uint64_t told_ = 0;     // probabilities of speech
};

recording::recording(const record_options& options, std::uint64_t limit)
    : wanted_(options), limit_(limit), events_(options.speech.events, options.rate),
      microphone_(options.system ? device_list().system() : options.device, recorder_options(options),
                  options.system ? no_hint : console::note) {
    keep(options.path, [this] { return wanted_.voice.denoise ? ", " + denoising() : ""; });
    if (!options.undenoised.empty()) keep(options.undenoised);
    if (!wanted_.speech.any()) return;
    recorded_files& files = kept_.front().files;
    cutter_ = std::make_unique<speech_cutter>(wanted_.speech, wanted_.rate, events_,
                                              speech_sink{.write = [&](auto samples) { return files.write(samples); },
                                                          .begin_utterance = [&] { return files.create(), true; },
                                                          .end_utterance = [&] { return files.finish(fine) == fine; }});
}

void recording::keep(const std::string& path, std::function<std::string()> remark) {
    kept_.push_back(
        {effect_chain(wanted_.effects, wanted_.rate), recorded_files(path, wanted_, limit_, {""}, std::move(remark))});
}

std::string recording::denoising() const {
    const wrapper_audio_recorder_info info = microphone_.info();
    return denoising_text(info.denoising, info.device_rate);
}

exit_code recording::run() {
    if (microphone_.info().denoising != WRAPPER_AUDIO_DENOISING_OFF)
        console::note(denoising());
    else if (wanted_.voice.denoise)
        report_no_denoising(wanted_.voice.must_denoise);
    stop_on_signals();
    // Last: a device that does not open leaves an older file alone.
    for (kept_sound& each : kept_)
        if (!wanted_.speech.split) each.files.create();
    const bool good = listen();
    microphone_.stop();
    return finish(good);
}

/** --seconds is how long the file gets; with --trim and --split, how long to listen. */
bool recording::wants_more(std::uint64_t heard) const {
    const bool counts_what_is_kept = cutter_ && !wanted_.speech.cuts();
    return (counts_what_is_kept ? kept_.front().files.count() : heard) < limit_ && !(cutter_ && cutter_->is_over());
}

/** Says where sound was lost: at once if the device was, and otherwise at the end. Returns whether it is back. */
bool recording::account(const wrapper_audio_block& block, std::uint64_t heard) {
    const bool is_away = microphone_.is_lost();
    if (is_away && !is_lost_) {
        is_lost_ = true;
        away_ = 0;
        events_.device_lost(position_, microphone_.reason());
        console::error(microphone_.reason() + "; the recording goes on when it is back");
    }
    if (!is_lost_) {
        losses_.add(block.dropped, static_cast<double>(heard + block.dropped_at) / wanted_.rate);
        return false;
    }
    away_ += block.dropped;
    if (is_away || away_ == 0 || block.count == 0) return false; // what is read may be from before
    is_lost_ = false;
    events_.device_back(block.position);
    console::note(fmt::format("'{}' is back; {:.1f} s are {}", printable(microphone_.name()),
                              static_cast<double>(away_) / wanted_.rate,
                              wanted_.fill_gaps ? "replaced by silence" : "missing"));
    return true;
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
        const bool is_back = account(block, heard);
        if (count == 0 && block.dropped == 0) break;
        const auto whole = [&](kept_sound& sound, std::span<const float> samples) {
            samples = with_gap(sound, samples.first(count), block);
            return samples.first(std::min<std::uint64_t>(samples.size(), left));
        };
        auto samples = whole(kept_.front(), buffer);
        heard += samples.size();
        std::optional<std::size_t> gap;
        if (is_back && wanted_.split_gaps) gap = block.dropped > 0 ? block.dropped_at : 0; // or it was told before
        bool good = cutter_ ? hear(samples, block) : kept_.front().write(samples, gap);
        if (kept_.size() > 1) {
            auto others = whole(kept_.back(), undenoised);
            good = kept_.back().write(others, gap) && good;
        }
        if (!good) return false;
        if (screen_.redraws && !console::is_quiet() && !samples.empty()) show(samples);
    }
    if (!cutter_)
        return std::all_of(kept_.begin(), kept_.end(),
                           [&](auto& each) { return each.files.write(each.chain.finish()); });
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

void recording::show(std::span<const float> samples) {
    const double time = static_cast<double>(cutter_ ? position_ : kept_.front().files.count()) / wanted_.rate;
    show_levels(meter_, screen_, time, !cutter_ ? "" : cutter_->speaks() ? "speech " : "       ", samples);
}

exit_code recording::finish(bool good) {
    status_line::finish();
    const recorded_files& first = kept_.front().files;
    const bool reader_gone =
        std::any_of(kept_.begin(), kept_.end(), [](const auto& each) { return each.files.reader_gone(); });
    if (reader_gone && kept_.size() == 1) return fine;
    exit_code code = good || reader_gone ? fine : file_trouble;
    if (good && microphone_.trouble()) {
        console::error(microphone_.trouble()->text(fmt::format(
            "; {} what was recorded before", first.is_open() ? first.shown_name() + " keeps" : "the files keep")));
        code = microphone_.trouble()->code;
    }
    if (cutter_ && !cutter_->has_spoken()) console::note("nobody spoke");
    losses_.report(wanted_.rate, wanted_.fill_gaps);
    for (kept_sound& each : kept_)
        if (each.files.is_open()) code = each.files.finish(code);
    return code == fine && events_.failed() ? file_trouble : code;
}

} // namespace

exit_code record(const record_options& wanted) {
    check(wanted.speech, wanted.path);
    if ((wanted.max_file_time || wanted.split_gaps) && (wanted.path == "-" || wanted.undenoised == "-"))
        throw failure(usage, fmt::format("{} needs files, not standard output",
                                         wanted.max_file_time ? "--max-file-time" : "--split-gaps"));
    format_of(wanted.path, wanted.output); // which fails before anything begins
    if (!wanted.undenoised.empty()) {
        if (!(wanted.voice.denoise.value_or(0.0F) > 0.0F))
            throw failure(usage, "--undenoised goes with --denoise, and a strength above 0");
        const auto whole = [](const std::string& path) { return std::filesystem::absolute(path).lexically_normal(); };
        if (whole(wanted.undenoised) == whole(wanted.path))
            throw failure(usage, "--undenoised needs a file of its own");
        format_of(wanted.undenoised, wanted.output);
    }
    samples_in(wanted.max_file_time, wanted.rate, "--max-file-time"); // as is this
    const std::uint64_t limit = samples_in(wanted.seconds, wanted.rate, "--seconds");
    if (wanted.both) return record_both(wanted, limit);
    recording made(wanted, limit);
    const exit_code code = made.run();
    return wanted.for_a_command && code == fine && !made.has_spoken() ? nobody_spoke : code;
}
