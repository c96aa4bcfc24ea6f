// The recorder layer on devices that a fuzzer makes up: each can be listed, found and opened, whatever its name is, and
// what is read is what it delivered.
#include "devices.h"
#include "script.h"
#include "wrapper_audio_recorder.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace {

struct release {
    void operator()(wrapper_audio_device_list* list) const { wrapper_audio_device_list_free(list); }
    void operator()(wrapper_audio_recorder* recorder) const { wrapper_audio_recorder_free(recorder); }
};
using device_list = std::unique_ptr<wrapper_audio_device_list, release>;
using recorder = std::unique_ptr<wrapper_audio_recorder, release>;

// The indices of the devices that PortAudio tells of.
std::vector<int> told_devices() {
    std::vector<int> told;
    for (int index = 0; index < devices::count(); ++index)
        if (devices::at(index) != nullptr) told.push_back(index);
    return told;
}

bool is_for_people(const std::string& text) {
    const bool has_controls = std::any_of(
        text.begin(), text.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; });
    return !has_controls && text.find("\xC2\x80") == std::string::npos && text.find("\xC2\x9F") == std::string::npos;
}

void require_list(const wrapper_audio_device_list* list, const std::vector<int>& told) {
    std::set<std::string> ids;
    const std::size_t count = wrapper_audio_device_list_count(list);
    require(count == told.size(), "each device has a record");
    require(wrapper_audio_device_list_get(list, count) == nullptr, "there are no others");
    for (std::size_t i = 0; i < count; ++i) {
        const wrapper_audio_device& record = *wrapper_audio_device_list_get(list, i);
        const fake::device& device = *devices::at(told[i]);
        require(ids.insert(record.id).second, "no other device has its id", record.id);
        require(std::string(record.id).starts_with(devices::id(device)), "an id is the host API and the name",
                record.id);
        require(is_for_people(record.name) && is_for_people(record.host_api), "names can be shown", record.name);
        require(record.input_channels == device.inputs, "the channels");
        require(record.default_rate == devices::rate(told[i]), "the rate", std::to_string(record.default_rate));
        require((record.denoising == WRAPPER_AUDIO_DENOISING_OFF) == (device.inputs < 1),
                "what can record is denoised");
        std::size_t found = count;
        char reason[64];
        const auto status = wrapper_audio_device_list_find(list, record.id, &found, reason, sizeof reason);
        if (device.inputs > 0) require(status == WRAPPER_AUDIO_OK && found == i, "an id finds its device", record.id);
    }
}

