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

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

/** Whether a read of this many ms gives a whole number of samples; what is over is lost. */
bool is_whole(int ms, int rate) {
    return static_cast<std::int64_t>(ms) * rate % 1000 == 0;
}

/**
 * The longest read that gives whole samples at both rates: 100 ms at most rates, 80 ms at 11025 Hz. A multiple of
 * 10 ms, since denoising leaves out the rest.
 */
int default_block(int device_rate, int rate) {
    for (int ms = 100; ms > 0; ms -= 10)
        if (is_whole(ms, rate) && is_whole(ms, device_rate)) return ms;
    for (int ms = 100; ms > 0; ms -= 10)
        if (is_whole(ms, rate)) return ms;
    return 100;
}

/** Refuses a block that loses the rest of itself at this rate, which is the file's or the device's. */
void check_block(const record_options& wanted, int rate, const char* whose) {
    if (!wanted.block_ms || is_whole(*wanted.block_ms, rate)) return;
    throw failure(usage, fmt::format("--block: {} ms are no whole number of samples at {} Hz, the rate of {}, and the "
                                     "rest of each block would be lost; {} ms would do",
                                     *wanted.block_ms, rate, whose, default_block(rate, wanted.rate)));
}

void check_jack_block(const record_options& wanted) {
    if (wanted.block_ms.value_or(jack_block_ms) != jack_block_ms)
        throw failure(usage, fmt::format("--block: a JACK device can only be read {} ms at a time", jack_block_ms));
    if (!is_whole(jack_block_ms, wanted.rate))
        throw failure(usage, fmt::format("--rate: a JACK device can only be read {} ms at a time, which are no whole "
                                         "number of samples at {} Hz; record at 48000 and convert with `process`",
                                         jack_block_ms, wanted.rate));
}

std::uint64_t samples_wanted(const record_options& wanted, sound_format format) {
    const std::uint64_t limit = sample_limit(format);
    if (!wanted.seconds) return limit;
    const double samples = std::round(*wanted.seconds * wanted.rate);
    if (!(samples >= 1.0)) throw failure(usage, "--seconds: must be above 0, and long enough for a sample");
    if (!(samples <= static_cast<double>(limit)))
        throw failure(usage, "--seconds: longer than a file of this kind can be at this rate (WAV: 4 GiB)");
    return static_cast<std::uint64_t>(samples);
}

/** Says once that nothing comes in. A quiet room is not that quiet: two seconds of zeros come from no microphone. */
class silence_watch {
public:
    explicit silence_watch(int rate) : limit(2 * static_cast<std::uint64_t>(rate)) {}

    void look_at(std::span<const std::int16_t> samples) {
        if (said) return;
        if (std::any_of(samples.begin(), samples.end(), [](std::int16_t sample) { return sample != 0; }))
            zeros = 0;
        else
            zeros += samples.size();
        if (zeros < limit) return;
        console::note("the input is silent (muted? the wrong device?)");
        said = true;
    }

private:
    const std::uint64_t limit;
    std::uint64_t zeros = 0;
    bool said = false;
};

class recording {
public:
    explicit recording(const record_options& options)
        : wanted_(options), limit_(samples_wanted(options, format_of(options.path))),
          chain_(options.effects, options.rate), silence_(options.rate), screen_(console::descriptor()) {}

    exit_code run();

private:
    exit_code listen();
    exit_code read_once(stall_guard& guard);
    exit_code keep(std::span<const std::int16_t> samples);
    exit_code keep_processed(std::span<const float> samples);
    exit_code finish(exit_code code);
    exit_code rescue(stall_guard::reason reason);
    std::string name() const { return wanted_.path == "-" ? "standard output" : printable(wanted_.path); }

    const record_options& wanted_;
    const std::uint64_t limit_;
    effect_chain chain_;
    silence_watch silence_;
    const terminal screen_;
    level_meter meter_;
    level level_;
    int block_ms_ = 100;
    std::unique_ptr<microphone> microphone_;
    std::unique_ptr<output> output_;
    std::vector<std::int16_t> samples_;
    std::vector<float> floats_;
};

