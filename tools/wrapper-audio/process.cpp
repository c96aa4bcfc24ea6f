/**
 * wrapper-audio process: the library's signal functions on a file.
 */
#include "commands.h"
#include "console.h"
#include "level.h"
#include "output.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <wrapper_audio.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <numeric>
#include <vector>

namespace {

/** A sound file, read as mono. */
class source {
public:
    explicit source(const std::string& path) {
        file.reset(sf_open(path.c_str(), SFM_READ, &info));
        if (!file) throw failure(file_trouble, fmt::format("cannot read {}: {}", printable(path), reason()));
        if (info.samplerate < 1 || info.channels < 1)
            throw failure(file_trouble, fmt::format("cannot read {}: its header makes no sense", printable(path)));
    }

    int rate() const { return info.samplerate; }
    int channels() const { return info.channels; }
    double seconds() const { return static_cast<double>(info.frames) / info.samplerate; }

    /** Appends at most `count` samples; returns how many. */
    std::size_t read(std::size_t count, std::vector<float>& mono) {
        frames.resize(count * static_cast<std::size_t>(info.channels));
        const sf_count_t got =
            std::max<sf_count_t>(sf_readf_float(file.get(), frames.data(), static_cast<sf_count_t>(count)), 0);
        for (sf_count_t frame = 0; frame < got; ++frame) {
            const auto first = frames.begin() + static_cast<std::ptrdiff_t>(frame * info.channels);
            const float sample =
                std::accumulate(first, first + info.channels, 0.0F) / static_cast<float>(info.channels);
            spoilt += std::isfinite(sample) ? 0 : 1;
            mono.push_back(std::isfinite(sample) ? sample : 0.0F); // one of those would spoil the filters for good
        }
        return static_cast<std::size_t>(got);
    }

    bool failed() const { return sf_error(file.get()) != SF_ERR_NO_ERROR; }
    std::string reason() const {
        std::string text = sf_strerror(file.get());
        while (text.ends_with('\n') || text.ends_with('.'))
            text.pop_back();
        return text;
    }
    std::uint64_t spoilt_samples() const { return spoilt; }

private:
    struct closer {
        void operator()(SNDFILE* open) const { sf_close(open); }
    };
    SF_INFO info{};
    std::unique_ptr<SNDFILE, closer> file;
    std::vector<float> frames;
    std::uint64_t spoilt = 0;
};

/**
 * The library's resampler on a file of any length. Each of its calls begins at position 0, so a block must end where
 * an output falls exactly on an input: after in/gcd inputs, which give out/gcd outputs. One sample of the next block
 * goes along as the right-hand neighbour of the last outputs. So the result is that of one call for the whole file, but
 * for the last bit here and there: each block rounds its positions anew.
 */
class converter {
public:
    converter(int in_rate, int out_rate) : resampler(wrapper_audio_resampler_init(in_rate, out_rate, 0)) {
        if (!resampler) throw failure(unexpected, "not enough memory for the rate conversion");
        const int divisor = std::gcd(in_rate, out_rate);
        const auto repeat = static_cast<std::size_t>(
            std::max<std::int64_t>(1, std::int64_t{48000} * divisor / std::max(in_rate, out_rate)));
        in_block = static_cast<std::size_t>(in_rate / divisor) * repeat;
        out_block = static_cast<std::size_t>(out_rate / divisor) * repeat;
        longest_rest = 2 * out_block + 2;
    }

    /** Takes whole blocks from the front of `in` and appends what they give to `out`; at the end all there is. */
    void convert(std::vector<float>& in, bool at_end, std::vector<float>& out) {
        std::size_t at = 0;
        for (; in.size() - at > in_block; at += in_block)
            run(in.data() + at, in_block + 1, out_block, out);
        if (at_end) {
            run(in.data() + at, in.size() - at, longest_rest, out);
            at = in.size();
        }
        in.erase(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(at));
    }

private:
    void run(const float* in, std::size_t count, std::size_t most, std::vector<float>& out) {
        const std::size_t old = out.size();
        out.resize(old + most);
        const std::int32_t got = wrapper_audio_resample(resampler.get(), in, static_cast<std::int32_t>(count),
                                                        out.data() + old, static_cast<std::int32_t>(most));
        out.resize(old + static_cast<std::size_t>(std::max(got, 0)));
    }

    struct closer {
        void operator()(wrapper_audio_resampler* open) const { wrapper_audio_resampler_free(open); }
    };
    std::unique_ptr<wrapper_audio_resampler, closer> resampler;
    std::size_t in_block = 0;
    std::size_t out_block = 0;
    std::size_t longest_rest = 0;
};

/** Drawn for files that take longer than half a second. */
class progress {
public:
    void show(double done, double all) {
        const bool due = std::chrono::steady_clock::now() - begun >= std::chrono::milliseconds(500);
        if (!screen.redraws || console::is_quiet() || !due) return;
        const int bar = std::clamp(screen.width() - 40, 0, 40);
        const double share = all > 0 ? std::clamp(done / all, 0.0, 1.0) : 0.0;
        const auto filled = static_cast<std::size_t>(share * bar);
        shown_text line{fmt::format("[{:<{}}] {:3.0f} %  {} of {}", std::string(filled, '='), bar, share * 100,
                                    time_text(done), time_text(all)),
                        0};
        line.text.resize(std::min(line.text.size(), static_cast<std::size_t>(std::max(screen.width(), 0))));
        line.columns = static_cast<int>(line.text.size());
        status_line::show(screen, line);
    }

private:
    const terminal screen{console::descriptor()};
    const std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
};

class processing {
public:
    explicit processing(const process_options& options)
        : wanted(options), in(options.in), rate(options.rate.value_or(in.rate())), chain(options.effects, rate) {}

