#include "output.h"

#include "disk_sync.h"
#include "failure.h"
#include "stopping.h"
#include "text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sndfile.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

static_assert(std::endian::native == std::endian::little, "raw samples are written as they lie in memory");

namespace {

std::string lower_case_extension(const std::string& path) {
    const std::size_t name = path.rfind('/') + 1; // npos + 1 is 0
    const std::size_t dot = path.find_last_of('.');
    std::string extension = dot == std::string::npos || dot <= name ? "" : path.substr(dot);
    for (char& letter : extension)
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    return extension;
}

/** Samples as they lie in a file of whole numbers. Buffers are kept for the next ones. */
class number_maker {
public:
    explicit number_maker(bool from_microphone) : library_scale(from_microphone) {}

    /**
     * In files full scale is 32768: what came from one and was not changed returns exactly. In the library it is 32767.
     */
    std::span<const std::int16_t> bits_16(std::span<const float> floats) {
        shorts.resize(floats.size());
        if (library_scale)
            wrapper_audio_f32_to_s16(floats.data(), floats.size(), shorts.data());
        else
            std::transform(floats.begin(), floats.end(), shorts.begin(), [](float value) {
                return static_cast<std::int16_t>(std::lrint(std::clamp(value * 32768.0F, -32768.0F, 32767.0F)));
            });
        return shorts;
    }

    /** In the upper 24 bits. */
    std::span<const std::int32_t> bits_24(std::span<const float> floats) {
        ints.resize(floats.size());
        std::transform(floats.begin(), floats.end(), ints.begin(), [](float value) {
            return static_cast<std::int32_t>(std::lrint(std::clamp(value * 8388608.0F, -8388608.0F, 8388607.0F))) * 256;
        });
        return ints;
    }

private:
    const bool library_scale;
    std::vector<std::int16_t> shorts;
    std::vector<std::int32_t> ints;
};

constexpr float default_quality = 4; // of Vorbis

bool is_lossy(sound_format format) {
    return format == sound_format::ogg || format == sound_format::opus || format == sound_format::mp3;
}

int libsndfile_format(sound_format format, sample_size bits) {
    switch (format) {
    case sound_format::ogg:
        return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    case sound_format::opus:
        return SF_FORMAT_OGG | SF_FORMAT_OPUS;
    case sound_format::mp3:
        return SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
    default:
        return (format == sound_format::flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV) |
               (bits == sample_size::bits_16   ? SF_FORMAT_PCM_16
                : bits == sample_size::bits_24 ? SF_FORMAT_PCM_24
                                               : SF_FORMAT_FLOAT);
    }
}

/** The bits per second between which libsndfile's compression level, 1 to 0, chooses. */
std::pair<int, int> bitrates(sound_format format, const stream_shape& shape) {
    if (format == sound_format::opus) return {6000, 6000 + 250000 * shape.channels};
    if (shape.rate >= 32000) return {32000, 320000};
    return {8000, shape.rate >= 16000 ? 160000 : 64000};
}

std::size_t bytes_of(sample_size bits) {
    return bits == sample_size::bits_16 ? 2 : bits == sample_size::bits_24 ? 3 : 4;
}

/** A WAV file of 4 GiB goes on as RF64, for whose longer header it has room from the start. */
class sound_file : public output {
public:
    sound_file(int to, const stream_shape& shape, sound_format format, const output_options& wanted)
        : descriptor(to), numbers(shape.from_microphone), kind(format),
          bits(wanted.bits.value_or(sample_size::bits_16)), sync(to, wanted.sync) {
        info.samplerate = shape.rate;
        info.channels = shape.channels;
        info.format = libsndfile_format(format, bits);
        open_file();
        if (file == nullptr) return;
        set_compression(wanted, shape);
        if (format != sound_format::wav) return;
        leave_room_in_header();
        keep_header_up_to_date();
    }
    sound_file(const sound_file&) = delete;
    sound_file& operator=(const sound_file&) = delete;
    ~sound_file() override { sound_file::close(); }

