// Every way through every exported call, with what a good run of it gives.
#pragma once

#include "fakes.h"
#include "wrapper_audio.h"

#include <functional>
#include <string>
#include <vector>

namespace faults {

enum class state { nothing, armed, capturing, stopped, metering };

// What a host sees of a call: its result and outputs in words, its lines without their ends, and what it holds now.
struct outcome {
    std::string result;
    std::vector<std::string> lines;
    state after = state::nothing;
    bool operator==(const outcome&) const = default;
};

struct handles {
    wrapper_audio_ctx* ctx = nullptr;
    wrapper_audio_meter* meter = nullptr;
};

// A device as the lines show it.
struct shown_device {
    int index = 0;
    std::string name = "A";
    int rate = 48000;
};

struct way {
    std::string call; // the exported name without its prefix
    std::string name;
    std::function<void()> world = [] {};                     // scripts the devices
    std::function<void(handles&)> prepare = [](handles&) {}; // goes well always
    std::function<std::string(handles&)> run;                // the one call; gives its result and outputs
    outcome good{};

    // What creating a context or a meter is asked for, and which devices it is about.
    const char* id = nullptr;
    int output_rate = 16000;
    int denoise = 0;
    shown_device wanted{};
    shown_device fallback{};
    bool known = true;         // a device has this id, or it means the default
    bool with_host_api = true; // the wanted device has a record of its host API

    // What a read is asked for.
    int ms = 10;

    int lost_streams = 0; // those of stopped contexts that are opened directly
};

std::vector<way> all_ways();

// ---- The documented lines, without "[audio_wrapper] " ----

std::string warning(const way& w);
std::string ctx_create_line(const way& w, const shown_device& device);

// A created context or meter on this device; `warned`: after the line about an id that no device has.
outcome created(const way& w, const shown_device& device, bool warned);

// A creation that has failed: `lines` behind the warning, if there was one.
outcome not_created(const way& w, std::vector<std::string> lines, bool warned);

// The device list when PortAudio tells of `count` devices: without those in `hidden`, and with host APIs unknown where
// `strays` says so.
std::string list_text(int count, int default_input, const std::vector<int>& hidden, const std::vector<int>& strays);

// What a read of this way gives when the denoiser spoils the frame with this number (-1: none).
std::string read_text(const way& w, int spoilt_frame);

} // namespace faults
