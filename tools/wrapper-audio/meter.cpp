/**
 * wrapper-audio meter: the level of an input, live.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "stopping.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

constexpr int meter_rate = 16000; // of the samples, which nobody hears: the levels are those that the device gave

std::uint64_t samples_wanted(const std::optional<double>& seconds) {
    if (!seconds) return std::numeric_limits<std::uint64_t>::max();
    const double samples = std::ceil(*seconds * meter_rate - 1e-9);
    if (!(samples < 1e15)) throw failure(usage, "--seconds: longer than anybody can wait");
    return static_cast<std::uint64_t>(samples);
}

/** A bar on a terminal, a line a second elsewhere. The time is that of the sound. */
class display {
public:
    explicit display(bool json) : json_(json) {}

    void show(const wrapper_audio_block& block) {
        const std::uint64_t seconds_before = samples_ / meter_rate;
        samples_ += block.count;
        second_.add(block.captured_rms, block.captured_peak, block.count);
        moment_.add(block.captured_rms, block.captured_peak, block.count);
        if (redraws())
            draw();
        else if (samples_ / meter_rate > seconds_before)
            print_second();
    }

    /** The last second, when it was none. */
    void finish() {
        if (!redraws() && second_.samples() > 0) print_second();
        status_line::finish();
    }

    std::uint64_t samples() const { return samples_; }

private:
    double now() const { return static_cast<double>(samples_) / meter_rate; }

    void draw() {
        meter_.hold(now(), moment_.peak());
        if (!status_line::is_due()) return;
        status_line::show(screen_, meter_.line(screen_, now(), "", moment_.rms(), moment_.peak()));
        moment_ = {};
    }

    void print_second() {
        const bool clips = second_.peak() >= 32767.0F / 32768.0F;
        if (json_)
            print(fmt::format("{{\"time\":{:.1f},\"rms\":{:.6f},\"peak\":{:.6f},\"clips\":{}}}\n", now(), second_.rms(),
                              second_.peak(), clips));
        else
            print(fmt::format("{}  RMS {:>5}  peak {:>5} dBFS{}\n", time_text(now()), decibel_text(second_.rms()),
                              decibel_text(second_.peak()), clips ? "  CLIP" : ""));
        second_ = {};
    }

    bool redraws() const { return screen_.redraws && !json_; }

    const bool json_;
    const terminal screen_{STDOUT_FILENO};
    level_meter meter_{true};
    level moment_;
    level second_;
    std::uint64_t samples_ = 0;
};

} // namespace

exit_code show_meter(const meter_options& wanted) {
    const std::uint64_t limit = samples_wanted(wanted.seconds);
    wrapper_audio_recorder_options options{};
    options.rate = meter_rate;
    options.conversion = WRAPPER_AUDIO_CONVERSION_LINEAR; // without delay
    microphone input(wanted.device, options);
    stop_on_signals();
    display shown(wanted.json);
    std::array<float, meter_rate * 30 / 1000> samples{};
    for (wrapper_audio_block block{}; !stop_requested() && shown.samples() < limit;) {
        const std::size_t most = std::min<std::uint64_t>(samples.size(), limit - shown.samples());
        if (input.read(std::span(samples).first(most), block) == 0) break;
        shown.show(block);
    }
    shown.finish();
    if (input.trouble()) throw failure(*input.trouble());
    return fine;
}
