// Noise suppression: RNNoise's own numbers at 48000 Hz, and as much of it at every other rate.
#include "processors.h"

#include "bits.h"
#include "denoising_reference.h"
#include "recorder/voice.h"
#include "signals.h"

#include <cmath>
#include <fstream>
#include <random>

namespace {

std::vector<float> speech_in_noise() {
    std::ifstream file(SPEECH_IN_NOISE, std::ios::binary);
    std::vector<int16_t> pcm(288000);
    file.read(reinterpret_cast<char*>(pcm.data()), std::streamsize{2} * 288000);
    EXPECT_EQ(file.gcount(), 2 * 288000);
    std::vector<float> samples(pcm.size());
    EXPECT_EQ(wrapper_audio_s16_to_f32(pcm.data(), pcm.size(), samples.data()), WRAPPER_AUDIO_OK);
    return samples;
}

std::vector<float> part(const std::vector<float>& samples, std::size_t first, std::size_t count) {
    const auto begin = samples.begin() + static_cast<std::ptrdiff_t>(first);
    return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

// Two seconds of which half is speech.
std::vector<float> some_speech() {
    return part(speech_in_noise(), 28800, 96000 + 321);
}

std::vector<float> converted(const std::vector<float>& in, int32_t in_rate, int32_t out_rate) {
    return whole_stream({in_rate, out_rate, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_CLEAN}, in);
}

double level_db(const std::vector<float>& samples, int32_t rate, double from, double to) {
    double sum = 0.0;
    const auto first = static_cast<std::size_t>(from * rate);
    const auto last = static_cast<std::size_t>(to * rate);
    for (std::size_t i = first; i < last; ++i)
        sum += static_cast<double>(samples.at(i)) * static_cast<double>(samples.at(i));
    return 10.0 * std::log10(sum / static_cast<double>(last - first) + 1e-30);
}

// How much stronger the part of a sound is that is a multiple of another sound than the rest of it, in dB.
double si_sdr(const std::vector<float>& sound, const std::vector<float>& reference) {
    double product = 0.0;
    double square = 0.0;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        product += static_cast<double>(sound.at(i)) * static_cast<double>(reference[i]);
        square += static_cast<double>(reference[i]) * static_cast<double>(reference[i]);
    }
    const double share = product / square;
    double rest = 0.0;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        const double difference = static_cast<double>(sound[i]) - share * static_cast<double>(reference[i]);
        rest += difference * difference;
    }
    return 10.0 * std::log10(share * share * square / rest);
}

// By how many samples `sound` lies behind `original`: where they are most alike.
int lag(const std::vector<float>& sound, const std::vector<float>& original, int most) {
    int best = 0;
    double best_product = -1.0;
    for (int shift = -most; shift <= most; ++shift) {
        double product = 0.0;
        for (std::size_t i = static_cast<std::size_t>(most); i + static_cast<std::size_t>(most) < sound.size(); ++i) {
            const auto before = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(i) - shift);
            product += static_cast<double>(sound[i]) * static_cast<double>(original.at(before));
        }
        if (product > best_product) {
            best_product = product;
            best = shift;
        }
    }
    return best;
}

// ---- At 48000 Hz ----

TEST(denoising, at_48000_is_rnnoise_to_the_last_bit) {
    const auto in = some_speech();
    const auto expected = reference::denoised_at_48000(in);
    std::mt19937 random(1);
    const auto processor = voice({48000, 48000, 1.0F, 0, 0});
    const auto out = in_pieces(processor, in, [&] { return random() % 1500; });
    ASSERT_EQ(out.size(), in.size());
    EXPECT_TRUE(same(out.data(), expected.samples));
    EXPECT_EQ(take_speech(processor), expected.speech);
}

TEST(denoising, lies_where_the_original_lay) {
    const auto in = part(some_speech(), 0, 48000);
    EXPECT_EQ(lag(whole_stream({48000, 48000, 1.0F, 0, 0}, in), in, 1000), 0);
}

TEST(denoising, takes_away_the_share_that_was_asked_for) {
    const auto in = some_speech();
    const auto denoised = reference::denoised_at_48000(in).samples;
    for (const float strength : {0.001F, 0.3F, 0.5F, 0.999F}) {
        std::vector<float> expected;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const float cleaned = strength * denoised[i];
            const float kept = (1.0F - strength) * in[i];
            expected.push_back(cleaned + kept);
        }
        const auto out = whole_stream({48000, 48000, strength, 0, 0}, in);
        ASSERT_EQ(out.size(), in.size());
        EXPECT_TRUE(same(out.data(), expected)) << strength;
    }
}

TEST(denoising, only_listening_for_speech_changes_no_sample) {
    const auto in = some_speech();
    const auto processor = voice({48000, 48000, 0.0F, 1, 0});
    const auto out = whole_stream(processor, in);
    EXPECT_EQ(out, in);
    EXPECT_EQ(take_speech(processor), reference::denoised_at_48000(in).speech);
}

// ---- Probabilities of speech ----

TEST(speech, is_told_for_each_10_ms_that_began) {
    for (const int32_t in_rate : {8000, 16000, 44100, 48000, 96000}) {
        for (const int32_t out_rate : {8000, 44100, 48000}) {
            for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
                const auto frame = static_cast<std::size_t>(in_rate / 100);
                for (const auto& [length, frames] : {std::pair{std::size_t{0}, 0U},
                                                     {std::size_t{1}, 1U},
                                                     {frame, 1U},
                                                     {frame + 1, 2U},
                                                     {7 * frame - 1, 7U},
                                                     {7 * frame, 7U},
                                                     {7 * frame + 1, 8U}}) {
                    const auto processor = voice({in_rate, out_rate, 1.0F, 0, conversion});
                    whole_stream(processor, std::vector<float>(length, 0.1F));
                    EXPECT_EQ(take_speech(processor).size(), frames)
                        << in_rate << " to " << out_rate << ", conversion " << conversion << ", " << length << " in";
                }
            }
        }
    }
}

