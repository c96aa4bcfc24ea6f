/**
 * What people write behind an option, as numbers. Each function throws std::invalid_argument with a sentence about what
 * is wrong.
 */
#ifndef VALUES_H
#define VALUES_H

#include "effects.h"

#include <string>

/** "HZ[:Q]" */
high_pass parse_high_pass(const std::string& text);

/** "DB[:RELEASE_MS]" */
gain_control parse_gain_control(const std::string& text);

/** -60 to 0 LUFS. */
float parse_loudness(const std::string& text);

/** A number from 0 to 1. */
float parse_share(const std::string& text);

/** "16000", "16k" or "44.1k": 100 to 384000 Hz. */
int parse_rate(const std::string& text);

/** "2", "mix" or "all". */
int parse_channel(const std::string& text);

/** "64k" or "64000" bits per second. */
int parse_bitrate(const std::string& text);

/** A number from 0 to 10. */
float parse_quality(const std::string& text);

/** "90", "1.5s", "1m30s", "2h" or "1:02:30": seconds above 0. */
double parse_duration(const std::string& text);

/** The same, and 0. */
double parse_interval(const std::string& text);

/** The same, at most a minute. */
double parse_pre_roll(const std::string& text);

#endif
