/**
 * wrapper-audio process: the library's signal processors on a file.
 */
#include "commands.h"
#include "console.h"
#include "file_names.h"
#include "level.h"
#include "loudness.h"
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

constexpr sf_count_t frames_of_mp3 = 1152; // samples in the largest block

/** Whether the first block of an MP3 file tells how many there are, behind the tag with the title and the pictures. */
bool has_mp3_length(int file) {
    std::array<char, 10> tag{};
    off_t at = 0;
    if (pread(file, tag.data(), tag.size(), 0) == 10 && std::equal(tag.begin(), tag.begin() + 3, "ID3")) {
        for (std::size_t i = 6; i < tag.size(); ++i)
            at = at << 7 | (tag[i] & 0x7F);
        at += 10;
    }
    std::string block(200, '\0');
    const ssize_t got = pread(file, block.data(), block.size(), at);
    if (got < 4 || block[0] != '\xFF' || (block[1] & '\xE6') != '\xE2') return false; // no layer III
    return block.find("Xing") != std::string::npos || block.find("Info") != std::string::npos;
}

/** A sound file, of which one channel is read, all of them, or all mixed to one. */
class source {
public:
    explicit source(const process_options& wanted)
        : name_(wanted.in == "-" ? "standard input" : printable(wanted.in)), channel(wanted.channel) {
        if (wanted.raw_rate) {
            info.format = SF_FORMAT_RAW | SF_ENDIAN_LITTLE |
                          (wanted.raw_bits == sample_size::bits_16   ? SF_FORMAT_PCM_16
                           : wanted.raw_bits == sample_size::bits_24 ? SF_FORMAT_PCM_24
                                                                     : SF_FORMAT_FLOAT);
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
        has_length = !wanted.raw_rate && has_mp3_length(fileno(descriptor.get()));
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
        if (channel > info.channels)
            throw failure(usage, fmt::format("--channel: {} has {} of them", name_, info.channels));
    }

    int rate() const { return info.samplerate; }
    int channels() const { return info.channels; }
    /** 0 where the header does not tell. */
    double seconds() const {
        return info.frames == SF_COUNT_MAX ? 0.0 : static_cast<double>(info.frames) / info.samplerate;
    }

    /** How many of them are read. */
    std::size_t channels_read() const { return channel == every_channel ? static_cast<std::size_t>(info.channels) : 1; }

    /** At most `count` samples of each; fewer at the end. */
    std::vector<std::vector<float>> read(std::size_t count) {
        std::vector<std::vector<float>> pieces(channels_read());
        frames.resize(count * static_cast<std::size_t>(info.channels));
        const sf_count_t got =
            std::max<sf_count_t>(sf_readf_float(file.get(), frames.data(), static_cast<sf_count_t>(count)), 0);
        frames.resize(static_cast<std::size_t>(got * info.channels));
        const auto step = static_cast<std::size_t>(info.channels);
        for (std::size_t at = 0; at < frames.size(); at += step) {
            const auto frame = std::span(frames).subspan(at, step);
            if (channel == mixed_channels)
                take(std::accumulate(frame.begin(), frame.end(), 0.0F) / static_cast<float>(step), pieces[0]);
            for (std::size_t i = 0; channel == every_channel && i < step; ++i)
                take(frame[i], pieces[i]);
            if (channel > 0) take(frame[static_cast<std::size_t>(channel) - 1], pieces[0]);
        }
        seen += got;
        all_channels.add(frames);
        return pieces;
    }

    bool failed() const { return sf_error(file.get()) != SF_ERR_NO_ERROR; }

    /** Why what was read is not all; nothing when it is. */
    std::string breaks_off() const {
        if (failed()) return reason();
        return cut_short || (has_length && seen + frames_of_mp3 < info.frames) ? "its header promises more" : "";
    }
    std::uint64_t spoilt_samples() const { return spoilt; }

    /** Of the channels before they were mixed. */
    float rms() const { return all_channels.rms(); }

    const std::string& name() const { return name_; }

private:
    void take(float sample, std::vector<float>& to) {
        spoilt += std::isfinite(sample) ? 0 : 1;
        to.push_back(std::isfinite(sample) ? sample : 0.0F); // one of those would spoil the filters for good
    }

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
    const int channel;
    SF_INFO info{};
    std::unique_ptr<SNDFILE, closer> file;
    std::vector<float> frames;
    level all_channels;
    sf_count_t seen = 0;
    std::uint64_t spoilt = 0;
    bool cut_short = false;
    bool has_length = false; // of an MP3 file, which libsndfile has looked up; others it has estimated
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
    const terminal screen{STDERR_FILENO};
    const std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
};

class processing {
public:
    explicit processing(const process_options& options);
    exit_code run();

private:
    bool create_file();
    bool finish_file();
    bool weave(const std::vector<std::span<const float>>& channels);
    bool hear(std::span<const float> samples);
    bool write(std::span<const float> samples);
    int output_channels() const { return static_cast<int>(in.channels_read()); }
    double seconds(const level& of, int at) const {
        return static_cast<double>(of.samples()) / static_cast<double>(in.channels_read()) / at;
    }
    double seconds_read() const { return seconds(before, in.rate()); }
    std::size_t samples_at_once() const;
    bool step(bool& at_end);
    std::string how_denoised() const;
    std::string line(const char* when, const std::string& of, const level& measured, int at,
                     const std::string& more = "") const;
    void report() const;
    void say(const std::string& text) const;

