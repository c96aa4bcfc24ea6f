#include "recorded_files.h"

#include "console.h"
#include "file_names.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

std::uint64_t samples_in(const std::optional<double>& seconds, int rate, const char* option) {
    if (!seconds) return no_limit;
    const double samples = std::round(*seconds * rate);
    if (!(samples >= 1.0)) throw failure(usage, fmt::format("{}: too short for a single sample", option));
    return samples < static_cast<double>(no_limit) ? static_cast<std::uint64_t>(samples) : no_limit;
}

recorded_files::recorded_files(std::string path, const record_options& wanted, std::uint64_t limit,
                               std::vector<std::string> channels, std::function<std::string()> remark)
    : path_(std::move(path)), wanted_(wanted), limit_(limit),
      file_limit_(samples_in(wanted.max_file_time, wanted.rate, "--max-file-time")), channels_(std::move(channels)),
      remark_(std::move(remark)) {}

void recorded_files::create() {
    ++files_;
    levels_.assign(channels_.size(), {});
    const bool is_one_of_many = wanted_.speech.split || wanted_.max_file_time || wanted_.split_gaps;
    const std::string name = expanded(is_one_of_many ? numbered(path_, files_) : path_);
    // Nothing that this recording has written is overwritten.
    name_ = names_.insert(name).second ? name : with_free_number(name);
    file_ = create_output(name_, {wanted_.rate, static_cast<int>(channels_.size()), true}, wanted_.output);
}

std::string recorded_files::shown_name() const {
    return name_ == "-" ? "standard output" : printable(name_);
}

/** For samples of each channel, in the present file. */
std::uint64_t recorded_files::room() const {
    return std::min(file_limit_, file_->capacity()) - levels_.front().samples();
}

bool recorded_files::write(std::span<const float> frames) {
    const std::size_t channels = channels_.size();
    frames = frames.first(std::min<std::uint64_t>(frames.size() / channels, limit_ - count_) * channels);
    if (wanted_.output.bits != sample_size::real) { // which has room above full scale
        limited_.assign(frames.begin(), frames.end());
        for (float& sample : limited_)
            sample = std::clamp(sample, -1.0F, 1.0F);
        frames = limited_;
    }
    while (!frames.empty()) {
        if (room() == 0 && !next()) return false;
        const auto part = frames.first(std::min<std::uint64_t>(frames.size() / channels, room()) * channels);
        const auto kept = part.first(file_->write(part));
        measure(kept);
        failed_ = kept.size() < part.size();
        if (failed_) return false;
        frames = frames.subspan(part.size());
    }
    return true;
}

bool recorded_files::next() {
    if (finish(fine) != fine) return false;
    create();
    return true;
}

void recorded_files::measure(std::span<const float> frames) {
    const std::size_t channels = channels_.size();
    count_ += frames.size() / channels;
    for (std::size_t channel = 0; channel < channels; ++channel) {
        channel_.clear();
        for (std::size_t at = channel; at < frames.size(); at += channels)
            channel_.push_back(frames[at]);
        levels_[channel].add(channel_);
    }
}

exit_code recorded_files::finish(exit_code code) {
    const bool closed = file_->close();
    if (file_->reader_gone()) return code;
    if (failed_ || !closed) {
        console::error(
            fmt::format("cannot write {}{}: {}", failed_ ? "" : "the end of ", shown_name(), file_->reason()));
        code = file_trouble;
    }
    file_.reset();
    std::string result = fmt::format("{}: {:.2f} s at {} Hz", shown_name(),
                                     static_cast<double>(levels_.front().samples()) / wanted_.rate, wanted_.rate);
    for (std::size_t channel = 0; channel < channels_.size(); ++channel)
        result += fmt::format(", {}peak {} dBFS, RMS {} dBFS", channels_[channel],
                              decibel_text(levels_[channel].peak()), decibel_text(levels_[channel].rms()));
    if (remark_) result += remark_();
    const bool is_sound_printed = wanted_.path == "-" || wanted_.undenoised == "-";
    if (is_sound_printed || wanted_.speech.events == "-" || wanted_.for_a_command)
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}
