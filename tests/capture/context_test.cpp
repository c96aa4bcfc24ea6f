// The life of a capture context: creation, opening, stopping, releasing, freeing, and every way in which they fail.
#include "fixture.h"

#include <limits>
#include <string>

using fake::device;
using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* ctx_line = "[audio_wrapper] ctx_create device='Mic' (idx=0, requested='(null)') "
                                 "capture_rate=48000 output_rate=16000 denoise=1";
constexpr const char* armed_line = "[audio_wrapper] arm: микрофон свободен до open (capture_rate=48000)";
constexpr const char* init_line = "[audio_wrapper] init: поток открыт (capture_rate=48000)";
constexpr const char* open_line = "[audio_wrapper] open: микрофон захвачен (capture_rate=48000)";
constexpr const char* release_line = "[audio_wrapper] release_stream: микрофон отпущен, ctx остаётся armed";
constexpr const char* stop_line = "[audio_wrapper] Запись остановлена";
constexpr const char* free_line = "[audio_wrapper] Ресурсы освобождены";
constexpr const char* open_call =
    "Pa_OpenStream(device=0, channels=1, paFloat32, latency=0.01, rate=48000, frames=1440, paClipOff)";

std::string logged(const std::string& line) {
    return "log " + line;
}

class context : public with_fakes {
protected:
    static wrapper_audio_ctx* armed() {
        wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 1, nullptr);
        forget();
        return ctx;
    }

    static wrapper_audio_ctx* capturing() {
        wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
        forget();
        return ctx;
    }

    // What is asked of PortAudio when the only device has this default rate.
    static std::string stream_and_buffers(double rate) {
        world().devices[0].rate = rate;
        wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 0, nullptr);
        std::string seen;
        for (const std::string& call : calls()) {
            if (call.rfind("calloc(", 0) == 0) seen += call + " ";
            if (call.rfind("Pa_OpenStream", 0) == 0) seen += call.substr(call.find("rate="));
        }
        wrapper_audio_free(ctx);
        return seen;
    }

    // What a context with these arguments says of itself.
    static std::string creation_line(int output_rate, int denoise, const char* id) {
        log();
        wrapper_audio_ctx* ctx = wrapper_audio_arm(output_rate, denoise, id);
        const std::string text = log();
        wrapper_audio_free(ctx);
        const auto from = text.find("[audio_wrapper] ctx_create");
        return text.substr(from, text.find('\n', from) - from);
    }
};

TEST_F(context, arm_takes_everything_but_the_microphone) {
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 1, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "rnnoise_create",
                                     "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo(0)", "calloc(9600, 4)",
                                     "calloc(4800, 4)", "Pa_GetDeviceInfo(0)", logged(ctx_line), logged(armed_line)));
    wrapper_audio_free(ctx);
    EXPECT_THAT(calls(), ElementsAre("rnnoise_destroy", "free(9600, 4)", "free(4800, 4)", "free", "lock",
                                     "Pa_Terminate", "unlock", logged(free_line)));
}

TEST_F(context, init_takes_the_microphone_too) {
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "rnnoise_create",
                                     "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo(0)", "calloc(9600, 4)",
                                     "calloc(4800, 4)", "Pa_GetDeviceInfo(0)", logged(ctx_line), "Pa_GetDeviceInfo(0)",
                                     open_call, "Pa_StartStream(1)", logged(init_line)));
    wrapper_audio_free(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", "Pa_CloseStream(1)", "rnnoise_destroy", "free(9600, 4)",
                                     "free(4800, 4)", "free", "lock", "Pa_Terminate", "unlock", logged(free_line)));
}

TEST_F(context, each_live_context_holds_one_initialisation) {
    wrapper_audio_ctx* first = armed();
    wrapper_audio_ctx* second = capturing();
    EXPECT_EQ(world().initialisations, 2);
    wrapper_audio_free(first);
    EXPECT_EQ(world().initialisations, 1);
    wrapper_audio_free(second);
}

TEST_F(context, log_lines_end_with_one_line_feed) {
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
    wrapper_audio_stop(ctx);
    wrapper_audio_release_stream(ctx);
    wrapper_audio_open(ctx);
    wrapper_audio_free(ctx);
    std::string expected;
    for (const char* line : {ctx_line, init_line, stop_line, release_line, open_line, free_line}) {
        expected += std::string(line) + "\n";
    }
    EXPECT_EQ(log(), expected);
}

// ---- Arguments ----

