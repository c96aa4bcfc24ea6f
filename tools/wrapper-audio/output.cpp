#include "output.h"

#include "failure.h"
#include "text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

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

class sound_file : public output {
public:
    sound_file(int descriptor, int rate, int format) {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = 1;
        info.format = format | SF_FORMAT_PCM_16;
        file = sf_open_fd(descriptor, SFM_WRITE, &info, SF_TRUE);
        if (file == nullptr || format != SF_FORMAT_WAV) return;
        // The header is brought up to date with each write, so that the file is valid however the program ends.
        sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
        sf_command(file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    }
    sound_file(const sound_file&) = delete;
    sound_file& operator=(const sound_file&) = delete;
    ~sound_file() override { sound_file::close(); }

    std::size_t write(std::span<const std::int16_t> samples) override {
        const sf_count_t written = sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        remember_error();
        return written > 0 ? static_cast<std::size_t>(written) : 0;
    }

    bool close() override {
        if (file == nullptr) return true;
        const int result = sf_close(file);
        file = nullptr;
        if (result != 0 && error.empty()) error = sf_error_number(result);
        return result == 0;
    }

    std::string reason() const override { return error; }

    /** Whether the header could be written. */
    bool is_good() {
        remember_error();
        return file != nullptr && error.empty();
    }

private:
    void remember_error() {
        if (error.empty() && sf_error(file) != SF_ERR_NO_ERROR) error = sf_strerror(file);
        while (error.ends_with('\n') || error.ends_with('.'))
            error.pop_back();
    }

    SNDFILE* file = nullptr;
    std::string error;
};

class raw_samples : public output {
public:
    explicit raw_samples(int to) : descriptor(to) {}
    raw_samples(const raw_samples&) = delete;
    raw_samples& operator=(const raw_samples&) = delete;
    ~raw_samples() override { raw_samples::close(); }

    std::size_t write(std::span<const std::int16_t> samples) override {
        const auto bytes = std::as_bytes(samples);
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t wrote = ::write(descriptor, bytes.data() + done, bytes.size() - done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote < 0) {
                error = errno;
                break;
            }
            done += static_cast<std::size_t>(wrote);
        }
        return done / sizeof(std::int16_t);
    }

    bool close() override {
        if (descriptor < 0) return true;
        const bool closed = ::close(descriptor) == 0;
        if (!closed) error = errno;
        descriptor = -1;
        return closed;
    }

    std::string reason() const override { return std::strerror(error); }
    bool reader_gone() const override { return error == EPIPE; }

private:
    int descriptor;
    int error = 0;
};

std::unique_ptr<output> take_standard_output() {
    if (isatty(STDOUT_FILENO) == 1)
        throw failure(usage, "raw samples are not written to a terminal: send them into a pipe or a file");
    const int descriptor = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) throw failure(file_trouble, "standard output is closed");
    return std::make_unique<raw_samples>(descriptor);
}

} // namespace

sound_format format_of(const std::string& path) {
    const std::string extension = lower_case_extension(path);
    if (path == "-" || extension == ".raw" || extension == ".pcm") return sound_format::raw;
    if (extension == ".flac") return sound_format::flac;
    if (extension == ".wav" || extension.empty()) return sound_format::wav;
    throw failure(usage, fmt::format("{}: cannot write files of this kind; the name should end in .wav, .flac or .raw",
                                     printable(path)));
}

std::uint64_t sample_limit(sound_format format) {
    switch (format) {
    case sound_format::wav: // its sizes are 32-bit numbers, and the larger one counts 36 bytes of header
        return (std::numeric_limits<std::uint32_t>::max() - 36) / sizeof(std::int16_t);
    case sound_format::flac: // 36 bits
        return (std::uint64_t{1} << 36) - 1;
    case sound_format::raw:
        break;
    }
    return std::numeric_limits<std::int64_t>::max();
}

std::unique_ptr<output> create_output(const std::string& path, int rate) {
    const sound_format format = format_of(path);
    if (path == "-") return take_standard_output();
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor < 0)
        throw failure(file_trouble, fmt::format("cannot create {}: {}", printable(path), std::strerror(errno)));
    if (format == sound_format::raw) return std::make_unique<raw_samples>(descriptor);
    auto file =
        std::make_unique<sound_file>(descriptor, rate, format == sound_format::flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV);
    if (!file->is_good())
        throw failure(file_trouble, fmt::format("cannot write {}: {}", printable(path), file->reason()));
    return file;
}
