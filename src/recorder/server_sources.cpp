#include "server_sources.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <pulse/pulseaudio.h>

#include <chrono>
#include <exception>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

namespace recorder {

namespace {

// What is needed of libpulse, which asks PipeWire too. It is not linked: where it is missing, there is no server that it
// could ask.
struct pulse_library {
    struct symbol {
        void* address;
        template <typename Function>
        operator Function*() const { // NOLINT(google-explicit-constructor): what it is, its taker knows
            return reinterpret_cast<Function*>(address);
        }
    };
    symbol find(const char* name) const { return {dlsym(library, name)}; }

    void* const library = dlopen("libpulse.so.0", RTLD_NOW | RTLD_LOCAL);
    decltype(&pa_mainloop_new) mainloop_new = find("pa_mainloop_new");
    decltype(&pa_mainloop_free) mainloop_free = find("pa_mainloop_free");
    decltype(&pa_mainloop_get_api) mainloop_get_api = find("pa_mainloop_get_api");
    decltype(&pa_mainloop_iterate) mainloop_iterate = find("pa_mainloop_iterate");
    decltype(&pa_context_new) context_new = find("pa_context_new");
    decltype(&pa_context_unref) context_unref = find("pa_context_unref");
    decltype(&pa_context_connect) context_connect = find("pa_context_connect");
    decltype(&pa_context_get_state) context_get_state = find("pa_context_get_state");
    decltype(&pa_context_get_server_info) context_get_server_info = find("pa_context_get_server_info");
    decltype(&pa_context_get_source_info_list) context_get_source_info_list = find("pa_context_get_source_info_list");
    decltype(&pa_operation_unref) operation_unref = find("pa_operation_unref");
};

// What a server has answered so far.
struct answer {
    std::string server = "PulseAudio";
    std::string default_output;
    std::vector<server_source> sources;
    bool is_complete = false;
    std::exception_ptr error; // no exception may pass through libpulse
};

void take_server(pa_context* /*context*/, const pa_server_info* info, void* to) {
    if (info == nullptr) return;
    auto& so_far = *static_cast<answer*>(to);
    const auto text = [](const char* given) { return std::string_view(given != nullptr ? given : ""); };
    try {
        if (text(info->server_name).find("PipeWire") != std::string_view::npos) so_far.server = "PipeWire";
        so_far.default_output = text(info->default_sink_name);
    } catch (...) {
        so_far.error = std::current_exception();
    }
}

void take_source(pa_context* /*context*/, const pa_source_info* info, int end, void* to) {
    auto& so_far = *static_cast<answer*>(to);
    if (end != 0) {
        so_far.is_complete = true;
        return;
    }
    try {
        server_source& source = so_far.sources.emplace_back();
        source.name = info->name;
        source.description = info->description == nullptr ? info->name : info->description;
        source.server = so_far.server;
        source.rate = static_cast<int32_t>(info->sample_spec.rate);
        source.channels = info->sample_spec.channels;
        source.is_monitor = info->monitor_of_sink != PA_INVALID_INDEX;
        source.is_of_default_output = source.is_monitor && info->monitor_of_sink_name != nullptr &&
                                      info->monitor_of_sink_name == so_far.default_output;
    } catch (...) {
        so_far.error = std::current_exception();
    }
}

// Lets a loop run until something has come true, or for what is left of a second.
class patience {
public:
    patience(const pulse_library& pulse, pa_mainloop* loop) : pulse_(pulse), loop_(loop) {}

