// A machine's devices as a fuzzer makes them up, and what the library has to make of them.
#pragma once

#include "script.h"

#include "fakes.h"

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

namespace devices {

constexpr double usual_rates[] = {48000.0, 44100.0, 16000.0, 8000.0, 96000.0, 0.0, -1.0, 44099.5, 0.25, 4799.0, 2e9};

inline std::optional<std::string> read_name(script& bytes) {
    if (bytes.below(16) == 15) return std::nullopt;
    return bytes.text();
}

inline fake::device read_device(script& bytes) {
    fake::device device;
    const unsigned bits = bytes.number<std::uint8_t>();
    device.has_info = (bits & 1) == 0;
    device.inputs = (bits & 2) == 0 ? 1 : bytes.number<std::int8_t>();
    device.host_api = (bits & 4) == 0 ? 0 : bytes.number<std::int8_t>();
    device.rate = (bits & 8) == 0 ? 48000.0 : bytes.usual(usual_rates);
    device.low_latency = (bits & 16) == 0 ? 0.01 : bytes.number<double>();
    device.name = read_name(bytes);
    return device;
}

// Into the doubles' world. PortAudio may also say that there are more or fewer devices than it tells about, or fail.
inline void read(script& bytes) {
    fake::state& world = fake::world();
    world.host_apis.clear();
    for (unsigned left = bytes.below(4); left > 0; --left)
        world.host_apis.push_back({read_name(bytes)});
    world.devices.clear();
    for (unsigned left = bytes.below(9); left > 0; --left)
        world.devices.push_back(read_device(bytes));
    world.default_input = bytes.number<std::int8_t>();
    const int told = bytes.number<std::int8_t>();
    world.device_count.reset();
    if (told != 0) world.device_count = told;
}

inline int count() {
    const fake::state& world = fake::world();
    return world.device_count.value_or(static_cast<int>(world.devices.size()));
}

// Null when PortAudio has nothing to tell about the device.
inline const fake::device* at(int index) {
    const auto& all = fake::world().devices;
    if (index < 0 || index >= static_cast<int>(all.size())) return nullptr;
    const fake::device& device = all[static_cast<std::size_t>(index)];
    return device.has_info ? &device : nullptr;
}

inline std::string name(const fake::device& device) {
    return device.name.value_or("");
}

inline std::string host_api_name(const fake::device& device) {
    const auto& all = fake::world().host_apis;
    if (device.host_api < 0 || device.host_api >= static_cast<int>(all.size())) return "?";
    return all[static_cast<std::size_t>(device.host_api)].name.value_or("");
}

inline std::string id(const fake::device& device) {
    return host_api_name(device) + ":" + name(device);
}

// The first device with that id, of which 255 bytes count; the default one when there is none.
inline int resolve(const char* wanted) {
    if (wanted == nullptr || *wanted == '\0') return fake::world().default_input;
    for (int index = 0; index < count(); ++index) {
        if (at(index) != nullptr && id(*at(index)).substr(0, 255) == wanted) return index;
    }
    return fake::world().default_input;
}

inline std::int32_t rate(int index) {
    const double told = at(index) != nullptr ? at(index)->rate : 0.0;
    if (!(told > 0.0) || told + 0.5 >= 2147483648.0) return 48000;
    return static_cast<std::int32_t>(std::floor(told + 0.5));
}

inline bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < 0x20;
}

inline std::string without_control_bytes(std::string text) {
    std::erase_if(text, is_control);
    return text;
}

inline std::string escaped(const std::string& text) {
    std::string result;
    for (const char byte : without_control_bytes(text)) {
        if (byte == '"' || byte == '\\') result += '\\';
        result += byte;
    }
    return result;
}

// The whole list text, however long.
inline std::string list() {
    std::string entries;
    for (int index = 0; index < count(); ++index) {
        const fake::device* device = at(index);
        if (device == nullptr) continue;
        entries += (entries.empty() ? R"({"id":")" : R"(,{"id":")") + escaped(id(*device)) + R"(","name":")" +
                   escaped(name(*device)) + R"(","kind":")" + (device->inputs > 0 ? "input" : "output") +
                   R"(","isDefault":)" + (index == fake::world().default_input ? "true" : "false") + "}";
    }
    return "[" + entries + "]";
}

constexpr std::size_t longest_list = 65535;

// What the library gave out for the devices that there are.
inline void require_list(const std::string& text) {
    const std::string whole = list();
    require(text.size() <= longest_list, "a list has at most 65535 bytes");
    if (whole.size() <= longest_list) {
        require(text == whole, "a list that fits is whole", text + " instead of " + whole);
    } else {
        // A name keeps room for an escape, so that its last byte may have been left to what follows.
        require(text.size() == longest_list, "a list is cut at 65535 bytes");
        const bool same = text.compare(0, longest_list - 1, whole, 0, longest_list - 1) == 0;
        require(same, "a list that was cut begins like the whole");
    }
}

} // namespace devices
