// The stand-alone resampler: how many samples, which ones, and never a step outside the two buffers.
#include "bits.h"
#include "dsp_reference.h"
#include "fixture.h"
#include "guarded_buffer.h"
#include "signals.h"

#include <limits>
#include <thread>

using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int32_t int_min = std::numeric_limits<int32_t>::min();
constexpr int32_t int_max = std::numeric_limits<int32_t>::max();
using signals::infinity;
using signals::nan;
constexpr const char* creation_line = "[dsp] soxr недоступен, используется linear interpolation\n";

const std::vector<int32_t> usual_rates{8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000, 192000};

class resampler : public with_fakes {
protected:
    // Converts between guard pages; what lies behind the result must stay as it was.
    static std::vector<float> converted(int32_t in_rate, int32_t out_rate, const std::vector<float>& samples,
                                        int32_t max_out, guard side = guard::behind) {
        guarded_buffer<float> in(samples.size(), side);
        std::copy(samples.begin(), samples.end(), in.data());
        guarded_buffer<float> out(static_cast<size_t>(max_out), side);
        std::fill_n(out.data(), max_out, -77.0F);
        wrapper_audio_resampler* handle = wrapper_audio_resampler_init(in_rate, out_rate, 0);
        const int32_t count =
            wrapper_audio_resample(handle, in.data(), static_cast<int32_t>(samples.size()), out.data(), max_out);
        wrapper_audio_resampler_free(handle);
        for (int32_t i = std::max(count, 0); i < max_out; ++i) {
            if (out[static_cast<size_t>(i)] != -77.0F) ADD_FAILURE() << "element " << i << " was touched";
        }
        return {out.data(), out.data() + std::max(count, 0)};
    }

    // The count alone, for counts that come with neither reading nor writing.
    static int32_t refused(int32_t in_rate, int32_t out_rate, int32_t in_count, int32_t max_out) {
        guarded_buffer<float> nothing(0);
        wrapper_audio_resampler* handle = wrapper_audio_resampler_init(in_rate, out_rate, 0);
        const int32_t count = wrapper_audio_resample(handle, nothing.data(), in_count, nothing.data(), max_out);
        wrapper_audio_resampler_free(handle);
        return count;
    }

    static std::vector<float> ramp(size_t count) {
        std::vector<float> samples(count);
        for (size_t i = 0; i < count; ++i)
            samples[i] = static_cast<float>(i * i % 1009) / 1009.0F - 0.5F;
        return samples;
    }
};

// ---- Life ----

TEST_F(resampler, says_at_each_creation_that_it_interpolates) {
    EXPECT_EQ(std::string(creation_line).size(), 79U);
    for (int i = 0; i < 2; ++i) {
        wrapper_audio_resampler* handle = wrapper_audio_resampler_init(48000, 16000, 7);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(log(), creation_line);
        EXPECT_EQ(calls().front(), "calloc");
        wrapper_audio_resampler_free(handle);
        EXPECT_THAT(calls(), ElementsAre("free"));
    }
}

