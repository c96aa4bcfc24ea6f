#include "console.h"

#include "status_line.h"

#include <fmt/format.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

#include <algorithm>
#include <cerrno>

namespace {

console::loudness volume = console::loudness::normal;

} // namespace

namespace console {

void begin(loudness wanted) {
    volume = wanted;
    wrapper_audio_log_echo(is_verbose() ? 1 : 0);
}

bool is_quiet() {
    return volume == loudness::quiet;
}

bool is_verbose() {
    return volume == loudness::verbose;
}

void write_all(int to, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t wrote = write(to, text.data() + at, text.size() - at);
        if (wrote < 0 && errno != EINTR) return;
        at += static_cast<std::size_t>(std::max<ssize_t>(wrote, 0));
    }
}

void note(const std::string& sentence) {
    if (!is_quiet()) error(sentence);
}

void error(const std::string& sentence) {
    status_line::make_room();
    write_all(STDERR_FILENO, fmt::format("wrapper-audio: {}\n", sentence));
}

} // namespace console
