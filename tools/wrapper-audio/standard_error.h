/**
 * What the host does on standard error: it keeps the chatter of PortAudio's back ends away, and draws the level.
 */
#ifndef STANDARD_ERROR_H
#define STANDARD_ERROR_H

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>

// While catch_stderr() runs: the real standard error, and the memory that stands in for it.
inline int original_stderr = -1;
inline int caught_stderr = -1;

inline std::string caught_text() {
    std::string text(static_cast<std::size_t>(std::max<off_t>(lseek(caught_stderr, 0, SEEK_END), 0)), '\0');
    const ssize_t got = pread(caught_stderr, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

/** PortAudio aborts the process on some broken ALSA configurations; what it says then must not be lost. */
extern "C" inline void show_caught_text(int) {
    char part[512];
    off_t at = 0;
    ssize_t got = 0;
    while ((got = pread(caught_stderr, part, sizeof part, at)) > 0) {
        if (write(original_stderr, part, static_cast<std::size_t>(got)) < 0) return;
        at += got;
    }
}

/**
 * Runs `action` and returns what was written to file descriptor 2 meanwhile: about a hundred lines when PortAudio looks
 * for devices.
 */
template <class Action>
std::string catch_stderr(Action action) {
    original_stderr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    caught_stderr = memfd_create("stderr", MFD_CLOEXEC);
    const bool catching = original_stderr >= 0 && caught_stderr >= 0;
    if (catching) {
        dup2(caught_stderr, STDERR_FILENO);
        std::signal(SIGABRT, show_caught_text);
    }
    action();
    std::string text;
    if (catching) {
        std::signal(SIGABRT, SIG_DFL);
        dup2(original_stderr, STDERR_FILENO);
        text = caught_text();
    }
    close(original_stderr);
    close(caught_stderr);
    return text;
}

/** Shows the library's own lines: all of them, or its warnings only. */
inline void show_library_lines(const std::string& text, bool all) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(all ? "[audio_wrapper] " : "[audio_wrapper] WARN"))
            std::fprintf(stderr, "%s\n", line.c_str());
}

inline double decibels(double level) {
    return 20.0 * std::log10(level);
}

/** One line with the time and a level bar, redrawn in place; nothing when standard error is no terminal. */
class level_line {
public:
    level_line() = default;
    level_line(const level_line&) = delete;
    level_line& operator=(const level_line&) = delete;
    ~level_line() { end(); }

    void end() {
        if (drawn) std::fputc('\n', stderr);
        drawn = false;
    }

    void show(double seconds, float rms, float peak) {
        if (!terminal) return;
        if (peak >= held_peak || seconds >= held_until) {
            held_peak = peak;
            held_until = seconds + 1.5;
        }
        const auto now = std::chrono::steady_clock::now();
        if (drawn && now - last < std::chrono::milliseconds(50)) return; // a device that is not paced
        last = now;
        draw(seconds, decibels(rms));
    }

private:
    void draw(double seconds, double rms_db) {
        constexpr int other_columns = 31;
        winsize size{};
        const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
        const int width = std::min((known ? size.ws_col : 80) - other_columns, 50);
        if (width < 1) return; // a line that is broken in two cannot be redrawn
        const auto column = [width](double db) {
            return static_cast<std::size_t>(std::lround((std::clamp(db, -60.0, 0.0) / 60.0 + 1.0) * width));
        };
        std::string bar(static_cast<std::size_t>(width), ' ');
        std::fill_n(bar.begin(), column(rms_db), '=');
        if (const std::size_t mark = column(decibels(held_peak)); mark > 0) bar[mark - 1] = '|';

        const auto tenths = static_cast<long>(seconds * 10 + 0.001); // 0.001: binary fractions fall short
        constexpr float full_scale = 32767.0F / 32768.0F;            // the largest positive sample of a 16-bit device
        std::fprintf(stderr, "\r%3ld:%02ld.%ld [%s] %6.1f dBFS %s", tenths / 600, tenths / 10 % 60, tenths % 10,
                     bar.c_str(), rms_db, held_peak >= full_scale ? "CLIP" : "    ");
        drawn = true;
    }

    const bool terminal = isatty(STDERR_FILENO) == 1;
    bool drawn = false;
    std::chrono::steady_clock::time_point last;
    float held_peak = 0;
    double held_until = 0;
};

#endif
