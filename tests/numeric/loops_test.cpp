// Every fast loop against its plain definition, bit for bit: all short lengths, every alignment, hostile numbers, and
// guard pages on both sides.
#include "bits.h"
#include "guarded_buffer.h"
#include "signals.h"

#include "numeric/in_place.h"
#include "numeric/levels.h"
#include "numeric/pcm16.h"
#include "numeric/rate_conversion.h"

#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <limits>

namespace {

using signals::infinity;
using signals::nan;

// Calls `check` with blocks of every length, first at the end of their page and then at its start with each alignment.
void for_each_block(unsigned seed, const std::function<void(const float* samples, int32_t count)>& check) {
    std::mt19937 random(seed);
    for (const size_t length : signals::lengths()) {
        for (const auto kind : {signals::noise, signals::hostile}) {
            for (size_t shift = 0; shift < 4; ++shift) {
                const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
                const auto samples = kind(random, length, amplitude);
                guarded_buffer<float> behind(length + shift);
                std::copy(samples.begin(), samples.end(), behind.data());
                check(behind.data(), static_cast<int32_t>(length));
                guarded_buffer<float> before(length + shift, guard::before);
                std::copy(samples.begin(), samples.end(), before.data() + shift);
                check(before.data() + shift, static_cast<int32_t>(length));
                if (testing::Test::HasFailure()) return;
            }
        }
    }
}

testing::AssertionResult same_sums(const numeric::level_sums& actual, const numeric::level_sums& expected) {
    if (!same_bits(actual.peak, expected.peak)) return same(actual.peak, expected.peak);
    return same(actual.squares, expected.squares);
}

TEST(levels, equal_their_definition) {
    for_each_block(1, [](const float* samples, int32_t count) {
        for (const float peak : {0.0F, 0.3F, infinity}) {
            numeric::level_sums actual{peak, 0.125};
            numeric::level_sums expected = actual;
            numeric::add_levels(actual, samples, count);
            numeric::plain::add_levels(expected, samples, count);
            EXPECT_TRUE(same_sums(actual, expected)) << count;
        }
    });
}

TEST(levels, of_no_samples_change_nothing) {
    for (const int32_t count : {0, -1, -8, std::numeric_limits<int32_t>::min()}) {
        numeric::level_sums sums{0.5F, 2.0};
        numeric::add_levels(sums, nullptr, count);
        numeric::measure_to_pcm16(sums, nullptr, count, nullptr);
        EXPECT_EQ(sums.peak, 0.5F);
        EXPECT_EQ(sums.squares, 2.0);
        EXPECT_EQ(numeric::sum_of_squares(nullptr, count), 0.0);
        int32_t beyond = 7;
        EXPECT_EQ(numeric::sum_of_squares(nullptr, count, 0.5F, beyond), 0.0);
        EXPECT_EQ(beyond, 0);
    }
}

TEST(levels, add_up_in_pieces_as_in_one) {
    std::mt19937 random(2);
    const auto samples = signals::noise(random, 1000);
    numeric::level_sums whole;
    numeric::add_levels(whole, samples.data(), 1000);
    numeric::level_sums pieces;
    for (int32_t start = 0; start < 1000;) {
        const auto length = std::min<int32_t>(static_cast<int32_t>(random() % 50), 1000 - start);
        numeric::add_levels(pieces, samples.data() + start, length);
        start += length;
    }
    EXPECT_TRUE(same_sums(pieces, whole));
}

TEST(sums_of_squares, equal_their_definition) {
    for_each_block(3, [](const float* samples, int32_t count) {
        numeric::level_sums expected;
        numeric::plain::add_levels(expected, samples, count);
        EXPECT_TRUE(same(numeric::sum_of_squares(samples, count), expected.squares)) << count;
        for (const float threshold : {0.95F, 0.0F, 1e-42F, infinity}) {
            int32_t beyond = -1;
            EXPECT_TRUE(same(numeric::sum_of_squares(samples, count, threshold, beyond), expected.squares)) << count;
            EXPECT_EQ(beyond, numeric::plain::count_beyond(samples, count, threshold)) << count;
        }
    });
}

TEST(measuring_to_16_bits, equals_its_definition) {
    for_each_block(4, [](const float* samples, int32_t count) {
        const auto length = static_cast<size_t>(count);
        guarded_buffer<int16_t> pcm(length);
        std::vector<int16_t> expected_pcm(length);
        numeric::level_sums actual;
        numeric::level_sums expected;
        numeric::measure_to_pcm16(actual, samples, count, pcm.data());
        numeric::plain::add_levels(expected, samples, count);
        numeric::plain::to_pcm16(samples, count, expected_pcm.data());
        EXPECT_TRUE(same_sums(actual, expected)) << count;
        EXPECT_EQ(std::vector<int16_t>(pcm.data(), pcm.data() + length), expected_pcm) << count;
    });
}

TEST(measuring_to_16_bits, gets_each_number_right_wherever_it_stands) {
    std::vector<float> numbers{0.0F, -0.0F, nan, -nan, infinity, -infinity, 1e-45F, 3e38F, -3e38F};
    for (const float edge :
         {1.0F, 0.5F, 32766.0F / 32767.0F, 32768.0F / 32767.0F, 65535.0F, 65536.0F, 65538.0F, 2.2e9F}) {
        for (const float x : {edge, std::nextafter(edge, 0.0F), std::nextafter(edge, infinity)}) {
            numbers.insert(numbers.end(), {x, -x});
        }
    }
    for (const float number : numbers) {
        for (size_t place = 0; place < 19; ++place) {
            std::vector<float> samples(19, 0.25F);
            samples[place] = number;
            numeric::level_sums sums;
            std::vector<int16_t> pcm(19);
            numeric::measure_to_pcm16(sums, samples.data(), 19, pcm.data());
            EXPECT_EQ(pcm[place], numeric::plain::to_pcm16(number)) << number << " at " << place;
            EXPECT_EQ(pcm[(place + 1) % 19], 8191);
            // What came before must not change how the next piece is converted.
            numeric::measure_to_pcm16(sums, samples.data(), 19, pcm.data());
            EXPECT_EQ(pcm[place], numeric::plain::to_pcm16(number));
        }
    }
}

TEST(group_means, equal_their_definition) {
    for (const int32_t ratio : {2, 3, 4, 5, 6, 7, 8, 12, 24}) {
        for_each_block(static_cast<unsigned>(ratio), [ratio](const float* samples, int32_t count) {
            const int32_t groups = count / ratio;
            guarded_buffer<float> out(static_cast<size_t>(groups));
            std::vector<float> expected(static_cast<size_t>(groups));
            numeric::group_means(samples, ratio, out.data(), groups);
            numeric::plain::group_means(samples, ratio, expected.data(), groups);
            EXPECT_TRUE(same(out.data(), expected)) << ratio << ", " << count;
        });
    }
}

TEST(group_means, of_negative_zeros_are_positive) {
    for (const int32_t ratio : {2, 3, 4, 5, 6}) {
        const std::vector<float> zeros(48, -0.0F);
        std::vector<float> out(8, 1.0F);
        numeric::group_means(zeros.data(), ratio, out.data(), 8);
        EXPECT_TRUE(same(out.data(), std::vector<float>(8, 0.0F))) << ratio;
    }
}

TEST(interpolation, equals_its_definition_from_any_start) {
    std::mt19937 random(5);
    for (const double step : {44100.0 / 16000.0, 1.0 / 3.0, 48000.0 / 44100.0, 1.0, 2.0, 3.0, 7.0, 1e-3, 100.25}) {
        for_each_block(6, [&](const float* samples, int32_t count) {
            const auto outputs = static_cast<int32_t>(std::min(static_cast<double>(count) / step, 3000.0));
            const int32_t first = outputs > 0 ? static_cast<int32_t>(random() % static_cast<unsigned>(outputs)) : 0;
            const auto room = static_cast<size_t>(outputs - first);
            guarded_buffer<float> out(room);
            std::vector<float> expected(room);
            numeric::interpolate_linear(samples, count, step, first, out.data(), outputs - first);
            numeric::plain::interpolate_linear(samples, count, step, first, expected.data(), outputs - first);
            EXPECT_TRUE(same(out.data(), expected)) << step << ", " << count << ", from " << first;
        });
    }
}

TEST(resampling, equals_the_definition_of_interpolation) {
    for (const double step : {1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 69.0, 1.5, 0.5, 2.75625, 0.3333}) {
        for_each_block(7, [step](const float* samples, int32_t count) {
            for (const int32_t room : {100000, 9, 1}) {
                const int32_t outputs = numeric::resampled_count(count, step, room);
                if (outputs < 1 || outputs > 100000) return;
                guarded_buffer<float> out(static_cast<size_t>(outputs));
                std::vector<float> expected(static_cast<size_t>(outputs));
                // NOLINTBEGIN(readability-suspicious-call-argument): the functions call `count` what they make
                numeric::resample(samples, count, step, out.data(), outputs);
                numeric::plain::interpolate_linear(samples, count, step, 0, expected.data(), outputs);
                // NOLINTEND(readability-suspicious-call-argument)
                EXPECT_TRUE(same(out.data(), expected)) << step << ", " << count;
            }
        });
    }
}

TEST(subtracting_the_previous_sample, equals_its_definition) {
    for (const float coef : {0.95F, -1.0F, 0.0F, 1e-40F, nan, infinity}) {
        for_each_block(8, [coef](const float* samples, int32_t count) {
            std::vector<float> expected(samples, samples + count);
            guarded_buffer<float> block(expected.size());
            std::copy(expected.begin(), expected.end(), block.data());
            numeric::subtract_previous(block.data(), count, coef);
            numeric::plain::subtract_previous(expected.data(), count, coef);
            EXPECT_TRUE(same(block.data(), expected)) << coef << ", " << count;
        });
    }
}

TEST(multiplying, equals_its_definition) {
    for (const float gain : {0.1F, -3.7F, 1e-40F, nan, infinity}) {
        for_each_block(8, [gain](const float* samples, int32_t count) {
            std::vector<float> expected(samples, samples + count);
            guarded_buffer<float> block(expected.size());
            std::copy(expected.begin(), expected.end(), block.data());
            numeric::multiply(block.data(), count, gain);
            numeric::plain::multiply(expected.data(), count, gain);
            EXPECT_TRUE(same(block.data(), expected)) << gain << ", " << count;
        });
    }
}

TEST(scaling_to_the_range_of_16_bits, stays_within_its_buffers_and_comes_back) {
    for (const int32_t count : {0, 1, 7, 480}) {
        guarded_buffer<float> in(static_cast<size_t>(count));
        guarded_buffer<float> out(static_cast<size_t>(count));
        for (int32_t i = 0; i < count; ++i)
            in.data()[i] = static_cast<float>(i) / -512.0F;
        numeric::scale_to_pcm16_range(in.data(), count, out.data());
        for (int32_t i = 0; i < count; ++i)
            EXPECT_EQ(out.data()[i], in.data()[i] * 32767.0F);
        numeric::scale_from_pcm16_range(out.data(), count, out.data());
        for (int32_t i = 0; i < count; ++i)
            EXPECT_EQ(out.data()[i], in.data()[i] * 32767.0F / 32767.0F);
    }
}

// FNV-1a over the bits of numbers. Which NaN comes out of a calculation is the processor's choice.
class digest {
public:
    void add(double number) {
        for (uint64_t bits = std::isnan(number) ? 1 : std::bit_cast<uint64_t>(number), i = 0; i < 8; ++i, bits >>= 8U)
            value_ = (value_ ^ (bits & 0xFFU)) * 0x100000001B3U;
    }

