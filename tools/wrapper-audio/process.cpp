/**
 * wrapper-audio process: the library's signal processors on a file.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "output.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

namespace {

struct file_closer {
    void operator()(std::FILE* open) const { static_cast<void>(std::fclose(open)); } // nothing was written
};
using open_file = std::unique_ptr<std::FILE, file_closer>;

/** The input as a file of its own, where it comes out of a pipe: libsndfile must be able to go back. */
open_file spooled(int from, const std::string& name) {
    open_file file(std::tmpfile());
    std::array<char, 65536> piece{};
    for (ssize_t got = 0; file;) {
        got = read(from, piece.data(), piece.size());
        if (got < 0) throw failure(file_trouble, fmt::format("cannot read {}: {}", name, std::strerror(errno)));
        if (got == 0 && std::fseek(file.get(), 0, SEEK_SET) == 0) return file; // which brings everything into it
        if (got == 0 || std::fwrite(piece.data(), 1, static_cast<std::size_t>(got), file.get()) == 0) break;
    }
    throw failure(file_trouble, fmt::format("cannot keep {} in a temporary file: {}", name, std::strerror(errno)));
}

/** Whether the header of a WAV file names a size that the file does not have. That of a stream is not known. */
bool is_cut_short(int wav) {
    std::array<unsigned char, 8> header{};
    struct stat file {};
    if (fstat(wav, &file) != 0 || pread(wav, header.data(), header.size(), 0) != 8) return false;
    if (!std::equal(header.begin(), header.begin() + 4, "RIFF")) return false;
    const std::int64_t size = header[4] | header[5] << 8 | header[6] << 16 | std::int64_t{header[7]} << 24;
    constexpr std::int64_t unknown = 0x7FFFF000; // and above
    return size < unknown && size + 8 > file.st_size;
}

