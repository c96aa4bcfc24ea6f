// Stands between the library and PortAudio while valgrind watches, and has it look at what crosses.
//
// ALSA computes with memory that it never set, so that valgrind is told to be silent about such values inside of ALSA and
// PortAudio. What the library hands them is therefore looked at here.
#include <dlfcn.h>
#include <portaudio.h>
#include <valgrind/memcheck.h>

namespace {

template <typename Function>
Function* real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// PortAudio has its latencies from ALSA's sizes, which valgrind takes for unset.
const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex device) {
    VALGRIND_CHECK_VALUE_IS_DEFINED(device);
    const PaDeviceInfo* const info = real(Pa_GetDeviceInfo, "Pa_GetDeviceInfo")(device);
    if (info != nullptr) VALGRIND_MAKE_MEM_DEFINED(info, sizeof *info);
    return info;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input, const PaStreamParameters* output, double rate,
                      unsigned long frames, PaStreamFlags flags, PaStreamCallback* callback, void* data) {
    VALGRIND_CHECK_MEM_IS_ADDRESSABLE(stream, sizeof *stream);
    VALGRIND_CHECK_MEM_IS_DEFINED(&input->device, sizeof input->device);
    VALGRIND_CHECK_MEM_IS_DEFINED(&input->channelCount, sizeof input->channelCount);
    VALGRIND_CHECK_MEM_IS_DEFINED(&input->sampleFormat, sizeof input->sampleFormat);
    VALGRIND_CHECK_MEM_IS_DEFINED(&input->suggestedLatency, sizeof input->suggestedLatency);
    VALGRIND_CHECK_MEM_IS_DEFINED(&input->hostApiSpecificStreamInfo, sizeof input->hostApiSpecificStreamInfo);
    VALGRIND_CHECK_VALUE_IS_DEFINED(output);
    VALGRIND_CHECK_VALUE_IS_DEFINED(rate);
    VALGRIND_CHECK_VALUE_IS_DEFINED(frames);
    VALGRIND_CHECK_VALUE_IS_DEFINED(flags);
    VALGRIND_CHECK_VALUE_IS_DEFINED(callback);
    VALGRIND_CHECK_VALUE_IS_DEFINED(data);
    return real(Pa_OpenStream, "Pa_OpenStream")(stream, input, output, rate, frames, flags, callback, data);
}

PaError Pa_ReadStream(PaStream* stream, void* samples, unsigned long frames) {
    VALGRIND_CHECK_VALUE_IS_DEFINED(stream);
    VALGRIND_CHECK_VALUE_IS_DEFINED(frames);
    VALGRIND_CHECK_MEM_IS_ADDRESSABLE(samples, frames * sizeof(float));
    return real(Pa_ReadStream, "Pa_ReadStream")(stream, samples, frames);
}
