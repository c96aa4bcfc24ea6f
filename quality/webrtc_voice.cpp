// What webrtc's voice detection says about sound at 16000 Hz, as a peer. Reads floats from standard input and writes, for
// each 10 ms, one byte for each of its four likelihoods, the least likely to call something a voice first: 1 for a voice.
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <array>
#include <cstdio>
#include <memory>
#include <vector>

int main() {
    using voice = webrtc::VoiceDetection;
    std::vector<std::unique_ptr<webrtc::AudioProcessing>> detectors;
    for (const auto likelihood :
         {voice::kVeryLowLikelihood, voice::kLowLikelihood, voice::kModerateLikelihood, voice::kHighLikelihood}) {
        detectors.emplace_back(webrtc::AudioProcessing::Create());
        if (detectors.back()->voice_detection()->set_likelihood(likelihood) != 0 ||
            detectors.back()->voice_detection()->Enable(true) != 0)
            return 1;
    }
    const webrtc::StreamConfig mono(16000, 1);
    std::array<float, 160> block{};
    while (std::fread(block.data(), sizeof(float), block.size(), stdin) == block.size()) {
        for (const auto& detector : detectors) {
            std::array<float, 160> copy = block;
            float* channel = copy.data();
            if (detector->ProcessStream(&channel, mono, mono, &channel) != 0) return 1;
            std::putchar(detector->voice_detection()->stream_has_voice() ? 1 : 0);
        }
    }
    return std::fflush(stdout);
}
