/**
 * wrapper-audio, the command-line host: records the microphone into a WAV file.
 */
#include "standard_error.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>
#include <wrapper_audio.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace {

enum exit_code {
    fine = 0,
    unexpected = 1,
    usage = 2,
    no_input_device = 3,
    open_failed = 4,
    read_failed = 5,
    file_trouble = 6
};

constexpr const char* exit_code_help = "Exit codes:\n"
                                       "  0  recorded, to the end or until Ctrl-C or SIGTERM\n"
                                       "  1  something unexpected, such as no memory\n"
                                       "  2  wrong arguments\n"
                                       "  3  there is no input device\n"
                                       "  4  the input device could not be opened\n"
                                       "  5  the input device failed; the file keeps what was recorded before\n"
                                       "  6  the file could not be created or written";

/** The sizes in a WAV file are 32-bit numbers, and the larger one counts 36 bytes of header. */
constexpr std::uint64_t wav_sample_limit = (0xFFFFFFFFU - 36) / sizeof(std::int16_t);

struct options {
    std::string path;
    std::string device;
    int rate = 16000;
    bool denoise = false;
    std::uint64_t samples = wav_sample_limit;
};

/* ---- Recording ----------------------------------------------------------------------------------------------- */

struct microphone_closer {
    void operator()(wrapper_audio_ctx* ctx) const {
        catch_stderr([ctx] { wrapper_audio_free(ctx); });
    }
};
struct file_closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using microphone = std::unique_ptr<wrapper_audio_ctx, microphone_closer>;
using sound_file = std::unique_ptr<SNDFILE, file_closer>;

struct recording {
    std::uint64_t samples = 0;
    std::uint64_t sum_of_squares = 0;
    int peak = 0;

    void add(std::span<const std::int16_t> pcm) {
        samples += pcm.size();
        for (const int sample : pcm) {
            sum_of_squares += static_cast<std::uint64_t>(sample * sample);
            peak = std::max(peak, std::abs(sample));
        }
    }
};

volatile std::sig_atomic_t interrupted = 0;

extern "C" void interrupt(int) {
    interrupted = 1;
}

