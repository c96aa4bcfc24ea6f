// The fixture of the tests with the real PortAudio: microphones that hear files, and no other sound device.
//
// ALSA learns of them by a configuration file in a directory of the test's own. What is printed to stderr goes to a file
// there, because the tests read it and because PortAudio's back ends fill it. Descriptor 2 stays what it is, for the
// reports of sanitizers.
#pragma once

#include "wrapper_audio.h"

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Freed at the end of a test even if it fails: PortAudio must have ended before the next one configures it.
struct free_context {
    void operator()(wrapper_audio_ctx* ctx) const { wrapper_audio_free(ctx); }
};
struct close_meter {
    void operator()(wrapper_audio_meter* meter) const { wrapper_audio_meter_close(meter); }
};
using context = std::unique_ptr<wrapper_audio_ctx, free_context>;
using level_meter = std::unique_ptr<wrapper_audio_meter, close_meter>;

class with_microphones : public testing::Test {
protected:
    with_microphones() {
        std::string name = std::filesystem::temp_directory_path() / "wrapper_audio_XXXXXX";
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no directory for the test: " + name);
        directory_ = name;
        setenv("JACK_NO_START_SERVER", "1", 1);
        setenv("JACK_DEFAULT_SERVER", "wrapper_audio_test_without_jack", 1);
        stderr = std::fopen((directory_ / "stderr").c_str(), "a");
        if (stderr == nullptr) throw std::runtime_error("no file for standard error");
        std::setvbuf(stderr, nullptr, _IONBF, 0);
    }

    ~with_microphones() override {
        std::fclose(std::exchange(stderr, real_standard_error_));
        if (HasFailure()) std::cout << std::ifstream(directory_ / "stderr").rdbuf() << std::flush;
        std::filesystem::remove_all(directory_);
    }

    // To be called while PortAudio is not running: it looks for devices when it starts, and then only.
    //
    // One of the devices must be called "default", or be unusable: PortAudio 19.6 aborts the process when every device is
    // usable and none is called that, and also when there is no device at all.
    void configure(const std::string& devices) {
        std::ofstream(directory_ / "asound.conf") << "pcm_type.test_microphone { lib \"" TEST_MICROPHONE "\" }\n"
                                                  << devices;
        use_configuration(directory_ / "asound.conf");
    }

    static void use_configuration(const std::filesystem::path& path) {
        setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
        snd_config_update_free_global(); // ALSA keeps what it has read
    }

    const std::filesystem::path& directory() const { return directory_; }

    // Writes samples as a microphone reads them, and returns the file's path.
    template <typename Sample = int16_t>
    std::string sound_file(const std::vector<Sample>& sound) {
        const std::filesystem::path path = directory_ / ("sound" + std::to_string(sound_count_++) + ".raw");
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(sound.data()),
                   static_cast<std::streamsize>(sound.size() * sizeof(Sample)));
        return path;
    }

    // What the library wrote to standard error since the last look; what others wrote there is left out.
    std::string log() {
        std::ifstream file(directory_ / "stderr");
        file.seekg(log_seen_);
        std::string lines;
        for (std::string line; std::getline(file, line);) {
            log_seen_ += static_cast<std::streamoff>(line.size() + 1);
            if (line.rfind("[audio_wrapper] ", 0) == 0) lines += line + "\n";
        }
        return lines;
    }

private:
    std::filesystem::path directory_;
    std::FILE* const real_standard_error_ = stderr;
    int sound_count_ = 0;
    std::streamoff log_seen_ = 0;
};

// A device of tests/end_to_end/test_microphone.c, which tells the settings. The name may be in double quotes.
inline std::string microphone(const std::string& name, const std::string& file, int rate,
                              const std::string& settings = "") {
    return "pcm." + name + " { type test_microphone file \"" + file + "\" rate " + std::to_string(rate) + " " +
           settings + " }\n";
}

// A device that cannot be opened.
inline const std::string unusable = "pcm.unusable { type test_microphone }\n";
