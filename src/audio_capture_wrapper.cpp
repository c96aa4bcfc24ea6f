// The capture core: PortAudio access, the capture context and its reads, the device list, the level meter.
#include "wrapper_audio.h"

#include "numeric/levels.h"
#include "numeric/pcm16.h"
#include "numeric/rate_conversion.h"

#include <portaudio.h>
#include <pthread.h>
#include <rnnoise.h>
#include <stdint.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

struct wrapper_audio_ctx {
    PaStream* stream;
    DenoiseState* denoiser;
    int32_t output_rate;
    int32_t capture_rate;
    int32_t denoise_enabled;
    int32_t running;
    PaDeviceIndex device_index;
    float* capture_buf;
    int32_t capture_frames;
    int32_t read_pos;
    float* out_buf;
    int32_t out_capacity;
    int32_t out_count;
};

struct wrapper_audio_meter {
    PaStream* stream;
    float* buf;
    int32_t frames;
    int32_t error_logged;
};

namespace {

// ---- PortAudio access ----

pthread_mutex_t g_pa_lock = PTHREAD_MUTEX_INITIALIZER;

// Pa_Initialize and Pa_Terminate count without a lock of their own. Nothing else ever runs under this one.
PaError call_locked(PaError (*initialize_or_terminate)()) {
    pthread_mutex_lock(&g_pa_lock);
    const PaError result = initialize_or_terminate();
    pthread_mutex_unlock(&g_pa_lock);
    return result;
}

PaError pa_init_locked() {
    return call_locked(Pa_Initialize);
}

void pa_term_locked() {
    call_locked(Pa_Terminate);
}

const char* host_api_name(const PaDeviceInfo& device) {
    const PaHostApiInfo* host_api = Pa_GetHostApiInfo(device.hostApi);
    if (host_api == nullptr) return "?";
    return host_api->name != nullptr ? host_api->name : "";
}

const char* device_name(const PaDeviceInfo& device) {
    return device.name != nullptr ? device.name : "";
}

// Every device takes part, not only those that can capture: opening an output device then fails with
// PortAudio's own words instead of quietly listening elsewhere.
PaDeviceIndex resolve_device_id(const char* id) {
    if (id == nullptr || *id == '\0') return Pa_GetDefaultInputDevice();
    const PaDeviceIndex device_count = Pa_GetDeviceCount();
    for (PaDeviceIndex index = 0; index < device_count; ++index) {
        const PaDeviceInfo* device = Pa_GetDeviceInfo(index);
        if (device == nullptr) continue;
        char text[256];
        std::snprintf(text, sizeof text, "%s:%s", host_api_name(*device), device_name(*device));
        if (std::strcmp(text, id) == 0) return index;
    }
    std::fprintf(stderr, "[audio_wrapper] WARN device_id '%s' не найден, fallback на default input\n", id);
    return Pa_GetDefaultInputDevice();
}

// The device's default rate, rounded; 48000 when it is unknown or leaves 32 bits.
int32_t default_rate(PaDeviceIndex index) {
    constexpr double limit = 2147483648.0;
    const PaDeviceInfo* device = Pa_GetDeviceInfo(index);
    const double rounded =
        device != nullptr && device->defaultSampleRate > 0.0 ? device->defaultSampleRate + 0.5 : limit;
    return rounded < limit ? static_cast<int32_t>(rounded) : 48000;
}

// `ms` is at most 100, so that any rate's product fits in 64 bits and its quotient in 32.
int32_t frames_in(int32_t rate, int32_t ms) {
    return static_cast<int32_t>(int64_t{rate} * ms / 1000);
}

constexpr int32_t buffer_ms = 30;

// Opens and starts a mono stream for blocking reads. `*slot` holds it on success and null on failure.
PaError open_input_stream(PaStream** slot, PaDeviceIndex device_index, unsigned long frames_per_buffer, double rate) {
    *slot = nullptr;
    if (device_index == paNoDevice) return paInvalidDevice;
    const PaDeviceInfo* device = Pa_GetDeviceInfo(device_index);
    PaStreamParameters input{};
    input.device = device_index;
    input.channelCount = 1;
    input.sampleFormat = paFloat32;
    input.suggestedLatency = device != nullptr ? device->defaultLowInputLatency : 0.06;

    PaStream* stream = nullptr;
    PaError error = Pa_OpenStream(&stream, &input, nullptr, rate, frames_per_buffer, paClipOff, nullptr, nullptr);
    if (error != paNoError) return error;
    error = Pa_StartStream(stream);
    if (error != paNoError) {
        Pa_CloseStream(stream);
        return error;
    }
    *slot = stream;
    return paNoError;
}

// PortAudio 19.6 writes twice the samples that were asked for when it reads from JACK. What it reads into has the room.
constexpr int32_t read_room = 2;

// A device that overran its buffer still delivered samples.
bool delivered(PaError read_result) {
    return read_result == paNoError || read_result == paInputOverflowed;
}

template <typename Record>
Record* allocate_zeroed(int32_t count) {
    return static_cast<Record*>(std::calloc(static_cast<std::size_t>(count), sizeof(Record)));
}

template <auto destroy>
using deleter = std::integral_constant<decltype(destroy), destroy>;

// ---- Capture context ----

// A stream that was stopped before is closed without a second stop.
void ctx_destroy(wrapper_audio_ctx* ctx) {
    if (ctx == nullptr) return;
    if (ctx->stream != nullptr) {
        if (ctx->running != 0) Pa_StopStream(ctx->stream);
        Pa_CloseStream(ctx->stream);
    }
    if (ctx->denoiser != nullptr) rnnoise_destroy(ctx->denoiser);
    std::free(ctx->capture_buf);
    std::free(ctx->out_buf);
    std::free(ctx);
    pa_term_locked();
}

using ctx_holder = std::unique_ptr<wrapper_audio_ctx, deleter<ctx_destroy>>;

wrapper_audio_ctx* ctx_create(int output_rate, int denoise, const char* device_id) {
    const PaError error = pa_init_locked();
    if (error != paNoError) {
        std::fprintf(stderr, "[audio_wrapper] Pa_Initialize ОШИБКА: %s\n", Pa_GetErrorText(error));
        return nullptr;
    }
    ctx_holder ctx{allocate_zeroed<wrapper_audio_ctx>(1)};
    if (ctx == nullptr) {
        pa_term_locked();
        return nullptr;
    }
    ctx->denoise_enabled = denoise;
    ctx->output_rate = output_rate < 1 ? 16000 : output_rate;
    ctx->denoiser = rnnoise_create(nullptr);
    if (ctx->denoiser == nullptr) {
        std::fputs("[audio_wrapper] rnnoise_create ОШИБКА\n", stderr);
        return nullptr;
    }
    ctx->device_index = resolve_device_id(device_id);
    if (ctx->device_index == paNoDevice) {
        std::fputs("[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n", stderr);
        return nullptr;
    }
    ctx->capture_rate = default_rate(ctx->device_index);
    ctx->capture_frames = std::max(480, frames_in(ctx->capture_rate, 100));
    ctx->out_capacity = ctx->capture_frames;
    ctx->capture_buf = allocate_zeroed<float>(read_room * ctx->capture_frames);
    ctx->out_buf = allocate_zeroed<float>(ctx->out_capacity);
    if (ctx->capture_buf == nullptr || ctx->out_buf == nullptr) {
        std::fputs("[audio_wrapper] calloc буферов ОШИБКА (OOM)\n", stderr);
        return nullptr;
    }
    const PaDeviceInfo* device = Pa_GetDeviceInfo(ctx->device_index);
    std::fprintf(stderr,
                 "[audio_wrapper] ctx_create device='%s' (idx=%d, requested='%s') capture_rate=%d output_rate=%d "
                 "denoise=%d\n",
                 device != nullptr ? device_name(*device) : "unknown", ctx->device_index,
                 device_id != nullptr ? device_id : "(null)", ctx->capture_rate, ctx->output_rate, denoise);
    return ctx.release();
}

// Makes the context capture unless it does so already. The handle of a stopped stream is replaced, not closed.
bool ensure_capturing(wrapper_audio_ctx& ctx) {
    if (ctx.running != 0 && ctx.stream != nullptr) return true;
    const auto frames_per_buffer = static_cast<unsigned long>(frames_in(ctx.capture_rate, buffer_ms));
    const PaError error = open_input_stream(&ctx.stream, ctx.device_index, frames_per_buffer, ctx.capture_rate);
    if (error != paNoError) {
        std::fprintf(stderr, "[audio_wrapper] open_input_stream ОШИБКА: %s (rate=%d)\n", Pa_GetErrorText(error),
                     ctx.capture_rate);
        return false;
    }
    ctx.read_pos = 0;
    ctx.out_count = 0;
    ctx.running = 1;
    return true;
}

} // namespace

