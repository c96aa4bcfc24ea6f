// Any rate to any other: how many samples come, that no cut is heard, and that nothing stays from stream to stream.
#include "processors.h"

#include "bits.h"
#include "conversion_reference.h"
#include "signals.h"

#include <random>

namespace {

constexpr int32_t rates[] = {100, 8000, 11025, 16000, 22050, 44100, 47999, 48000, 96000, 192000, 768000};

// Pairs that together have whole ratios up and down, odd ones, and the ends of the range.
constexpr std::pair<int32_t, int32_t> pairs[] = {
    {48000, 48000}, {48000, 16000}, {44100, 16000},  {8000, 44100},  {16000, 48000}, {44100, 44100}, {16000, 16000},
    {47999, 16001}, {22050, 11025}, {192000, 48000}, {96000, 44100}, {11025, 8000},  {101, 100},     {12345, 54321},
};

std::vector<wrapper_audio_voice_options> chains() {
    std::vector<wrapper_audio_voice_options> all;
    for (const auto& [in_rate, out_rate] : pairs) {
        for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
            for (const float denoise : {0.0F, 1.0F}) {
                // A stream that slow takes seconds to denoise.
                if (denoise > 0.0F && in_rate < 1000) continue;
                all.push_back({in_rate, out_rate, denoise, 0, conversion});
            }
        }
    }
    return all;
}

std::vector<float> noise(std::size_t count, unsigned seed = 1) {
    std::mt19937 random(seed);
    return signals::noise(random, count, 0.5F);
}

// About 0.15 s, and a few seconds at the lowest rates.
std::vector<float> sound_for(const wrapper_audio_voice_options& options) {
    return noise(options.in_rate < 1000 ? 397U : static_cast<std::size_t>(options.in_rate) / 7 + 13);
}

// ---- Counts ----

struct count_case {
    int32_t in_rate;
    int32_t out_rate;
    std::size_t in_count;
    std::size_t out_count;
};

TEST(rates, halves_are_rounded_up) {
    constexpr count_case cases[] = {
        {48000, 24000, 1, 1},         {48000, 24000, 2, 1},         {48000, 24000, 3, 2},
        {48000, 16000, 1, 0},         {48000, 16000, 2, 1},         {48000, 16000, 4, 1},
        {44100, 16000, 441, 160},     {44100, 16000, 1, 0},         {44100, 16000, 2, 1},
        {16000, 44100, 1, 3},         {16000, 44100, 160, 441},     {16000, 16000, 1, 1},
        {768000, 100, 3839, 0},       {768000, 100, 3840, 1},       {100, 768000, 1, 7680},
        {47999, 48000, 47999, 48000}, {47999, 48000, 1, 1},         {48000, 47999, 24000, 24000},
        {48000, 47999, 24001, 24000}, {48000, 47999, 24002, 24001}, {100, 100, 0, 0},
        {44100, 48000, 0, 0},
    };
    for (const auto& [in_rate, out_rate, in_count, out_count] : cases) {
        for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
            const wrapper_audio_voice_options options{in_rate, out_rate, 0.0F, 0, conversion};
            EXPECT_EQ(whole_stream(options, noise(in_count)).size(), out_count) << options << ", " << in_count << " in";
        }
    }
}

void expect_counts(float denoise, const std::vector<wrapper_audio_voice_options>& every_pair) {
    for (auto options : every_pair) {
        options.denoise = denoise;
        const auto processor = voice(options);
        for (const std::size_t length : {0U, 1U, 2U, options.in_rate < 1000 ? 13U : 1009U}) {
            if (length == 2 && denoise > 0.0F && options.in_rate < 1000) continue; // takes as long as 1

            EXPECT_EQ(whole_stream(processor, noise(length)).size(),
                      reference::stream_count(length, options.in_rate, options.out_rate))
                << options << ", " << length << " in";
        }
    }
}

TEST(rates, every_pair_gives_what_belongs_to_the_input) {
    std::vector<wrapper_audio_voice_options> every_pair;
    for (const int32_t in_rate : rates) {
        for (const int32_t out_rate : rates) {
            for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR})
                every_pair.push_back({in_rate, out_rate, 0.0F, 0, conversion});
        }
    }
    expect_counts(0.0F, every_pair);
}

