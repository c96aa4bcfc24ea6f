// What no host can reach: the core's own bounds and null tests, driven by including its source.
#include "fixture.h"

#include <pthread.h>

extern "C" int fake_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int fake_pthread_mutex_unlock(pthread_mutex_t* mutex);
// NOLINTBEGIN(readability-identifier-naming): the names are the system's
#define pthread_mutex_lock fake_pthread_mutex_lock
#define pthread_mutex_unlock fake_pthread_mutex_unlock
// NOLINTEND(readability-identifier-naming)
#include "../../src/audio_capture_wrapper.cpp"
#undef pthread_mutex_lock
#undef pthread_mutex_unlock

using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class internals : public with_fakes {};

TEST_F(internals, no_device_is_refused_before_portaudio_is_asked) {
    int something = 0;
    PaStream* slot = &something;
    EXPECT_EQ(open_input_stream(&slot, paNoDevice, 480, 16000.0), -9996);
    EXPECT_EQ(slot, nullptr);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(internals, the_slot_is_null_after_a_failure_and_holds_a_started_stream_after_success) {
    pa_init_locked();
    int something = 0;
    for (const char* step : {"Pa_OpenStream", "Pa_StartStream"}) {
        PaStream* slot = &something;
        fail_next(step, paInternalError);
        EXPECT_EQ(open_input_stream(&slot, 0, 480, 16000.0), paInternalError);
        EXPECT_EQ(slot, nullptr);
    }
    PaStream* slot = &something;
    EXPECT_EQ(open_input_stream(&slot, 0, 480, 16000.0), paNoError);
    EXPECT_TRUE(static_cast<fake::stream*>(slot)->running);
    Pa_CloseStream(slot);
    pa_term_locked();
}

TEST_F(internals, a_context_that_claims_to_run_without_a_stream_is_opened) {
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, nullptr);
    ctx->running = 1;
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_NE(ctx->stream, nullptr);
    wrapper_audio_free(ctx);
}

TEST_F(internals, a_context_that_claims_to_run_without_a_stream_no_longer_does_once_stopped_or_released) {
    for (const auto end : {wrapper_audio_stop, wrapper_audio_release_stream}) {
        wrapper_audio_ctx ctx{};
        ctx.running = 1;
        end(&ctx);
        EXPECT_EQ(ctx.running, 0);
        EXPECT_THAT(calls(), IsEmpty());
    }
}

template <typename... Fields>
void expect_ascending(Fields... offsets) {
    const std::vector<size_t> in_order{offsets...};
    EXPECT_TRUE(std::is_sorted(in_order.begin(), in_order.end()));
}

TEST_F(internals, records_keep_their_fields_in_order) {
    expect_ascending(offsetof(wrapper_audio_ctx, stream), offsetof(wrapper_audio_ctx, denoiser),
                     offsetof(wrapper_audio_ctx, output_rate), offsetof(wrapper_audio_ctx, capture_rate),
                     offsetof(wrapper_audio_ctx, denoise_enabled), offsetof(wrapper_audio_ctx, running),
                     offsetof(wrapper_audio_ctx, device_index), offsetof(wrapper_audio_ctx, capture_buf),
                     offsetof(wrapper_audio_ctx, capture_frames), offsetof(wrapper_audio_ctx, read_pos),
                     offsetof(wrapper_audio_ctx, out_buf), offsetof(wrapper_audio_ctx, out_capacity),
                     offsetof(wrapper_audio_ctx, out_count));
    expect_ascending(offsetof(wrapper_audio_meter, stream), offsetof(wrapper_audio_meter, buf),
                     offsetof(wrapper_audio_meter, frames), offsetof(wrapper_audio_meter, error_logged));
}