TEST_F(context, an_output_rate_below_1_means_16000) {
    for (const auto& [given, used] : std::vector<std::pair<int, int>>{
             {0, 16000}, {-1, 16000}, {std::numeric_limits<int>::min(), 16000}, {1, 1}, {44100, 44100}}) {
        EXPECT_EQ(
            creation_line(given, 0, nullptr),
            "[audio_wrapper] ctx_create device='Mic' (idx=0, requested='(null)') capture_rate=48000 output_rate=" +
                std::to_string(used) + " denoise=0");
    }
}

TEST_F(context, the_denoise_argument_is_kept_as_it_is) {
    for (const int denoise : {0, 1, 2, -7}) {
        EXPECT_THAT(creation_line(16000, denoise, nullptr), testing::EndsWith(" denoise=" + std::to_string(denoise)));
    }
}

TEST_F(context, the_line_shows_the_id_as_requested_and_the_device_as_found) {
    world().devices = {device{"Mic"}, device{"USB"}};
    EXPECT_THAT(creation_line(16000, 0, nullptr), testing::HasSubstr("device='Mic' (idx=0, requested='(null)')"));
    EXPECT_THAT(creation_line(16000, 0, ""), testing::HasSubstr("device='Mic' (idx=0, requested='')"));
    EXPECT_THAT(creation_line(16000, 0, "Host:USB"), testing::HasSubstr("device='USB' (idx=1, requested='Host:USB')"));
    EXPECT_THAT(creation_line(16000, 0, "x%sy"), testing::HasSubstr("device='Mic' (idx=0, requested='x%sy')"));
}

TEST_F(context, a_device_without_information_is_called_unknown_and_one_without_name_nothing) {
    world().devices[0].name = std::nullopt;
    EXPECT_THAT(creation_line(16000, 0, nullptr), testing::HasSubstr("device='' (idx=0"));
    world().devices[0].has_info = false;
    EXPECT_THAT(creation_line(16000, 0, nullptr), testing::HasSubstr("device='unknown' (idx=0"));
}

TEST_F(context, a_denoiser_is_made_even_when_denoising_is_off) {
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, nullptr);
    EXPECT_EQ(world().live_denoisers, 1);
    wrapper_audio_free(ctx);
}

// ---- Rates and sizes ----

TEST_F(context, capture_rate_buffers_and_stream_follow_the_default_rate_of_the_device) {
    const auto expected = [](int frames, const std::string& rate, int per_buffer) {
        return "calloc(" + std::to_string(2 * frames) + ", 4) calloc(" + std::to_string(frames) + ", 4) rate=" + rate +
               ", frames=" + std::to_string(per_buffer) + ", paClipOff)";
    };
    EXPECT_EQ(stream_and_buffers(48000), expected(4800, "48000", 1440));
    EXPECT_EQ(stream_and_buffers(44100), expected(4410, "44100", 1323));
    EXPECT_EQ(stream_and_buffers(44100.4), expected(4410, "44100", 1323));
    EXPECT_EQ(stream_and_buffers(44100.5), expected(4410, "44101", 1323));
    EXPECT_EQ(stream_and_buffers(22050), expected(2205, "22050", 661));
    EXPECT_EQ(stream_and_buffers(16000), expected(1600, "16000", 480));
    EXPECT_EQ(stream_and_buffers(11025), expected(1102, "11025", 330));
    EXPECT_EQ(stream_and_buffers(8000), expected(800, "8000", 240));
    EXPECT_EQ(stream_and_buffers(4810), expected(481, "4810", 144));
    EXPECT_EQ(stream_and_buffers(4809), expected(480, "4809", 144));
    EXPECT_EQ(stream_and_buffers(4800), expected(480, "4800", 144));
    EXPECT_EQ(stream_and_buffers(4799), expected(480, "4799", 143));
    EXPECT_EQ(stream_and_buffers(1), expected(480, "1", 0));
    EXPECT_EQ(stream_and_buffers(0.5), expected(480, "1", 0));
    EXPECT_EQ(stream_and_buffers(0.49), expected(480, "0", 0));
    EXPECT_EQ(stream_and_buffers(1e-300), expected(480, "0", 0));
}

