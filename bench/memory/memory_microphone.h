// A microphone in memory, and a denoiser that can be taken away.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// What the next contexts hear: their device's rate, and the samples, which are copied in reads of up to 100 ms, around
// and around. With `once` only the first read copies anything, and the later ones find its samples where they were.
void set_microphone(double rate, std::vector<float> samples, bool once = false);

// Whether memory_process_frame, which the library calls for rnnoise_process_frame, does anything.
void set_denoiser(bool real);

// Standard error is closed to the library's lines while contexts come and go.
class quiet {
public:
    quiet();
    ~quiet();
    quiet(const quiet&) = delete;
    quiet& operator=(const quiet&) = delete;

private:
    int saved_;
};

// The lengths of the blocks to measure with, and such a block of noise at -20 dB.
inline constexpr int sizes[] = {160, 480, 1600, 4800, 65536};
std::vector<float> noise(int count);

// Six seconds of speech in noise, 48000 Hz.
std::vector<float> speech(const std::string& path);

} // namespace bench