wrapper_audio_ctx* wrapper_audio_init(int output_rate, int denoise, const char* device_id) noexcept {
    ctx_holder ctx{ctx_create(output_rate, denoise, device_id)};
    if (ctx == nullptr || !ensure_capturing(*ctx)) return nullptr;
    std::fprintf(stderr, "[audio_wrapper] init: поток открыт (capture_rate=%d)\n", ctx->capture_rate);
    return ctx.release();
}

wrapper_audio_ctx* wrapper_audio_arm(int output_rate, int denoise, const char* device_id) noexcept {
    wrapper_audio_ctx* ctx = ctx_create(output_rate, denoise, device_id);
    if (ctx != nullptr) {
        std::fprintf(stderr, "[audio_wrapper] arm: микрофон свободен до open (capture_rate=%d)\n", ctx->capture_rate);
    }
    return ctx;
}

int wrapper_audio_open(wrapper_audio_ctx* ctx) noexcept {
    if (ctx == nullptr || !ensure_capturing(*ctx)) return -1;
    std::fprintf(stderr, "[audio_wrapper] open: микрофон захвачен (capture_rate=%d)\n", ctx->capture_rate);
    return 0;
}

void wrapper_audio_release_stream(wrapper_audio_ctx* ctx) noexcept {
    if (ctx == nullptr) return;
    ctx->running = 0;
    if (ctx->stream == nullptr) return;
    Pa_StopStream(ctx->stream);
    Pa_CloseStream(ctx->stream);
    ctx->stream = nullptr;
    std::fputs("[audio_wrapper] release_stream: микрофон отпущен, ctx остаётся armed\n", stderr);
}