    exit_code run();

private:
    bool write(std::span<const float> samples);
    std::size_t samples_at_once() const;
    bool step(bool& at_end);
    void report() const;

    const process_options& wanted;
    source in;
    const int rate;
    effect_chain chain;
    std::unique_ptr<converter> conversion;
    std::unique_ptr<output> out;
    level before;
    level after;
    std::vector<float> waiting;
    std::vector<float> converted;
    std::vector<std::int16_t> rounded;
};

/** So many that neither their channels nor what a low rate is converted to take much memory. */
std::size_t processing::samples_at_once() const {
    constexpr std::int64_t plenty = 65536;
    const std::int64_t growth = std::max(1, rate / in.rate());
    return static_cast<std::size_t>(std::max<std::int64_t>(1, plenty / growth / in.channels()));
}

/** Reads a piece and writes what it gives. Returns false when the output failed. */
bool processing::step(bool& at_end) {
    const std::size_t piece = samples_at_once();
    const std::size_t old = waiting.size();
    // Some damaged files could be read on, but the next read would forget the error.
    at_end = in.read(piece, waiting) < piece || in.failed();
    before.add(std::span<const float>(waiting).subspan(old));
    converted.clear();
    if (conversion)
        conversion->convert(waiting, at_end, converted);
    else
        converted.swap(waiting);
    if (!write(chain.process(converted))) return false;
    return !at_end || write(chain.finish());
}

bool processing::write(std::span<const float> samples) {
    to_16_bits(samples, rounded);
    const std::size_t written = out->write(rounded);
    after.add(samples.first(written));
    return written == rounded.size();
}

exit_code processing::run() {
    if (wanted.effects.highpass && wanted.effects.highpass->corner_hz * 2 >= static_cast<float>(rate))
        throw failure(usage, fmt::format("--highpass: the corner must be below half the rate, {} Hz", rate / 2));
    if (rate != in.rate()) conversion = std::make_unique<converter>(in.rate(), rate);
    const auto limit = static_cast<double>(sample_limit(format_of(wanted.out)));
    if (in.seconds() * rate > limit)
        throw failure(file_trouble, fmt::format("{} is too long for a file of this kind: {} at {} Hz; FLAC holds more",
                                                printable(wanted.in), time_text(in.seconds()), rate));
    out = create_output(wanted.out, rate);
    stop_on_signals();
    progress bar;
    bool good = true;
    for (bool at_end = false; good && !at_end && !stop_requested();) {
        good = step(at_end);
        bar.show(static_cast<double>(before.samples()) / in.rate(), in.seconds());
    }
    status_line::finish();
    const bool closed = out->close();
    if (out->reader_gone()) return fine;
    if (!good || !closed)
        throw failure(file_trouble, fmt::format("cannot write {}: {}", printable(wanted.out), out->reason()));
    report();
    if (in.failed())
        throw failure(file_trouble,
                      fmt::format("{} breaks off after {}: {}", printable(wanted.in),
                                  time_text(static_cast<double>(before.samples()) / in.rate()), in.reason()));
    return fine;
}

void processing::report() const {
    if (stop_requested()) console::note(fmt::format("stopped early; {} is not complete", printable(wanted.out)));
    if (in.spoilt_samples() > 0)
        console::note(fmt::format("{} samples of {} were no numbers and count as silence", in.spoilt_samples(),
                                  printable(wanted.in)));
    if (in.channels() > 1) console::note(fmt::format("{} channels were mixed to one", in.channels()));
    if (after.peak() > 1.0F)
        console::note(
            fmt::format("the result was cut at full scale: its peak would be at {} dBFS", decibel_text(after.peak())));
    if (console::is_quiet()) return;
    const auto line = [](const char* when, const std::string& path, const level& measured, int at) {
        return fmt::format("{}  {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS: {}\n", when,
                           static_cast<double>(measured.samples()) / at, at, decibel_text(measured.peak()),
                           decibel_text(measured.rms()), path);
    };
    const std::string text =
        line("before", printable(wanted.in), before, in.rate()) + line("after ", printable(wanted.out), after, rate);
    if (wanted.out == "-")
        console::write_all(console::descriptor(), text);
    else
        print(text);
}

} // namespace

exit_code process(const process_options& wanted) {
    format_of(wanted.out);
    struct stat one {};
    struct stat other {};
    if (stat(wanted.in.c_str(), &one) == 0 && stat(wanted.out.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
        one.st_ino == other.st_ino)
        throw failure(usage, "the input and the output are the same file, which would be lost");
    if (S_ISDIR(one.st_mode)) throw failure(file_trouble, printable(wanted.in) + " is a directory");
    return processing(wanted).run();
}