    const process_options& wanted;
    source in;
    const int rate;
    std::vector<effect_chain> chains; // one for each channel
    std::optional<loudness_stage> loudness;
    event_log events;
    std::optional<speech_cutter> cutter;
    std::uint64_t heard = 0; // samples by the cutter
    std::unique_ptr<output> out;
    std::string path; // of the file that is being written
    int files = 0;
    level before;
    level after;
    std::vector<float> woven;
};

processing::processing(const process_options& options)
    : wanted(options), in(options),
      rate(options.rate.value_or(nearest_rate(format_of(options.out, options.output), in.rate()))),
      events(options.speech.events, rate) {
    const float denoise = wanted.voice.denoise.value_or(0.0F);
    const bool hears = wanted.speech.any();
    const bool has_voice = rate != in.rate() || denoise > 0 || hears;
    if (hears && (output_channels() > 1 || wanted.loudness))
        throw failure(usage, "what speech decides goes neither with --channel all nor with --loudness");
    if (wanted.voice.denoise && denoise == 0) report_no_denoising(wanted.voice.must_denoise);
    if ((has_voice || wanted.effects.any() || wanted.loudness) && (in.rate() < 100 || in.rate() > 768000))
        throw failure(file_trouble,
                      fmt::format("{} is at {} Hz, and only 100 to 768000 Hz can be converted or filtered", in.name(),
                                  in.rate()));
    for (int channel = 0; channel < output_channels(); ++channel) {
        chains.emplace_back(wanted.effects, rate);
        if (has_voice) chains.back().begin_with({in.rate(), rate, denoise, hears ? 1 : 0, wanted.voice.conversion});
    }
    if (hears)
        cutter.emplace(wanted.speech, rate, events,
                       speech_sink{.write = [this](auto samples) { return write(samples); },
                                   .begin_utterance = [this] { return create_file(); },
                                   .end_utterance = [this] { return finish_file(); }});
}

bool processing::create_file() {
    ++files;
    after = {};
    path = wanted.speech.split ? expanded(numbered(wanted.out, files)) : wanted.out;
    out = create_output(path, {rate, output_channels()}, wanted.output);
    return true;
}

/** Returns whether all of it arrived. */
bool processing::finish_file() {
    if (!out->close()) return false;
    say(line("after ", printable(path), after, rate, how_denoised()));
    out.reset();
    return true;
}

/** So many that neither their channels nor what a low rate is converted to take much memory. */
std::size_t processing::samples_at_once() const {
    if (cutter) return static_cast<std::size_t>(std::max(1, in.rate() / 100)) * 3; // 30 ms, to end where it is silent
    constexpr std::int64_t plenty = 65536;
    const std::int64_t growth = std::max(1, rate / in.rate());
    return static_cast<std::size_t>(std::max<std::int64_t>(1, plenty / growth / in.channels()));
}

/** Reads a piece and writes what it gives. Returns false when the output failed. */
bool processing::step(bool& at_end) {
    const std::vector<std::vector<float>> pieces = in.read(samples_at_once());
    // Some damaged files could be read on, but the next read would forget the error.
    at_end = pieces[0].size() < samples_at_once() || in.failed();
    std::vector<std::span<const float>> channels;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        before.add(pieces[i]);
        channels.push_back(chains[i].process(pieces[i]));
    }
    if (!weave(channels)) return false;
    at_end = at_end || (cutter && cutter->is_over());
    if (!at_end) return true;
    std::transform(chains.begin(), chains.end(), channels.begin(), [](effect_chain& each) { return each.finish(); });
    return weave(channels) && (!cutter || cutter->finish());
}

