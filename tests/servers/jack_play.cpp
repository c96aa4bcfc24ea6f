// Plays a sound file of one channel into JACK, for the tests on sound servers: a client jack-play-PID with one output.
//
//     jack_play [FILE]
//
// It says "ready" once the client is there. Without a file that is all it does. The file's rate must be the server's.
#include <jack/jack.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

struct player {
    jack_port_t* port = nullptr;
    std::vector<float> samples;
    std::size_t at = 0;
    std::atomic<bool> ended = false;
};

int play(jack_nframes_t count, void* arg) {
    player& self = *static_cast<player*>(arg);
    auto* const out = static_cast<float*>(jack_port_get_buffer(self.port, count));
    const std::size_t rest = std::min<std::size_t>(count, self.samples.size() - self.at);
    std::copy_n(self.samples.data() + self.at, rest, out);
    std::fill_n(out + rest, count - rest, 0.0F);
    self.at += rest;
    if (rest == 0) self.ended = true;
    return 0;
}

void end(void* arg) {
    static_cast<player*>(arg)->ended = true;
}

std::vector<float> samples_of(const char* file) {
    SF_INFO info{};
    SNDFILE* const sound = sf_open(file, SFM_READ, &info);
    if (sound == nullptr || info.channels != 1) return {};
    std::vector<float> samples(static_cast<std::size_t>(info.frames));
    sf_read_float(sound, samples.data(), info.frames);
    sf_close(sound);
    return samples;
}

} // namespace

int main(int argc, char** argv) {
    const std::string name = "jack-play-" + std::to_string(getpid());
    jack_client_t* const client = jack_client_open(name.c_str(), JackNoStartServer, nullptr);
    if (client == nullptr) return 1;
    player self;
    if (argc == 2) {
        self.samples = samples_of(argv[1]);
        self.port = jack_port_register(client, "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(client, play, &self);
        jack_on_shutdown(client, end, &self);
        if (self.samples.empty() || self.port == nullptr || jack_activate(client) != 0) return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    while (argc == 2 && !self.ended)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    jack_client_close(client);
    return 0;
}
