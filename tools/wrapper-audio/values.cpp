#include "values.h"

#include "commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string_view>

namespace {

/** The number at the front of `text`, which loses it. */
template <class Number>
bool take_number(std::string_view& text, Number& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || !std::isfinite(value)) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

/** "A[:B]" into two numbers; the second keeps its value when it is not there. */
void parse_pair(const std::string& text, float& first, float& second) {
    const std::size_t colon = text.find(':');
    const auto number = [&text](std::string_view part, float& value) {
        if (part.starts_with('+')) part.remove_prefix(1);
        if (!take_number(part, value) || !part.empty())
            throw std::invalid_argument(fmt::format("'{}' is not a number or a pair of numbers", text));
    };
    number(std::string_view(text).substr(0, colon), first);
    if (colon != std::string::npos) number(std::string_view(text).substr(colon + 1), second);
}

/** "1m30s": numbers, each with its unit; the last one may lack it and is in seconds then. */
bool take_units(std::string_view text, double& seconds) {
    seconds = 0;
    for (std::string_view units = "hms"; !text.empty();) {
        double number = 0;
        if (text.starts_with('-') || !take_number(text, number)) return false;
        const char unit = text.empty() ? 's' : text.front();
        const std::size_t at = units.find(unit);
        if (at == std::string_view::npos) return false;
        text.remove_prefix(std::min<std::size_t>(1, text.size()));
        units.remove_prefix(at + 1); // the next one is smaller
        seconds += number * (unit == 'h' ? 3600 : unit == 'm' ? 60 : 1);
    }
    return true;
}

/** "1:02:30": each number counts sixty of the next. */
bool take_clock(std::string_view text, double& seconds) {
    seconds = 0;
    for (int numbers = 0; numbers < 3; ++numbers) {
        double number = 0;
        if (text.starts_with('-') || !take_number(text, number)) return false;
        seconds = seconds * 60 + number;
        if (text.empty()) return true;
        if (text.front() != ':') return false;
        text.remove_prefix(1);
    }
    return false;
}

float parse_between(const std::string& text, float least, float most, const char* unit = "") {
    float number = std::numeric_limits<float>::quiet_NaN();
    float rest = 0;
    parse_pair(text, number, rest);
    if (!(number >= least && number <= most) || text.find(':') != std::string::npos)
        throw std::invalid_argument(fmt::format("must lie between {} and {}{}", least, most, unit));
    return number;
}

} // namespace

high_pass parse_high_pass(const std::string& text) {
    high_pass parsed;
    parse_pair(text, parsed.corner_hz, parsed.q);
    if (!(parsed.corner_hz > 0)) throw std::invalid_argument("the corner must be above 0 Hz");
    if (!(parsed.q >= 0.05F && parsed.q <= 50)) throw std::invalid_argument("Q must lie between 0.05 and 50");
    return parsed;
}

gain_control parse_gain_control(const std::string& text) {
    gain_control parsed;
    parse_pair(text, parsed.target_db, parsed.release_ms);
    if (!(parsed.target_db >= -60 && parsed.target_db <= 0))
        throw std::invalid_argument("the level must lie between -60 and 0 dB");
    if (!(parsed.release_ms >= 0 && parsed.release_ms <= 60000))
        throw std::invalid_argument("the release must lie between 0 and 60000 ms");
    return parsed;
}

float parse_loudness(const std::string& text) {
    return parse_between(text, -60, 0, " LUFS");
}

float parse_share(const std::string& text) {
    return parse_between(text, 0, 1);
}

float parse_quality(const std::string& text) {
    return parse_between(text, 0, 10);
}

int parse_rate(const std::string& text) {
    std::string_view rest = text;
    double hertz = 0;
    const bool is_number = take_number(rest, hertz);
    if (is_number && (rest == "k" || rest == "K"))
        hertz = std::round(hertz * 1000);
    else if (!is_number || !rest.empty())
        throw std::invalid_argument(fmt::format("'{}' is not a rate; 16000 or 16k is one", text));
    if (!(hertz >= 100 && hertz <= 384000)) throw std::invalid_argument("must lie between 100 and 384000 Hz");
    if (hertz != std::floor(hertz)) throw std::invalid_argument("must be a whole number of Hz");
    return static_cast<int>(hertz);
}

int parse_channel(const std::string& text) {
    if (text == "mix") return mixed_channels;
    if (text == "all") return every_channel;
    std::string_view rest = text;
    double number = 0;
    if (!take_number(rest, number) || !rest.empty() || !(number >= 1 && number <= 1024) || number != std::floor(number))
        throw std::invalid_argument("must be a channel, 1 or above, or mix or all");
    return static_cast<int>(number);
}

int parse_bitrate(const std::string& text) {
    std::string_view rest = text;
    double bits = 0;
    const bool is_number = take_number(rest, bits);
    if (is_number && (rest == "k" || rest == "K"))
        bits *= 1000;
    else if (!is_number || !rest.empty())
        throw std::invalid_argument(fmt::format("'{}' is not a bitrate; 64k is one", text));
    if (!(bits >= 1000 && bits <= 1e7)) throw std::invalid_argument("must be at least 1k bits per second");
    return static_cast<int>(bits);
}

double parse_duration(const std::string& text) {
    double seconds = 0;
    const bool is_time = text.find(':') == std::string::npos ? take_units(text, seconds) : take_clock(text, seconds);
    if (!is_time || !std::isfinite(seconds))
        throw std::invalid_argument(fmt::format("'{}' is not a time; 90, 1.5s, 1m30s and 1:30 are", text));
    if (!(seconds > 0)) throw std::invalid_argument("must be above 0");
    return seconds;
}

double parse_interval(const std::string& text) {
    return text == "0" ? 0 : parse_duration(text);
}

double parse_pre_roll(const std::string& text) {
    const double seconds = parse_interval(text);
    if (seconds > 60) throw std::invalid_argument("must be a minute or less");
    return seconds;
}