TEST(speech, comes_with_the_samples_that_it_is_about) {
    const auto in = some_speech();
    const auto processor = voice({48000, 48000, 0.0F, 1, 0});
    std::size_t given = 0;
    std::size_t told = 0;
    for (std::size_t at = 0; at + 100 <= in.size(); at += 100) {
        given += process(processor, part(in, at, 100)).size();
        told += take_speech(processor).size();
        ASSERT_EQ(told * 480, given);
    }
    EXPECT_EQ(told, (in.size() / 100 * 100) / 480 - 2);
    flush(processor);
    told += take_speech(processor).size();
    EXPECT_EQ(told, (in.size() / 100 * 100 + 479) / 480);
}

TEST(speech, is_taken_oldest_first_and_as_much_as_fits) {
    const auto in = some_speech();
    const auto processor = voice({48000, 16000, 0.0F, 1, 0});
    whole_stream(processor, in);
    std::vector<float> speech = take_speech(processor, 0);
    EXPECT_TRUE(speech.empty());
    for (std::vector<float> some(1); !some.empty(); speech.insert(speech.end(), some.begin(), some.end()))
        some = take_speech(processor, 7);
    EXPECT_EQ(speech, reference::denoised_at_48000(in).speech);
}

TEST(speech, that_nobody_takes_is_dropped_where_it_is_oldest) {
    std::vector<float> told{1.0F, 2.0F, 3.0F};
    recorder::drop_oldest(told, 4);
    EXPECT_EQ(told, (std::vector{1.0F, 2.0F, 3.0F}));
    recorder::drop_oldest(told, 2);
    EXPECT_EQ(told, (std::vector{2.0F, 3.0F}));
    recorder::drop_oldest(told, 0);
    EXPECT_TRUE(told.empty());
}

TEST(speech, is_not_told_where_nobody_asked) {
    const auto processor = voice({48000, 16000, 0.0F, 0, 0});
    whole_stream(processor, some_speech());
    EXPECT_TRUE(take_speech(processor).empty());
}

TEST(speech, tells_sentences_from_the_noise_around_them) {
    const auto in = speech_in_noise();
    for (const int32_t rate : {48000, 44100, 16000}) {
        const auto processor = voice({rate, 16000, 0.0F, 1, 0});
        whole_stream(processor, rate == 48000 ? in : converted(in, 48000, rate));
        const auto speech = take_speech(processor);
        ASSERT_EQ(speech.size(), 600U);
        const auto mean = [&](std::size_t first, std::size_t last) {
            double sum = 0.0;
            for (std::size_t i = first; i < last; ++i)
                sum += static_cast<double>(speech[i]);
            return sum / static_cast<double>(last - first);
        };
        EXPECT_LT(mean(0, 75), 0.3) << rate;
        EXPECT_GT(mean(90, 240), 0.8) << rate;
        EXPECT_LT(mean(550, 600), 0.01) << rate;
    }
}

// ---- At every other rate ----

// There is no recording of the voice alone, so the yardstick is what the noise suppression makes of the same sound at
// 48000 Hz. A ratio of 60 dB says that a thousandth of its amplitude differs. Next to what is wrong with any denoised
// voice that is nothing: against the voice alone, which make_speech_in_noise.sh gives with noise at -90 dBFS, the ratio
// was 12.1 dB before the noise suppression, 15.288 dB after it, and 15.289 dB by way of 44100 Hz.
TEST(denoising, at_44100_is_that_of_48000) {
    const auto in = speech_in_noise();
    const auto native = whole_stream({48000, 48000, 1.0F, 0, 0}, in);
    const auto at_44100 = converted(in, 48000, 44100);
    const auto out = whole_stream({44100, 48000, 1.0F, 0, 0}, at_44100);
    ASSERT_EQ(out.size(), native.size());
    EXPECT_GT(si_sdr(out, native), 55.0); // 62.9 was measured
    EXPECT_GT(si_sdr(whole_stream({44100, 44100, 1.0F, 0, 0}, at_44100), converted(native, 48000, 44100)), 55.0);
    EXPECT_LT(si_sdr(in, native), 30.0); // which a chain that did nothing would have
}

TEST(denoising, silences_the_pauses_and_leaves_the_voice_at_every_rate) {
    const auto in = speech_in_noise();
    for (const int32_t rate : {48000, 44100, 22050, 16000, 8000}) {
        for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
            if (rate == 48000 && conversion == WRAPPER_AUDIO_CONVERSION_LINEAR) continue; // nothing is converted
            const auto before = rate == 48000 ? in : converted(in, 48000, rate);
            const auto out = whole_stream({rate, rate, 1.0F, 0, conversion}, before);
            ASSERT_EQ(out.size(), before.size());
            const auto falls = [&](double from, double to) {
                return level_db(before, rate, from, to) - level_db(out, rate, from, to);
            };
            EXPECT_GT(falls(0.3, 0.75), 30.0) << rate << ", conversion " << conversion;
            EXPECT_GT(falls(5.5, 6.0), 30.0) << rate << ", conversion " << conversion;
            EXPECT_NEAR(falls(0.9, 2.4), 0.0, 1.5) << rate << ", conversion " << conversion;
            EXPECT_NEAR(falls(3.0, 5.0), 0.0, 1.5) << rate << ", conversion " << conversion;
            EXPECT_EQ(lag(out, before, 50), 0) << rate << ", conversion " << conversion;
        }
    }
}

} // namespace