TEST_F(context, an_unknown_rate_counts_as_48000) {
    const std::string unknown = "calloc(9600, 4) calloc(4800, 4) rate=48000, frames=1440, paClipOff)";
    for (const double rate :
         {0.0, -0.0, -44100.0, std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(stream_and_buffers(rate), unknown) << rate;
    }
    world().devices[0].has_info = false;
    EXPECT_EQ(stream_and_buffers(96000), unknown);
}

TEST_F(context, a_rate_that_no_32_bit_integer_holds_counts_as_48000) {
    const std::string unknown = "calloc(9600, 4) calloc(4800, 4) rate=48000, frames=1440, paClipOff)";
    for (const double rate : {2147483647.5, 2147483648.0, 1e300, std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(stream_and_buffers(rate), unknown) << rate;
    }
}

TEST_F(context, the_largest_32_bit_rate_still_asks_for_100_and_30_ms) {
    world().failing_allocations = {2, 3};
    world().devices[0].rate = 2147483647.0;
    EXPECT_EQ(wrapper_audio_arm(16000, 0, nullptr), nullptr);
    EXPECT_THAT(calls(), testing::IsSupersetOf({"calloc(429496728, 4)", "calloc(214748364, 4)"}));
}

TEST_F(context, the_largest_32_bit_rate_still_opens_with_30_ms) {
    EXPECT_EQ(stream_and_buffers(2147483647.0),
              "calloc(429496728, 4) calloc(214748364, 4) rate=2.14748e+09, frames=64424509, paClipOff)");
}

TEST_F(context, the_stream_gets_the_low_input_latency_of_the_device_or_60_ms) {
    world().devices[0].low_latency = 0.25;
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
    EXPECT_THAT(calls(), testing::Contains(testing::HasSubstr("latency=0.25,")));
    wrapper_audio_free(ctx);
    world().devices[0].has_info = false;
    ctx = wrapper_audio_init(16000, 1, nullptr);
    EXPECT_THAT(calls(), testing::Contains(testing::HasSubstr("latency=0.06,")));
    wrapper_audio_free(ctx);
}

TEST_F(context, every_line_tells_the_rate_of_its_device) {
    world().devices[0].rate = 44100;
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, nullptr);
    EXPECT_THAT(log(), testing::EndsWith("arm: микрофон свободен до open (capture_rate=44100)\n"));
    wrapper_audio_open(ctx);
    EXPECT_THAT(log(), testing::EndsWith("open: микрофон захвачен (capture_rate=44100)\n"));
    wrapper_audio_free(ctx);
    ctx = wrapper_audio_init(16000, 0, nullptr);
    EXPECT_THAT(log(), testing::EndsWith("init: поток открыт (capture_rate=44100)\n"));
    wrapper_audio_free(ctx);
}

// ---- Creation fails ----

TEST_F(context, no_initialisation_is_given_back_when_none_was_had) {
    for (const auto create : {wrapper_audio_init, wrapper_audio_arm}) {
        fail_next("Pa_Initialize", paNotInitialized);
        EXPECT_EQ(create(16000, 1, nullptr), nullptr);
        EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "Pa_GetErrorText(-10000)",
                                         "log [audio_wrapper] Pa_Initialize ОШИБКА: error -10000"));
    }
}

TEST_F(context, anything_but_no_error_is_a_failure) {
    for (const char* step : {"Pa_Initialize", "Pa_OpenStream", "Pa_StartStream"}) {
        fail_next(step, 1);
        EXPECT_EQ(wrapper_audio_init(16000, 1, nullptr), nullptr) << step;
        EXPECT_THAT(log(), testing::HasSubstr("ОШИБКА: error 1")) << step;
    }
}

TEST_F(context, without_memory_for_the_record_nothing_is_said) {
    world().failing_allocations = {1};
    EXPECT_EQ(wrapper_audio_init(16000, 1, nullptr), nullptr);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "lock", "Pa_Terminate", "unlock"));
}

TEST_F(context, a_failing_denoiser_fails_the_creation_even_when_denoising_is_off) {
    world().denoiser_refused = true;
    for (const int denoise : {0, 1}) {
        EXPECT_EQ(wrapper_audio_arm(16000, denoise, nullptr), nullptr);
        EXPECT_THAT(calls(),
                    ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "rnnoise_create",
                                "log [audio_wrapper] rnnoise_create ОШИБКА", "free", "lock", "Pa_Terminate", "unlock"));
    }
}

TEST_F(context, without_an_input_device_everything_taken_is_given_back) {
    world().default_input = paNoDevice;
    EXPECT_EQ(wrapper_audio_init(16000, 1, nullptr), nullptr);
    EXPECT_THAT(calls(),
                ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "rnnoise_create", "Pa_GetDefaultInputDevice",
                            "log [audio_wrapper] нет устройства ввода (resolve → paNoDevice)", "rnnoise_destroy",
                            "free", "lock", "Pa_Terminate", "unlock"));
}