void require_recording(script& bytes, const char* id, int index) {
    wrapper_audio_recorder_options options{};
    options.rate = bytes.flag() ? 16000 : 48000;
    options.denoise = bytes.flag() ? 1.0F : 0.0F;
    options.conversion = static_cast<int32_t>(bytes.below(2));
    options.buffer_ms = 100;
    options.undenoised = options.denoise > 0.0F && bytes.flag() ? 1 : 0;
    options.reconnect = bytes.flag() ? 1 : 0;
    wrapper_audio_recorder* made = nullptr;
    require(wrapper_audio_recorder_create(&made, &options) == WRAPPER_AUDIO_OK, "a recorder is made");
    const recorder holder(made);
    const std::size_t journal = fake::world().journal.size();
    const auto status = wrapper_audio_recorder_open(made, id);
    if (status != WRAPPER_AUDIO_OK) {
        const std::string why = std::to_string(status) + " for " + id;
        if (index == paNoDevice || devices::at(index) == nullptr) return;
        const int32_t rate = devices::rate(index);
        if (status == WRAPPER_AUDIO_NOT_AN_INPUT || status == WRAPPER_AUDIO_NO_INPUT_DEVICE)
            require(devices::at(index)->inputs < 1, "what can record is no output", why);
        else
            require(rate < 100 || rate > 768000 || devices::host_api_name(*devices::at(index)).size() > 240,
                    "a device of an ordinary rate opens, unless the name of its host API leaves the core no room", why);
        return;
    }
    const std::string call = "Pa_OpenStream(device=" + std::to_string(index) + ",";
    {
        const std::lock_guard hold{fake::world().guard}; // the recorder's thread is reading
        const auto& entries = fake::world().journal;
        const bool opened = std::any_of(entries.begin() + static_cast<std::ptrdiff_t>(journal), entries.end(),
                                        [&](const std::string& entry) { return entry.starts_with(call); });
        require(opened, "the device that was meant is opened", call);
    }

    uint64_t read = 0;
    std::vector<int16_t> pcm(5000);
    std::vector<float> denoised(pcm.size());
    std::vector<float> undenoised(pcm.size());
    wrapper_audio_block block{};
    const auto read_some = [&](std::size_t count, int32_t timeout_ms) {
        return options.undenoised != 0 ? wrapper_audio_recorder_read_both_f32(made, denoised.data(), undenoised.data(),
                                                                              count, timeout_ms, &block)
                                       : wrapper_audio_recorder_read_s16(made, pcm.data(), count, timeout_ms, &block);
    };
    for (unsigned left = bytes.below(5); left > 0; --left) {
        const std::size_t count = bytes.number<std::uint16_t>() % pcm.size();
        require(read_some(count, 20000) == WRAPPER_AUDIO_OK, "a file delivers");
        require(block.count == count && block.position == read && block.dropped == 0, "a file loses nothing");
        read += block.count;
    }
    int32_t signal = -1;
    require(wrapper_audio_recorder_get_signal(made, &signal) == WRAPPER_AUDIO_OK, "it says what it hears");
    require(*wrapper_audio_signal_advice(signal) == '\0' || 100 * read > 249 * static_cast<uint64_t>(options.rate),
            "silence and clipping need 2.5 s");
    require(wrapper_audio_recorder_stop(made) == WRAPPER_AUDIO_OK, "it stops");
    wrapper_audio_status last = WRAPPER_AUDIO_OK;
    for (; last == WRAPPER_AUDIO_OK; read += block.count)
        last = read_some(pcm.size(), 0);
    require(last == WRAPPER_AUDIO_STOPPED, "a recording that was stopped has an end");
    wrapper_audio_recorder_info info;
    wrapper_audio_recorder_get_info(made, &info);
    const auto device_rate = static_cast<uint64_t>(info.device_rate);
    const uint64_t expected =
        (2 * info.captured * static_cast<uint64_t>(options.rate) + device_rate) / (2 * device_rate);
    require(read == expected, "all that was captured is read",
            std::to_string(read) + " of " + std::to_string(expected));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fake::reset();
    fake::world().layered = true;
    fake::world().largest_block = std::size_t{8} << 20;
    script bytes(data, size);
    devices::read(bytes);
    for (fake::device& device : fake::world().devices)
        if (bytes.flag()) device.rates.insert(48000.0);
    const std::vector<int> told = told_devices();
    {
        wrapper_audio_device_list* made = nullptr;
        require(wrapper_audio_device_list_create(&made) == WRAPPER_AUDIO_OK, "there is a list");
        const device_list list(made);
        require_list(made, told);
        if (!told.empty()) {
            const std::size_t chosen = bytes.below(8) % told.size();
            require_recording(bytes, wrapper_audio_device_list_get(made, chosen)->id, told[chosen]);
        }
        const std::string unknown = bytes.text();
        std::size_t found = 0;
        std::vector<char> reason(1 + bytes.below(200));
        wrapper_audio_device_list_find(made, unknown.c_str(), &found, reason.data(), reason.size());
        require(wrapper_audio_device_list_find_system(made, &found) == WRAPPER_AUDIO_NO_SYSTEM_SOUND,
                "only a server's source records what is played");
        require(std::find(reason.begin(), reason.end(), '\0') != reason.end(), "a reason ends");
    }
    std::vector<char> lines(4096);
    while (wrapper_audio_log_take(lines.data(), lines.size()) > 0) {
    }
    require(fake::world().violations.empty(), "nothing forbidden",
            fake::world().violations.empty() ? "" : fake::world().violations.front());
    require(fake::world().initialisations == 0 && fake::world().open_streams.empty(), "nothing is left behind");
    require(fake::world().live_blocks.empty() && fake::world().live_denoisers == 0, "no memory is left behind");
    return 0;
}