TEST_F(internals, destroying_no_context_gives_no_initialisation_back) {
    ctx_destroy(nullptr);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(internals, a_meter_without_a_stream_is_not_read) {
    wrapper_audio_meter meter{};
    meter.error_logged = 1;
    EXPECT_EQ(wrapper_audio_meter_read(&meter, nullptr, nullptr), -1);
    EXPECT_EQ(meter.error_logged, 1);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(internals, escaping_nothing_writes_nothing) {
    char block[4] = "abc";
    size_t length = 1;
    json_append_escaped(block, &length, nullptr);
    json_append_escaped(block, &length, "");
    EXPECT_EQ(length, 1U);
    EXPECT_STREQ(block, "abc");
}

class denoise_stage : public internals {
protected:
    void SetUp() override {
        internals::SetUp();
        for (int i = 0; i < 1200; ++i)
            captured[i] = static_cast<float>(i);
        std::fill_n(out, 1200, -1.0F);
        ctx.denoiser = rnnoise_create(nullptr);
        ctx.capture_rate = 48000;
        ctx.denoise_enabled = 1;
        ctx.capture_buf = captured;
        ctx.out_buf = out;
        ctx.out_count = 77;
        ctx.capture_frames = 1200;
        ctx.out_capacity = 1200;
        world().denoiser = [](float* frame) { std::fill_n(frame, 480, 32767.0F); };
        forget();
    }
    void TearDown() override {
        rnnoise_destroy(ctx.denoiser != nullptr ? ctx.denoiser : spare);
        internals::TearDown();
    }

    wrapper_audio_ctx ctx{};
    DenoiseState* spare = nullptr;
    float captured[1200];
    float out[1200];
};

TEST_F(denoise_stage, takes_a_frame_only_where_it_fits_whole) {
    ctx.out_capacity = 959;
    EXPECT_EQ(denoise_or_copy(ctx, 1200), out);
    EXPECT_THAT(calls(), ElementsAre("rnnoise_process_frame"));
    EXPECT_EQ(ctx.out_count, 959);
    EXPECT_EQ(out[479], 1.0F);
    EXPECT_EQ(out[480], 480.0F);
    EXPECT_EQ(out[958], 958.0F);
    EXPECT_EQ(out[959], -1.0F);
}

TEST_F(denoise_stage, gives_no_more_than_its_capacity) {
    ctx.denoise_enabled = 0;
    ctx.out_capacity = 100;
    EXPECT_EQ(denoise_or_copy(ctx, 1200), captured);
    EXPECT_EQ(ctx.out_count, 100);
}

TEST_F(denoise_stage, without_a_denoiser_gives_the_capture_itself) {
    std::swap(ctx.denoiser, spare);
    EXPECT_EQ(denoise_or_copy(ctx, 480), captured);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(ctx.out_count, 480);
    EXPECT_EQ(out[0], -1.0F);
}

TEST_F(denoise_stage, at_another_rate_gives_the_capture_itself) {
    ctx.capture_rate = 44100;
    EXPECT_EQ(denoise_or_copy(ctx, 480), captured);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(ctx.out_count, 480);
}

TEST_F(denoise_stage, of_no_frames_leaves_an_empty_output) {
    denoise_or_copy(ctx, 0);
    EXPECT_EQ(ctx.out_count, 0);
    EXPECT_EQ(out[0], -1.0F);
}

TEST_F(internals, records_begin_as_documented_for_a_debugger) {
    wrapper_audio_ctx* ctx = wrapper_audio_init(0, 2, nullptr);
    EXPECT_EQ(ctx->output_rate, 16000);
    EXPECT_EQ(ctx->capture_rate, 48000);
    EXPECT_EQ(ctx->denoise_enabled, 2);
    EXPECT_EQ(ctx->running, 1);
    EXPECT_EQ(ctx->device_index, 0);
    EXPECT_EQ(ctx->capture_frames, 4800);
    EXPECT_EQ(ctx->out_capacity, 4800);
    EXPECT_EQ(ctx->read_pos, 0);
    EXPECT_EQ(ctx->out_count, 0);
    int16_t pcm[480];
    EXPECT_EQ(wrapper_audio_read(ctx, 10, pcm, 480, nullptr, nullptr), 160);
    EXPECT_EQ(ctx->out_count, 480);
    fail_next("Pa_ReadStream", paInternalError);
    EXPECT_EQ(wrapper_audio_read(ctx, 20, pcm, 480, nullptr, nullptr), -1);
    EXPECT_EQ(ctx->out_count, 480) << "a failed read leaves the last count";
    EXPECT_EQ(ctx->running, 1);
    wrapper_audio_release_stream(ctx);
    EXPECT_EQ(ctx->running, 0);
    EXPECT_EQ(ctx->stream, nullptr);
    ctx->read_pos = 5;
    EXPECT_EQ(wrapper_audio_open(ctx), 0);
    EXPECT_EQ(ctx->read_pos, 0);
    EXPECT_EQ(ctx->out_count, 0);
    wrapper_audio_free(ctx);
}

} // namespace
