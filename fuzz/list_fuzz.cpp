// The device list of machines whose names are any bytes: its text, what a host reads from it, and which device each id
// then means.
#include "devices.h"
#include "script.h"

#include "fakes.h"
#include "wrapper_audio.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>

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

// An id that a host found in the list means the first device that has it.
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

// Every byte as the Unicode character of its number, and back: so a host may read names that are no UTF-8.
std::string utf8_from_latin1(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (value >= 0x80) text += static_cast<char>(0xC0 | (value >> 6));
        text += value < 0x80 ? byte : static_cast<char>(0x80 | (value & 0x3F));
    }
    return text;
}

std::string latin1_from_utf8(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto value = static_cast<unsigned char>(text[at]);
        bytes += value < 0x80
                     ? text[at]
                     : static_cast<char>((value & 0x03) << 6 | (static_cast<unsigned char>(text.at(++at)) & 0x3F));
    }
    return bytes;
}

void require_reading(const std::string& text) {
    require(nlohmann::json::accept(text) == is_utf8(text), "only other bytes than UTF-8 can spoil the JSON", text);
    const auto read = nlohmann::json::parse(utf8_from_latin1(text), nullptr, false);
    require(read.is_array(), "read as Latin-1 it is a list", text);
    std::size_t next = 0;
    for (int index = 0; index < devices::count(); ++index) {
        const fake::device* device = devices::at(index);
        if (device == nullptr) continue;
        require(next < read.size(), "each device has an entry", text);
        const auto& entry = read[next++];
        const std::string id = latin1_from_utf8(entry.at("id").get<std::string>());
        const std::string name = latin1_from_utf8(entry.at("name").get<std::string>());
        require(id == devices::without_control_bytes(devices::id(*device)), "the id, less control bytes", id);
        require(name == devices::without_control_bytes(devices::name(*device)), "the name, less control bytes", name);
        require(entry.at("kind") == (device->inputs > 0 ? "input" : "output"), "the kind", id);
        require(entry.at("isDefault") == (index == fake::world().default_input), "the default", id);
        require_resolving(id, *device);
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