TEST_F(context, both_buffers_are_asked_for_before_either_is_missed) {
    for (const auto& failing : std::vector<std::set<int>>{{2}, {3}, {2, 3}}) {
        world().allocations = 0;
        world().failing_allocations = failing;
        EXPECT_EQ(wrapper_audio_arm(16000, 1, nullptr), nullptr);
        std::vector<std::string> expected{"lock",
                                          "Pa_Initialize",
                                          "unlock",
                                          "calloc",
                                          "rnnoise_create",
                                          "Pa_GetDefaultInputDevice",
                                          "Pa_GetDeviceInfo(0)",
                                          "calloc(9600, 4)",
                                          "calloc(4800, 4)",
                                          "log [audio_wrapper] calloc буферов ОШИБКА (OOM)",
                                          "rnnoise_destroy"};
        if (failing == std::set<int>{3}) expected.emplace_back("free(9600, 4)");
        if (failing == std::set<int>{2}) expected.emplace_back("free(4800, 4)");
        expected.insert(expected.end(), {"free", "lock", "Pa_Terminate", "unlock"});
        EXPECT_EQ(calls(), expected);
    }
}

// ---- Opening fails ----

TEST_F(context, a_refused_stream_fails_the_init_and_leaves_nothing_behind) {
    fail_next("Pa_OpenStream", paDeviceUnavailable);
    EXPECT_EQ(wrapper_audio_init(16000, 1, nullptr), nullptr);
    const auto journal = calls();
    EXPECT_THAT(std::vector<std::string>(std::find(journal.begin(), journal.end(), open_call), journal.end()),
                ElementsAre(open_call, "Pa_GetErrorText(-9985)",
                            "log [audio_wrapper] open_input_stream ОШИБКА: error -9985 (rate=48000)", "rnnoise_destroy",
                            "free(9600, 4)", "free(4800, 4)", "free", "lock", "Pa_Terminate", "unlock"));
}

TEST_F(context, a_stream_that_does_not_start_is_closed_and_its_start_error_reported) {
    fail_next("Pa_StartStream", paInternalError);
    fail_next("Pa_CloseStream", paTimedOut);
    EXPECT_EQ(wrapper_audio_init(16000, 1, nullptr), nullptr);
    const auto journal = calls();
    EXPECT_THAT(std::vector<std::string>(std::find(journal.begin(), journal.end(), open_call), journal.end()),
                ElementsAre(open_call, "Pa_StartStream(1)", "Pa_CloseStream(1)", "Pa_GetErrorText(-9986)",
                            "log [audio_wrapper] open_input_stream ОШИБКА: error -9986 (rate=48000)", "rnnoise_destroy",
                            "free(9600, 4)", "free(4800, 4)", "free", "lock", "Pa_Terminate", "unlock"));
}

TEST_F(context, a_failed_open_leaves_the_context_armed) {
    wrapper_audio_ctx* ctx = armed();
    for (const char* step : {"Pa_OpenStream", "Pa_StartStream"}) {
        fail_next(step, paDeviceUnavailable);
        EXPECT_EQ(wrapper_audio_open(ctx), -1);
        EXPECT_EQ(log(), "[audio_wrapper] open_input_stream ОШИБКА: error -9985 (rate=48000)\n");
        EXPECT_EQ(world().initialisations, 1);
        EXPECT_THAT(world().open_streams, IsEmpty());
        int16_t pcm[8];
        EXPECT_EQ(wrapper_audio_read(ctx, 0, pcm, 8, nullptr, nullptr), -1);
    }
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    wrapper_audio_free(ctx);
}

// ---- From state to state ----

TEST_F(context, an_armed_context_opens_and_opens_only_once) {
    wrapper_audio_ctx* ctx = armed();
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_THAT(calls(), ElementsAre("Pa_GetDeviceInfo(0)", open_call, "Pa_StartStream(1)", logged(open_line)));
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_THAT(calls(), ElementsAre(logged(open_line)));
    wrapper_audio_free(ctx);
}

TEST_F(context, opening_one_that_init_made_changes_nothing) {
    wrapper_audio_ctx* ctx = capturing();
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_THAT(calls(), ElementsAre(logged(open_line)));
    wrapper_audio_free(ctx);
}

TEST_F(context, stop_and_release_on_an_armed_context_do_nothing) {
    wrapper_audio_ctx* ctx = armed();
    wrapper_audio_stop(ctx);
    wrapper_audio_release_stream(ctx);
    EXPECT_THAT(calls(), IsEmpty());
    wrapper_audio_free(ctx);
}

