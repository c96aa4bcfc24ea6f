// What a speech gate refuses, and its defaults.
#include "speech_gates.h"

#include "signals.h"

#include <limits>

namespace {

using signals::infinity;
using signals::nan;

wrapper_audio_status creating(const wrapper_audio_speech_options& options) {
    auto* made = reinterpret_cast<wrapper_audio_speech_gate*>(1);
    const auto status = wrapper_audio_speech_gate_create(&made, &options);
    EXPECT_EQ(made != nullptr, status == WRAPPER_AUDIO_OK);
    wrapper_audio_speech_gate_free(made);
    return status;
}

TEST(speech_gate_arguments, have_documented_defaults) {
    const auto options = defaults();
    EXPECT_EQ(options.rate, 16000);
    EXPECT_EQ(options.begin_threshold, 0.95F);
    EXPECT_EQ(options.end_threshold, 0.9F);
    EXPECT_EQ(options.min_speech_ms, 100);
    EXPECT_EQ(options.hang_over_ms, 500);
    EXPECT_EQ(options.pre_roll_ms, 300);
    EXPECT_EQ(options.max_ms, 0);
    wrapper_audio_speech_defaults(nullptr);
    // The same gate as without options.
    wrapper_audio_speech_gate* gate = nullptr;
    ASSERT_EQ(wrapper_audio_speech_gate_create(&gate, nullptr), WRAPPER_AUDIO_OK);
    const gate_holder holder{gate};
    const auto speech = frames("........................................::::::::::"); // ten tenths
    wrapper_audio_speech_piece piece;
    std::vector<float> samples = counted(16000);
    wrapper_audio_speech_gate_add(gate, samples.data(), samples.size(), speech.data(), speech.size());
    wrapper_audio_speech_gate_take(gate, samples.data(), samples.size(), &piece);
    EXPECT_EQ(piece.position, 1600U) << "300 ms before the speech";
    EXPECT_EQ(piece.count, 6400U);
}

TEST(speech_gate_arguments, have_limits) {
    constexpr int32_t most = std::numeric_limits<int32_t>::max();
    constexpr int32_t least = std::numeric_limits<int32_t>::min();
    const auto limits = [](int32_t wrapper_audio_speech_options::*field, std::initializer_list<int32_t> inside,
                           std::initializer_list<int32_t> outside) {
        for (const int32_t value : inside) {
            auto options = defaults();
            options.*field = value;
            EXPECT_EQ(creating(options), WRAPPER_AUDIO_OK) << value;
        }
        for (const int32_t value : outside) {
            auto options = defaults();
            options.*field = value;
            EXPECT_EQ(creating(options), WRAPPER_AUDIO_INVALID_ARGUMENT) << value;
        }
    };
    limits(&wrapper_audio_speech_options::rate, {100, 768000}, {0, 99, 768001, -1, most, least});
    limits(&wrapper_audio_speech_options::min_speech_ms, {0, 10000}, {-1, 10001, most, least});
    limits(&wrapper_audio_speech_options::hang_over_ms, {0, 60000}, {-1, 60001, most, least});
    limits(&wrapper_audio_speech_options::pre_roll_ms, {0, 60000}, {-1, 60001, most, least});
    limits(&wrapper_audio_speech_options::max_ms, {0, 100, 3600000}, {-1, 1, 99, 3600001, most, least});
    const auto with = [](float begin, float end) {
        auto options = defaults();
        options.begin_threshold = begin;
        options.end_threshold = end;
        return creating(options);
    };
    for (const auto& [begin, end] : {std::pair{1.0F, 1.0F}, {1.0F, 0.0F}, {0.0F, 0.0F}, {0.5F, 0.5F}, {0.0F, -0.0F}})
        EXPECT_EQ(with(begin, end), WRAPPER_AUDIO_OK) << begin << ", " << end;
    for (const auto& [begin, end] : {std::pair{1.01F, 0.5F},
                                     {0.5F, 0.51F},
                                     {0.5F, -0.01F},
                                     {nan, 0.5F},
                                     {0.5F, nan},
                                     {infinity, 0.5F},
                                     {infinity, infinity},
                                     {0.5F, -infinity}})
        EXPECT_EQ(with(begin, end), WRAPPER_AUDIO_INVALID_ARGUMENT) << begin << ", " << end;
    for (int32_t i = 0; i < 9; ++i) {
        auto options = defaults();
        options.reserved[i] = 1;
        EXPECT_EQ(creating(options), WRAPPER_AUDIO_INVALID_ARGUMENT);
    }
    const auto options = defaults();
    EXPECT_EQ(wrapper_audio_speech_gate_create(nullptr, &options), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

TEST(speech_gate_arguments, may_be_missing) {
    const auto holder = make(brief());
    wrapper_audio_speech_gate* const gate = holder.get();
    float samples[10] = {};
    wrapper_audio_speech_piece piece{.position = 1, .count = 1, .begins = 1, .ends = 1};
    EXPECT_EQ(wrapper_audio_speech_gate_add(nullptr, samples, 10, samples, 10), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_add(gate, nullptr, 1, samples, 10), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_add(gate, samples, 1, nullptr, 10), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_add(gate, nullptr, 0, nullptr, 0), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_skip(nullptr, 1), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_take(nullptr, samples, 10, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(piece.position + piece.count + static_cast<uint32_t>(piece.begins + piece.ends), 0U) << "filled";
    EXPECT_EQ(wrapper_audio_speech_gate_take(gate, nullptr, 10, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_take(gate, samples, 10, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_take(gate, nullptr, 0, &piece), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_flush(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_reset(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    wrapper_audio_speech_gate_free(nullptr);
}

TEST(speech_gate_arguments, are_refused_behind_the_end_of_a_stream) {
    const auto holder = make(brief());
    float samples[10] = {};
    EXPECT_EQ(wrapper_audio_speech_gate_flush(holder.get()), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_add(holder.get(), samples, 10, samples, 10), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(wrapper_audio_speech_gate_skip(holder.get(), 1), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(wrapper_audio_speech_gate_flush(holder.get()), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_reset(holder.get()), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_add(holder.get(), samples, 10, samples, 10), WRAPPER_AUDIO_OK);
}

TEST(speech_gate_arguments, of_losses_keep_positions_from_wrapping_around) {
    const auto holder = make(brief());
    constexpr uint64_t most = uint64_t{1} << 62;
    EXPECT_EQ(wrapper_audio_speech_gate_skip(holder.get(), most + 1), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_speech_gate_skip(holder.get(), most), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_skip(holder.get(), most), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_speech_gate_skip(holder.get(), 0), WRAPPER_AUDIO_INVALID_STATE);
}

} // namespace
