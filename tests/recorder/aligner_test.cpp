// Two streams on clocks of their own, in simulated time.
#include "wrapper_audio_recorder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <span>
#include <vector>

using testing::Each;
using testing::ElementsAreArray;

namespace {

constexpr int32_t stream_rate = 8000;
constexpr double longest_hour = 4096.0; // seconds: a power of two, by which floats are divided exactly

struct released {
    void operator()(wrapper_audio_aligner* aligner) const { wrapper_audio_aligner_free(aligner); }
};
using aligner_handle = std::unique_ptr<wrapper_audio_aligner, released>;

aligner_handle make_aligner(int32_t at_rate = stream_rate) {
    wrapper_audio_aligner* made = nullptr;
    EXPECT_EQ(wrapper_audio_aligner_create(&made, at_rate), WRAPPER_AUDIO_OK);
    return aligner_handle(made);
}

// What both streams hold: samples that tell when they were captured, so that every pair of them tells how well it is
// aligned. 0 is silence.
float told(double time) {
    return static_cast<float>((time + 1.0) / longest_hour);
}
double time_in(float sample) {
    return static_cast<double>(sample) * longest_hour - 1.0;
}

// A device that delivers what it hears in blocks, by its own clock, sooner or later.
struct simulated {
    double drift = 0.0;  // of its clock: 1e-4 is too fast by 100 ppm
    double begins = 0.0; // seconds
    double ends = 1e9;
    std::size_t block = 240;
    double latency = 0.02;                                                     // of each block, at least
    std::function<double(double)> delay = [](double /*time*/) { return 0.0; }; // of a block, beyond that
    std::function<bool(double)> loses = [](double /*time*/) { return false; }; // a sample
    std::function<float(double)> hears = [](double time) { return told(time); };

    // State.
    uint64_t count = 0;
    double arrived = 0.0;