/** Ctrl-C ends the recording in good order. A second one ends the program, should the device not deliver at all. */
void end_recording_on_signals() {
    struct sigaction action {};
    action.sa_handler = interrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

/**
 * The longest read that gives a whole number of samples, since a fraction is lost: 100 ms at most rates, 80 ms at
 * 11025 Hz. A multiple of 10 ms, since denoising leaves out the rest.
 */
std::int32_t read_ms(int rate) {
    for (std::int32_t ms = 100; ms > 0; ms -= 10)
        if (static_cast<std::int64_t>(ms) * rate % 1000 == 0) return ms;
    return 100;
}

exit_code open_microphone(const options& wanted, microphone& opened) {
    int capabilities = 3;
    const std::string log = catch_stderr([&] {
        opened.reset(wrapper_audio_init(wanted.rate, wanted.denoise ? 1 : 0, wanted.device.c_str()));
        if (!opened) capabilities = wrapper_audio_capabilities();
    });
    show_library_lines(log, !opened);
    if (!opened) {
        const bool none = capabilities != 3;
        std::fprintf(stderr, "wrapper-audio: %s\n", none ? "no input device" : "the input device could not be opened");
        return none ? no_input_device : open_failed;
    }
    const std::string key = "capture_rate=";
    if (const std::size_t at = log.find(key); wanted.denoise && at != std::string::npos)
        if (const int rate = std::atoi(log.c_str() + at + key.size()); rate != 48000)
            std::fprintf(stderr, "wrapper-audio: not denoised: the device runs at %d Hz, denoising only at 48000 Hz\n",
                         rate);
    return fine;
}

exit_code create_file(const options& wanted, sound_file& created) {
    const int descriptor = open(wanted.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        std::fprintf(stderr, "wrapper-audio: cannot create %s: %s\n", wanted.path.c_str(), std::strerror(errno));
        return file_trouble;
    }
    SF_INFO info{};
    info.samplerate = wanted.rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    created.reset(sf_open_fd(descriptor, SFM_WRITE, &info, SF_TRUE));
    // The header is brought up to date with each write, so that the file is valid however the program ends.
    if (created) sf_command(created.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    if (created && sf_command(created.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0) == 0 && sf_error(created.get()) == 0)
        return fine;
    std::fprintf(stderr, "wrapper-audio: cannot write %s: %s\n", wanted.path.c_str(), sf_strerror(created.get()));
    return file_trouble;
}

exit_code record(wrapper_audio_ctx* ctx, SNDFILE* file, const options& wanted, recording& recorded) {
    std::vector<std::int16_t> pcm(static_cast<std::size_t>(wanted.rate) / 10 + 1);
    level_line line;
    while (interrupted == 0 && recorded.samples < wanted.samples) {
        float rms = 0;
        float peak = 0;
        std::int32_t got = 0;
        const std::string log = catch_stderr([&] {
            got = wrapper_audio_read(ctx, read_ms(wanted.rate), pcm.data(), static_cast<std::int32_t>(pcm.size()), &rms,
                                     &peak);
        });
        if (got <= 0 && interrupted != 0) break;
        if (got <= 0) {
            line.end();
            show_library_lines(log, true);
            return read_failed;
        }
        const auto kept =
            static_cast<sf_count_t>(std::min(static_cast<std::uint64_t>(got), wanted.samples - recorded.samples));
        const sf_count_t written = sf_write_short(file, pcm.data(), kept);
        recorded.add(std::span(pcm).first(static_cast<std::size_t>(written)));
        if (written != kept) return file_trouble;
        line.show(static_cast<double>(recorded.samples) / wanted.rate, rms, peak);
    }
    return fine;
}

int run(const options& wanted) {
    microphone opened;
    if (const exit_code code = open_microphone(wanted, opened); code != fine) return code;
    end_recording_on_signals();
    sound_file file; // created last: a device that does not open leaves an older recording alone
    if (const exit_code code = create_file(wanted, file); code != fine) return code;

    recording recorded;
    exit_code code = record(opened.get(), file.get(), wanted, recorded);
    opened.reset();
    const char* path = wanted.path.c_str();
    if (code == read_failed)
        std::fprintf(stderr, "wrapper-audio: the input device failed; %s keeps what was recorded before\n", path);
    else if (code == file_trouble)
        std::fprintf(stderr, "wrapper-audio: cannot write %s: %s\n", path, sf_strerror(file.get()));
    else if (recorded.samples == wav_sample_limit)
        std::fprintf(stderr, "wrapper-audio: recording ends here: %s is as long as a WAV file can be\n", path);
    if (sf_close(file.release()) != 0 && code == fine) {
        std::fprintf(stderr, "wrapper-audio: cannot write the end of %s\n", path);
        code = file_trouble;
    }
    const double samples = static_cast<double>(recorded.samples);
    const double rms = std::sqrt(static_cast<double>(recorded.sum_of_squares) / std::max(samples, 1.0)) / 32767.0;
    std::printf("%s: %.2f s at %d Hz, peak %.1f dBFS, RMS %.1f dBFS\n", path, samples / wanted.rate, wanted.rate,
                decibels(recorded.peak / 32767.0), decibels(rms));
    return code;
}

/* ---- The command line ---------------------------------------------------------------------------------------- */

std::uint64_t sample_count(double seconds, int rate) {
    const double samples = std::round(seconds * rate);
    if (!(samples >= 1.0)) throw CLI::ValidationError("--seconds", "must be above 0, and long enough for a sample");
    if (samples > static_cast<double>(wav_sample_limit))
        throw CLI::ValidationError("--seconds", "longer than a WAV file can be at this rate (4 GiB)");
    return static_cast<std::uint64_t>(samples);
}

/** Returns an exit code when there is nothing to run. */
std::optional<int> parse(int argc, char** argv, options& wanted) {
    CLI::App app("Records the microphone, with neural noise suppression if you like.", "wrapper-audio");
    app.require_subcommand(1);
    app.footer(exit_code_help);
    CLI::App* command = app.add_subcommand("record", "Record the microphone into a 16-bit mono WAV file");
    command->footer(exit_code_help);
    double seconds = 0;
    command->add_option("FILE", wanted.path, "the file to write; an older one is overwritten")->required();
    command->add_option("--device", wanted.device, "an input device, such as ALSA:default; default: the system's")
        ->type_name("ID");
    // Below 10 Hz no read is long enough for a sample.
    command->add_option("--rate", wanted.rate, "sample rate of the file in Hz, 10 to 384000")
        ->check(CLI::Range(10, 384000).description(""))
        ->type_name("HZ")
        ->capture_default_str();
    command->add_flag("--denoise", wanted.denoise, "suppress noise; works on devices that run at 48000 Hz");
    const CLI::Option* limit =
        command->add_option("--seconds", seconds, "how long to record; default: until Ctrl-C")->type_name("S");
    try {
        app.parse(argc, argv);
        if (limit->count() > 0) wanted.samples = sample_count(seconds, wanted.rate);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? fine : usage; // help ends here, too
    }
    return std::nullopt;
}

/** A file opened later must not become file descriptor 2, where PortAudio's back ends write. */
void fill_standard_descriptors() {
    int descriptor = 0;
    do
        descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

} // namespace

int main(int argc, char** argv) try {
    fill_standard_descriptors();
    options wanted;
    const std::optional<int> code = parse(argc, argv, wanted);
    return code ? *code : run(wanted);
} catch (const std::exception& error) {
    std::fprintf(stderr, "wrapper-audio: %s\n", error.what());
    return unexpected;
}
