// The speech gate: to the sample the utterances that are defined, whatever the pieces; and what people want of it.
#include "processors.h"

#include "bits.h"
#include "signals.h"
#include "speech_gates.h"
#include "speech_reference.h"

#include <cmath>
#include <fstream>
#include <random>

namespace {

using reference::utterance;

// A gate, and the utterances that were taken from it.
class listener {
public:
    explicit listener(const wrapper_audio_speech_options& options) : gate_(make(options)) {}

    void add(std::span<const float> samples, std::span<const float> probabilities) {
        EXPECT_EQ(wrapper_audio_speech_gate_add(gate_.get(), samples.data(), samples.size(), probabilities.data(),
                                                probabilities.size()),
                  WRAPPER_AUDIO_OK);
    }
    void skip(uint64_t count) { EXPECT_EQ(wrapper_audio_speech_gate_skip(gate_.get(), count), WRAPPER_AUDIO_OK); }
    void flush() { EXPECT_EQ(wrapper_audio_speech_gate_flush(gate_.get()), WRAPPER_AUDIO_OK); }
    void reset() {
        EXPECT_EQ(wrapper_audio_speech_gate_reset(gate_.get()), WRAPPER_AUDIO_OK);
        found.clear();
        sound.clear();
        is_open = false;
    }

    // One call. Its piece fits what was taken before.
    wrapper_audio_speech_piece take(std::size_t capacity) {
        std::vector<float> samples(capacity);
        wrapper_audio_speech_piece piece{};
        EXPECT_EQ(wrapper_audio_speech_gate_take(gate_.get(), samples.data(), capacity, &piece), WRAPPER_AUDIO_OK);
        EXPECT_LE(piece.count, capacity);
        const auto position = static_cast<int64_t>(piece.position);
        if (piece.count > 0) {
            EXPECT_EQ(piece.begins == 0, is_open) << "an utterance begins once";
            if (!is_open) found.push_back({position, position});
            is_open = true;
        }
        if (piece.count > 0 || piece.ends != 0) {
            EXPECT_TRUE(is_open) << "only what has begun ends";
            EXPECT_EQ(position, found.back().end) << "nothing is missing in an utterance";
            found.back().end += piece.count;
        }
        if (piece.ends != 0) is_open = false;
        sound.insert(sound.end(), samples.begin(), samples.begin() + piece.count);
        return piece;
    }
    void take_all(std::size_t capacity = 4096) {
        for (wrapper_audio_speech_piece piece{.position = 0, .count = 1, .begins = 0, .ends = 0};
             piece.count > 0 || piece.ends != 0;)
            piece = take(capacity);
    }

