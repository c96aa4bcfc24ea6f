// Near and far voices: to the bit the weight that is defined; and what people want of it.
#include "recorder/near_speech.h"

#include "denoising_reference.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

namespace {

constexpr std::size_t ten_ms = 480;

// Noise of this level, in dB relative to full scale.
void add_noise(std::vector<float>& sound, std::mt19937& random, double db, std::size_t frames) {
    std::normal_distribution<float> normal(0.0F, std::pow(10.0F, static_cast<float>(db) / 20.0F));
    for (std::size_t i = 0; i < frames * ten_ms; ++i)
        sound.push_back(normal(random));
}

std::vector<float> weighed(const std::vector<float>& sound, const std::vector<float>& denoised,
                           const std::vector<float>& probabilities) {
    recorder::near_speech near;
    const auto frame_of = [](const std::vector<float>& all, std::size_t frame) {
        return std::span(all).subspan(frame * ten_ms, ten_ms);
    };
    std::vector<float> all;
    for (std::size_t frame = 0; frame < probabilities.size() + 2; ++frame) {
        near.hear(frame_of(sound, frame));
        if (frame < 2) continue;
        all.push_back(near.weigh(probabilities[frame - 2], frame_of(sound, frame - 2), frame_of(denoised, frame - 2)));
    }
    return all;
}

std::vector<float> times(std::vector<float> sound, float factor) {
    for (float& sample : sound)
        sample *= factor;
    return sound;
}

constexpr float removed = 0.54F; // a little less than 0.3 of the power
constexpr float left = 0.55F;

// Somebody speaks all the time: the mean probability, in tenths of a second.
std::vector<float> tenths(const std::vector<float>& sound) {
    const std::size_t frames = sound.size() / ten_ms - 2;
    const auto all = weighed(sound, times(sound, removed), std::vector<float>(frames, 1.0F));
    std::vector<float> means;
    for (std::size_t at = 0; at + 10 <= frames; at += 10)
        means.push_back(std::accumulate(all.begin() + static_cast<std::ptrdiff_t>(at),
                                        all.begin() + static_cast<std::ptrdiff_t>(at + 10), 0.0F) /
                        10.0F);
    return means;
}

TEST(near_speech, equals_the_reference_bit_for_bit) {
    int changed = 0;
    for (uint32_t seed = 0; seed < 12; ++seed) {
        std::mt19937 random(seed);
        std::vector<float> sound;
        std::vector<float> probabilities;
        while (probabilities.size() < 2500) {
            const std::size_t frames = 1 + random() % 60;
            if (random() % 10 == 0)
                sound.insert(sound.end(), frames * ten_ms, random() % 2 == 0 ? 0.0F : 0.1F);
            else
                add_noise(sound, random, -static_cast<double>(random() % 500) / 10.0, frames);
            // The more of the time is speech, the more is weighed.
            const bool speaks = random() % 12 < seed;
            std::uniform_real_distribution<float> probability(speaks ? 0.89F : 0.0F, 1.0F);
            for (std::size_t i = 0; i < frames; ++i)
                probabilities.push_back(random() % 50 == 0 ? 0.9F : probability(random));
        }
        add_noise(sound, random, -100.0, 2);
        std::vector<float> denoised = sound;
        for (std::size_t i = 0; i < sound.size(); i += ten_ms) {
            const float factor = random() % 12 < 7 + seed / 3 ? removed : left;
            for (std::size_t each = i; each < i + ten_ms; ++each)
                denoised[each] *= factor;
        }
        const auto expected = reference::near_speech(sound, denoised, probabilities);
        ASSERT_EQ(weighed(sound, denoised, probabilities), expected) << "seed " << seed;
        for (std::size_t i = 0; i < expected.size(); ++i)
            changed += expected[i] != probabilities[i] ? 1 : 0;
    }
    EXPECT_GT(changed, 1000);
}

TEST(near_speech, is_any_that_pauses_half_of_the_time) {
    for (const std::size_t voiced : {49U, 52U}) {
        std::mt19937 random(1);
        std::vector<float> sound;
        std::vector<float> probabilities;
        for (int i = 0; i < 20; ++i) {
            add_noise(sound, random, -40.0, 101);
            probabilities.insert(probabilities.end(), voiced, 1.0F);
            probabilities.insert(probabilities.end(), 101 - voiced, 0.2F);
        }
        add_noise(sound, random, -40.0, 2);
        const auto all = weighed(sound, times(sound, removed), probabilities);
        const bool pauses = voiced < 50;
        const std::vector expected =
            pauses ? std::vector(probabilities.begin() + 1010, probabilities.end()) : std::vector(1010, 0.0F);
        EXPECT_EQ(std::vector(all.begin() + 1010, all.end()), expected) << "as it is no louder than its pauses";
    }
}

TEST(near_speech, is_any_of_which_the_denoiser_leaves_most) {
    std::mt19937 random(2);
    std::vector<float> sound;
    add_noise(sound, random, -30.0, 2000);
    const std::vector<float> denoised = times(sound, left);
    for (float& sample : sound)
        sample += 0.5F;
    const std::vector<float> probabilities(1998, 1.0F);
    EXPECT_EQ(weighed(sound, denoised, probabilities), probabilities) << "although it never pauses and never changes";
}

TEST(near_speech, is_not_what_never_pauses_and_never_changes_and_is_mostly_removed) {
    std::mt19937 random(2);
    std::vector<float> sound;
    add_noise(sound, random, -30.0, 2000);
    const auto far = tenths(sound);
    EXPECT_EQ(std::vector(far.begin(), far.begin() + 30), std::vector(30, 1.0F)) << "it is not known yet";
    EXPECT_EQ(std::vector(far.begin() + 50, far.end()), std::vector(far.size() - 50, 0.0F));
}

TEST(near_speech, stands_out_from_far_voices_before_it_begins_and_until_it_has_ended) {
    std::mt19937 random(3);
    for (const double offset : {0.0, 0.5}) {
        std::vector<float> sound;
        add_noise(sound, random, -40.0, 1000);
        add_noise(sound, random, -25.0, 100);
        add_noise(sound, random, -40.0, 202);
        for (float& sample : sound)
            sample += static_cast<float>(offset);
        const auto all = tenths(sound);
        const auto is_near = [&](std::size_t from, std::size_t to, float expected) {
            EXPECT_EQ(std::vector(all.begin() + static_cast<std::ptrdiff_t>(from),
                                  all.begin() + static_cast<std::ptrdiff_t>(to)),
                      std::vector(to - from, expected))
                << "from " << from << " to " << to << " tenths of a second, offset " << offset;
        };
        is_near(60, 99, 0.0F);
        EXPECT_GT(all[99], 0.05F) << "20 ms before";
        is_near(100, 113, 1.0F);
        is_near(115, 130, 0.0F);
    }
}

// Words of 0.4 s, and 0.25 s between them.
TEST(near_speech, remains_near_however_long_it_does_not_pause) {
    std::mt19937 random(4);
    std::vector<float> sound;
    for (int i = 0; i < 100; ++i) {
        add_noise(sound, random, -20.0, 40);
        add_noise(sound, random, -35.0, 25);
    }
    add_noise(sound, random, -35.0, 2);
    const auto all = tenths(sound);
    EXPECT_EQ(all, std::vector(all.size(), 1.0F));
}

} // namespace
