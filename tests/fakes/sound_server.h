// A scripted double of a sound server, of what in libpulse asks it, and of ALSA's table of devices: a library that stands
// in for libpulse.so.0 wherever it is linked. Unless a test says otherwise, there is no server.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake {

struct server_source {
    std::string name;
    std::optional<std::string> description = name;
    uint32_t rate = 48000;
    uint8_t channels = 1;
    bool is_monitor = false;
    std::optional<std::string> output = name.substr(0, name.find(".monitor")); // that it is the monitor of
};

struct sound_server {
    // The script.
    bool is_there = false;
    std::optional<std::string> name = "pulseaudio"; // nothing: it does not say
    std::optional<std::string> default_output = "yeti";
    std::vector<server_source> sources;
    bool refuses_lists = false;
    bool is_silent = false;                             // once it was asked
    bool hangs_up = false;                              // once it was asked
    std::function<void()> each_round;                   // of the loop
    std::set<std::string> plugins{"pulse", "pipewire"}; // that ALSA has
    std::set<std::string> failing;                      // functions, always
    std::map<std::string, int> failing_once;            // functions, at which call from now, from 1
    std::map<std::string, int> answers;                 // what ALSA says when a device is opened, by its name

    // What happened.
    std::map<std::string, std::string> devices; // of ALSA: "plug-in parameter=source"
    std::vector<std::string> opened;
    int held = 0; // loops, contexts, operations, entries outside ALSA's table, and open devices
};

sound_server& server();

// Whether this thread is in the double, and not in what that calls: its memory is not the library's.
bool is_inside_the_server();

// Forgets everything, the devices too.
void reset_server();

} // namespace fake
