/**
 * Loaded into the host with LD_PRELOAD, in front of PortAudio: gives the file microphone the pace and the failures of
 * real devices. Without these variables in the environment every call passes through unchanged.
 *
 *     MICROPHONE_PACED=1          a read takes as long as its sound lasts
 *     MICROPHONE_FAILS_AFTER=N    reads fail once N of them have gone well
 *     MICROPHONE_REFUSES=1        no stream opens
 *     MICROPHONE_ABORTS=1         the process ends itself with a last word while a stream is opened
 */
#include <dlfcn.h>
#include <portaudio.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input, const PaStreamParameters* output,
                                 double rate, unsigned long frames, PaStreamFlags flags, PaStreamCallback* callback,
                                 void* data) {
    if (std::getenv("MICROPHONE_ABORTS") != nullptr) {
        std::fputs("the microphone's last word\n", stderr);
        std::abort();
    }
    if (std::getenv("MICROPHONE_REFUSES") != nullptr) return paDeviceUnavailable;
    return next<decltype(Pa_OpenStream)>("Pa_OpenStream")(stream, input, output, rate, frames, flags, callback, data);
}

extern "C" PaError Pa_ReadStream(PaStream* stream, void* buffer, unsigned long frames) {
    static int reads = 0;
    const char* limit = std::getenv("MICROPHONE_FAILS_AFTER");
    if (limit != nullptr && reads++ >= std::atoi(limit)) return paUnanticipatedHostError;
    if (std::getenv("MICROPHONE_PACED") != nullptr) {
        const double rate = Pa_GetStreamInfo(stream)->sampleRate;
        std::this_thread::sleep_for(std::chrono::duration<double>(static_cast<double>(frames) / rate));
    }
    return next<decltype(Pa_ReadStream)>("Pa_ReadStream")(stream, buffer, frames);
}