exit_code recording::run() {
    const chosen_input input = choose_input(wanted_.device);
    if (input.is_jack) check_jack_block(wanted_);
    microphone_ = std::make_unique<microphone>(wanted_.rate, wanted_.denoise, input.id);
    const int device_rate = microphone_->device_rate();
    check_block(wanted_, device_rate, "the device");
    block_ms_ = input.is_jack ? jack_block_ms : wanted_.block_ms.value_or(default_block(device_rate, wanted_.rate));
    if (wanted_.denoise && device_rate != denoising_rate && device_rate != 0)
        console::note(denoise_inactive(device_rate) + "; `wrapper-audio doctor` tells what to do");
    stop_on_signals();
    output_ = create_output(wanted_.path, wanted_.rate); // last: a device that does not open leaves an older file alone
    samples_.resize(static_cast<std::size_t>(wanted_.rate) / 10 + 1);

    exit_code code = listen();
    if (code == fine && wanted_.effects.any()) code = keep_processed(chain_.finish());
    microphone_->close();
    return finish(code);
}

exit_code recording::listen() {
    stall_guard guard([this](stall_guard::reason reason) { return rescue(reason); });
    while (!stop_requested() && level_.samples() < limit_)
        if (const exit_code code = read_once(guard); code != fine) return code;
    return fine;
}

exit_code recording::read_once(stall_guard& guard) {
    std::int32_t got = 0;
    guard.watch([&] {
        got = wrapper_audio_read(microphone_->get(), block_ms_, samples_.data(),
                                 static_cast<std::int32_t>(samples_.size()), nullptr, nullptr);
    });
    console::collect();
    if (got <= 0) return stop_requested() ? fine : read_failed;
    const auto read = std::span(samples_).first(static_cast<std::size_t>(got));
    silence_.look_at(read);
    if (!wanted_.effects.any()) return keep(read);
    to_floats(read, floats_);
    return keep_processed(chain_.process(floats_));
}

exit_code recording::keep_processed(std::span<const float> samples) {
    std::vector<std::int16_t> rounded;
    to_16_bits(samples, rounded);
    return keep(rounded);
}

exit_code recording::keep(std::span<const std::int16_t> samples) {
    samples =
        samples.first(static_cast<std::size_t>(std::min<std::uint64_t>(samples.size(), limit_ - level_.samples())));
    const auto kept = samples.first(output_->write(samples));
    level_.add(kept);
    if (kept.size() < samples.size()) return file_trouble;
    if (!screen_.redraws || console::is_quiet() || samples.empty()) return fine;
    level now;
    now.add(samples);
    const double time = static_cast<double>(level_.samples()) / wanted_.rate;
    if (status_line::is_due())
        status_line::show(screen_,
                          meter_.line(screen_, time, fmt::format("{:>8} ", time_text(time)), now.rms(), now.peak()));
    else
        meter_.hold(time, now.peak());
    return fine;
}

/** Closes the file and says how it went. */
exit_code recording::finish(exit_code code) {
    status_line::finish();
    const bool failed = code == file_trouble;
    const bool closed = output_->close();
    if (output_->reader_gone()) return fine;
    if (code == read_failed) {
        console::show_library_lines();
        console::error(fmt::format("the input device failed; {} keeps what was recorded before", name()));
    } else if (failed || !closed) {
        console::error(fmt::format("cannot write {}{}: {}", failed ? "" : "the end of ", name(), output_->reason()));
        if (code == fine) code = file_trouble;
    } else if (level_.samples() == limit_ && !wanted_.seconds) {
        console::note(fmt::format("the recording ends here: {} is as long as such a file can be", name()));
    }
    const std::string result = fmt::format("{}: {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS", name(),
                                           static_cast<double>(level_.samples()) / wanted_.rate, wanted_.rate,
                                           decibel_text(level_.peak()), decibel_text(level_.rms()));
    if (wanted_.path == "-")
        console::note(result);
    else if (!console::is_quiet())
        print(result + "\n");
    return code;
}

/** The device is stuck in a read: it is left alone, and everything else brought to its end. */
exit_code recording::rescue(stall_guard::reason reason) {
    if (reason == stall_guard::reason::stop_requested) return finish(fine);
    status_line::finish();
    console::error("no sound has come for 5 seconds: the device is gone or stuck");
    return finish(read_failed);
}

} // namespace

exit_code record(const record_options& wanted) {
    if (wanted.denoise && wanted.block_ms.value_or(10) % 10 != 0)
        throw failure(usage, "--block: denoising works on whole 10 ms, so this must be a multiple of 10");
    check_block(wanted, wanted.rate, "the file");
    if (wanted.effects.highpass && wanted.effects.highpass->corner_hz * 2 >= static_cast<float>(wanted.rate))
        throw failure(usage, fmt::format("--highpass: the corner must be below half the rate, {} Hz", wanted.rate / 2));
    return recording(wanted).run();
}