    template <typename Condition>
    bool until(Condition condition) const {
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end_) return false;
            pulse_.mainloop_iterate(loop_, 0, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

private:
    const pulse_library& pulse_;
    pa_mainloop* const loop_;
    const std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
};

std::vector<server_source> read_sources() {
    static const pulse_library pulse;        // GCOVR_EXCL_BR_LINE: whichever thread comes first
    if (pulse.library == nullptr) return {}; // GCOVR_EXCL_LINE: the tests have one
    answer answer;                           // must outlive the context
    const std::unique_ptr<pa_mainloop, decltype(pulse.mainloop_free)> loop{pulse.mainloop_new(), pulse.mainloop_free};
    if (loop == nullptr) return {};
    const std::unique_ptr<pa_context, decltype(pulse.context_unref)> context{
        pulse.context_new(pulse.mainloop_get_api(loop.get()), "wrapper_audio"), pulse.context_unref};
    if (context == nullptr || pulse.context_connect(context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return {};

    const patience patience{pulse, loop.get()};
    const auto state = [&] { return pulse.context_get_state(context.get()); };
    const auto is_over = [&] { return PA_CONTEXT_IS_GOOD(state()) == 0; };
    if (!patience.until([&] { return state() == PA_CONTEXT_READY || is_over(); }) || is_over()) return {};
    // The server answers in the order of the questions.
    for (pa_operation* const asked : {pulse.context_get_server_info(context.get(), take_server, &answer),
                                      pulse.context_get_source_info_list(context.get(), take_source, &answer)})
        if (asked != nullptr) pulse.operation_unref(asked);
    const bool answered = patience.until([&] { return answer.is_complete || is_over(); }) && answer.is_complete;
    if (answer.error) std::rethrow_exception(answer.error);
    return answered ? std::move(answer.sources) : std::vector<server_source>{};
}

// Whether the entry is part of the table now; if not, it is gone.
bool add(snd_config_t* table, snd_config_t* entry) {
    if (snd_config_add(table, entry) >= 0) return true;
    snd_config_delete(entry);
    return false;
}

bool add_text(snd_config_t* table, const char* key, const char* text) {
    snd_config_t* entry = nullptr;
    return snd_config_imake_string(&entry, key, text) >= 0 && add(table, entry);
}

// Makes a device of ALSA's from one of its plug-ins, and the name of the plug-in's parameter for a source.
void define(const std::string& device_name, const char* plugin, const char* parameter, const std::string& source) {
    snd_config_t* devices = nullptr;
    snd_config_t* device = nullptr;
    if (snd_config_search(snd_config, "pcm", &devices) < 0) return;
    if (snd_config_make_compound(&device, device_name.c_str(), 0) < 0) return;
    if (add_text(device, "type", plugin) && add_text(device, parameter, source.c_str()))
        add(devices, device);
    else
        snd_config_delete(device);
}

void remove(const std::string& device_name) {
    snd_config_t* device = nullptr;
    if (snd_config_search(snd_config, ("pcm." + device_name).c_str(), &device) >= 0) snd_config_delete(device);
}

bool opens(const std::string& device_name) {
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, device_name.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK) < 0) return false;
    snd_pcm_close(pcm);
    return true;
}

// Without dots, colons and commas, which mean something to ALSA.
std::string device_name(std::size_t index) {
    return "server_source_" + std::to_string(index);
}

// Those that devices are defined for. Under the lock of the audio system.
std::vector<server_source>& defined_sources() {
    static auto* const sources = new std::vector<server_source>; // GCOVR_EXCL_BR_LINE: whichever thread comes first
    return *sources;
}

} // namespace

void define_server_sources() {
    auto& sources = defined_sources();
    if (snd_config_update() < 0) return;
    for (std::size_t i = 0; i < sources.size(); ++i)
        remove(device_name(i));
    sources = read_sources();
    const auto define_all = [&](const char* plugin, const char* parameter) {
        for (std::size_t i = 0; i < sources.size(); ++i)
            define(device_name(i), plugin, parameter, sources[i].name);
    };
    define_all("pulse", "device");
    if (sources.empty()) return;
    const std::string first = device_name(0);
    if (opens(first)) return;
    // ALSA's plug-in for PulseAudio is missing. That of PipeWire does not take monitors by their names.
    for (std::size_t i = 0; i < sources.size(); ++i)
        remove(device_name(i));
    std::erase_if(sources, [](const server_source& each) { return each.is_monitor || each.server != "PipeWire"; });
    define_all("pipewire", "capture_node");
}

const server_source* server_source_of(const std::string& name) {
    const auto& sources = defined_sources();
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (name == device_name(i)) return &sources[i];
    return nullptr;
}

} // namespace recorder