void wrapper_audio_stop(wrapper_audio_ctx* ctx) noexcept {
    if (ctx == nullptr) return;
    ctx->running = 0;
    if (ctx->stream == nullptr) return;
    Pa_StopStream(ctx->stream);
    std::fputs("[audio_wrapper] Запись остановлена\n", stderr);
}

void wrapper_audio_free(wrapper_audio_ctx* ctx) noexcept {
    if (ctx == nullptr) return;
    ctx_destroy(ctx);
    std::fputs("[audio_wrapper] Ресурсы освобождены\n", stderr);
}

float wrapper_audio_input_volume_get(...) noexcept {
    return -1.0F;
}

int wrapper_audio_input_volume_set(...) noexcept {
    return -1;
}

// ---- Read pipeline ----

namespace {

constexpr int32_t denoiser_rate = 48000;
constexpr int32_t denoiser_frame = 480;
constexpr int32_t conversion_block = 32; // short enough for the processor to convert the next while it sums one

// Returns the samples of a capture of `frames`, of which there are then `out_count`: in `out_buf` with whole denoiser
// frames denoised and the rest copied, or in `capture_buf` where nothing is to be denoised, which saves copying it all.
// The bounds by `out_capacity` are this stage's own; a read never asks for more.
const float* denoise_or_copy(wrapper_audio_ctx& ctx, int32_t frames) {
    ctx.out_count = std::min(frames, ctx.out_capacity);
    if (ctx.denoise_enabled == 0 || ctx.denoiser == nullptr || ctx.capture_rate != denoiser_rate)
        return ctx.capture_buf;
    int32_t done = 0;
    for (; ctx.out_count - done >= denoiser_frame; done += denoiser_frame) {
        float frame[denoiser_frame];
        numeric::scale_to_pcm16_range(ctx.capture_buf + done, denoiser_frame, frame);
        rnnoise_process_frame(ctx.denoiser, frame, frame);
        numeric::scale_from_pcm16_range(frame, denoiser_frame, ctx.out_buf + done);
    }
    std::copy(ctx.capture_buf + done, ctx.capture_buf + ctx.out_count, ctx.out_buf + done);
    return ctx.out_buf;
}

} // namespace

