// Arguments that make no sense, of every function about recorders.
#include "with_recorder.h"

#include <limits>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using recorder_arguments = with_recorder;

constexpr int32_t least = std::numeric_limits<int32_t>::min();
constexpr int32_t most = std::numeric_limits<int32_t>::max();

wrapper_audio_status creating(const wrapper_audio_recorder_options& options) {
    auto* made = reinterpret_cast<wrapper_audio_recorder*>(1);
    const wrapper_audio_status status = wrapper_audio_recorder_create(&made, &options);
    EXPECT_EQ(made != nullptr, status == WRAPPER_AUDIO_OK);
    wrapper_audio_recorder_free(made);
    return status;
}

TEST_F(recorder_arguments, of_create_have_limits) {
    const float nan = std::nanf("");
    const float beyond = std::nextafter(1.0F, 2.0F);
    std::vector<wrapper_audio_recorder_options> good(13);
    good[1].rate = 100;
    good[2].rate = 768000;
    good[3].denoise = 1.0F;
    good[4].denoise = 1e-30F;
    good[5].speech = 1;
    good[6].conversion = WRAPPER_AUDIO_CONVERSION_LINEAR;
    good[7].buffer_ms = 100;
    good[8].buffer_ms = 60000;
    good[9].stall_ms = 100;
    good[10].stall_ms = 60000;
    good[11].denoise = -0.0F;
    good[12].reconnect = 1;
    for (std::size_t i = 0; i < good.size(); ++i)
        EXPECT_EQ(creating(good[i]), WRAPPER_AUDIO_OK) << i;

    std::vector<wrapper_audio_recorder_options> bad;
    const auto with = [&bad](auto wrapper_audio_recorder_options::*field, auto value) {
        bad.emplace_back().*field = value;
    };
    for (const int32_t rate : {least, -1, 99, 768001, most})
        with(&wrapper_audio_recorder_options::rate, rate);
    for (const float denoise :
         {nan, -nan, -1e-30F, beyond, std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()})
        with(&wrapper_audio_recorder_options::denoise, denoise);
    for (const int32_t speech : {least, -1, 2, most})
        with(&wrapper_audio_recorder_options::speech, speech);
    for (const int32_t conversion : {least, -1, 2, most})
        with(&wrapper_audio_recorder_options::conversion, conversion);
    for (const int32_t ms : {least, -1, 1, 99, 60001, most}) {
        with(&wrapper_audio_recorder_options::buffer_ms, ms);
        with(&wrapper_audio_recorder_options::stall_ms, ms);
    }
    for (const int32_t flag : {least, -1, 2, most})
        with(&wrapper_audio_recorder_options::reconnect, flag);
    for (int32_t i = 0; i < 8; ++i) {
        bad.emplace_back().reserved[i] = 1;
        bad.emplace_back().reserved[i] = least;
    }
    for (std::size_t i = 0; i < bad.size(); ++i)
        EXPECT_EQ(creating(bad[i]), WRAPPER_AUDIO_INVALID_ARGUMENT) << i;
    EXPECT_EQ(wrapper_audio_recorder_create(nullptr, std::data(good)), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_THAT(calls(), IsEmpty()) << "no device is touched";
}

TEST_F(recorder_arguments, of_create_may_be_left_out) {
    ASSERT_EQ(wrapper_audio_recorder_create(&recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(info().rate, 16000);
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_OFF);
    // 5 s are kept of a file, and 1.5 s is how long a device may be silent.
    ASSERT_TRUE(soon([&] { return info().available >= 80000; }));
    EXPECT_LT(info().available, 84000U);
    wrapper_audio_recorder_stop(recorder);
    read_to_end();
    microphone.hang_after(1440);
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_TRUE(has_captured(1440));
    test_clock::let_waits_pass(true);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(read(1000).status, WRAPPER_AUDIO_NO_DATA);
    EXPECT_EQ(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1500));
}

TEST_F(recorder_arguments, may_be_missing) {
    int16_t pcm[10] = {};
    float floats[10] = {};
    wrapper_audio_block piece;
    wrapper_audio_recorder_info told;
    EXPECT_EQ(wrapper_audio_recorder_open(nullptr, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_stop(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_get_info(nullptr, &told), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_take_speech(nullptr, floats, 10), 0U);
    wrapper_audio_recorder_free(nullptr);
    char copied[10] = "old";
    EXPECT_EQ(wrapper_audio_recorder_get_text(nullptr, WRAPPER_AUDIO_TEXT_DEVICE_ID, copied, 10), 0U);
    EXPECT_STREQ(copied, "");

    piece.count = 99;
    piece.speech_probability = 0.5F;
    EXPECT_EQ(wrapper_audio_recorder_read_s16(nullptr, pcm, 10, 0, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(piece.count, 0U) << "filled in any case";
    EXPECT_EQ(piece.speech_probability, -1.0F);
    EXPECT_EQ(wrapper_audio_recorder_read_f32(nullptr, floats, 10, 0, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);

    record({});
    EXPECT_EQ(wrapper_audio_recorder_read_s16(recorder, nullptr, 10, 0, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_f32(recorder, nullptr, 10, 0, &piece), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_s16(recorder, pcm, 10, -1, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_f32(recorder, floats, 10, -1, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_get_info(recorder, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, nullptr, 10), 0U);
    EXPECT_EQ(info().read, 0U) << "nothing is taken by a read that is refused";
    EXPECT_EQ(wrapper_audio_recorder_read_s16(recorder, pcm, 10, least, &piece), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_read_s16(recorder, pcm, 10, most, &piece), WRAPPER_AUDIO_OK);
}

TEST_F(recorder_arguments, of_texts_may_be_any) {
    record({});
    char copied[8] = "oldold.";
    EXPECT_EQ(wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_DEVICE_ID, nullptr, 0), 8U);
    EXPECT_EQ(wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_DEVICE_ID, nullptr, 100), 8U);
    EXPECT_EQ(wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_DEVICE_ID, copied, 5), 8U);
    EXPECT_STREQ(copied, "Host");
    EXPECT_EQ(copied[5], 'd') << "written behind the end";
    for (const int kind : {-1, 4, 1000}) {
        EXPECT_EQ(wrapper_audio_recorder_get_text(recorder, kind, copied, sizeof copied), 0U);
        EXPECT_STREQ(copied, "");
    }
}

TEST_F(recorder_arguments, of_calls_before_the_first_open) {
    create({.rate = 44100});
    EXPECT_EQ(read(0).status, WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(info().rate, 44100);
    EXPECT_EQ(info().device_rate, 0);
    EXPECT_EQ(info().delay, 0);
    EXPECT_EQ(info().captured, 0U);
    float probability = 0.0F;
    EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, &probability, 1), 0U);
    for (const auto kind : {WRAPPER_AUDIO_TEXT_DEVICE_ID, WRAPPER_AUDIO_TEXT_DEVICE_NAME, WRAPPER_AUDIO_TEXT_REASON,
                            WRAPPER_AUDIO_TEXT_LOG_LINE})
        EXPECT_EQ(text(kind), "");
}

TEST(statuses, have_a_sentence_each) {
    std::set<std::string> sentences;
    for (int status = -16; status <= 2; ++status) {
        const std::string sentence = wrapper_audio_status_text(static_cast<wrapper_audio_status>(status));
        EXPECT_GT(sentence.size(), 10U);
        EXPECT_NE(sentence.back(), '.');
        EXPECT_TRUE(sentences.insert(sentence).second) << "twice: " << sentence;
    }
    for (const int status : {-17, 3, 1000, least, most})
        EXPECT_STREQ(wrapper_audio_status_text(static_cast<wrapper_audio_status>(status)), "unknown status");
}

TEST(statuses, that_are_failures_have_advice) {
    for (int status = -16; status < WRAPPER_AUDIO_INVALID_ARGUMENT; ++status) {
        const std::string advice = wrapper_audio_status_advice(status);
        EXPECT_GT(advice.size(), 10U) << status;
        EXPECT_NE(advice.back(), '.') << status;
    }
    // A wrong argument is the programmer's business, whose language has its own place to look it up.
    for (const int status : {-17, -1, 0, 1, 2, 3, 1000, least, most})
        EXPECT_STREQ(wrapper_audio_status_advice(status), "") << status;
}

} // namespace
