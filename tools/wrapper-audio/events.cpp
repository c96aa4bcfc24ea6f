#include "events.h"

#include "console.h"
#include "failure.h"
#include "text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

event_log::event_log(const std::string& path, int rate)
    : rate_(rate), name_(path == "-" ? "standard output" : printable(path)) {
    if (path.empty()) return;
    descriptor_ = path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                              : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor_ < 0)
        throw failure(file_trouble, fmt::format("cannot write events to {}: {}", name_, std::strerror(errno)));
}

event_log::~event_log() {
    if (descriptor_ >= 0) close(descriptor_);
}

void event_log::write(const char* event, std::uint64_t position, const std::string& rest) {
    if (descriptor_ < 0) return;
    const std::string line =
        fmt::format("{{\"event\":\"{}\",\"time\":{:.3f}{}}}\n", event, static_cast<double>(position) / rate_, rest);
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t wrote = ::write(descriptor_, line.data() + done, line.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) {
            const int error = errno;
            close(std::exchange(descriptor_, -1));
            failed_ = error != EPIPE; // nobody reads them any more, which is no trouble
            if (failed_)
                console::error(fmt::format("cannot write events to {}: {}; the sound is kept without them", name_,
                                           std::strerror(error)));
            return;
        }
        done += static_cast<std::size_t>(wrote);
    }
}

void event_log::speech(bool starts, std::uint64_t position) {
    write(starts ? "speech-start" : "speech-end", position);
}

void event_log::dropped(std::uint64_t position, std::uint64_t samples) {
    write("dropped", position, fmt::format(",\"seconds\":{:.4f}", static_cast<double>(samples) / rate_));
}

void event_log::device_lost(std::uint64_t position, const std::string& reason) {
    const auto text = nlohmann::json(reason).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    write("device-lost", position, ",\"reason\":" + text);
}

void event_log::device_back(std::uint64_t position) {
    write("device-back", position);
}

void event_log::signal(std::uint64_t position, wrapper_audio_signal now) {
    if (now == std::exchange(signal_, now)) return;
    // By their numbers.
    static constexpr std::array names{"unknown", "sound", "no-data", "zeros", "hiss", "clipping", "lost"};
    write("signal", position, fmt::format(",\"signal\":\"{}\"", names.at(static_cast<std::size_t>(now))));
}

void event_log::listen(std::uint64_t position, std::span<const float> samples) {
    if (descriptor_ < 0) return;
    level_.add(samples);
    const std::uint64_t tenth = static_cast<std::uint64_t>(rate_) / 10;
    if (level_.samples() < tenth) return;
    write("level", position + samples.size(),
          fmt::format(",\"rms\":{:.5f},\"peak\":{:.5f}", level_.rms(), level_.peak()));
    level_ = {};
}