/** A sound file, read as mono. */
class source {
public:
    explicit source(const process_options& wanted)
        : name_(wanted.in == "-" ? "standard input" : printable(wanted.in)), channel(wanted.channel) {
        if (wanted.raw_rate) {
            info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
            info.samplerate = *wanted.raw_rate;
            info.channels = wanted.raw_channels;
        }
        if (wanted.in == "-" && isatty(STDIN_FILENO) == 1)
            throw failure(usage, "sound is not read from a terminal: name a file, or send it through a pipe");
        open_file descriptor(wanted.in == "-" ? fdopen(dup(STDIN_FILENO), "rb") : std::fopen(wanted.in.c_str(), "rbe"));
        if (!descriptor) throw failure(file_trouble, fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
        struct stat kind {};
        fstat(fileno(descriptor.get()), &kind);
        if (S_ISDIR(kind.st_mode)) throw failure(file_trouble, name_ + " is a directory");
        if (!S_ISREG(kind.st_mode)) descriptor = spooled(fileno(descriptor.get()), name_);
        cut_short = !wanted.raw_rate && is_cut_short(fileno(descriptor.get()));
        // By its name where it has one, from which libsndfile knows formats that have no header.
        file.reset(S_ISREG(kind.st_mode) && wanted.in != "-"
                       ? sf_open(wanted.in.c_str(), SFM_READ, &info)
                       : sf_open_fd(dup(fileno(descriptor.get())), SFM_READ, &info, SF_TRUE));
        if (!file)
            throw failure(file_trouble, fmt::format("cannot read {}: {}{}", name_, reason(),
                                                    sf_error(nullptr) == SF_ERR_UNRECOGNISED_FORMAT
                                                        ? "; of raw samples --raw-rate tells the rate"
                                                        : ""));
        if (info.samplerate < 1 || info.channels < 1)
            throw failure(file_trouble, fmt::format("cannot read {}: its header makes no sense", name_));
        if (channel && *channel > info.channels)
            throw failure(usage, fmt::format("--channel: {} has {} of them", name_, info.channels));
    }

    int rate() const { return info.samplerate; }
    int channels() const { return info.channels; }
    double seconds() const { return static_cast<double>(info.frames) / info.samplerate; }

    /** At most `count` samples; fewer at the end. */
    std::vector<float> read(std::size_t count) {
        std::vector<float> mono;
        frames.resize(count * static_cast<std::size_t>(info.channels));
        const sf_count_t got =
            std::max<sf_count_t>(sf_readf_float(file.get(), frames.data(), static_cast<sf_count_t>(count)), 0);
        for (sf_count_t frame = 0; frame < got; ++frame) {
            const auto first = frames.begin() + static_cast<std::ptrdiff_t>(frame * info.channels);
            const float sample =
                channel ? first[*channel - 1]
                        : std::accumulate(first, first + info.channels, 0.0F) / static_cast<float>(info.channels);
            spoilt += std::isfinite(sample) ? 0 : 1;
            mono.push_back(std::isfinite(sample) ? sample : 0.0F); // one of those would spoil the filters for good
        }
        all_channels.add(std::span(frames).first(static_cast<std::size_t>(got * info.channels)));
        return mono;
    }

    bool failed() const { return sf_error(file.get()) != SF_ERR_NO_ERROR; }

    /** Why what was read is not all; nothing when it is. */
    std::string breaks_off() const {
        if (failed()) return reason();
        return cut_short ? "its header promises more" : "";
    }
    std::uint64_t spoilt_samples() const { return spoilt; }

    /** Of the channels before they were mixed. */
    float rms() const { return all_channels.rms(); }

    const std::string& name() const { return name_; }

private:
    std::string reason() const {
        std::string text = sf_strerror(file.get());
        while (text.ends_with('\n') || text.ends_with('.'))
            text.pop_back();
        return text;
    }

    struct closer {
        void operator()(SNDFILE* open) const { sf_close(open); }
    };
    const std::string name_;
    const std::optional<int> channel;
    SF_INFO info{};
    std::unique_ptr<SNDFILE, closer> file;
    std::vector<float> frames;
    level all_channels;
    std::uint64_t spoilt = 0;
    bool cut_short = false;
};

/**
 * Floats as the 16 bits of sound files, whose full scale is 32768: what came from a file and was not changed returns
 * exactly.
 */
void to_16_bits(std::span<const float> floats, std::vector<std::int16_t>& samples) {
    samples.resize(floats.size());
    std::transform(floats.begin(), floats.end(), samples.begin(), [](float value) {
        return static_cast<std::int16_t>(std::lrint(std::clamp(value * 32768.0F, -32768.0F, 32767.0F)));
    });
}

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
    const terminal screen{STDERR_FILENO};
    const std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
};

class processing {
public:
    explicit processing(const process_options& options);
    exit_code run();

private:
    bool write(std::span<const float> samples);
    std::size_t samples_at_once() const;
    bool step(bool& at_end);
    std::string how_denoised() const;
    void report() const;

    const process_options& wanted;
    source in;
    const int rate;
    effect_chain chain;
    std::unique_ptr<output> out;
    level before;
    level after;
    std::vector<std::int16_t> rounded;
};

processing::processing(const process_options& options)
    : wanted(options), in(options), rate(options.rate.value_or(in.rate())) {
    const float denoise = wanted.voice.denoise.value_or(0.0F);
    const bool has_voice = rate != in.rate() || denoise > 0;
    if (wanted.voice.denoise && denoise == 0) report_no_denoising(wanted.voice.must_denoise);
    if ((has_voice || wanted.effects.any()) && (in.rate() < 100 || in.rate() > 768000))
        throw failure(file_trouble,
                      fmt::format("{} is at {} Hz, and only 100 to 768000 Hz can be converted or filtered", in.name(),
                                  in.rate()));
    chain = effect_chain(wanted.effects, rate);
    if (has_voice) chain.begin_with({in.rate(), rate, denoise, 0, wanted.voice.conversion});
}

