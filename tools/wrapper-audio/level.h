/**
 * Levels: measured, written as text, drawn as a bar.
 */
#ifndef LEVEL_H
#define LEVEL_H

#include "status_line.h"

#include <cstdint>
#include <deque>
#include <span>
#include <string>

/** Peak and RMS of the samples seen so far. */
class level {
public:
    void add(std::span<const float> samples);

    /** A block of which only the levels are known. */
    void add(float rms, float peak, std::uint64_t count);

    std::uint64_t samples() const { return seen; }
    float peak() const { return largest; }
    float rms() const;

private:
    std::uint64_t seen = 0;
    double sum_of_squares = 0;
    float largest = 0;
};

/** "-12.3", or "-inf". */
std::string decibel_text(float level);

/** "1:02.3" */
std::string time_text(double seconds);

/**
 * A bar from -60 dBFS to full scale with RMS, peak, one second of peak hold and a clip mark; and, where it is wanted and
 * there is room, a block for the peak of each of the last seconds.
 */
class level_meter {
public:
    explicit level_meter(bool shows_history = false) : shows_history_(shows_history) {}

    /** The line for the levels of a moment, cut to `columns`. `now` is the time of the sound in seconds. */
    shown_text line(const terminal& on, double now, const std::string& head, float rms, float peak);

    /** Notes a peak for a line that is not drawn. */
    void hold(double now, float peak);

private:
    std::string history(const terminal& on, int blocks) const;

    const bool shows_history_;
    float held_peak = 0;
    double held_until = 0;
    std::deque<float> peaks_; // of whole seconds, the present one at the end
    std::int64_t second_ = -1;
};

/** On the status line, when it is due: the levels of a moment, behind what `state` tells. */
void show_levels(level_meter& meter, const terminal& on, double now, const std::string& state,
                 std::span<const float> samples);

#endif
