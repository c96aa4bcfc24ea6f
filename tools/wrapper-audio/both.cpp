/**
 * record --both: two sides of a call, the microphone and what the computer plays, in two channels of a file.
 */
#include "commands.h"
#include "console.h"
#include "file_names.h"
#include "input.h"
#include "level.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace {

void check_status(wrapper_audio_status status) {
    if (status != WRAPPER_AUDIO_OK) throw failure_of(status);
}

wrapper_audio_recorder_options options_of(const record_options& wanted, bool is_denoised) {
    wrapper_audio_recorder_options options{};
    options.rate = wanted.rate;
    options.denoise = is_denoised ? wanted.voice.denoise.value_or(0.0F) : 0.0F;
    options.conversion = wanted.voice.conversion;
    return options;
}

void no_hint(const std::string& /*sentences*/) {} // silence of the system is no defect

class call {
public:
    explicit call(const record_options& options)
        : wanted_(options), system_id_(device_list().system()), chain_(options.effects, options.rate),
          microphone_(options.device, options_of(options, true)),
          system_(system_id_, options_of(options, false), no_hint) {
        wrapper_audio_aligner* made = nullptr;
        check_status(wrapper_audio_aligner_create(&made, options.rate));
        aligner_.reset(made);
    }

    exit_code run(std::uint64_t limit);

private:
    struct closer {
        void operator()(wrapper_audio_aligner* made) const { wrapper_audio_aligner_free(made); }
    };

    void listen(std::uint64_t limit);
    bool take(std::uint64_t limit, bool at_end = false);
    bool write(std::uint64_t limit);
    void create_file();
    void show();
    exit_code finish();

    const record_options& wanted_;
    const std::string system_id_;
    effect_chain chain_;
    microphone microphone_;
    microphone system_;
    std::unique_ptr<wrapper_audio_aligner, closer> aligner_;
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    std::string name_;
    std::unique_ptr<output> file_;
    bool failed_ = false;
    std::uint64_t in_file_ = 0;                 // samples of each side
    std::uint64_t lost_ = 0;                    // of the microphone's samples
    std::array<std::vector<float>, 2> waiting_; // of both sides; the effects may hold some of the first back
    std::vector<float> frames_;
    std::array<level, 2> heard_;
};

exit_code call::run(std::uint64_t limit) {
    const wrapper_audio_recorder_info info = microphone_.info();
    if (info.denoising != WRAPPER_AUDIO_DENOISING_OFF)
        console::note(denoising_text(info.denoising, info.device_rate, "the microphone's"));
    else if (wanted_.voice.denoise)
        report_no_denoising(wanted_.voice.must_denoise);
    stop_on_signals();
    name_ = expanded(wanted_.path);
    create_file(); // last: a device that does not open leaves an older file alone
    listen(limit);
    microphone_.stop();
    system_.stop();
    return finish();
}

void call::create_file() {
    file_ = create_output(name_, {wanted_.rate, 2, true}, wanted_.output);
    in_file_ = 0;
}

/** Returns once everything is over. */
void call::listen(std::uint64_t limit) {
    const auto block_size = static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000));
    for (wrapper_audio_block block{};;) {
        const std::size_t count = microphone_.read(*aligner_, 0, block_size, block);
        lost_ += block.dropped;
        system_.read_what_is_there(*aligner_, 1);
        if (count == 0) break;
        if (!take(limit)) return;
    }
    check_status(wrapper_audio_aligner_flush(aligner_.get()));
    take(limit, true);
}

/** Takes what is ready. Returns whether to go on. */
bool call::take(std::uint64_t limit, bool at_end) {
    std::array<std::array<float, 1024>, 2> samples{};
    for (std::size_t count = samples[0].size(); count == samples[0].size();) {
        check_status(wrapper_audio_aligner_take(aligner_.get(), samples[0].data(), samples[1].data(), count, &count));
        const auto first = chain_.process(std::span(samples[0]).first(count));
        waiting_[0].insert(waiting_[0].end(), first.begin(), first.end());
        waiting_[1].insert(waiting_[1].end(), samples[1].begin(),
                           samples[1].begin() + static_cast<std::ptrdiff_t>(count));
    }
    if (at_end) {
        const auto rest = chain_.finish();
        waiting_[0].insert(waiting_[0].end(), rest.begin(), rest.end());
    }
    return write(limit);
}

bool call::write(std::uint64_t limit) {
    if (in_file_ == file_->capacity() && file_->close()) {
        name_ = with_free_number(name_);
        create_file();
    }
    const std::uint64_t left = std::min(limit - heard_[0].samples(), file_->capacity() - in_file_);
    const std::size_t count = std::min<std::uint64_t>(std::min(waiting_[0].size(), waiting_[1].size()), left);
    in_file_ += count;
    frames_.clear();
    for (std::size_t i = 0; i < count; ++i)
        for (auto& side : waiting_)
            frames_.push_back(wanted_.output.bits == sample_size::real ? side[i] : std::clamp(side[i], -1.0F, 1.0F));
    failed_ = file_->write(frames_) < frames_.size();
    for (std::size_t side = 0; side < 2; ++side) {
        heard_[side].add(std::span(waiting_[side]).first(count));
        waiting_[side].erase(waiting_[side].begin(), waiting_[side].begin() + static_cast<std::ptrdiff_t>(count));
    }
    if (screen_.redraws && !console::is_quiet() && count > 0) show();
    return !failed_ && heard_[0].samples() < limit;
}

void call::show() {
    level now;
    now.add(frames_);
    const double time = static_cast<double>(heard_[0].samples()) / wanted_.rate;
    meter_.hold(time, now.peak());
    if (status_line::is_due())
        status_line::show(screen_,
                          meter_.line(screen_, time, fmt::format("{:>8} ", time_text(time)), now.rms(), now.peak()));
}

exit_code call::finish() {
    status_line::finish();
    const bool closed = file_->close();
    if (file_->reader_gone()) return fine;
    exit_code code = fine;
    const std::string shown = name_ == "-" ? "standard output" : printable(name_);
    for (const microphone* side : {&microphone_, &system_}) {
        if (!side->trouble()) continue;
        console::error(side->trouble()->text(fmt::format("; {} keeps what was recorded before", shown)));
        code = side->trouble()->code;
    }
    if (lost_ > 0)
        console::error(fmt::format("{:.2f} s of sound from the microphone were lost and replaced by silence: this "
                                   "computer was too slow",
                                   static_cast<double>(lost_) / wanted_.rate));
    if (failed_ || !closed) {
        console::error(fmt::format("cannot write {}{}: {}", failed_ ? "" : "the end of ", shown, file_->reason()));
        code = file_trouble;
    }
    const std::string result = fmt::format(
        "{}: {:.2f} s at {} Hz, microphone: peak {} dBFS, RMS {} dBFS, system: peak {} dBFS, RMS {} dBFS", shown,
        static_cast<double>(heard_[0].samples()) / wanted_.rate, wanted_.rate, decibel_text(heard_[0].peak()),
        decibel_text(heard_[0].rms()), decibel_text(heard_[1].peak()), decibel_text(heard_[1].rms()));
    if (name_ == "-")
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}

} // namespace

exit_code record_both(const record_options& wanted, std::uint64_t limit) {
    return call(wanted).run(limit);
}
