// Loads and unloads the shared object, as a host with plugins does, and uses it each time.
//
//     loads LIBRARY COUNT
//
// Exits with 1 when something grew, and with 2 when a call did not do what it should.
#include "figures.h"
#include "wrapper_audio.h"

#include <dlfcn.h>
#include <portaudio.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

void require(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what);
}

class library {
public:
    explicit library(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW)) {
        if (handle_ == nullptr) throw std::runtime_error(dlerror());
    }
    ~library() { dlclose(handle_); }
    library(const library&) = delete;
    library& operator=(const library&) = delete;

    template <typename Function>
    Function find(const char* name) const {
        void* const found = dlsym(handle_, name);
        require(found != nullptr, name);
        return reinterpret_cast<Function>(found);
    }

private:
    void* handle_;
};

bool is_loaded(const std::string& path) {
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
}

void load_and_use(const std::string& path) {
    const library wrapper_audio(path);
    const auto init = wrapper_audio.find<decltype(&wrapper_audio_init)>("wrapper_audio_init");
    const auto read = wrapper_audio.find<decltype(&wrapper_audio_read)>("wrapper_audio_read");
    const auto free = wrapper_audio.find<decltype(&wrapper_audio_free)>("wrapper_audio_free");
    wrapper_audio_ctx* const ctx = init(16000, 1, nullptr);
    require(ctx != nullptr, "init failed");
    int16_t pcm[320];
    const int count = read(ctx, 20, pcm, 320, nullptr, nullptr);
    free(ctx);
    require(count == 320, "read failed");
}

void load_and_start_portaudio(const std::string& path) {
    const library portaudio(path);
    require(portaudio.find<decltype(&Pa_Initialize)>("Pa_Initialize")() == paNoError, "Pa_Initialize failed");
    portaudio.find<decltype(&Pa_Terminate)>("Pa_Terminate")();
}

soak::series repeat(const std::string& name, const std::string& path, long count, void (*once)(const std::string&),
                    const soak::figures& start) {
    soak::series figures(std::to_string(count) + name, count, start);
    for (long i = 1; i <= count; ++i) {
        once(path);
        require(!is_loaded(path), path + " stays loaded");
        figures.after(i);
    }
    return figures;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: loads LIBRARY COUNT\n", stderr);
        return 2;
    }
    try {
        const soak::figures start = soak::figures_now();
        // libjack, which PortAudio brings along, leaves memory and thread-specific keys behind each time that it is
        // unloaded. So it is measured alone, fewer times than there are keys, and stays loaded afterwards.
        const std::string jack = "libjack.so.0";
        repeat(
            " loads of libjack alone", jack, 100, [](const std::string& path) { const library jack_again(path); },
            start)
            .report_unjudged();
        const library stays(jack);

        const long count = std::stol(argv[2]);
        const soak::series bare =
            repeat(" loads of bare PortAudio", "libportaudio.so.2", count, load_and_start_portaudio, start);
        bare.report_unjudged();
        return repeat(" loads", argv[1], count, load_and_use, start).report(soak::allowed_beside(bare)) ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("soak: FAILED: %s\n", error.what());
        return 2;
    }
}