int32_t wrapper_audio_read(wrapper_audio_ctx* ctx, int32_t ms, int16_t* pcm, int32_t capacity, float* rms,
                           float* peak) noexcept {
    if (pcm == nullptr || capacity <= 0 || ctx == nullptr || ctx->running == 0 || ms < 0) return -1;
    const int64_t rate_ms = int64_t{ctx->capture_rate} * ms;
    if (rate_ms > std::numeric_limits<int32_t>::max()) return -1;
    const auto frames = static_cast<int32_t>(std::min<int64_t>(rate_ms / 1000, ctx->capture_frames));
    const PaError error = Pa_ReadStream(ctx->stream, ctx->capture_buf, static_cast<unsigned long>(frames));
    if (!delivered(error)) {
        std::fprintf(stderr, "[audio_wrapper] Pa_ReadStream ОШИБКА: %s\n", Pa_GetErrorText(error));
        return -1;
    }
    const float* samples = denoise_or_copy(*ctx, frames);

    // A device whose rate rounds to 0 gives no samples and ends here, before anything is divided by its rate.
    const int32_t count = ctx->out_count < 1
                              ? 0
                              : numeric::converted_count(ctx->capture_rate, ctx->output_rate, ctx->out_count, capacity);
    numeric::level_sums sums;
    for (int32_t first = 0; first < count;) {
        float room[conversion_block];
        const int32_t length = std::min(count - first, conversion_block);
        const float* block =
            numeric::convert_rate(ctx->capture_rate, ctx->output_rate, samples, ctx->out_count, first, room, length);
        numeric::measure_to_pcm16(sums, block, length, pcm + first);
        first += length;
    }
    if (rms != nullptr) {
        *rms = count < 1 ? 0.0F : numeric::limit_to_full_scale(numeric::root_mean_square(sums.squares, count));
    }
    if (peak != nullptr) *peak = numeric::limit_to_full_scale(sums.peak);
    return count;
}

// ---- Device list and capabilities ----

namespace {

constexpr std::size_t text_block_size = 65536;
constexpr std::size_t text_limit = text_block_size - 1;

void json_append(char* block, std::size_t* length, const char* piece) {
    for (; *piece != '\0' && *length + 1 <= text_limit; ++piece) {
        block[(*length)++] = *piece;
    }
}

// Keeps room for a two-byte escape before every byte, also before one that is copied or dropped.
void json_append_escaped(char* block, std::size_t* length, const char* source) {
    if (source == nullptr) return;
    for (; *source != '\0' && *length + 2 <= text_limit; ++source) {
        if (*source == '"' || *source == '\\') {
            block[(*length)++] = '\\';
        } else if (static_cast<unsigned char>(*source) < 0x20) {
            continue;
        }
        block[(*length)++] = *source;
    }
}

void append_device(char* block, std::size_t* length, const PaDeviceInfo& device, bool is_default) {
    json_append(block, length, R"({"id":")");
    json_append_escaped(block, length, host_api_name(device));
    json_append(block, length, ":");
    json_append_escaped(block, length, device.name);
    json_append(block, length, R"(","name":")");
    json_append_escaped(block, length, device.name);
    json_append(block, length, R"(","kind":")");
    json_append(block, length, device.maxInputChannels > 0 ? "input" : "output");
    json_append(block, length, R"(","isDefault":)");
    json_append(block, length, is_default ? "true" : "false");
    json_append(block, length, "}");
}

} // namespace

char* wrapper_audio_list_devices_json() noexcept {
    auto* block = static_cast<char*>(std::malloc(text_block_size));
    if (block == nullptr) return nullptr;
    std::size_t length = 0;
    if (pa_init_locked() != paNoError) {
        json_append(block, &length, "[]");
        block[length] = '\0';
        return block;
    }
    const PaDeviceIndex device_count = Pa_GetDeviceCount();
    const PaDeviceIndex default_input = Pa_GetDefaultInputDevice();
    json_append(block, &length, "[");
    bool first = true;
    for (PaDeviceIndex index = 0; index < device_count; ++index) {
        const PaDeviceInfo* device = Pa_GetDeviceInfo(index);
        if (device == nullptr) continue;
        if (!first) json_append(block, &length, ",");
        first = false;
        append_device(block, &length, *device, index == default_input);
    }
    json_append(block, &length, "]");
    block[length] = '\0';
    pa_term_locked();
    std::fprintf(stderr, "[audio_wrapper] list_devices: %d устройств\n", device_count);
    return block;
}

