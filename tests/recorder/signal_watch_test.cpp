// When the levels of 10 ms mean silence, hiss or clipping: the limits, to the last bit.
#include "recorder/signal_watch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using recorder::signal_watch;

namespace {

struct ten_ms {
    float peak = 0.0F;
    uint32_t clipped = 0;
    int32_t count = 480;
};

// What is judged when the device has delivered so many of them, number i being sound(i).
wrapper_audio_signal judged(int length, const std::function<ten_ms(int i)>& sound) {
    signal_watch watch;
    for (int i = 0; i < length; ++i) {
        const ten_ms each = sound(i);
        watch.add(each.peak, each.clipped, each.count);
    }
    return watch.signal();
}

const float limit = 0.001F;
const float below = std::nextafter(limit, 0.0F);
const float least = std::nextafter(0.0F, 1.0F);

TEST(signal_watch, needs_two_and_a_half_seconds_for_silence) {
    const auto zeros = [](int /*i*/) { return ten_ms{}; };
    EXPECT_EQ(judged(0, zeros), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
    EXPECT_EQ(judged(249, zeros), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
    EXPECT_EQ(judged(250, zeros), WRAPPER_AUDIO_SIGNAL_ZEROS);
    EXPECT_EQ(judged(100000, zeros), WRAPPER_AUDIO_SIGNAL_ZEROS);
}

TEST(signal_watch, calls_hiss_what_is_below_a_thousandth) {
    for (const float peak : {least, below}) {
        const auto hiss = [&](int /*i*/) { return ten_ms{.peak = peak}; };
        EXPECT_EQ(judged(249, hiss), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
        EXPECT_EQ(judged(250, hiss), WRAPPER_AUDIO_SIGNAL_HISS);
    }
    for (const int at : {0, 100, 249}) {
        EXPECT_EQ(judged(250, [&](int i) { return ten_ms{.peak = i == at ? least : 0.0F}; }),
                  WRAPPER_AUDIO_SIGNAL_HISS);
        EXPECT_EQ(judged(250, [&](int i) { return ten_ms{.peak = i == at ? limit : below}; }),
                  WRAPPER_AUDIO_SIGNAL_SOUND);
    }
}

TEST(signal_watch, hears_sound_at_once) {
    EXPECT_EQ(judged(1, [](int /*i*/) { return ten_ms{.peak = limit}; }), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(judged(1001, [](int i) { return ten_ms{.peak = i == 1000 ? limit : 0.0F}; }), WRAPPER_AUDIO_SIGNAL_SOUND);
}

TEST(signal_watch, forgets_what_is_older) {
    const auto once = [](int i) { return ten_ms{.peak = i == 0 ? 0.5F : 0.0F}; };
    EXPECT_EQ(judged(250, once), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(judged(251, once), WRAPPER_AUDIO_SIGNAL_ZEROS);
    const auto dying = [](int i) { return ten_ms{.peak = i == 0 ? 0.5F : i == 1 ? below : 0.0F}; };
    EXPECT_EQ(judged(250, dying), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(judged(251, dying), WRAPPER_AUDIO_SIGNAL_HISS);
    EXPECT_EQ(judged(252, dying), WRAPPER_AUDIO_SIGNAL_ZEROS);
}

TEST(signal_watch, passes_over_what_was_lost) {
    for (const float peak : {0.0F, below, 0.5F}) {
        const auto with_losses = [&](int i) { return ten_ms{.peak = peak, .count = i % 2 == 0 ? 480 : 0}; };
        EXPECT_EQ(judged(498, with_losses), peak >= limit ? WRAPPER_AUDIO_SIGNAL_SOUND : WRAPPER_AUDIO_SIGNAL_UNKNOWN);
        EXPECT_EQ(judged(499, with_losses), peak == 0.0F    ? WRAPPER_AUDIO_SIGNAL_ZEROS
                                            : peak == below ? WRAPPER_AUDIO_SIGNAL_HISS
                                                            : WRAPPER_AUDIO_SIGNAL_SOUND);
    }
    EXPECT_EQ(judged(1000, [](int /*i*/) { return ten_ms{.count = 0}; }), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
}

TEST(signal_watch, calls_it_clipping_when_each_tenth_clips) {
    const auto clipping = [](int /*i*/) { return ten_ms{.peak = 1.0F, .clipped = 480}; };
    EXPECT_EQ(judged(249, clipping), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(judged(250, clipping), WRAPPER_AUDIO_SIGNAL_CLIPPING);
    EXPECT_EQ(judged(100000, clipping), WRAPPER_AUDIO_SIGNAL_CLIPPING);
    // In one place of each tenth of a second.
    for (const int place : {0, 5, 9}) {
        const auto pulses = [&](int i) { return ten_ms{.peak = 1.0F, .clipped = i % 10 == place ? 48U : 0U}; };
        EXPECT_EQ(judged(250, pulses), WRAPPER_AUDIO_SIGNAL_CLIPPING);
    }
}

TEST(signal_watch, does_not_mind_less_than_a_hundredth) {
    for (const int tenth : {0, 12, 24}) {
        const auto with = [&](uint32_t clipped) {
            return [=](int i) {
                return ten_ms{.peak = 1.0F, .clipped = i / 10 == tenth ? (i % 10 == 3 ? clipped : 0) : 480};
            };
        };
        EXPECT_EQ(judged(250, with(48)), WRAPPER_AUDIO_SIGNAL_CLIPPING);
        EXPECT_EQ(judged(250, with(47)), WRAPPER_AUDIO_SIGNAL_SOUND);
    }
}

TEST(signal_watch, notices_that_clipping_is_over) {
    const auto stops = [](int i) { return ten_ms{.peak = 1.0F, .clipped = i < 300 ? 480U : 0U}; };
    EXPECT_EQ(judged(309, stops), WRAPPER_AUDIO_SIGNAL_CLIPPING) << "the tenth of a second is not over";
    EXPECT_EQ(judged(310, stops), WRAPPER_AUDIO_SIGNAL_SOUND);
    const auto begins_again = [](int i) { return ten_ms{.peak = 1.0F, .clipped = i / 10 == 30 ? 0U : 480U}; };
    EXPECT_EQ(judged(559, begins_again), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(judged(560, begins_again), WRAPPER_AUDIO_SIGNAL_CLIPPING);
}

TEST(signal_watch, calls_it_dead_when_it_dies_clipping) {
    const auto dies = [](int i) { return i < 250 ? ten_ms{.peak = 1.0F, .clipped = 480} : ten_ms{}; };
    EXPECT_EQ(judged(500, dies), WRAPPER_AUDIO_SIGNAL_ZEROS);
}

} // namespace