    template <typename Number>
    void add(const std::vector<Number>& numbers) {
        for (const Number number : numbers)
            add(static_cast<double>(number));
    }

    uint64_t value() const { return value_; }

private:
    uint64_t value_ = 0xCBF29CE484222325U;
};

TEST(all_loops, give_the_same_bits_on_every_processor) {
    std::mt19937 random(9);
    digest results;
    for (int block = 0; block < 3000; ++block) {
        const auto length = static_cast<size_t>(1 + block % 500);
        const auto count = static_cast<int32_t>(length);
        const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
        const auto samples = signals::hostile(random, length, amplitude);

        numeric::level_sums sums;
        std::vector<int16_t> pcm(length);
        numeric::measure_to_pcm16(sums, samples.data(), count, pcm.data());
        int32_t beyond = 0;
        results.add(numeric::sum_of_squares(samples.data(), count, 0.95F, beyond));
        results.add(beyond);
        results.add(sums.peak);
        results.add(numeric::root_mean_square(sums.squares, count));
        results.add(pcm);

        const int32_t ratio = 2 + block % 7;
        std::vector<float> means(length / static_cast<size_t>(ratio));
        numeric::group_means(samples.data(), ratio, means.data(), count / ratio);
        results.add(means);

        const double step = 0.3 + 0.1 * (block % 60);
        std::vector<float> resampled(4 * length);
        resampled.resize(static_cast<size_t>(numeric::resampled_count(count, step, 4 * count)));
        numeric::resample(samples.data(), count, step, resampled.data(), static_cast<int32_t>(resampled.size()));
        results.add(resampled);

        std::vector<float> changed = samples;
        numeric::subtract_previous(changed.data(), count, 0.95F);
        numeric::multiply(changed.data(), count, 0.7F);
        numeric::scale_to_pcm16_range(changed.data(), count, changed.data());
        numeric::scale_from_pcm16_range(changed.data(), count, changed.data());
        results.add(changed);
    }
    EXPECT_EQ(results.value(), 3726137804310170453U);
}

} // namespace