void wrapper_audio_free_text(char* text) noexcept {
    std::free(text);
}

int wrapper_audio_capabilities() noexcept {
    if (pa_init_locked() != paNoError) return 0;
    const PaDeviceIndex device_count = Pa_GetDeviceCount();
    int capabilities = 1;
    for (PaDeviceIndex index = 0; index < device_count && capabilities == 1; ++index) {
        const PaDeviceInfo* device = Pa_GetDeviceInfo(index);
        if (device != nullptr && device->maxInputChannels > 0) capabilities = 3;
    }
    pa_term_locked();
    return capabilities;
}

// ---- Level meter ----

namespace {

void meter_destroy(wrapper_audio_meter* meter) {
    if (meter->stream != nullptr) {
        Pa_StopStream(meter->stream);
        Pa_CloseStream(meter->stream);
    }
    std::free(meter->buf);
    std::free(meter);
    pa_term_locked();
}

using meter_holder = std::unique_ptr<wrapper_audio_meter, deleter<meter_destroy>>;

} // namespace

wrapper_audio_meter* wrapper_audio_meter_open(const char* device_id) noexcept {
    PaError error = pa_init_locked();
    if (error != paNoError) {
        std::fprintf(stderr, "[audio_wrapper] meter_open: Pa_Initialize ОШИБКА: %s\n", Pa_GetErrorText(error));
        return nullptr;
    }
    meter_holder meter{allocate_zeroed<wrapper_audio_meter>(1)};
    if (meter == nullptr) {
        pa_term_locked();
        return nullptr;
    }
    const PaDeviceIndex device_index = resolve_device_id(device_id);
    if (device_index == paNoDevice) {
        std::fputs("[audio_wrapper] meter_open: нет устройства ввода\n", stderr);
        return nullptr;
    }
    const int32_t rate = default_rate(device_index);
    meter->frames = std::max(64, frames_in(rate, buffer_ms));
    meter->buf = allocate_zeroed<float>(read_room * meter->frames);
    if (meter->buf == nullptr) return nullptr;
    error = open_input_stream(&meter->stream, device_index, static_cast<unsigned long>(meter->frames), rate);
    if (error != paNoError) {
        std::fprintf(stderr, "[audio_wrapper] meter_open: open_input_stream ОШИБКА: %s\n", Pa_GetErrorText(error));
        return nullptr;
    }
    std::fprintf(stderr, "[audio_wrapper] meter_open device='%s' (idx=%d) rate=%d frames=%d\n",
                 device_id != nullptr ? device_id : "(null)", device_index, rate, meter->frames);
    return meter.release();
}

int wrapper_audio_meter_read(wrapper_audio_meter* meter, float* peak_out, float* rms_out) noexcept {
    if (meter == nullptr || meter->stream == nullptr) return -1;
    const PaError error = Pa_ReadStream(meter->stream, meter->buf, static_cast<unsigned long>(meter->frames));
    if (!delivered(error)) {
        // A host that keeps polling a dead device gets one line, not one a poll.
        if (meter->error_logged == 0) {
            std::fprintf(stderr, "[audio_wrapper] meter_read Pa_ReadStream ОШИБКА: %s (далее подавляется)\n",
                         Pa_GetErrorText(error));
            meter->error_logged = 1;
        }
        return -1;
    }
    meter->error_logged = 0;
    if (peak_out == nullptr && rms_out == nullptr) return meter->frames;
    numeric::level_sums sums;
    numeric::add_levels(sums, meter->buf, meter->frames);
    if (peak_out != nullptr) *peak_out = numeric::limit_to_full_scale(sums.peak);
    if (rms_out != nullptr) {
        *rms_out = numeric::limit_to_full_scale(numeric::root_mean_square(sums.squares, meter->frames));
    }
    return meter->frames;
}

void wrapper_audio_meter_close(wrapper_audio_meter* meter) noexcept {
    if (meter == nullptr) return;
    meter_destroy(meter);
    std::fputs("[audio_wrapper] meter_close\n", stderr);
}
