// What a fuzzed session holds, and what the doubles will answer next.
#pragma once

#include "fakes.h"
#include "wrapper_audio.h"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>

// More memory there is not, so that no device's rate makes an input slow.
constexpr std::size_t largest_block = std::size_t{256} * 1024;

struct capture {
    wrapper_audio_ctx* handle;
    int device;
    std::int32_t rate;
    std::int32_t output_rate;
    bool denoise;
    int stream = 0; // its number, 0: none
    bool running = false;

    std::int32_t capacity() const { return std::max(480, rate / 10); }
};

struct level_meter {
    wrapper_audio_meter* handle;
    std::int32_t frames;
    int stream;
    bool failing = false;
    bool has_failed = false;
};

template <typename... Pieces>
std::string text(const Pieces&... pieces) {
    std::ostringstream out;
    (out << ... << pieces);
    return out.str();
}

inline PaError next_result(const std::string& function) {
    const auto script = fake::world().results.find(function);
    return script == fake::world().results.end() || script->second.empty() ? paNoError : script->second.front();
}

// Whether the allocation after `earlier` others will fail.
inline bool no_memory(int earlier, std::size_t bytes) {
    const fake::state& world = fake::world();
    return bytes > largest_block || world.failing_allocations.contains(world.allocations + earlier + 1);
}

inline std::int32_t frames_in(std::int32_t rate, int ms) {
    return static_cast<std::int32_t>(std::int64_t{rate} * ms / 1000);
}
