// webrtc's noise suppression of sound at 16000 Hz, as a peer: webrtc_suppression LEVEL, 0 to 3. Reads and writes floats.
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::unique_ptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessing::Create());
    const auto level = static_cast<webrtc::NoiseSuppression::Level>(std::atoi(argv[1]));
    if (processing->noise_suppression()->set_level(level) != 0 || processing->noise_suppression()->Enable(true) != 0)
        return 1;
    const webrtc::StreamConfig mono(16000, 1);
    std::array<float, 160> block{};
    while (std::fread(block.data(), sizeof(float), block.size(), stdin) == block.size()) {
        float* channel = block.data();
        if (processing->ProcessStream(&channel, mono, mono, &channel) != 0) return 1;
        std::fwrite(block.data(), sizeof(float), block.size(), stdout);
    }
    return std::fflush(stdout);
}