TEST_F(resampler, without_memory_is_null_in_silence) {
    world().failing_allocations = {1};
    EXPECT_EQ(wrapper_audio_resampler_init(48000, 16000, 0), nullptr);
    EXPECT_THAT(calls(), ElementsAre("calloc"));
    wrapper_audio_resampler_free(nullptr);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(resampler, gives_nothing_for_null) {
    wrapper_audio_resampler* handle = wrapper_audio_resampler_init(16000, 16000, 0);
    forget();
    float samples[4] = {1.0F, 2.0F, 3.0F, 4.0F};
    float out[4] = {9.0F, 9.0F, 9.0F, 9.0F};
    EXPECT_EQ(wrapper_audio_resample(nullptr, samples, 4, out, 4), 0);
    EXPECT_EQ(wrapper_audio_resample(handle, nullptr, 4, out, 4), 0);
    EXPECT_EQ(wrapper_audio_resample(handle, samples, 4, nullptr, 4), 0);
    EXPECT_EQ(wrapper_audio_resample(handle, nullptr, -4, out, -4), 0);
    EXPECT_THAT(out, testing::Each(9.0F));
    EXPECT_THAT(calls(), IsEmpty());
    wrapper_audio_resampler_free(handle);
}

// ---- Worked examples ----

TEST_F(resampler, from_16000_to_48000) {
    const auto in = ramp(160);
    const auto out = converted(16000, 48000, in, 1000);
    ASSERT_EQ(out.size(), 480U);
    EXPECT_NEAR(out[1], in[0] * 2.0 / 3.0 + in[1] / 3.0, 1e-7);
    EXPECT_THAT(std::vector<float>(out.end() - 3, out.end()), testing::Each(in[159]));
    EXPECT_NE(out[476], in[159]);
}

TEST_F(resampler, from_48000_to_16000_takes_every_third_sample) {
    const auto in = ramp(480);
    const auto out = converted(48000, 16000, in, 1000);
    ASSERT_EQ(out.size(), 160U);
    for (size_t i = 0; i < 160; ++i)
        EXPECT_EQ(out[i], in[3 * i]);
}

TEST_F(resampler, from_48000_to_44100_is_one_short_of_the_exact_count) {
    EXPECT_EQ(converted(48000, 44100, ramp(480), 1000).size(), 440U);
}

TEST_F(resampler, from_44100_to_16000) {
    const auto in = ramp(882);
    const auto out = converted(44100, 16000, in, 1000);
    ASSERT_EQ(out.size(), 320U);
    EXPECT_EQ(out[1], static_cast<float>(static_cast<double>(in[2]) * 0.24375 + 0.75625 * static_cast<double>(in[3])));
}

TEST_F(resampler, from_44100_to_48000_leans_on_the_last_sample) {
    const auto in = ramp(441);
    const auto out = converted(44100, 48000, in, 1000);
    ASSERT_EQ(out.size(), 480U);
    EXPECT_EQ(out[479], in[440]);
    EXPECT_NE(out[478], in[440]);
}

TEST_F(resampler, at_equal_rates_gives_the_input) {
    const auto in = ramp(333);
    EXPECT_EQ(converted(44100, 44100, in, 1000), in);
    EXPECT_EQ(converted(-3, -3, in, 1000), in);
}

TEST_F(resampler, gives_the_start_of_the_block_when_room_is_short) {
    const auto in = ramp(160);
    const auto whole = converted(16000, 48000, in, 1000);
    for (const int32_t room : {1, 2, 100, 479}) {
        EXPECT_EQ(converted(16000, 48000, in, room), std::vector<float>(whole.begin(), whole.begin() + room));
    }
}

TEST_F(resampler, begins_anew_with_every_block) {
    const auto in = ramp(482);
    const auto whole = converted(48000, 16000, in, 1000);
    auto pieces = converted(48000, 16000, {in.begin(), in.begin() + 241}, 1000);
    const auto second = converted(48000, 16000, {in.begin() + 241, in.end()}, 1000);
    pieces.insert(pieces.end(), second.begin(), second.end());
    EXPECT_EQ(whole.size(), pieces.size());
    EXPECT_NE(whole, pieces);
}

// ---- The formula decides, also where the fraction is 0 ----

TEST_F(resampler, lets_a_neighbour_that_is_not_finite_spoil_even_a_sample_that_it_has_no_share_in) {
    EXPECT_THAT(converted(16000, 16000, {1.0F, infinity, 2.0F, nan, 3.0F}, 5),
                ElementsAre(testing::NanSensitiveFloatEq(nan), testing::NanSensitiveFloatEq(infinity),
                            testing::NanSensitiveFloatEq(nan), testing::NanSensitiveFloatEq(nan), 3.0F));
}

TEST_F(resampler, makes_a_negative_zero_positive_beside_a_positive_sample) {
    const auto out = converted(16000, 16000, {-0.0F, 1.0F, -0.0F, -1.0F, -0.0F}, 5);
    ASSERT_EQ(out.size(), 5U);
    EXPECT_FALSE(std::signbit(out[0]));
    EXPECT_TRUE(std::signbit(out[2])); // -0.0 + 0 * -1 = -0.0
    EXPECT_TRUE(std::signbit(out[4])); // its own neighbour
}

// ---- Counts ----

TEST_F(resampler, counts_at_the_edges) {
    EXPECT_EQ(refused(48000, 16000, 0, 100), 0);
    EXPECT_EQ(refused(48000, 16000, 480, 0), 0);
    EXPECT_EQ(refused(48000, 16000, 480, -5), -5);
    EXPECT_EQ(refused(48000, 16000, 480, int_min), int_min);
    EXPECT_EQ(refused(16000, 16000, -5, 100), -5);
    EXPECT_EQ(refused(48000, 16000, -480, 100), -160);
    EXPECT_EQ(refused(48000, 16000, -1, 100), 0);
    EXPECT_EQ(refused(16000, 48000, -5, 100), -15);
    EXPECT_EQ(refused(16000, 48000, -5, -20), -20);
}

TEST_F(resampler, counts_with_absurd_rates) {
    EXPECT_EQ(refused(16000, 0, 480, 100), 0);
    EXPECT_EQ(refused(16000, 0, -480, 100), 0);
    EXPECT_EQ(refused(0, 16000, 480, 100), int_min);
    EXPECT_EQ(refused(0, 16000, -480, 100), int_min);
    EXPECT_EQ(refused(0, 16000, 0, 100), int_min);
    EXPECT_EQ(refused(0, 0, 480, 100), int_min);
    EXPECT_EQ(refused(0, 16000, 480, -5), int_min);
    EXPECT_EQ(refused(-16000, 16000, 480, 100), -480);
    EXPECT_EQ(refused(16000, -16000, 480, 100), -480);
}

TEST_F(resampler, counts_that_32_bits_do_not_hold) {
    EXPECT_EQ(refused(1, 2, int_max, 100), int_min);
    EXPECT_EQ(refused(1, 2, int_min, 100), int_min);
    EXPECT_EQ(refused(1, int_max, 2, 100), int_min);
    EXPECT_EQ(refused(1, int_max, 2, -9), int_min);
    EXPECT_EQ(refused(1, 2, -1073741824, 100), int_min); // exactly the lowest
    EXPECT_EQ(refused(2, -1, int_min, 0), 0);            // 1073741824, then no room
    EXPECT_EQ(refused(1, 2, 1073741824, 100), int_min);  // one above the highest
    EXPECT_EQ(refused(1, 1, int_max, 0), 0);             // exactly the highest
    EXPECT_EQ(refused(-1, 1, int_max, 0), -int_max);
}

TEST_F(resampler, returns_a_negative_count_of_inputs_that_promised_outputs) {
    EXPECT_EQ(refused(-16000, 16000, -480, 100), -480);
    EXPECT_EQ(refused(16000, -48000, -1, 100), -1);
    EXPECT_EQ(refused(16000, -48000, -1, 0), 0);
    EXPECT_EQ(refused(16000, -48000, -1, -3), -3);
}

TEST_F(resampler, counts_like_the_reference_for_the_usual_rates) {
    for (const int32_t in_rate : usual_rates) {
        for (const int32_t out_rate : usual_rates) {
            for (const size_t length : {1U, 7U, 160U, 441U, 480U, 1103U}) {
                const auto expected =
                    reference::resampled_count(in_rate, out_rate, static_cast<int32_t>(length), 30000);
                EXPECT_EQ(converted(in_rate, out_rate, ramp(length), 30000).size(), static_cast<size_t>(expected))
                    << in_rate << " to " << out_rate << ", " << length;
            }
        }
    }
}

TEST_F(resampler, stays_inside_its_buffers_for_any_numbers) {
    std::mt19937 random(42);
    const int32_t special[] = {0, 1, -1, 2, 3, 48000, 44100, -16000, int_max, int_min};
    const auto any_rate = [&]() -> int32_t {
        switch (random() % 4) {
        case 0:
            return special[random() % std::size(special)];
        case 1:
            return static_cast<int32_t>(random() % 400000);
        case 2:
            return static_cast<int32_t>(random() % 50) - 10;
        default:
            return static_cast<int32_t>(random());
        }
    };
    int converting = 0;
    for (int round = 0; round < 20000; ++round) {
        const int32_t in_rate = any_rate();
        const int32_t out_rate = any_rate();
        const auto length = static_cast<size_t>(random() % 300 + 1);
        const auto room = static_cast<int32_t>(random() % 600 + 1);
        const auto count = reference::resampled_count(in_rate, out_rate, static_cast<int32_t>(length), room);
        if (count <= 0) {
            EXPECT_EQ(refused(in_rate, out_rate, static_cast<int32_t>(length), room), count);
        } else {
            const auto in = ramp(length);
            EXPECT_EQ(converted(in_rate, out_rate, in, room), reference::resampled(in_rate, out_rate, in, room));
            ++converting;
        }
        const auto negative = static_cast<int32_t>(random() | 0x80000000U);
        EXPECT_EQ(refused(in_rate, out_rate, negative, room),
                  reference::resampled_count(in_rate, out_rate, negative, room))
            << in_rate << " to " << out_rate << ", " << negative;
        calls();
        log();
    }
    EXPECT_GT(converting, 1000);
}

TEST_F(resampler, stays_inside_its_input_where_the_last_position_rounds) {
    std::mt19937 random(43);
    for (int round = 0; round < 3000; ++round) {
        const auto length = static_cast<size_t>(random() % 2000 + 1);
        const auto in_rate = static_cast<int32_t>(random() % 200000 + 1);
        const auto out_rate = static_cast<int32_t>(random() % 200000 + 1);
        const int32_t count = reference::resampled_count(in_rate, out_rate, static_cast<int32_t>(length), int_max);
        if (count < 1 || count > 100000) continue;
        const auto in = ramp(length);
        EXPECT_EQ(converted(in_rate, out_rate, in, count), reference::resampled(in_rate, out_rate, in, count));
        calls();
        log();
    }
}

// ---- Bit for bit ----

TEST_F(resampler, equals_the_reference_bit_for_bit) {
    std::mt19937 random(44);
    const std::pair<int32_t, int32_t> rates[] = {{48000, 16000}, {44100, 16000}, {16000, 48000},
                                                 {48000, 44100}, {16000, 16000}, {48000, 24000}};
    for (const auto& [in_rate, out_rate] : rates) {
        for (const size_t length : signals::lengths()) {
            const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
            const auto in = signals::mixed(random, length, amplitude);
            const auto room = static_cast<int32_t>(length * 3 + 1);
            const auto expected = reference::resampled(in_rate, out_rate, in, room);
            for (const guard side : {guard::behind, guard::before}) {
                const auto out = converted(in_rate, out_rate, in, room, side);
                ASSERT_EQ(out.size(), expected.size());
                EXPECT_TRUE(same(out.data(), expected)) << in_rate << " to " << out_rate << ", " << length;
            }
        }
    }
}

TEST_F(resampler, accepts_buffers_aligned_to_single_samples) {
    std::mt19937 random(45);
    const auto in = signals::hostile(random, 500);
    std::vector<float> padded(4);
    padded.insert(padded.end(), in.begin(), in.end());
    const auto expected = reference::resampled(44100, 16000, in, 500);
    std::vector<float> out(expected.size() + 4);
    wrapper_audio_resampler* handle = wrapper_audio_resampler_init(44100, 16000, 0);
    for (size_t shift = 0; shift < 4; ++shift) {
        std::copy(in.begin(), in.end(), padded.begin() + static_cast<std::ptrdiff_t>(shift));
        EXPECT_EQ(wrapper_audio_resample(handle, padded.data() + shift, 500, out.data() + (3 - shift), 500),
                  static_cast<int32_t>(expected.size()));
        EXPECT_TRUE(same(out.data() + (3 - shift), expected));
    }
    wrapper_audio_resampler_free(handle);
}

// ---- Threads ----

TEST_F(resampler, serves_several_threads_at_once) {
    wrapper_audio_resampler* handle = wrapper_audio_resampler_init(44100, 16000, 0);
    std::mt19937 random(46);
    const auto in = signals::noise(random, 4410);
    const auto expected = reference::resampled(44100, 16000, in, 2000);
    std::vector<std::thread> running;
    for (int i = 0; i < 4; ++i) {
        running.emplace_back([&] {
            for (int j = 0; j < 100; ++j) {
                std::vector<float> out(2000);
                ASSERT_EQ(wrapper_audio_resample(handle, in.data(), 4410, out.data(), 2000),
                          static_cast<int32_t>(expected.size()));
                ASSERT_TRUE(same(out.data(), expected));
            }
        });
    }
    for (auto& thread : running)
        thread.join();
    wrapper_audio_resampler_free(handle);
}

} // namespace