    double capture_time(uint64_t number) const {
        return begins + static_cast<double>(number) / (stream_rate * (1.0 + drift));
    }
};

struct heard {
    std::vector<float> first;
    std::vector<float> second;
};

void take_into(wrapper_audio_aligner* aligner, heard& all, std::size_t piece = 1000) {
    std::vector<float> first(piece);
    std::vector<float> second(piece);
    for (std::size_t count = piece; count == piece;) {
        ASSERT_EQ(wrapper_audio_aligner_take(aligner, first.data(), second.data(), piece, &count), WRAPPER_AUDIO_OK);
        all.first.insert(all.first.end(), first.begin(), first.begin() + static_cast<std::ptrdiff_t>(count));
        all.second.insert(all.second.end(), second.begin(), second.begin() + static_cast<std::ptrdiff_t>(count));
    }
}

// The next block, unless the device has come to its end.
void deliver(wrapper_audio_aligner* aligner, int32_t side, simulated& device) {
    std::vector<float> samples;
    double time = 0.0;
    for (; samples.size() < device.block; ++device.count) {
        time = device.capture_time(device.count);
        if (!device.loses(time)) samples.push_back(device.hears(time));
    }
    device.arrived = std::max(device.arrived, time + device.latency + device.delay(time));
    const auto stamp = static_cast<int64_t>(device.arrived * 1e9);
    ASSERT_EQ(wrapper_audio_aligner_add(aligner, side, samples.data(), samples.size(), stamp), WRAPPER_AUDIO_OK);
}

double due(const simulated& device) { // of its next block
    const double time = device.capture_time(device.count + device.block);
    return time >= device.ends ? 1e9 : std::max(device.arrived, time + device.latency + device.delay(time));
}

heard run(
    simulated first, simulated second, double seconds,
    const std::function<void(double, const heard&)>& each_moment = [](double, const heard&) {}) {
    const aligner_handle aligner = make_aligner();
    heard all;
    for (;;) {
        const bool is_first = due(first) <= due(second);
        const double now = std::min(due(first), due(second));
        if (now >= seconds) break;
        deliver(aligner.get(), is_first ? 0 : 1, is_first ? first : second);
        take_into(aligner.get(), all);
        each_moment(now, all);
    }
    EXPECT_EQ(wrapper_audio_aligner_flush(aligner.get()), WRAPPER_AUDIO_OK);
    take_into(aligner.get(), all);
    return all;
}

// Mostly punctual, sometimes late, and now and then not there for a while.
std::function<double(double)> jitter(unsigned seed) {
    return [random = std::mt19937(seed)](double time) mutable {
        std::uniform_real_distribution<double> share;
        const double usual = 0.008 * share(random);
        if (share(random) < 0.02) return usual + 0.2 * share(random);
        return std::fmod(time, 97.0) > 95.5 ? usual + 1.5 - (std::fmod(time, 97.0) - 95.5) : usual;
    };
}

// How far the sides are apart where both have sound, in seconds: the largest of those between two times. What is read
// between samples rings for 4 ms beside silence, and tells nothing there.
double apart(const heard& all, double from = 0.0, double until = 1e9) {
    constexpr std::size_t rings = 32;
    double largest = 0.0;
    std::size_t sounding = 0;
    for (std::size_t i = 0; i + rings < all.first.size(); ++i) {
        sounding = all.second[i + rings] < all.first[i + rings] / 2 ? 0 : sounding + 1;
        const double time = time_in(all.first[i]);
        if (all.first[i] == 0.0F || sounding <= 2 * rings || time < from || time > until) continue;
        largest = std::max(largest, std::abs(time - time_in(all.second[i])));
    }
    return largest;
}

std::size_t silent(const std::vector<float>& samples) {
    return static_cast<std::size_t>(std::count(samples.begin(), samples.end(), 0.0F));
}

TEST(aligner, keeps_an_hour_of_drifting_clocks_together) {
    for (const double drift : {1e-4, -1e-4}) {
        SCOPED_TRACE(drift);
        const heard all = run({.drift = drift / 2, .delay = jitter(1)},
                              {.drift = -drift / 2, .begins = 0.4, .block = 171, .delay = jitter(2)}, 3600.0);
        EXPECT_NEAR(static_cast<double>(all.first.size()), 3600.0 * stream_rate, stream_rate);
        EXPECT_EQ(silent(all.first), 0U);
        EXPECT_LT(silent(all.second), static_cast<std::size_t>(0.5 * stream_rate)) << "it begins later";
        EXPECT_LT(apart(all), 0.005) << "measured: 0.0029";
    }
}

TEST(aligner, follows_clocks_that_are_as_bad_as_they_get) {
    for (const double drift : {1e-3, -1e-3}) {
        SCOPED_TRACE(drift);
        const heard all = run({.delay = jitter(3)}, {.drift = drift, .delay = jitter(4)}, 300.0);
        EXPECT_LT(apart(all), 0.02);
        EXPECT_EQ(silent(all.first), 0U);
    }
}

TEST(aligner, passes_the_first_stream_bit_for_bit) {
    std::mt19937 random(5);
    std::vector<float> passed;
    const auto noise = [&](double /*time*/) {
        passed.push_back(std::uniform_real_distribution<float>(-2.0F, 2.0F)(random));
        return passed.back();
    };
    const heard all = run({.drift = 2e-4, .delay = jitter(6), .hears = noise}, {.delay = jitter(7)}, 30.0);
    EXPECT_THAT(all.first, ElementsAreArray(passed));
}

// The level of what is beside a tone in 100 ms of sound, relative to the tone, in dB. Its frequency may be a little off.
double beside_the_tone(std::span<const float> samples, double frequency) {
    using complex = std::complex<double>;
    const auto amplitude = [&](std::span<const float> part, std::size_t from, double at) {
        complex sum;
        double weights = 0.0;
        for (std::size_t i = 0; i < part.size(); ++i) {
            const double weight = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) /
                                                       static_cast<double>(part.size()));
            sum += weight * static_cast<double>(part[i]) *
                   std::polar(1.0, -2 * std::numbers::pi * at * static_cast<double>(from + i) / stream_rate);
            weights += weight;
        }
        return 2.0 * sum / weights;
    };
    const std::size_t half = samples.size() / 2;
    double exact = frequency;
    for (int round = 0; round < 3; ++round) {
        const complex turned = amplitude(samples.subspan(half), half, exact) / amplitude(samples.first(half), 0, exact);
        exact += std::arg(turned) / (2 * std::numbers::pi) * stream_rate / static_cast<double>(half);
    }
    const complex tone = amplitude(samples, 0, exact);
    double squares = 0.0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const complex turn = std::polar(1.0, 2 * std::numbers::pi * exact * static_cast<double>(i) / stream_rate);
        squares += std::pow(static_cast<double>(samples[i]) - (tone * turn).real(), 2);
    }
    return 10 * std::log10(squares / static_cast<double>(samples.size()) / (std::norm(tone) / 2));
}

