#include "sound_server.h"

#include <alsa/asoundlib.h>
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <utility>

struct _snd_config {
    std::string id;
    std::string text;
    std::list<_snd_config*> entries{};
    _snd_config* table = nullptr; // that it is part of

    ~_snd_config() {
        for (_snd_config* entry : entries)
            delete entry;
    }
};

struct pa_operation {};

struct pa_mainloop {
    pa_mainloop_api api{};
    std::list<std::function<void()>> due{};
};

struct pa_context {
    pa_context_state_t state = PA_CONTEXT_UNCONNECTED;
};

snd_config_t* snd_config = nullptr;

namespace fake {

namespace {

struct everything {
    sound_server script;
    _snd_config table{.id = "pcm", .text = {}};
    // There is one of each at a time, which needs no memory: that may be what a test makes fail.
    pa_mainloop loop{};
    pa_context context{};
    pa_operation operation{};
    snd_pcm_t* const pcm = reinterpret_cast<snd_pcm_t*>(this);
};

std::unique_ptr<everything> all = std::make_unique<everything>();

thread_local int t_inside = 0;

class inside {
public:
    inside() { ++t_inside; }
    ~inside() { --t_inside; }
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;
};

// While one lives, the library that called the double is called back.
class called_back {
public:
    ~called_back() { t_inside = before_; }
    called_back() = default;
    called_back(const called_back&) = delete;
    called_back& operator=(const called_back&) = delete;

private:
    const int before_ = std::exchange(t_inside, 0);
};

bool fails(const std::string& function) {
    auto& once = all->script.failing_once;
    if (const auto found = once.find(function); found != once.end() && --found->second == 0) {
        once.erase(found);
        return true;
    }
    return all->script.failing.contains(function);
}

template <typename Thing>
Thing* held(Thing* thing) {
    ++all->script.held;
    return thing;
}

// What ALSA reads out of its table.
void look_at_devices() {
    all->script.devices.clear();
    for (const _snd_config* device : all->table.entries) {
        std::string& text = all->script.devices[device->id];
        for (const _snd_config* entry : device->entries)
            text += entry->id == "type" ? entry->text : " " + entry->id + "=" + entry->text;
    }
}

// Asked a question, the server answers it in the next round, or does what it does instead.
pa_operation* ask(std::function<void()> reply) {
    if (all->script.hangs_up)
        all->loop.due.emplace_back([] { all->context.state = PA_CONTEXT_FAILED; });
    else if (!all->script.is_silent)
        all->loop.due.push_back(std::move(reply));
    return held(&all->operation);
}

} // namespace

sound_server& server() {
    return all->script;
}

bool is_inside_the_server() {
    return t_inside > 0;
}

void reset_server() {
    snd_config = nullptr;
    all = std::make_unique<everything>();
}

} // namespace fake

using fake::all;
using fake::fails;
using fake::held;

// ---- libpulse ----

pa_mainloop* pa_mainloop_new() {
    const fake::inside here;
    all->loop.due.clear();
    return fails("pa_mainloop_new") ? nullptr : held(&all->loop);
}

void pa_mainloop_free(pa_mainloop* /*loop*/) {
    --all->script.held;
}

pa_mainloop_api* pa_mainloop_get_api(pa_mainloop* loop) {
    return &loop->api;
}

int pa_mainloop_iterate(pa_mainloop* loop, int block, int* /*result*/) {
    const fake::inside here;
    if (block != 0) std::abort(); // it might never return
    if (all->script.each_round) all->script.each_round();
    if (loop->due.empty()) return 0;
    const std::function<void()> happens = std::move(loop->due.front());
    loop->due.pop_front();
    happens();
    return 1;
}

pa_context* pa_context_new(pa_mainloop_api* /*api*/, const char* /*name*/) {
    const fake::inside here;
    all->context.state = PA_CONTEXT_UNCONNECTED;
    return fails("pa_context_new") ? nullptr : held(&all->context);
}

void pa_context_unref(pa_context* /*context*/) {
    --all->script.held;
}

int pa_context_connect(pa_context* context, const char* /*server*/, pa_context_flags_t flags,
                       const pa_spawn_api* /*api*/) {
    const fake::inside here;
    if (flags != PA_CONTEXT_NOAUTOSPAWN) std::abort(); // it must not start a server
    if (!all->script.is_there) return -1;
    context->state = PA_CONTEXT_CONNECTING;
    if (fails("welcome")) return 0; // nothing more is heard
    const pa_context_state_t state = fails("login") ? PA_CONTEXT_FAILED : PA_CONTEXT_READY;
    all->loop.due.emplace_back([state] { all->context.state = state; });
    return 0;
}

