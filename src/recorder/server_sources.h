// The sources of a sound server, PulseAudio or PipeWire: its microphones, and the monitors of what it plays. ALSA knows a
// server as one device only, so each source is made a device of ALSA's, which PortAudio then lists with the others.
#pragma once

#include <cstdint>
#include <string>

namespace recorder {

struct server_source {
    std::string name;        // the server's own: bytes
    std::string description; // for people
    std::string server;      // "PulseAudio" or "PipeWire"
    int32_t rate = 0;
    int32_t channels = 0;
    bool is_monitor = false;
    bool is_of_default_output = false; // a monitor of what programs play into unless they choose
};

// Asks the server that the user's programs use, which takes a second at most, and defines the devices; those of the last
// call are gone. To be called before PortAudio looks for devices, under the lock of the audio system. Where there is no
// server, or no libpulse to ask it, there are no sources.
void define_server_sources();

// The source that an ALSA device is, by the device's name; nullptr for other devices.
const server_source* server_source_of(const std::string& device_name);

} // namespace recorder
