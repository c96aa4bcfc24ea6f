#include "level.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace {

constexpr int most_history = 30;       // seconds
constexpr float full_scale = 32767.0F; // the library's samples reach no further, in either direction

float decibels(float level) {
    return 20.0F * std::log10(level);
}

/** How far a level reaches on a bar of this many cells. */
int cells(float level, int bar) {
    constexpr float lowest = -60.0F;
    return static_cast<int>(
        std::lround((std::clamp(decibels(level), lowest, 0.0F) - lowest) / -lowest * static_cast<float>(bar)));
}

constexpr const char* plain = "\033[0m";
constexpr const char* red = "\033[31m";

/** Green up to -18 dBFS, where speech should be, yellow up to -6, red beyond. */
const char* colour_of(int cell, int bar) {
    if (cell * 60 < 42 * bar) return "\033[32m";
    return cell * 60 < 54 * bar ? "\033[33m" : red;
}

std::string draw_bar(const terminal& on, int width, float rms, float peak, float held) {
    using namespace std::string_view_literals;
    enum { empty, thin, solid, mark };
    const std::array shapes = on.utf8 ? std::array{" "sv, "░"sv, "█"sv, "┃"sv} : std::array{" "sv, "-"sv, "="sv, "|"sv};
    const int rms_end = cells(rms, width);
    const int peak_end = cells(peak, width);
    const int mark_at = cells(held, width) - 1;
    std::string bar;
    const char* colour = nullptr;
    for (int cell = 0; cell < width; ++cell) {
        const int shape = cell == mark_at ? mark : cell < rms_end ? solid : cell < peak_end ? thin : empty;
        if (on.colours && colour != colour_of(cell, width)) bar += colour = colour_of(cell, width);
        bar += shapes[static_cast<std::size_t>(shape)];
    }
    return on.colours ? bar + plain : bar;
}

} // namespace

void level::add(std::span<const float> samples) {
    for (const float sample : samples) {
        sum_of_squares += static_cast<double>(sample) * static_cast<double>(sample);
        largest = std::max(largest, std::abs(sample));
    }
    seen += samples.size();
}

void level::add(float rms_of_block, float peak_of_block, std::uint64_t count) {
    sum_of_squares +=
        static_cast<double>(rms_of_block) * static_cast<double>(rms_of_block) * static_cast<double>(count);
    largest = std::max(largest, peak_of_block);
    seen += count;
}

float level::rms() const {
    return seen == 0 ? 0.0F : static_cast<float>(std::sqrt(sum_of_squares / static_cast<double>(seen)));
}

std::string decibel_text(float level) {
    const float value = decibels(level);
    return fmt::format("{:.1f}", std::abs(value) < 0.05F ? 0.0F : value); // no "-0.0"
}

std::string time_text(double seconds) {
    const auto tenths = static_cast<long>(seconds * 10 + 0.001); // 0.001: binary fractions fall short
    if (tenths < 36000) return fmt::format("{}:{:02}.{}", tenths / 600, tenths / 10 % 60, tenths % 10);
    return fmt::format("{}:{:02}:{:02}.{}", tenths / 36000, tenths / 600 % 60, tenths / 10 % 60, tenths % 10);
}

void level_meter::hold(double now, float peak) {
    for (const auto second = static_cast<std::int64_t>(now); second_ < second; ++second_) {
        peaks_.push_back(0);
        if (peaks_.size() > std::size_t{most_history}) peaks_.pop_front();
    }
    peaks_.back() = std::max(peaks_.back(), peak);
    if (peak < held_peak && now < held_until) return;
    held_peak = peak;
    held_until = now + 1.0;
}

/** The last ones, 7.5 dB for each step. */
std::string level_meter::history(const terminal& on, int blocks) const {
    using namespace std::string_view_literals;
    constexpr int steps = 8;
    constexpr std::array fine{" "sv, "▁"sv, "▂"sv, "▃"sv, "▄"sv, "▅"sv, "▆"sv, "▇"sv, "█"sv};
    constexpr std::array coarse{" "sv, "_"sv, "."sv, ","sv, "-"sv, "+"sv, "*"sv, "%"sv, "#"sv};
    const auto shown = std::min(peaks_.size(), static_cast<std::size_t>(blocks));
    std::string text(static_cast<std::size_t>(blocks) - shown, ' ');
    for (auto peak = peaks_.end() - static_cast<std::ptrdiff_t>(shown); peak != peaks_.end(); ++peak)
        text += (on.utf8 ? fine : coarse).at(static_cast<std::size_t>(cells(*peak, steps)));
    return text;
}

shown_text level_meter::line(const terminal& on, double now, const std::string& head, float rms, float peak) {
    hold(now, peak);
    constexpr int shortest_bar = 10;
    constexpr int longest_bar = 60;
    const int columns = on.width();
    const bool clips = held_peak >= full_scale / (full_scale + 1); // the largest positive sample of a 16-bit device
    std::string tail = fmt::format(" RMS {:>5} peak {:>5} dBFS", decibel_text(rms), decibel_text(peak));
    const auto room = [&] { return columns - static_cast<int>(head.size() + tail.size()) - 7; }; // brackets and " CLIP"
    if (room() < shortest_bar) tail = fmt::format(" {:>5} dBFS", decibel_text(peak));
    if (room() < shortest_bar) tail.clear();
    constexpr int useful_bar = 30;
    const int blocks = shows_history_ ? std::clamp(room() - useful_bar - 1, 0, most_history) : 0;
    const int bar = std::min(room() - (blocks > 0 ? blocks + 1 : 0), longest_bar);

    shown_text shown;
    shown.text = head;
    shown.columns = static_cast<int>(head.size());
    if (bar > 0) {
        shown.text += fmt::format("[{}]{}", draw_bar(on, bar, rms, peak, held_peak), tail);
        shown.columns += bar + 2 + static_cast<int>(tail.size());
        shown.text += !clips ? "     " : on.colours ? fmt::format(" {}CLIP{}", red, plain) : " CLIP";
        shown.columns += 5;
        if (blocks > 0) {
            shown.text += fmt::format(" {}", history(on, blocks));
            shown.columns += blocks + 1;
        }
    } else { // all ASCII here
        if (head.empty()) shown = {decibel_text(peak), static_cast<int>(decibel_text(peak).size())};
        shown.text.resize(static_cast<std::size_t>(std::clamp(columns, 0, shown.columns)));
        shown.columns = static_cast<int>(shown.text.size());
    }
    return shown;
}

void show_levels(level_meter& meter, const terminal& on, double now, const std::string& state,
                 std::span<const float> samples) {
    level moment;
    moment.add(samples);
    meter.hold(now, moment.peak());
    if (!status_line::is_due()) return;
    status_line::show(on,
                      meter.line(on, now, fmt::format("{:>8} {}", time_text(now), state), moment.rms(), moment.peak()));
}