    std::size_t write(std::span<const float> samples) override {
        const auto count = static_cast<sf_count_t>(samples.size());
        if (!has_room_for(count) && !go_on_as_rf64()) return 0;
        const sf_count_t written = is_lossy(kind)              ? write_limited(samples)
                                   : bits == sample_size::real ? sf_write_float(file, samples.data(), count)
                                   : bits == sample_size::bits_24
                                       ? sf_write_int(file, numbers.bits_24(samples).data(), count)
                                       : sf_write_short(file, numbers.bits_16(samples).data(), count);
        remember_error();
        if (written <= 0) return 0;
        frames_written += static_cast<std::uint64_t>(written / info.channels);
        note_length();
        return static_cast<std::size_t>(written);
    }

    bool close() override {
        if (descriptor < 0) return true;
        const bool closed = close_file();
        int result = ::close(std::exchange(descriptor, -1)) == 0 ? 0 : errno;
        if (const int disk_error = sync.finish(); result == 0) result = disk_error;
        if (result != 0 && error.empty()) error = std::strerror(result);
        return closed && result == 0;
    }

    std::uint64_t capacity() const override { return sample_limit(kind); }
    std::string reason() const override { return error; }

    /** Whether the header could be written. */
    bool is_good() {
        remember_error();
        return file != nullptr && error.empty();
    }

private:
    void open_file() {
        lseek(descriptor, 0, SEEK_SET); // what lies before its place, libsndfile takes for something else
        file = sf_open_fd(descriptor, SFM_WRITE, &info, SF_FALSE);
    }

    bool close_file() {
        const int result = file != nullptr ? sf_close(std::exchange(file, nullptr)) : 0;
        if (result != 0 && error.empty()) error = sf_error_number(result);
        return result == 0;
    }