/** Puts channels of one length side by side, and writes or keeps them. */
bool processing::weave(const std::vector<std::span<const float>>& channels) {
    std::span<const float> samples = channels[0];
    if (channels.size() > 1) {
        woven.clear();
        for (std::size_t at = 0; at < channels[0].size(); ++at)
            for (const auto& each : channels)
                woven.push_back(each[at]);
        samples = woven;
    }
    if (cutter) return hear(samples);
    if (!loudness) return write(samples);
    loudness->add(samples);
    return true;
}

/** Lets speech decide. */
bool processing::hear(std::span<const float> samples) {
    events.listen(heard, samples);
    heard += samples.size();
    return cutter->add(samples, chains[0].take_speech());
}

bool processing::write(std::span<const float> samples) {
    const std::size_t written = out->write(samples);
    after.add(samples.first(written));
    return written == samples.size();
}

exit_code processing::run() {
    const auto limit = static_cast<double>(sample_limit(format_of(wanted.out, wanted.output)));
    if (in.seconds() * rate > limit)
        throw failure(file_trouble, fmt::format("{} is too long for a file of this kind: {} at {} Hz; WAV holds more",
                                                in.name(), time_text(in.seconds()), rate));
    if (wanted.loudness) loudness.emplace(*wanted.loudness, rate, output_channels());
    stop_on_signals();
    if (!wanted.speech.split) create_file();
    progress bar;
    bool good = true;
    for (bool at_end = false; good && !at_end && !stop_requested();) {
        good = step(at_end);
        bar.show(seconds_read(), in.seconds());
    }
    const auto to_output = [this](std::span<const float> samples) { return write(samples); };
    if (loudness && good) good = loudness->finish(to_output) || stop_requested();
    status_line::finish();
    const bool closed = !out || out->close();
    if (out && out->reader_gone()) return fine;
    if (!good || !closed)
        throw failure(file_trouble, fmt::format("cannot write {}: {}", printable(path), out->reason()));
    report();
    if (cutter && !cutter->has_spoken()) console::note("nobody spoke");
    if (const std::string reason = in.breaks_off(); !reason.empty() && !stop_requested())
        throw failure(input_breaks_off,
                      fmt::format("{} breaks off after {}: {}", in.name(), time_text(seconds_read()), reason));
    return events.failed() ? file_trouble : fine;
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
    if (in.channels() > 1 && wanted.channel == mixed_channels) {
        console::note(fmt::format("{} channels were mixed to one", in.channels()));
        if (before.rms() < 0.1F * in.rms())
            console::note("they cancel each other out: take one of them, such as --channel 1");
    }
    if (rate != in.rate() && !wanted.rate)
        console::note(fmt::format("converted to {} Hz, as files of this kind cannot have {} Hz", rate, in.rate()));
    if (after.peak() > 1.0F && wanted.output.bits != sample_size::real)
        console::note(
            fmt::format("the result was cut at full scale: its peak would be at {} dBFS", decibel_text(after.peak())));
    if (loudness && !loudness->shortfall().empty())
        console::note(fmt::format("{}: {}", printable(wanted.out), loudness->shortfall()));
    std::string text = line("before", in.name(), before, in.rate());
    if (!wanted.speech.split)
        text += line("after ", printable(wanted.out), after, rate, how_denoised() + (loudness ? loudness->text() : ""));
    say(text);
}

std::string processing::line(const char* when, const std::string& of, const level& measured, int at,
                             const std::string& more) const {
    return fmt::format("{}  {:.2f} s at {} Hz, peak {} dBFS, RMS {} dBFS{}: {}\n", when, seconds(measured, at), at,
                       decibel_text(measured.peak()), decibel_text(measured.rms()), more, of);
}

/** On standard output, unless something else is written there. */
void processing::say(const std::string& text) const {
    if (console::is_quiet()) return;
    if (wanted.out == "-" || wanted.speech.events == "-")
        console::write_all(STDERR_FILENO, text);
    else
        print(text);
}

} // namespace

exit_code process(const process_options& wanted) {
    check(wanted.speech, wanted.out);
    format_of(wanted.out, wanted.output);
    struct stat one {};
    struct stat other {};
    if (stat(wanted.in.c_str(), &one) == 0 && stat(wanted.out.c_str(), &other) == 0 && S_ISREG(one.st_mode) &&
        one.st_dev == other.st_dev && one.st_ino == other.st_ino)
        throw failure(usage, "the input and the output are the same file, which would be lost");
    return processing(wanted).run();
}
