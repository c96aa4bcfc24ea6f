/**
 * Where samples go: a WAV or FLAC file, or raw samples in a file or a pipe.
 */
#ifndef OUTPUT_H
#define OUTPUT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

class output {
public:
    virtual ~output() = default;

    /** Returns how many samples were taken: fewer than given when it failed. */
    virtual std::size_t write(std::span<const std::int16_t> samples) = 0;

    /** Brings everything to its end. Returns whether all of it arrived. */
    virtual bool close() = 0;

    /** Why a write or the close failed. */
    virtual std::string reason() const = 0;

    /** Whether it failed because nobody reads any more, which is no trouble. */
    virtual bool reader_gone() const { return false; }
};

enum class sound_format { wav, flac, raw };

struct output_options {
    std::optional<sound_format> format;
    bool keeps_older = false;
};

/** As wanted, or by the name of the file. Throws a failure for an extension that promises something else. */
sound_format format_of(const std::string& path, const output_options& wanted);

/** The number of samples that fit. */
std::uint64_t sample_limit(sound_format format);

/** With the local time for what strftime() knows, and for {} the first number from 1 whose file is not there yet. */
std::string expanded(const std::string& path);

/**
 * Creates the file, or takes standard output for "-". Throws a failure; a file that another program is recording into
 * is left alone. When the program is told to stop, what takes no samples for a second has failed.
 */
std::unique_ptr<output> create_output(const std::string& path, int rate, const output_options& wanted);

#endif