pa_context_state_t pa_context_get_state(const pa_context* context) {
    return context->state;
}

pa_operation* pa_context_get_server_info(pa_context* context, pa_server_info_cb_t done, void* to) {
    const fake::inside here;
    if (fails("pa_context_get_server_info")) return nullptr;
    return fake::ask([context, done, to] {
        pa_server_info info{};
        info.server_name = all->script.name ? all->script.name->c_str() : nullptr;
        info.default_sink_name = all->script.default_output ? all->script.default_output->c_str() : nullptr;
        const pa_server_info* const told = fails("server info") ? nullptr : &info;
        const fake::called_back there;
        done(context, told, to);
    });
}

pa_operation* pa_context_get_source_info_list(pa_context* context, pa_source_info_cb_t done, void* to) {
    const fake::inside here;
    if (fails("pa_context_get_source_info_list")) return nullptr;
    return fake::ask([context, done, to] {
        for (const fake::server_source& each : all->script.sources) {
            pa_source_info info{};
            info.name = each.name.c_str();
            info.description = each.description ? each.description->c_str() : nullptr;
            info.sample_spec = {PA_SAMPLE_S16LE, each.rate, each.channels};
            info.monitor_of_sink = each.is_monitor ? 7 : PA_INVALID_INDEX;
            info.monitor_of_sink_name = each.is_monitor && each.output ? each.output->c_str() : nullptr;
            const fake::called_back there;
            done(context, &info, 0, to);
        }
        const fake::called_back there;
        done(context, nullptr, all->script.refuses_lists ? -1 : 1, to);
    });
}

void pa_operation_unref(pa_operation* /*operation*/) {
    --all->script.held;
}

// ---- ALSA ----

int snd_config_update() {
    const fake::inside here;
    if (fails("snd_config_update")) return -ENOENT;
    snd_config = &all->table;
    return 0;
}

int snd_config_search(snd_config_t* /*config*/, const char* key, snd_config_t** result) {
    const fake::inside here;
    if (fails("snd_config_search")) return -ENOENT;
    *result = &all->table;
    if (std::strcmp(key, "pcm") == 0) return 0;
    const auto found = std::find_if(all->table.entries.begin(), all->table.entries.end(),
                                    [&](const _snd_config* each) { return "pcm." + each->id == key; });
    if (found == all->table.entries.end()) return -ENOENT;
    *result = *found;
    return 0;
}

int snd_config_make_compound(snd_config_t** config, const char* key, int /*join*/) {
    const fake::inside here;
    if (fails("snd_config_make_compound")) return -ENOMEM;
    *config = held(new _snd_config{.id = key, .text = {}});
    return 0;
}

int snd_config_imake_string(snd_config_t** config, const char* key, const char* text) {
    const fake::inside here;
    if (fails("snd_config_imake_string")) return -ENOMEM;
    *config = held(new _snd_config{.id = key, .text = text});
    return 0;
}

int snd_config_add(snd_config_t* config, snd_config_t* child) {
    const fake::inside here;
    if (fails("snd_config_add")) return -EEXIST;
    child->table = config;
    config->entries.push_back(child);
    --all->script.held;
    fake::look_at_devices();
    return 0;
}

int snd_config_delete(snd_config_t* config) {
    const fake::inside here;
    if (config->table != nullptr)
        config->table->entries.remove(config);
    else
        --all->script.held;
    delete config;
    fake::look_at_devices();
    return 0;
}

int snd_pcm_open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode) {
    const fake::inside here;
    if (stream != SND_PCM_STREAM_CAPTURE || mode != SND_PCM_NONBLOCK) std::abort(); // it might wait for somebody else
    all->script.opened.emplace_back(name);
    const auto answer = all->script.answers.find(name);
    const auto device = all->script.devices.find(name);
    const auto result = [&] {
        if (answer != all->script.answers.end()) return answer->second;
        if (device == all->script.devices.end()) return -EIO;
        return all->script.plugins.contains(device->second.substr(0, device->second.find(' '))) ? 0 : -ENXIO;
    }();
    if (result < 0) return result;
    *pcm = held(all->pcm);
    return 0;
}

int snd_pcm_close(snd_pcm_t* /*pcm*/) {
    --all->script.held;
    return 0;
}