    std::vector<utterance> found;
    std::vector<float> sound; // of all of them
    bool is_open = false;

private:
    const gate_holder gate_;
};

// What is found when the whole stream is there at once.
std::vector<utterance> found_in(const wrapper_audio_speech_options& options, const std::string& text) {
    listener listening(options);
    const auto probabilities = frames(text);
    const auto count = probabilities.size() * static_cast<std::size_t>(options.rate) / 100;
    listening.add(counted(count), probabilities);
    listening.flush();
    listening.take_all();
    EXPECT_FALSE(listening.is_open);
    std::vector<float> expected;
    for (const auto& [begin, end] : listening.found)
        for (int64_t i = begin; i < end; ++i)
            expected.push_back(static_cast<float>(i));
    EXPECT_EQ(listening.sound, expected);
    return listening.found;
}

// ---- Where utterances are ----

TEST(speech_gate, gives_an_utterance_with_what_is_before_and_behind_it) {
    EXPECT_EQ(found_in(brief(), ".....999........"), (std::vector<utterance>{{30, 110}}));
    EXPECT_EQ(found_in(brief(16000), ".....999........"), (std::vector<utterance>{{480, 1760}}));
    EXPECT_TRUE(found_in(brief(), "................").empty());
    EXPECT_TRUE(found_in(brief(), "").empty());
}

TEST(speech_gate, takes_for_speech_what_is_loud_and_long_enough) {
    EXPECT_TRUE(found_in(brief(), "...9...9..9.....").empty()) << "too short";
    EXPECT_TRUE(found_in(brief(), "...5555555555...").empty()) << "never reaches the threshold";
    EXPECT_EQ(found_in(brief(), ".....64........."), (std::vector<utterance>{{30, 100}})) << "just enough";
    EXPECT_TRUE(found_in(brief(), ".....63.........").empty());
    EXPECT_EQ(found_in(brief(), "..222644555....."), (std::vector<utterance>{{30, 140}})) << "ends below the lower one";
}

TEST(speech_gate, begins_when_speech_is_likely_and_at_most_200_ms_before_it_is_certain) {
    EXPECT_EQ(found_in(brief(), "......35399...."), (std::vector<utterance>{{40, 140}}));
    EXPECT_EQ(found_in(brief(), "......52399...."), (std::vector<utterance>{{60, 140}}))
        << "only what is likely all along";
    EXPECT_EQ(found_in(brief(), "......3539359933....."), (std::vector<utterance>{{40, 170}}))
        << "a word too short for one";
    const std::string onset(20, '3');
    EXPECT_EQ(found_in(brief(), "...." + onset + "99...."), (std::vector<utterance>{{20, 290}}));
    EXPECT_EQ(found_in(brief(), "...3" + onset + "99...."), (std::vector<utterance>{{20, 290}}));
    EXPECT_EQ(found_in(brief(), "99333399...."), (std::vector<utterance>{{0, 50}, {50, 110}}))
        << "not of the one before";
    auto options = brief();
    options.hang_over_ms = 0;
    EXPECT_EQ(found_in(options, "993399"), (std::vector<utterance>{{0, 20}, {20, 60}}));
    options.begin_threshold = options.end_threshold = 0.2F;
    EXPECT_EQ(found_in(options, "....2399.."), (std::vector<utterance>{{20, 80}})) << "all of it is certain";
    options = brief();
    options.end_threshold = 0.1F;
    options.min_speech_ms = 30;
    EXPECT_EQ(found_in(options, "....46211..."), (std::vector<utterance>{{20, 120}})) << "certain is likely enough";
}

TEST(speech_gate, bridges_pauses_that_are_shorter_than_the_hang_over) {
    EXPECT_EQ(found_in(brief(), "...99..9..9....."), (std::vector<utterance>{{10, 140}}));
    EXPECT_EQ(found_in(brief(), "...99..5..5....."), (std::vector<utterance>{{10, 80}})) << "these are no speech";
    EXPECT_EQ(found_in(brief(), "...99...99......"), (std::vector<utterance>{{10, 80}, {80, 130}}));
}

TEST(speech_gate, never_reaches_back_into_the_utterance_before) {
    auto options = brief();
    options.pre_roll_ms = 1000;
    EXPECT_EQ(found_in(options, "...99.....99......"), (std::vector<utterance>{{0, 80}, {80, 150}}));
}

TEST(speech_gate, needs_neither_hang_over_nor_pre_roll_nor_a_minimum) {
    auto options = brief();
    options.hang_over_ms = options.pre_roll_ms = options.min_speech_ms = 0;
    EXPECT_EQ(found_in(options, "..9.99...9"), (std::vector<utterance>{{20, 30}, {40, 60}, {90, 100}}));
    options.begin_threshold = options.end_threshold = 0.0F;
    EXPECT_EQ(found_in(options, "..9.99...9"), (std::vector<utterance>{{0, 100}})) << "everything is speech";
}

TEST(speech_gate, rounds_times_up_to_10_ms) {
    auto options = brief();
    options.min_speech_ms = 11;
    options.hang_over_ms = 21;
    EXPECT_EQ(found_in(options, "...9....99...99...."), (std::vector<utterance>{{60, 130}, {130, 180}}));
}

TEST(speech_gate, cuts_what_is_too_long_without_losing_a_sample) {
    auto options = brief();
    options.max_ms = 100;
    EXPECT_EQ(found_in(options, "..99999999999999999999....."),
              (std::vector<utterance>{{0, 100}, {100, 200}, {200, 250}}));
    EXPECT_EQ(found_in(options, "..99999..........."), (std::vector<utterance>{{0, 100}})) << "just not cut";
    EXPECT_EQ(found_in(options, "..999999.........."), (std::vector<utterance>{{0, 100}, {100, 110}}));
    options.pre_roll_ms = 250;
    EXPECT_EQ(found_in(options, "..............................99......"),
              (std::vector<utterance>{{50, 150}, {150, 250}, {250, 350}}))
        << "the pre-roll, too";
}

TEST(speech_gate, ends_an_utterance_with_the_stream) {
    EXPECT_EQ(found_in(brief(), "...999"), (std::vector<utterance>{{10, 60}}));
    EXPECT_EQ(found_in(brief(), "...999.."), (std::vector<utterance>{{10, 80}}));
    EXPECT_TRUE(found_in(brief(), ".....9").empty()) << "not long enough to be one";
    listener listening(brief());
    listening.add(counted(45), frames("...999"));
    listening.take_all();
    EXPECT_TRUE(listening.is_open);
    EXPECT_EQ(listening.found, (std::vector<utterance>{{10, 45}}));
    listening.flush();
    const auto last = listening.take(10);
    EXPECT_EQ(last.count, 0U);
    EXPECT_EQ(last.position, 45U);
    EXPECT_EQ(last.ends, 1);
    EXPECT_EQ(listening.take(10).ends, 0) << "once";
}

TEST(speech_gate, ends_where_nothing_more_is_known_of_the_stream) {
    listener listening(brief());
    listening.add(counted(500), frames("...999"));
    listening.flush();
    listening.take_all();
    EXPECT_EQ(listening.found, (std::vector<utterance>{{10, 60}}));
}

// ---- Lost samples ----

// A stream of so many samples, of which those in the ranges are lost.
std::vector<utterance> found_with_losses(const std::string& text, std::size_t count,
                                         const std::vector<utterance>& lost) {
    const auto samples = std::span<const float>{};
    listener listening(brief());
    const auto all = counted(count);
    listening.add(samples, frames(text));
    int64_t at = 0;
    for (const auto& [begin, end] : lost) {
        listening.add(std::span(all).subspan(static_cast<std::size_t>(at), static_cast<std::size_t>(begin - at)), {});
        listening.skip(static_cast<uint64_t>(end - begin));
        at = end;
    }
    listening.add(std::span(all).subspan(static_cast<std::size_t>(at)), {});
    listening.take_all();
    return listening.found;
}

TEST(speech_gate, cuts_where_samples_were_lost_and_keeps_every_position_true) {
    const std::string text = "..........99999.....";
    EXPECT_EQ(found_with_losses(text, 200, {}), (std::vector<utterance>{{80, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{120, 130}}), (std::vector<utterance>{{80, 120}, {130, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{170, 190}}), (std::vector<utterance>{{80, 170}}));
    EXPECT_EQ(found_with_losses(text, 200, {{180, 190}}), (std::vector<utterance>{{80, 180}}));
}

TEST(speech_gate, begins_behind_a_loss_that_lies_before_the_speech) {
    const std::string text = "..........99999.....";
    EXPECT_EQ(found_with_losses(text, 200, {{10, 60}}), (std::vector<utterance>{{80, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{10, 84}}), (std::vector<utterance>{{84, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{82, 84}, {90, 93}}), (std::vector<utterance>{{93, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{95, 105}}), (std::vector<utterance>{{105, 180}}));
    EXPECT_EQ(found_with_losses(text, 200, {{101, 105}}), (std::vector<utterance>{{80, 101}, {105, 180}}));
}

TEST(speech_gate, has_no_utterance_of_which_every_sample_was_lost) {
    EXPECT_TRUE(found_with_losses("..........99999.....", 200, {{95, 190}}).empty());
    EXPECT_EQ(found_with_losses("..........99999.......99....", 280, {{95, 190}}),
              (std::vector<utterance>{{200, 270}}));
}

TEST(speech_gate, ends_an_utterance_as_soon_as_the_next_sample_is_lost) {
    listener listening(brief());
    listening.add(counted(60), frames("...999"));
    listening.take_all();
    EXPECT_TRUE(listening.is_open);
    listening.skip(1);
    const auto last = listening.take(0);
    EXPECT_EQ(last.ends, 1);
    EXPECT_EQ(last.position, 60U);
    listening.add(counted(9), frames("9"));
    const auto next = listening.take(4);
    EXPECT_EQ(next.position, 61U);
    EXPECT_EQ(next.begins, 1) << "the speech goes on";
    EXPECT_EQ(next.ends, 0);
}

// ---- Any pieces ----

// Probabilities as they come: runs of speech and silence, with some of any size and of no number at all.
std::vector<float> random_probabilities(std::mt19937& random, std::size_t count) {
    constexpr float strange[] = {std::numeric_limits<float>::quiet_NaN(),
                                 std::numeric_limits<float>::infinity(),
                                 -std::numeric_limits<float>::infinity(),
                                 -1.0F,
                                 2.0F,
                                 -0.0F,
                                 0.6F,
                                 0.4F};
    std::vector<float> all;
    while (all.size() < count) {
        const float usual = std::uniform_real_distribution<float>(0.0F, 1.0F)(random);
        for (std::size_t left = 1 + random() % (random() % 2 == 0 ? 4 : 30); left > 0; --left)
            all.push_back(random() % 16 == 0 ? strange[random() % std::size(strange)] : usual);
    }
    all.resize(count);
    return all;
}

wrapper_audio_speech_options any_options(std::mt19937& random, int32_t rate) {
    const auto one_of = [&](std::initializer_list<int32_t> all) { return *(all.begin() + random() % all.size()); };
    auto options = defaults();
    options.rate = rate;
    options.begin_threshold = 0.6F;
    options.end_threshold = 0.4F;
    if (random() % 3 == 0) options.end_threshold = options.begin_threshold;
    if (random() % 3 == 0) options.end_threshold = 0.1F;
    options.min_speech_ms = one_of({0, 10, 25, 60});
    options.hang_over_ms = one_of({0, 10, 35, 200});
    options.pre_roll_ms = one_of({0, 7, 50, 300});
    options.max_ms = one_of({0, 0, 100, 333});
    return options;
}

TEST(speech_gate, equals_the_reference_bit_for_bit_whatever_the_pieces) {
    std::size_t utterances = 0;
    for (uint32_t seed = 0; seed < 600; ++seed) {
        std::mt19937 random(seed);
        const int32_t all_rates[] = {100, 101, 1000, 8000, 11025, 44101};
        const int32_t rate = all_rates[seed % std::size(all_rates)];
        const auto options = any_options(random, rate);
        const std::size_t frame_count = random() % 200;
        const std::size_t count = frame_count * static_cast<std::size_t>(rate) / 100 + random() % 20;
        const auto in = signals::hostile(random, count);
        const auto told = random_probabilities(random, frame_count);
        std::vector<bool> there(count, true);
        for (std::size_t losses = random() % 4; losses > 0 && count > 0; --losses)
            for (std::size_t at = random() % count, left = random() % (count / 4 + 2); left > 0 && at < count; --left)
                there[at++] = false;
        const auto expected = reference::utterances(options, there, told);
        utterances += expected.size();
        std::vector<float> sound;
        for (const auto& [begin, end] : expected)
            sound.insert(sound.end(), in.begin() + begin, in.begin() + end);

        listener listening(options);
        for (int round = 0; round < 3; ++round) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
            std::size_t at = 0;
            std::size_t spoken = 0;
            const std::size_t longest = round == 0 ? count + 1 : round == 1 ? 1 + count / 500 : 1 + random() % 500;
            while (at < count || spoken < frame_count) {
                const std::size_t piece = std::min(random() % (longest + 1), count - at);
                const std::size_t more = std::min<std::size_t>(random() % (longest / 4 + 2), frame_count - spoken);
                std::size_t alike = 0; // all there, or all lost
                while (alike < piece && there[at + alike] == there[at])
                    ++alike;
                const bool lost = alike > 0 && !there[at];
                if (lost) listening.skip(alike);
                listening.add(std::span(in).subspan(at, lost ? 0 : alike), std::span(told).subspan(spoken, more));
                at += alike;
                spoken += more;
                if (random() % 4 != 0) listening.take(random() % 300);
                if (random() % 4 == 0) listening.take_all(1 + random() % 700);
            }
            listening.flush();
            listening.take_all(1 + random() % 700);
            ASSERT_EQ(listening.found, expected);
            ASSERT_EQ(listening.sound.size(), sound.size());
            ASSERT_TRUE(same(listening.sound.data(), sound));
            ASSERT_FALSE(listening.is_open);
            listening.reset();
        }
    }
    EXPECT_GT(utterances, 2000U);
}

TEST(speech_gate, gives_samples_as_soon_as_they_are_known_to_belong) {
    listener listening(brief());
    for (int frame = 0; frame < 20; ++frame) {
        const bool speaks = frame >= 5 && frame < 12;
        listening.add(counted(10), std::vector{speaks ? 0.9F : 0.1F});
        listening.take_all();
        const int64_t begun = 30;
        const int64_t end = std::clamp(10 * (frame + 1), 60, 150);
        ASSERT_EQ(listening.found.size(), frame < 6 ? 0U : 1U) << "10 ms number " << frame;
        if (frame >= 6) {
            ASSERT_EQ(listening.found[0], (utterance{begun, end}));
        }
        ASSERT_EQ(listening.is_open, frame >= 6 && frame < 14);
    }
}

// ---- Speech ----

// The voice is heard from 0.8 s to 5.3 s, with pauses that are shorter than the hang-over.
TEST(speech_gate, finds_the_voice_in_noise_at_every_rate) {
    std::ifstream file(SPEECH_IN_NOISE, std::ios::binary);
    std::vector<int16_t> pcm(288000);
    ASSERT_TRUE(file.read(reinterpret_cast<char*>(pcm.data()), 576000));
    std::vector<float> in(pcm.size());
    wrapper_audio_s16_to_f32(pcm.data(), pcm.size(), in.data());
    for (const int32_t rate : {48000, 44100, 16000, 11025, 8000}) {
        const auto samples = rate == 48000 ? in : whole_stream({48000, rate, 0.0F, 0, 0}, in);
        const auto chain = voice({rate, rate, 0.0F, 1, 0}); // its output is raw
        const auto raw = whole_stream(chain, samples);
        auto options = defaults();
        options.rate = rate;
        options.hang_over_ms = 500;
        listener listening(options);
        listening.add(raw, take_speech(chain));
        listening.flush();
        listening.take_all();
        ASSERT_EQ(listening.found.size(), 1U) << rate;
        const auto [begin, end] = listening.found[0];
        EXPECT_NEAR(static_cast<double>(begin) / rate, 0.8 - 0.3, 0.07) << rate;
        EXPECT_NEAR(static_cast<double>(end) / rate, 5.3 + 0.5, 0.07) << rate;
        EXPECT_TRUE(same(listening.sound.data(), {raw.begin() + begin, raw.begin() + end}));
    }
}

} // namespace