/** So many that neither their channels nor what a low rate is converted to take much memory. */
std::size_t processing::samples_at_once() const {
    constexpr std::int64_t plenty = 65536;
    const std::int64_t growth = std::max(1, rate / in.rate());
    return static_cast<std::size_t>(std::max<std::int64_t>(1, plenty / growth / in.channels()));
}

/** Reads a piece and writes what it gives. Returns false when the output failed. */
bool processing::step(bool& at_end) {
    const std::vector<float> piece = in.read(samples_at_once());
    // Some damaged files could be read on, but the next read would forget the error.
    at_end = piece.size() < samples_at_once() || in.failed();
    before.add(piece);
    if (!write(chain.process(piece))) return false;
    return !at_end || write(chain.finish());
}

bool processing::write(std::span<const float> samples) {
    to_16_bits(samples, rounded);
    const std::size_t written = out->write(rounded);
    after.add(samples.first(written));
    return written == rounded.size();
}

exit_code processing::run() {
    const auto limit = static_cast<double>(sample_limit(format_of(wanted.out, wanted.output)));
    if (in.seconds() * rate > limit)
        throw failure(file_trouble, fmt::format("{} is too long for a file of this kind: {} at {} Hz; FLAC holds more",
                                                in.name(), time_text(in.seconds()), rate));
    stop_on_signals();
    out = create_output(wanted.out, rate, wanted.output);
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
    if (const std::string reason = in.breaks_off(); !reason.empty() && !stop_requested())
        throw failure(input_breaks_off,
                      fmt::format("{} breaks off after {}: {}", in.name(),
                                  time_text(static_cast<double>(before.samples()) / in.rate()), reason));
    return fine;
}

/** For the closing line; nothing where it was not wanted. */
std::string processing::how_denoised() const {
    if (!wanted.voice.denoise) return "";
    const auto how = *wanted.voice.denoise == 0 ? WRAPPER_AUDIO_DENOISING_OFF
                     : in.rate() == 48000       ? WRAPPER_AUDIO_DENOISING_NATIVE
                                                : WRAPPER_AUDIO_DENOISING_CONVERTED;
    return ", " + denoising_text(how, in.rate(), "the file's");
}

void processing::report() const {
    if (stop_requested()) console::note(fmt::format("stopped early; {} is not complete", printable(wanted.out)));
    if (in.spoilt_samples() > 0)
        console::note(
            fmt::format("{} samples of {} were no numbers and count as silence", in.spoilt_samples(), in.name()));
    if (in.channels() > 1 && !wanted.channel) {
        console::note(fmt::format("{} channels were mixed to one", in.channels()));
        if (before.rms() < 0.1F * in.rms())
            console::note("they cancel each other out: take one of them, such as --channel 1");
    }
    if (after.peak() > 1.0F)
        console::note(
            fmt::format("the result was cut at full scale: its peak would be at {} dBFS", decibel_text(after.peak())));
    if (console::is_quiet()) return;
    const auto line = [](const char* when, const std::string& path, const level& measured, int at,
                         const std::string& more = "") {
        return fmt::format("{}  {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}: {}\n", when,
                           static_cast<double>(measured.samples()) / at, at, decibel_text(measured.peak()),
                           decibel_text(measured.rms()), more, path);
    };
    const std::string text = line("before", in.name(), before, in.rate()) +
                             line("after ", printable(wanted.out), after, rate, how_denoised());
    if (wanted.out == "-")
        console::write_all(STDERR_FILENO, text);
    else
        print(text);
}

} // namespace

exit_code process(const process_options& wanted) {
    format_of(wanted.out, wanted.output);
    struct stat one {};
    struct stat other {};
    if (stat(wanted.in.c_str(), &one) == 0 && stat(wanted.out.c_str(), &other) == 0 && S_ISREG(one.st_mode) &&
        one.st_dev == other.st_dev && one.st_ino == other.st_ino)
        throw failure(usage, "the input and the output are the same file, which would be lost");
    return processing(wanted).run();
}
