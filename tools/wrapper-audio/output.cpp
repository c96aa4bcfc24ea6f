#include "output.h"

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

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>
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

/** The header of a WAV file whose end nobody knows yet: the largest sizes, which readers take for "until the end". */
std::array<std::byte, 44> endless_wav_header(int rate) {
    std::array<std::byte, 44> header{};
    std::size_t at = 0;
    const auto text = [&](std::string_view letters) { at += letters.copy(reinterpret_cast<char*>(&header[at]), 4); };
    const auto number = [&](std::uint32_t value, std::size_t bytes) {
        std::memcpy(&header[at], &value, bytes);
        at += bytes;
    };
    constexpr std::uint32_t unknown = 0xFFFFFFFF;
    text("RIFF"), number(unknown, 4), text("WAVE");
    text("fmt "), number(16, 4), number(1, 2), number(1, 2); // integers, mono
    number(static_cast<std::uint32_t>(rate), 4), number(static_cast<std::uint32_t>(rate) * 2, 4);
    number(2, 2), number(16, 2);
    text("data"), number(unknown, 4);
    return header;
}

class raw_samples : public output {
public:
    explicit raw_samples(int to) : descriptor(to) {}
    raw_samples(const raw_samples&) = delete;
    raw_samples& operator=(const raw_samples&) = delete;
    ~raw_samples() override { raw_samples::close(); }

    std::size_t write(std::span<const std::int16_t> samples) override {
        return write_bytes(std::as_bytes(samples)) / sizeof(std::int16_t);
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
        const bool closed = ::close(descriptor) == 0;
        if (!closed) error = std::strerror(errno);
        descriptor = -1;
        return closed;
    }

    std::string reason() const override { return error; }
    bool reader_gone() const override { return gone; }

private:
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
    std::string error;
    bool gone = false;
};

/** A sequence of samples for what cannot be written in two places, such as a pipe. */
std::unique_ptr<output> make_sequence(int descriptor, const std::string& name, int rate, sound_format format) {
    auto samples = std::make_unique<raw_samples>(descriptor);
    if (format == sound_format::flac)
        throw failure(usage, fmt::format("{} is a pipe, which cannot take FLAC: use --type wav or raw", name));
    if (format == sound_format::wav && samples->write_bytes(endless_wav_header(rate)) < 44 && !samples->reader_gone())
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

} // namespace

sound_format format_of(const std::string& path, const output_options& wanted) {
    if (wanted.format) return *wanted.format;
    const std::string extension = lower_case_extension(path);
    if (path == "-" || extension == ".raw" || extension == ".pcm") return sound_format::raw;
    if (extension == ".flac") return sound_format::flac;
    if (extension == ".wav" || extension.empty()) return sound_format::wav;
    throw failure(usage,
                  fmt::format("{}: cannot write files of this kind; the name should end in .wav, .flac or .raw, or "
                              "--type should say which",
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

std::string expanded(const std::string& path) {
    std::string result = path;
    if (path.find('%') != std::string::npos) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        std::vector<char> name(path.size() + 4096);
        result.assign(name.data(), std::strftime(name.data(), name.size(), path.c_str(), &local));
    }
    const std::size_t at = result.find("{}");
    if (at == std::string::npos) return result;
    for (int number = 1;; ++number) {
        std::string numbered = result;
        numbered.replace(at, 2, std::to_string(number));
        struct stat other {};
        if (lstat(numbered.c_str(), &other) != 0) return numbered;
    }
}

std::unique_ptr<output> create_output(const std::string& path, int rate, const output_options& wanted) {
    const sound_format format = format_of(path, wanted);
    const int descriptor = path == "-" ? take_standard_output() : take_file(path, wanted.keeps_older);
    if (isatty(descriptor) == 1)
        throw failure(usage, "sound is not written to a terminal: send it into a pipe or a file");
    const bool has_places = lseek(descriptor, 0, SEEK_CUR) == 0 && (fcntl(descriptor, F_GETFL) & O_APPEND) == 0;
    const std::string name = path == "-" ? "standard output" : printable(path);
    if (format == sound_format::raw || !has_places) return make_sequence(descriptor, name, rate, format);
    auto file =
        std::make_unique<sound_file>(descriptor, rate, format == sound_format::flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV);
    if (!file->is_good()) throw failure(file_trouble, fmt::format("cannot write {}: {}", name, file->reason()));
    return file;
}
