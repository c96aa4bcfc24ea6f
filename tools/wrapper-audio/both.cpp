/**
 * record --both: two sides of a call, the microphone and what the computer plays, in two channels of a file.
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

class call {
public:
    call(const record_options& options, std::uint64_t limit)
        : wanted_(options), limit_(limit), system_id_(device_list().system()), chain_(options.effects, options.rate),
          microphone_(options.device, options_of(options, true)),
          system_(system_id_, options_of(options, false), no_hint),
          files_(options.path, options, limit, {"microphone: ", "system: "}) {
        wrapper_audio_aligner* made = nullptr;
        check_status(wrapper_audio_aligner_create(&made, options.rate));
        aligner_.reset(made);
    }

    exit_code run();

private:
    struct closer {
        void operator()(wrapper_audio_aligner* made) const { wrapper_audio_aligner_free(made); }
    };

    bool listen();
    bool take(bool at_end = false);
    bool write();
    exit_code finish(bool good);

    const record_options& wanted_;
    const std::uint64_t limit_; // samples of each side
    const std::string system_id_;
    effect_chain chain_;
    microphone microphone_;
    microphone system_;
    recorded_files files_;
    std::unique_ptr<wrapper_audio_aligner, closer> aligner_;
    const terminal screen_{STDERR_FILENO};
    level_meter meter_;
    std::uint64_t lost_ = 0;                    // of the microphone's samples
    std::array<std::vector<float>, 2> waiting_; // of both sides; the effects may hold some of the first back
    std::vector<float> frames_;
};

exit_code call::run() {
    const wrapper_audio_recorder_info info = microphone_.info();
    if (info.denoising != WRAPPER_AUDIO_DENOISING_OFF)
        console::note(denoising_text(info.denoising, info.device_rate, "the microphone's"));
    else if (wanted_.voice.denoise)
        report_no_denoising(wanted_.voice.must_denoise);
    stop_on_signals();
    files_.create(); // last: a device that does not open leaves an older file alone
    const bool good = listen();
    microphone_.stop();
    system_.stop();
    return finish(good);
}

/** Returns false when the output failed. */
bool call::listen() {
    const auto block_size = static_cast<std::size_t>(std::max(1, wanted_.rate * 30 / 1000));
    while (files_.count() < limit_) {
        wrapper_audio_block block{};
        const std::size_t count = microphone_.read(*aligner_, 0, block_size, block);
        lost_ += block.dropped;
        system_.read_what_is_there(*aligner_, 1);
        if (count == 0) {
            check_status(wrapper_audio_aligner_flush(aligner_.get()));
            return take(true);
        }
        if (!take()) return false;
    }
    return true;
}

/** Takes what is ready, and writes it. */
bool call::take(bool at_end) {
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
    return write();
}

bool call::write() {
    const std::size_t count = std::min(waiting_[0].size(), waiting_[1].size());
    frames_.clear();
    for (std::size_t i = 0; i < count; ++i)
        for (const auto& side : waiting_)
            frames_.push_back(side[i]);
    for (auto& side : waiting_)
        side.erase(side.begin(), side.begin() + static_cast<std::ptrdiff_t>(count));
    const bool good = files_.write(frames_);
    if (good && screen_.redraws && !console::is_quiet() && count > 0)
        show_levels(meter_, screen_, static_cast<double>(files_.count()) / wanted_.rate, "", frames_);
    return good;
}

exit_code call::finish(bool good) {
    status_line::finish();
    if (files_.reader_gone()) return fine;
    exit_code code = good ? fine : file_trouble;
    for (const microphone* side : {&microphone_, &system_}) {
        if (!side->trouble()) continue;
        console::error(side->trouble()->text(fmt::format("; {} keeps what was recorded before", files_.shown_name())));
        code = side->trouble()->code;
    }
    if (lost_ > 0)
        console::error(fmt::format("{:.2f} s of sound from the microphone were lost and replaced by silence: this "
                                   "computer was too slow",
                                   static_cast<double>(lost_) / wanted_.rate));
    return files_.is_open() ? files_.finish(code) : code;
}

} // namespace

exit_code record_both(const record_options& wanted, std::uint64_t limit) {
    return call(wanted, limit).run();
}
