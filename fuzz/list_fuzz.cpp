// The device list of machines whose names are any bytes: its text, what the program wrapper-audio reads from it, which
// device each id then means, and what the program makes of the lines about that device.
#include "../tools/wrapper-audio/console.h"
#include "../tools/wrapper-audio/failure.h"
#include "../tools/wrapper-audio/input.h"
#include "devices.h"
#include "script.h"

#include "fakes.h"
#include "wrapper_audio.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

// What the program would find behind descriptor 2.
std::string console::collect() {
    return std::exchange(fake::world().log, {});
}

namespace {

// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
bool is_utf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
        const unsigned first = byte(i);
        const std::size_t more = first < 0x80 ? 0 : first < 0xC2 ? 9 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
        if (more == 9 || first > 0xF4) return false;
        for (std::size_t j = 1; j <= more; ++j)
            if ((byte(i + j) & 0xC0) != 0x80) return false;
        const unsigned second = byte(i + 1);
        if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F)) return false;
        if ((first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) return false;
        i += more + 1;
    }
    return true;
}

// The device that the library opens for an id, and whether it had to fall back on the default one.
struct opened {
    std::string call;
    bool fell_back;
};

opened open_by_id(const std::string& id) {
    fake::state& world = fake::world();
    world.journal.clear();
    world.log.clear();
    wrapper_audio_meter* meter = wrapper_audio_meter_open(id.c_str());
    require((meter != nullptr) == (devices::resolve(id.c_str()) != paNoDevice), "every id opens a device");
    wrapper_audio_meter_close(meter);
    std::string call;
    for (const std::string& entry : world.journal)
        if (entry.starts_with("Pa_OpenStream")) call = entry.substr(0, entry.find(','));
    return {call, world.log.starts_with("[audio_wrapper] WARN device_id")};
}

bool loses_bytes(const fake::device& device) {
    const std::string id = devices::id(device);
    return devices::without_control_bytes(id) != id;
}

// An id that the program found in the list means the first device that has it.
void require_resolving(const std::string& decoded, const fake::device& shown) {
    const opened device = open_by_id(decoded);
    const int index = devices::resolve(decoded.c_str());
    if (index != paNoDevice)
        require(device.call == "Pa_OpenStream(device=" + std::to_string(index), "an id means the first of its devices",
                decoded);
    if (loses_bytes(shown)) return;
    require(device.fell_back == (decoded.size() > 255), "an id falls back only when it is too long", decoded);
    if (!device.fell_back)
        require(devices::id(*devices::at(index)).substr(0, 255) == decoded, "an id means a device of that id", decoded);
}

// The program records from that device, or says that it cannot.
void require_recording(const std::string& id, const fake::device& shown) {
    const int index = devices::resolve(id.c_str());
    fake::world().log.clear();
    try {
        const microphone opened(16000, true, id);
        require(opened.device_rate() == 48000, "the program learns the rate", std::to_string(opened.device_rate()));
        const std::string name = devices::at(index) != nullptr ? devices::name(*devices::at(index)) : "unknown";
        require(opened.name() == name, "the program learns the name", opened.name() + " instead of " + name);
    } catch (const failure& trouble) {
        require(index == paNoDevice || id.size() > 255 || loses_bytes(shown), "ids of the list open", trouble.what());
    }
}

void require_reading(const std::string& text) {
    require(nlohmann::json::accept(text) == is_utf8(text), "only other bytes than UTF-8 can spoil the JSON", text);
    const std::vector<device> read = parse_device_list(text);
    std::size_t next = 0;
    for (int index = 0; index < devices::count(); ++index) {
        const fake::device* device = devices::at(index);
        if (device == nullptr) continue;
        require(next < read.size(), "each device has an entry", text);
        const auto& [id, name, can_capture, is_default] = read[next++];
        require(id == devices::without_control_bytes(devices::id(*device)), "the id, less control bytes", id);
        require(name == devices::without_control_bytes(devices::name(*device)), "the name, less control bytes", name);
        require(can_capture == (device->inputs > 0), "the kind", id);
        require(is_default == (index == fake::world().default_input), "the default", id);
        require_resolving(id, *device);
        require_recording(id, *device);
    }
    require(next == read.size(), "there are no other entries", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fake::reset();
    script script(bytes, size);
    devices::read(script);
    for (fake::device& device : fake::world().devices)
        device.rate = 48000.0; // so that every device opens
    const std::unique_ptr<char, decltype(&wrapper_audio_free_text)> list(wrapper_audio_list_devices_json(),
                                                                         wrapper_audio_free_text);
    require(list != nullptr, "there is a list");
    const std::string text = list.get();
    devices::require_list(text);
    if (devices::list().size() <= devices::longest_list) require_reading(text);
    require(fake::world().violations.empty(), "nothing forbidden");
    return 0;
}