TEST_F(context, release_gives_the_microphone_back_and_open_takes_it_again) {
    wrapper_audio_ctx* ctx = capturing();
    wrapper_audio_release_stream(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", "Pa_CloseStream(1)", logged(release_line)));
    wrapper_audio_release_stream(ctx);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(world().initialisations, 1);
    EXPECT_EQ(world().live_denoisers, 1);
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_THAT(calls(), ElementsAre("Pa_GetDeviceInfo(0)", open_call, "Pa_StartStream(2)", logged(open_line)));
    wrapper_audio_free(ctx);
}

TEST_F(context, stop_keeps_the_stream_and_may_be_repeated) {
    wrapper_audio_ctx* ctx = capturing();
    wrapper_audio_stop(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", logged(stop_line)));
    wrapper_audio_stop(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", logged(stop_line)));
    EXPECT_EQ(world().open_streams.size(), 1U);
    wrapper_audio_free(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_CloseStream(1)", "rnnoise_destroy", "free(9600, 4)", "free(4800, 4)", "free",
                                     "lock", "Pa_Terminate", "unlock", logged(free_line)));
}

TEST_F(context, release_stops_a_stopped_stream_once_more_before_closing_it) {
    wrapper_audio_ctx* ctx = capturing();
    wrapper_audio_stop(ctx);
    calls();
    wrapper_audio_release_stream(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", "Pa_CloseStream(1)", logged(release_line)));
    wrapper_audio_free(ctx);
}

TEST_F(context, opening_a_stopped_context_opens_a_second_stream_beside_the_first) {
    wrapper_audio_ctx* ctx = capturing();
    wrapper_audio_stop(ctx);
    forget();
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_THAT(calls(), ElementsAre("Pa_GetDeviceInfo(0)", open_call, "Pa_StartStream(2)", logged(open_line)));
    EXPECT_EQ(world().open_streams.size(), 2U);
    wrapper_audio_free(ctx);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(2)", "Pa_CloseStream(2)", "rnnoise_destroy", "free(9600, 4)",
                                     "free(4800, 4)", "free", "lock", "Pa_Terminate", "unlock", logged(free_line)));
}

TEST_F(context, a_failed_open_of_a_stopped_context_leaves_it_armed_without_the_old_stream) {
    wrapper_audio_ctx* ctx = capturing();
    wrapper_audio_stop(ctx);
    fail_next("Pa_OpenStream", paDeviceUnavailable);
    EXPECT_EQ(wrapper_audio_open(ctx), -1);
    forget();
    wrapper_audio_stop(ctx);
    wrapper_audio_release_stream(ctx);
    EXPECT_THAT(calls(), IsEmpty());
    wrapper_audio_free(ctx);
    EXPECT_THAT(calls(), testing::Not(testing::Contains("Pa_CloseStream(1)")));
}

TEST_F(context, results_of_stopping_and_closing_are_ignored) {
    wrapper_audio_ctx* ctx = capturing();
    world().results["Pa_StopStream"] = {paInternalError, paInternalError, paInternalError};
    world().results["Pa_CloseStream"] = {paInternalError, paInternalError};
    fail_next("Pa_Terminate", paInternalError);
    wrapper_audio_stop(ctx);
    wrapper_audio_release_stream(ctx);
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    log();
    wrapper_audio_free(ctx);
    EXPECT_EQ(log(), std::string(free_line) + "\n");
}

TEST_F(context, null_is_accepted_everywhere_and_does_nothing) {
    int16_t pcm[8];
    EXPECT_EQ(wrapper_audio_open(nullptr), -1);
    EXPECT_EQ(wrapper_audio_read(nullptr, 10, pcm, 8, nullptr, nullptr), -1);
    wrapper_audio_release_stream(nullptr);
    wrapper_audio_stop(nullptr);
    wrapper_audio_free(nullptr);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(context, input_volume_is_a_placeholder_whatever_it_is_given) {
    EXPECT_EQ(wrapper_audio_input_volume_get(), -1.0F);
    EXPECT_EQ(wrapper_audio_input_volume_get(nullptr, 1, 2.0), -1.0F);
    EXPECT_EQ(wrapper_audio_input_volume_set(), -1);
    EXPECT_EQ(wrapper_audio_input_volume_set(nullptr, 0.5F, "x"), -1);
    EXPECT_THAT(calls(), IsEmpty());
}

} // namespace