TEST(rates, every_pair_gives_as_much_with_denoising) {
    std::vector<wrapper_audio_voice_options> every_pair;
    for (const int32_t in_rate : rates) {
        for (const int32_t out_rate : rates) {
            // At 100 Hz a stream is so slow that its end alone takes seconds to denoise: a few pairs do.
            const int low = (in_rate == 100 ? 1 : 0) + (out_rate == 100 ? 1 : 0);
            if (low == 1 && in_rate != 44100 && out_rate != 44100) continue;
            for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR})
                every_pair.push_back({in_rate, out_rate, 1.0F, 0, conversion});
        }
    }
    expect_counts(1.0F, every_pair);
}

// ---- Pieces ----

TEST(rates, no_cut_of_the_input_changes_the_output) {
    std::mt19937 random(2);
    for (const auto& options : chains()) {
        const auto in = sound_for(options);
        const auto processor = voice(options);
        const auto expected = whole_stream(processor, in);
        const auto speech = take_speech(processor);
        const std::size_t longest = static_cast<std::size_t>(options.in_rate) / 100 * 3 + 2;
        const auto out = in_pieces(processor, in, [&] { return random() % longest; });
        ASSERT_EQ(out.size(), expected.size()) << options;
        EXPECT_TRUE(same(out.data(), expected)) << options;
        EXPECT_EQ(take_speech(processor), speech) << options;
    }
}

TEST(rates, single_samples_give_the_same) {
    for (const auto& options : chains()) {
        if (options.denoise > 0.0F && options.in_rate != 44100 && options.in_rate != 48000) continue;
        auto in = sound_for(options);
        in.resize(std::min<std::size_t>(in.size(), 3001));
        const auto processor = voice(options);
        const auto expected = whole_stream(processor, in);
        std::vector<float> out;
        for (const float& sample : in) {
            const auto given = process(processor, {&sample, 1});
            out.insert(out.end(), given.begin(), given.end());
        }
        const auto rest = flush(processor, 1);
        out.insert(out.end(), rest.begin(), rest.end());
        ASSERT_EQ(out.size(), expected.size()) << options;
        EXPECT_TRUE(same(out.data(), expected)) << options;
    }
}

TEST(rates, what_does_not_fit_waits) {
    const auto in = noise(44100);
    const wrapper_audio_voice_options options{44100, 16000, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_CLEAN};
    const auto expected = whole_stream(options, in);
    const auto processor = voice(options);
    std::vector<float> out = process(processor, in, 0);
    EXPECT_TRUE(out.empty());
    std::vector<float> more = process(processor, {}, 7);
    EXPECT_EQ(more.size(), 7U);
    while (!more.empty()) {
        out.insert(out.end(), more.begin(), more.end());
        more = process(processor, {}, 1000);
    }
    EXPECT_GT(out.size(), 14000U);
    const auto rest = flush(processor, 100);
    out.insert(out.end(), rest.begin(), rest.end());
    ASSERT_EQ(out.size(), expected.size());
    EXPECT_TRUE(same(out.data(), expected));
}

// ---- Delay ----

// The most that was kept inside while a sound went through in pieces of any length.
std::size_t most_kept(const wrapper_audio_voice_options& options, std::size_t length) {
    std::mt19937 random(3);
    const auto processor = voice(options);
    const std::size_t lengths[] = {1,
                                   1,
                                   2,
                                   7,
                                   static_cast<std::size_t>(options.in_rate) / 100,
                                   static_cast<std::size_t>(options.in_rate) / 30 + 1};
    std::size_t taken = 0;
    std::size_t given = 0;
    std::size_t most = 0;
    while (taken < length) {
        const auto in = noise(lengths[random() % std::size(lengths)]);
        taken += in.size();
        given += process(processor, in).size();
        const std::size_t due = reference::stream_count(taken, options.in_rate, options.out_rate);
        EXPECT_LE(given, due) << options << ", " << taken << " taken";
        most = std::max(most, due - std::min(due, given));
    }
    return most;
}

TEST(rates, the_delay_is_the_most_that_is_kept_inside) {
    for (const auto& options : chains()) {
        const std::size_t delay = wrapper_audio_processor_delay(voice(options).get());
        const std::size_t seconds = options.in_rate < 1000 ? 60 : 1;
        const std::size_t most = most_kept(options, static_cast<std::size_t>(options.in_rate) * seconds);
        EXPECT_LE(most, delay) << options;
        // Each of up to three stages may be told 10 ms too long.
        EXPECT_LE(delay, most * 4 / 3 + static_cast<std::size_t>(options.out_rate) * 3 / 100) << options;
    }
}