TEST(aligner, leaves_the_second_stream_as_clean_as_it_was) {
    struct limit {
        double frequency;
        double jitter;
        double beside; // dB
    };
    // What the times are off by is a slow change of pitch, which counts here as if it were noise.
    for (const auto& [frequency, jitters, beside] :
         {limit{440.0, 1.0, -78.0}, limit{1000.0, 1.0, -71.0}, limit{3000.0, 1.0, -62.0}, limit{440.0, 0.0, -90.0},
          limit{1000.0, 0.0, -90.0}, limit{3000.0, 0.0, -90.0}}) {
        SCOPED_TRACE(frequency);
        const auto delay = [&, share = jitters](unsigned seed) -> std::function<double(double)> {
            return [=, late = jitter(seed)](double time) { return share * late(time); };
        };
        const auto tone = [&, pitch = frequency](double time) {
            return static_cast<float>(std::sin(2 * std::numbers::pi * pitch * time));
        };
        const heard all = run({.delay = delay(8)}, {.drift = 1e-4, .delay = delay(9), .hears = tone}, 120.0);
        double worst = -200.0;
        constexpr std::size_t window = stream_rate / 10;
        for (std::size_t at = 600 * window; at + 20 * window < all.second.size(); at += window)
            worst = std::max(worst, beside_the_tone(std::span(all.second).subspan(at, window), frequency));
        EXPECT_LT(worst, beside);
    }
}

TEST(aligner, puts_silence_where_either_side_lost_samples) {
    for (const double length : {0.02, 0.35, 7.0}) {
        for (const bool is_first : {true, false}) {
            SCOPED_TRACE(testing::Message() << length << " s of the " << (is_first ? "first" : "second"));
            const auto loss = [&](double time) { return time >= 20.0 && time < 20.0 + length; };
            simulated first{.drift = 5e-5, .delay = jitter(10)};
            simulated second{.drift = -5e-5, .delay = jitter(11)};
            (is_first ? first : second).loses = loss;
            const heard all = run(first, second, 60.0);
            const double lost = length * stream_rate;
            EXPECT_NEAR(static_cast<double>(silent(all.first)), is_first ? lost : 0.0,
                        is_first ? 0.01 * stream_rate : 0.0);
            if (!is_first) {
                EXPECT_GT(silent(all.second), lost - 0.01 * stream_rate - 64);
            }
            // In the block that lost samples in its middle nobody knows where they are missing.
            EXPECT_LT(apart(all, 0.0, 19.9), 0.02);
            EXPECT_LT(apart(all, 20.0 + length + 0.04), 0.02);
            EXPECT_NEAR(static_cast<double>(all.first.size()), 60.0 * stream_rate, stream_rate);
        }
    }
}

TEST(aligner, keeps_losses_that_are_too_short_to_be_silence_within_20_ms) {
    for (const bool is_first : {true, false}) {
        simulated first;
        simulated second;
        // 10 ms in every half minute, and in the end more than that has been lost.
        (is_first ? first : second).loses = [](double time) { return time > 5.0 && std::fmod(time, 30.0) < 0.01; };
        const heard all = run(first, second, 300.0);
        EXPECT_LT(apart(all), 0.02);
    }
}

TEST(aligner, takes_back_what_was_no_loss) {
    // A system so busy that everything comes 30 ms late, for 3 s: that cannot be told from a loss.
    const auto busy = [](double time) { return time > 20.0 && time < 23.0 ? 0.03 : 0.0; };
    for (const bool is_first : {true, false}) {
        simulated first;
        simulated second;
        (is_first ? first : second).delay = busy;
        const heard all = run(first, second, 60.0);
        EXPECT_LT(apart(all, 0.0, 19.9), 0.005);
        EXPECT_LT(apart(all, 24.5), 0.005);
        EXPECT_LT(apart(all), 0.04);
    }
}

TEST(aligner, goes_on_while_the_second_stream_delivers_nothing) {
    const auto is_on_time = [](double now, const heard& all) {
        ASSERT_GT(static_cast<double>(all.first.size()), (now - 6.2) * stream_rate);
    };
    // Never; only later; not any more; and not for a while, as a monitor that is suspended.
    const heard never = run({}, {.begins = 1e8}, 30.0, is_on_time);
    EXPECT_THAT(never.second, Each(0.0F));
    EXPECT_NEAR(static_cast<double>(never.second.size()), 30.0 * stream_rate, 0.1 * stream_rate);

    const heard later = run({}, {.begins = 12.0}, 30.0, is_on_time);
    EXPECT_LT(apart(later), 0.005);
    EXPECT_NEAR(static_cast<double>(silent(later.second)), 12.0 * stream_rate, 0.1 * stream_rate);

    const heard no_more = run({}, {.ends = 12.0}, 30.0, is_on_time);
    EXPECT_LT(apart(no_more), 0.005);
    EXPECT_NEAR(static_cast<double>(silent(no_more.second)), 18.0 * stream_rate, 0.1 * stream_rate);

    const heard paused = run({}, {.loses = [](double time) { return time > 12.0 && time < 112.0; }}, 150.0, is_on_time);
    EXPECT_LT(apart(paused, 0.0, 11.9), 0.005);
    EXPECT_LT(apart(paused, 112.1), 0.02);
    EXPECT_NEAR(static_cast<double>(silent(paused.second)), 100.0 * stream_rate, 0.1 * stream_rate);
    EXPECT_EQ(silent(paused.first), 0U);
}