    /** The header is valid after each write, however the program ends. */
    void keep_header_up_to_date() {
        sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
        sf_command(file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    }

    /** A chunk that every reader passes over. */
    void leave_room_in_header() {
        const unsigned without = bits == sample_size::real ? 56 : 44; // bytes
        std::array<char, rf64_header> zeros{};
        SF_CHUNK_INFO room{.id = "JUNK", .id_size = 4, .datalen = rf64_header - without - 8, .data = zeros.data()};
        sf_command(file, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
        sf_set_chunk(file, &room);
    }

    /** The sizes in a WAV file are 32-bit numbers, and the larger one counts all but the first 8 bytes. */
    bool has_room_for(sf_count_t samples) const {
        if ((info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV) return true;
        const std::uint64_t all =
            frames_written * static_cast<unsigned>(info.channels) + static_cast<std::uint64_t>(samples);
        return all * bytes_of(bits) <= std::numeric_limits<std::uint32_t>::max() - (rf64_header - 8);
    }

    bool go_on_as_rf64() {
        if (!close_file()) return false;
        info.format = (info.format & ~SF_FORMAT_TYPEMASK) | SF_FORMAT_RF64;
        open_file();
        remember_error();
        if (file == nullptr) return false;
        sf_seek(file, static_cast<sf_count_t>(frames_written), SEEK_SET);
        keep_header_up_to_date();
        remember_error();
        return error.empty();
    }

    void set_compression(const output_options& wanted, const stream_shape& shape) {
        double page = 500; // ms that an Opus file lacks when the program is killed, at most
        if (kind == sound_format::opus) sf_command(file, SFC_SET_OGG_PAGE_LATENCY_MS, &page, sizeof page);
        double quality = wanted.quality.value_or(default_quality) / 10;
        if (kind == sound_format::ogg) sf_command(file, SFC_SET_VBR_ENCODING_QUALITY, &quality, sizeof quality);
        if (!wanted.bitrate) return;
        // On the average: with a constant one libsndfile leaves out the length, by which a file that was cut is noticed.
        int mode = SF_BITRATE_MODE_AVERAGE;
        if (kind == sound_format::mp3) sf_command(file, SFC_SET_BITRATE_MODE, &mode, sizeof mode);
        const auto [lowest, highest] = bitrates(kind, shape);
        double level = static_cast<double>(highest - *wanted.bitrate) / (highest - lowest);
        sf_command(file, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
    }

    /** Tells the header of a FLAC file how many samples are in the blocks that the encoder has finished so far. */
    void note_length() {
        constexpr std::uint64_t block = 4096; // samples, at the encoder's usual level
        constexpr off_t place = 21;           // in the file: four bits of the samples' size, and 36 for this number
        const std::uint64_t length = frames_written > 0 ? (frames_written - 1) / block * block : 0;
        if (kind != sound_format::flac || length == length_noted) return;
        const std::uint64_t size = bits == sample_size::bits_16 ? 15 : 23; // one less
        std::array<std::uint8_t, 5> bytes{};
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<std::uint8_t>((length | size << 36) >> (8 * (bytes.size() - 1 - i)));
        if (pwrite(descriptor, bytes.data(), bytes.size(), place) == 5) length_noted = length;
    }

    /** What is beyond full scale is no sound for the encoders. */
    sf_count_t write_limited(std::span<const float> samples) {
        limited.resize(samples.size());
        std::transform(samples.begin(), samples.end(), limited.begin(),
                       [](float value) { return std::clamp(value, -1.0F, 1.0F); });
        return sf_write_float(file, limited.data(), static_cast<sf_count_t>(limited.size()));
    }

    void remember_error() {
        if (error.empty() && sf_error(file) != SF_ERR_NO_ERROR) error = sf_strerror(file);
        while (error.ends_with('\n') || error.ends_with('.'))
            error.pop_back();
    }

    static constexpr unsigned rf64_header = 104; // bytes, as libsndfile writes it

    int descriptor;
    SNDFILE* file = nullptr;
    SF_INFO info{};
    std::uint64_t frames_written = 0;
    std::uint64_t length_noted = 0;
    number_maker numbers;
    const sound_format kind;
    const sample_size bits;
    std::vector<float> limited;
    std::string error;
    disk_sync sync;
};

/** The header of a WAV file whose end nobody knows yet: the largest sizes, which readers take for "until the end". */
std::array<std::byte, 44> endless_wav_header(const stream_shape& shape, sample_size bits) {
    std::array<std::byte, 44> header{};
    std::size_t at = 0;
    const auto text = [&](std::string_view letters) { at += letters.copy(reinterpret_cast<char*>(&header[at]), 4); };
    const auto number = [&](std::size_t value, std::size_t bytes) {
        std::memcpy(&header[at], &value, bytes);
        at += bytes;
    };
    constexpr std::uint32_t unknown = 0xFFFFFFFF;
    const std::size_t rate = static_cast<std::uint32_t>(shape.rate);
    const std::size_t channels = static_cast<std::uint32_t>(shape.channels);
    const std::size_t frame = channels * bytes_of(bits);
    text("RIFF"), number(unknown, 4), text("WAVE");
    text("fmt "), number(16, 4), number(bits == sample_size::real ? 3 : 1, 2), number(channels, 2);
    number(rate, 4), number(rate * frame, 4);
    number(frame, 2), number(8 * bytes_of(bits), 2);
    text("data"), number(unknown, 4);
    return header;
}

class raw_samples : public output {
public:
    raw_samples(int to, const stream_shape& shape, const output_options& wanted)
        : descriptor(to), numbers(shape.from_microphone), bits(wanted.bits.value_or(sample_size::bits_16)),
          sync(to, wanted.sync) {}
    raw_samples(const raw_samples&) = delete;
    raw_samples& operator=(const raw_samples&) = delete;
    ~raw_samples() override { raw_samples::close(); }

    std::size_t write(std::span<const float> samples) override {
        return write_bytes(encoded(samples)) / bytes_of(bits);
    }

    std::size_t write_bytes(std::span<const std::byte> bytes) {
        std::size_t done = 0;
        while (done < bytes.size() && wait_for_room()) {
            // No more than a pipe is sure to take at once when there is room.
            const ssize_t wrote =
                ::write(descriptor, bytes.data() + done, std::min<std::size_t>(bytes.size() - done, PIPE_BUF));
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote < 0) {
                error = std::strerror(errno);
                gone = errno == EPIPE;
                break;
            }
            done += static_cast<std::size_t>(wrote);
        }
        return done;
    }

    bool close() override {
        if (descriptor < 0) return true;
        int result = ::close(descriptor) == 0 ? 0 : errno;
        if (const int disk_error = sync.finish(); result == 0) result = disk_error;
        if (result != 0) error = std::strerror(result);
        descriptor = -1;
        return result == 0;
    }

    std::string reason() const override { return error; }
    bool reader_gone() const override { return gone; }

private:
    std::span<const std::byte> encoded(std::span<const float> samples) {
        if (bits == sample_size::real) return std::as_bytes(samples);
        if (bits == sample_size::bits_16) return std::as_bytes(numbers.bits_16(samples));
        packed.clear();
        for (const std::int32_t& number : numbers.bits_24(samples)) {
            const auto bytes = std::as_bytes(std::span(&number, 1));
            packed.insert(packed.end(), bytes.begin() + 1, bytes.end());
        }
        return packed;
    }

    /** Returns false when the program was told to stop and the reader takes nothing for a second. */
    bool wait_for_room() {
        constexpr int often_enough = 100; // ms, to notice a signal soon
        pollfd room{descriptor, POLLOUT, 0};
        for (int waited = 0; poll(&room, 1, often_enough) <= 0;) {
            if (!stop_requested()) continue;
            waited += often_enough;
            if (waited <= 1000) continue;
            error = "its reader takes no more";
            return false;
        }
        return true;
    }

    int descriptor;
    number_maker numbers;
    const sample_size bits;
    std::vector<std::byte> packed;
    std::string error;
    bool gone = false;
    disk_sync sync;
};

const char* name_of(sound_format format) {
    constexpr std::array names{"WAV", "FLAC", "raw", "Vorbis", "Opus", "MP3"};
    return names.at(static_cast<std::size_t>(format));
}

/** A sequence of samples for what cannot be written in two places, such as a pipe. */
std::unique_ptr<output> make_sequence(int descriptor, const std::string& name, const stream_shape& shape,
                                      sound_format format, const output_options& wanted) {
    auto samples = std::make_unique<raw_samples>(descriptor, shape, wanted);
    const sample_size bits = wanted.bits.value_or(sample_size::bits_16);
    if (format != sound_format::wav && format != sound_format::raw)
        throw failure(usage,
                      fmt::format("{} is a pipe, which cannot take {}: use --type wav or raw", name, name_of(format)));
    if (format == sound_format::wav && samples->write_bytes(endless_wav_header(shape, bits)) < 44 &&
        !samples->reader_gone())
        throw failure(file_trouble, fmt::format("cannot write {}: {}", name, samples->reason()));
    return samples;
}

int take_standard_output() {
    const int descriptor = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) throw failure(file_trouble, "standard output is closed");
    return descriptor;
}

/** Opens the file for this program alone, and empties it. */
int take_file(const std::string& path, bool keeps_older) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (keeps_older ? O_EXCL : 0), 0666);
    if (descriptor < 0 && errno == EINTR)
        throw failure(file_trouble, fmt::format("stopped before anybody read from {}", printable(path)));
    if (descriptor < 0 && errno == EEXIST)
        throw failure(file_trouble, fmt::format("{} is there already, and --no-clobber keeps it", printable(path)));
    if (descriptor < 0)
        throw failure(file_trouble, path.empty()
                                        ? "cannot create a file without a name"
                                        : fmt::format("cannot create {}: {}", printable(path), std::strerror(errno)));
    struct stat opened {};
    fstat(descriptor, &opened);
    if (!S_ISREG(opened.st_mode)) return descriptor;
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        close(descriptor);
        throw failure(file_trouble, fmt::format("another program is writing {}", printable(path)));
    }
    if (ftruncate(descriptor, 0) != 0) {
        const int error = errno;
        close(descriptor);
        throw failure(file_trouble, fmt::format("cannot empty {}: {}", printable(path), std::strerror(error)));
    }
    return descriptor;
}

