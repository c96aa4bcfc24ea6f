#include "memory_microphone.h"

#include <fcntl.h>
#include <portaudio.h>
#include <rnnoise.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace {

PaDeviceInfo g_device{2, "memory", 0, 1, 0, 0.01, 0.0, 0.01, 0.0, 48000.0};
PaHostApiInfo g_host_api{1, paInDevelopment, "bench", 1, 0, paNoDevice};
std::vector<float> g_samples(4800);
std::size_t g_position = 0;
bool g_once = false;
bool g_real_denoiser = true;

} // namespace

namespace bench {

void set_microphone(double rate, std::vector<float> samples, bool once) {
    g_device.defaultSampleRate = rate;
    g_samples = std::move(samples);
    g_position = 0;
    g_once = once;
}

void set_denoiser(bool real) {
    g_real_denoiser = real;
}

quiet::quiet() : saved_(dup(2)) {
    std::fflush(stderr);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, 2);
    close(nowhere);
}

quiet::~quiet() {
    dup2(saved_, 2);
    close(saved_);
}

std::vector<float> noise(int count) {
    std::mt19937 random(1);
    std::normal_distribution<float> normal(0.0F, 0.1F);
    std::vector<float> samples(static_cast<std::size_t>(count));
    for (float& x : samples)
        x = normal(random);
    return samples;
}

std::vector<float> speech(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    if (bytes.empty()) throw std::runtime_error("cannot read " + path);
    std::vector<std::int16_t> samples(bytes.size() / sizeof(std::int16_t));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(std::int16_t));
    std::vector<float> result;
    result.reserve(samples.size());
    for (const std::int16_t x : samples)
        result.push_back(static_cast<float>(x) / 32768.0F);
    return result;
}

} // namespace bench

extern "C" {

PaError Pa_Initialize() {
    return paNoError;
}
PaError Pa_Terminate() {
    return paNoError;
}
const char* Pa_GetErrorText(PaError) {
    return "error";
}
PaDeviceIndex Pa_GetDeviceCount() {
    return 1;
}
PaDeviceIndex Pa_GetDefaultInputDevice() {
    return 0;
}
const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex) {
    return &g_device;
}
const PaHostApiInfo* Pa_GetHostApiInfo(PaHostApiIndex) {
    return &g_host_api;
}
PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters*, const PaStreamParameters*, double, unsigned long,
                      PaStreamFlags, PaStreamCallback*, void*) {
    *stream = &g_device;
    return paNoError;
}
PaError Pa_IsFormatSupported(const PaStreamParameters*, const PaStreamParameters*, double) {
    return paFormatIsSupported;
}
PaError Pa_StartStream(PaStream*) {
    return paNoError;
}
PaError Pa_StopStream(PaStream*) {
    return paNoError;
}
PaError Pa_CloseStream(PaStream*) {
    return paNoError;
}

PaError Pa_ReadStream(PaStream*, void* buffer, unsigned long frames) {
    if (g_once && g_position > 0) return paNoError;
    if (g_position + frames > g_samples.size()) g_position = 0;
    std::memcpy(buffer, g_samples.data() + g_position, frames * sizeof(float));
    g_position += frames;
    return paNoError;
}

float memory_process_frame(DenoiseState* denoiser, float* out, const float* in) {
    return g_real_denoiser ? rnnoise_process_frame(denoiser, out, in) : 0.0F;
}

} // extern "C"