TEST(aligner, waits_for_a_second_stream_that_stood_still_and_then_delivers_everything) {
    const auto stall = [](double time) { return time > 10.0 && time < 13.0 ? 13.0 - time : 0.0; };
    const heard all = run({}, {.delay = stall}, 30.0);
    EXPECT_EQ(silent(all.second), 0U);
    EXPECT_LT(apart(all), 0.005);
}

TEST(aligner, does_not_depend_on_how_samples_are_taken) {
    std::vector<heard> results;
    for (const std::size_t piece :
         {std::size_t{1}, std::size_t{79}, std::size_t{80}, std::size_t{1000}, std::size_t{100000}}) {
        const aligner_handle aligner = make_aligner();
        simulated first;
        simulated second{.drift = 1e-4, .begins = 0.1};
        heard all;
        for (int i = 0; i < 100; ++i) {
            deliver(aligner.get(), 0, first);
            deliver(aligner.get(), 1, second);
            take_into(aligner.get(), all, piece);
        }
        EXPECT_EQ(wrapper_audio_aligner_flush(aligner.get()), WRAPPER_AUDIO_OK);
        take_into(aligner.get(), all, piece);
        results.push_back(all);
    }
    for (const heard& each : results) {
        EXPECT_EQ(each.first, results.front().first);
        EXPECT_EQ(each.second, results.front().second);
    }
}

TEST(aligner, takes_times_of_any_clock) {
    for (const int64_t start : {std::numeric_limits<int64_t>::min(), int64_t{0}, int64_t{1} << 62}) {
        const aligner_handle aligner = make_aligner(48000);
        const std::vector<float> samples(480, 0.5F);
        heard all;
        for (int64_t i = 0; i < 300; ++i)
            for (const int32_t side : {0, 1})
                ASSERT_EQ(wrapper_audio_aligner_add(aligner.get(), side, samples.data(), 480, start + i * 10000000),
                          WRAPPER_AUDIO_OK);
        take_into(aligner.get(), all);
        EXPECT_GT(all.first.size(), 90000U);
        EXPECT_EQ(silent(all.second), 0U);
    }
}

TEST(aligner, survives_times_that_no_clock_tells) {
    const aligner_handle aligner = make_aligner();
    const std::vector<float> samples(80, 0.5F);
    const int64_t hostile[] = {
        0, -1000000000, 5, std::numeric_limits<int64_t>::max(), 7, std::numeric_limits<int64_t>::min(), 1000000000};
    for (int i = 0; i < 400; ++i)
        for (const int32_t side : {0, 1})
            ASSERT_EQ(wrapper_audio_aligner_add(aligner.get(), side, samples.data(), 80, hostile[i % 2]),
                      WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_aligner_add(aligner.get(), 0, samples.data(), 80, hostile[3]), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_aligner_add(aligner.get(), 1, samples.data(), 80, hostile[5]), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_aligner_flush(aligner.get()), WRAPPER_AUDIO_OK);
    heard some;
    take_into(aligner.get(), some, 100000);
    EXPECT_GE(some.first.size(), 32000U);
}

TEST(aligner, refuses_bad_arguments) {
    wrapper_audio_aligner* made = nullptr;
    EXPECT_EQ(wrapper_audio_aligner_create(nullptr, stream_rate), WRAPPER_AUDIO_INVALID_ARGUMENT);
    for (const int32_t wrong : {99, 768001, 0, -1, std::numeric_limits<int32_t>::max()})
        EXPECT_EQ(wrapper_audio_aligner_create(&made, wrong), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(made, nullptr);
    for (const int32_t right : {100, 768000})
        make_aligner(right);

    const aligner_handle aligner = make_aligner();
    float samples[10] = {};
    std::size_t count = 7;
    EXPECT_EQ(wrapper_audio_aligner_add(nullptr, 0, samples, 10, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_add(aligner.get(), -1, samples, 10, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_add(aligner.get(), 2, samples, 10, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_add(aligner.get(), 0, nullptr, 10, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_add(aligner.get(), 0, nullptr, 0, 0), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_aligner_take(nullptr, samples, samples, 10, &count), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(wrapper_audio_aligner_take(aligner.get(), samples, nullptr, 10, &count), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_take(aligner.get(), nullptr, samples, 10, &count), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_take(aligner.get(), samples, samples, 10, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_take(aligner.get(), nullptr, nullptr, 0, &count), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_aligner_flush(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_aligner_flush(aligner.get()), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_aligner_take(aligner.get(), samples, samples, 10, &count), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 0U) << "there is nothing";
    EXPECT_EQ(wrapper_audio_aligner_add(aligner.get(), 0, samples, 10, 0), WRAPPER_AUDIO_INVALID_STATE);
    wrapper_audio_aligner_free(nullptr);
}

} // namespace