sound_format format_by_name(const std::string& path) {
    const std::string extension = lower_case_extension(path);
    if (path == "-" || extension == ".raw" || extension == ".pcm") return sound_format::raw;
    if (extension == ".flac") return sound_format::flac;
    if (extension == ".ogg" || extension == ".oga") return sound_format::ogg;
    if (extension == ".opus") return sound_format::opus;
    if (extension == ".mp3") return sound_format::mp3;
    if (extension == ".wav" || extension.empty()) return sound_format::wav;
    throw failure(usage,
                  fmt::format("{}: cannot write files of this kind; the name should end in .wav, .flac, .opus, .ogg, "
                              ".mp3 or .raw, or --type should say which",
                              printable(path)));
}

/** Throws a failure for what the format does not have. */
void check_shape(sound_format format, const stream_shape& shape, const output_options& wanted) {
    if (const int nearest = nearest_rate(format, shape.rate); nearest != shape.rate)
        throw failure(usage, fmt::format("{} has no {} Hz: try --rate {}", name_of(format), shape.rate, nearest));
    if (!wanted.bitrate) return;
    const auto [lowest, highest] = bitrates(format, shape);
    if (*wanted.bitrate < lowest || *wanted.bitrate > highest)
        throw failure(usage, fmt::format("--bitrate: {} at {} Hz has {} to {} bits per second", name_of(format),
                                         shape.rate, lowest, highest));
}

} // namespace