TEST(rates, without_conversion_only_the_denoiser_keeps_anything) {
    EXPECT_EQ(wrapper_audio_processor_delay(voice({44100, 44100, 0.0F, 0, 0}).get()), 0U);
    EXPECT_EQ(wrapper_audio_processor_delay(voice({48000, 48000, 0.0F, 0, 0}).get()), 0U);
    // It gives a frame of 480 when the second one behind it is full.
    EXPECT_EQ(wrapper_audio_processor_delay(voice({48000, 48000, 0.0F, 1, 0}).get()), 1439U);
    const auto processor = voice({48000, 48000, 1.0F, 0, 0});
    EXPECT_EQ(wrapper_audio_processor_delay(processor.get()), 1439U);
    EXPECT_EQ(process(processor, noise(1439)).size(), 0U);
    EXPECT_EQ(process(processor, noise(1)).size(), 480U);
    EXPECT_EQ(process(processor, noise(479)).size(), 0U);
    EXPECT_EQ(process(processor, noise(1)).size(), 480U);
}

TEST(rates, nothing_is_kept_for_long) {
    for (const int32_t in_rate : {8000, 16000, 44100, 48000, 192000}) {
        for (const int32_t out_rate : {8000, 16000, 44100, 48000, 192000, 768000}) {
            const auto delay = [&](float denoise) {
                const auto processor = voice({in_rate, out_rate, denoise, 0, WRAPPER_AUDIO_CONVERSION_CLEAN});
                return static_cast<double>(wrapper_audio_processor_delay(processor.get())) / out_rate;
            };
            EXPECT_LT(delay(0.0F), 0.2) << in_rate << " to " << out_rate;
            EXPECT_LT(delay(1.0F), 0.4) << in_rate << " to " << out_rate;
        }
    }
}

TEST(rates, lines_are_drawn_as_soon_as_both_their_ends_are_there) {
    const auto processor = voice({8000, 16000, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR});
    EXPECT_EQ(process(processor, noise(1)).size(), 0U);
    EXPECT_EQ(process(processor, noise(1)).size(), 2U);
    EXPECT_EQ(process(processor, noise(3)).size(), 6U);
    EXPECT_EQ(flush(processor).size(), 2U);
}

TEST(rates, linear_conversion_keeps_less_than_10_ms) {
    for (const auto& [in_rate, out_rate] : pairs) {
        if (in_rate < 1000) continue;
        const auto delay = wrapper_audio_processor_delay(voice({in_rate, out_rate, 0.0F, 0, 1}).get());
        EXPECT_LT(delay, static_cast<std::size_t>(out_rate) / 90) << in_rate << " to " << out_rate;
    }
}

// ---- Streams one after the other ----

TEST(rates, after_a_flush_the_chain_is_as_new) {
    for (const auto& options : chains()) {
        const auto in = sound_for(options);
        const auto processor = voice(options);
        const auto first = whole_stream(processor, in);
        const auto speech = take_speech(processor);
        const auto second = whole_stream(processor, in);
        ASSERT_EQ(second.size(), first.size()) << options;
        EXPECT_TRUE(same(second.data(), first)) << options;
        EXPECT_EQ(take_speech(processor), speech) << options;
    }
}

TEST(rates, a_reset_forgets_everything) {
    for (const auto& options : chains()) {
        const auto in = sound_for(options);
        const auto processor = voice(options);
        const auto first = whole_stream(processor, in);
        const auto speech = take_speech(processor);
        process(processor, noise(in.size() - 29, 9), 3);
        EXPECT_EQ(wrapper_audio_processor_reset(processor.get()), WRAPPER_AUDIO_OK);
        EXPECT_TRUE(take_speech(processor).empty()) << options;
        const auto second = whole_stream(processor, in);
        ASSERT_EQ(second.size(), first.size()) << options;
        EXPECT_TRUE(same(second.data(), first)) << options;
        EXPECT_EQ(take_speech(processor), speech) << options;
    }
}

TEST(rates, a_reset_ends_a_flush) {
    const auto processor = voice({48000, 16000, 0.0F, 0, 0});
    process(processor, noise(4800), 10);
    std::vector<float> out(10);
    std::size_t count = 0;
    EXPECT_EQ(wrapper_audio_processor_flush(processor.get(), out.data(), 10, &count), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 10U);
    EXPECT_EQ(wrapper_audio_processor_reset(processor.get()), WRAPPER_AUDIO_OK);
    EXPECT_EQ(whole_stream(processor, noise(480)).size(), 160U);
}

} // namespace
