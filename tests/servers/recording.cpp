// A host of the recorder layer, for the tests on sound servers: records raw 32-bit floats and tells how it went.
//
//     recording DEVICE RATE DENOISE SECONDS FILE
//
// A device of "" is the default. A part of a device's id will do. It says "recording" when the first sound has come.
#include "wrapper_audio_recorder.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

double processor_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string text_of(wrapper_audio_recorder* recorder, wrapper_audio_recorder_text_kind kind) {
    std::string text(4096, '\0');
    text.resize(wrapper_audio_recorder_get_text(recorder, kind, text.data(), text.size()));
    return text;
}

std::string id_of(const char* part) {
    wrapper_audio_device_list* list = nullptr;
    std::size_t index = 0;
    char reason[1000] = "";
    if (wrapper_audio_device_list_create(&list) != WRAPPER_AUDIO_OK) return part;
    std::string id = part;
    if (wrapper_audio_device_list_find(list, part, &index, reason, sizeof reason) == WRAPPER_AUDIO_OK)
        id = wrapper_audio_device_list_get(list, index)->id;
    wrapper_audio_device_list_free(list);
    return id;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    const std::string id = *argv[1] == '\0' ? "" : id_of(argv[1]);
    wrapper_audio_recorder_options options{};
    options.rate = std::atoi(argv[2]);
    options.denoise = std::strtof(argv[3], nullptr);
    const auto wanted = static_cast<std::size_t>(std::atof(argv[4]) * options.rate);
    FILE* const file = std::fopen(argv[5], "wb");
    wrapper_audio_recorder* recorder = nullptr;
    wrapper_audio_status status = wrapper_audio_recorder_create(&recorder, &options);
    if (file == nullptr || status != WRAPPER_AUDIO_OK) return 2;
    status = wrapper_audio_recorder_open(recorder, id.c_str());

    std::vector<float> samples(static_cast<std::size_t>(options.rate) / 10);
    std::size_t done = 0;
    uint64_t dropped = 0;
    double last_sound = now();
    double processor = 0.0;
    while (status == WRAPPER_AUDIO_OK && done < wanted) {
        wrapper_audio_block block;
        status = wrapper_audio_recorder_read_f32(recorder, samples.data(), samples.size(), 10000, &block);
        if (block.count > 0) last_sound = now();
        if (done == 0) {
            processor = processor_seconds(); // without opening
            std::puts("recording");
            std::fflush(stdout);
        }
        if (std::fwrite(samples.data(), sizeof(float), block.count, file) != block.count) return 2;
        std::fflush(file);
        done += block.count;
        dropped += block.dropped;
    }
    processor = processor_seconds() - processor;
    const double ended = now();

    wrapper_audio_recorder_info info;
    wrapper_audio_recorder_get_info(recorder, &info);
    const wrapper_audio_status stopped = wrapper_audio_recorder_stop(recorder);
    std::printf("status=%d\nreason=%s\ndevice=%s\ndevice_rate=%d\ndenoising=%d\nread=%zu\ndropped=%llu\n"
                "processor=%.4f\nseconds_to_status=%.3f\nstopped=%d\nseconds_to_stop=%.3f\nabandoned=%u\n",
                status, text_of(recorder, WRAPPER_AUDIO_TEXT_REASON).c_str(),
                text_of(recorder, WRAPPER_AUDIO_TEXT_DEVICE_ID).c_str(), info.device_rate, info.denoising, done,
                static_cast<unsigned long long>(dropped), processor, ended - last_sound, stopped, now() - ended,
                wrapper_audio_abandoned_threads());
    std::fclose(file);
    std::fflush(stdout);
    if (wrapper_audio_abandoned_threads() > 0) std::_Exit(0); // the audio system's exit handlers might wait for it
    wrapper_audio_recorder_free(recorder);
    return 0;
}