sound_format format_of(const std::string& path, const output_options& wanted) {
    const sound_format format = wanted.format ? *wanted.format : format_by_name(path);
    if (wanted.bits && is_lossy(format))
        throw failure(
            usage, fmt::format("--bits: {} has no samples of a size; --bitrate says how good it is", name_of(format)));
    if (wanted.bits == sample_size::real && format == sound_format::flac)
        throw failure(usage, "--bits: FLAC has 16 or 24; WAV and raw have floats");
    if (wanted.quality && format != sound_format::ogg)
        throw failure(usage, fmt::format("--quality: only Vorbis has one, not {}", name_of(format)));
    if (wanted.bitrate && format != sound_format::opus && format != sound_format::mp3)
        throw failure(usage,
                      fmt::format("--bitrate: only Opus and MP3 have one that can be chosen, not {}", name_of(format)));
    return format;
}

int nearest_rate(sound_format format, int rate) {
    static constexpr std::array opus{8000, 12000, 16000, 24000, 48000};
    static constexpr std::array mp3{8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
    if (format == sound_format::ogg) return std::min(rate, 192000);
    const auto rates = format == sound_format::opus  ? std::span<const int>(opus)
                       : format == sound_format::mp3 ? std::span<const int>(mp3)
                                                     : std::span<const int>();
    if (rates.empty()) return rate;
    const auto above = std::lower_bound(rates.begin(), rates.end(), rate);
    return above != rates.end() ? *above : rates.back();
}

std::uint64_t sample_limit(sound_format format) {
    return format == sound_format::flac ? (std::uint64_t{1} << 36) - 1 : no_limit; // its header has 36 bits
}

std::unique_ptr<output> create_output(const std::string& path, const stream_shape& shape,
                                      const output_options& wanted) {
    const sound_format format = format_of(path, wanted);
    check_shape(format, shape, wanted);
    const int descriptor = path == "-" ? take_standard_output() : take_file(path, wanted.keeps_older);
    if (isatty(descriptor) == 1)
        throw failure(usage, "sound is not written to a terminal: send it into a pipe or a file");
    const bool has_places = lseek(descriptor, 0, SEEK_CUR) == 0 && (fcntl(descriptor, F_GETFL) & O_APPEND) == 0;
    const std::string name = path == "-" ? "standard output" : printable(path);
    if (format == sound_format::raw || !has_places) return make_sequence(descriptor, name, shape, format, wanted);
    auto file = std::make_unique<sound_file>(descriptor, shape, format, wanted);
    if (!file->is_good()) throw failure(file_trouble, fmt::format("cannot write {}: {}", name, file->reason()));
    return file;
}
