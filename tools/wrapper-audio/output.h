/**
 * Where samples go: a sound file, or raw samples in a file or a pipe.
 */
#ifndef OUTPUT_H
#define OUTPUT_H

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>

constexpr std::uint64_t no_limit = std::numeric_limits<std::int64_t>::max(); // of samples

class output {
public:
    virtual ~output() = default;

    /** Takes whole frames, one sample for each channel. Returns how many samples went: fewer when it failed. */
    virtual std::size_t write(std::span<const float> samples) = 0;

    /** Brings everything to its end. Returns whether all of it arrived. */
    virtual bool close() = 0;

    /** How many samples of each channel fit. */
    virtual std::uint64_t capacity() const { return no_limit; }

    /** Why a write or the close failed. */
    virtual std::string reason() const = 0;

    /** Whether it failed because nobody reads any more, which is no trouble. */
    virtual bool reader_gone() const { return false; }
};

enum class sound_format { wav, flac, raw, ogg, opus, mp3 };
enum class sample_size { bits_16, bits_24, real };

struct output_options {
    std::optional<sound_format> format;
    std::optional<sample_size> bits;
    std::optional<int> bitrate;   // of Opus and MP3, in bits per second
    std::optional<float> quality; // of Vorbis, 0 to 10
    bool keeps_older = false;
    double sync = 0; // seconds, in which a file gets to the disk; 0: when the system wants
};

struct stream_shape {
    int rate = 0;
    int channels = 1;
    bool from_microphone = false; // then 16 bits are rounded as the library rounds them, and not as files do
};

/**
 * As wanted, or by the name of the file. Throws a failure for an extension that promises something else, and for options
 * that this format does not have.
 */
sound_format format_of(const std::string& path, const output_options& wanted);

/** The rate to convert to, so that this format can be written: the nearest above, or the highest there is. */
int nearest_rate(sound_format format, int rate);

/** How many samples of each channel fit in a file. */
std::uint64_t sample_limit(sound_format format);

/**
 * Creates the file, or takes standard output for "-". Throws a failure; a file that another program is recording into
 * is left alone. When the program is told to stop, what takes no samples for a second has failed.
 */
std::unique_ptr<output> create_output(const std::string& path, const stream_shape& shape, const output_options& wanted);

#endif
