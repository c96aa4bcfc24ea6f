#include "ways.h"

#include "read_reference.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>
#include <utility>

using fake::device;
using fake::world;

namespace faults {

namespace {

constexpr float sound = 0.5F;

void hear_a_constant() {
    world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, sound); };
}

// Three inputs, a device that is not there and an output, at four rates; no two have the same id.
void many_devices() {
    hear_a_constant();
    world().devices = {device{"A"}, device{"-"}, device{"B", 44100}, device{"S", 16000, 1, 0, 7},
                       device{"O", 48000, 0, 2}};
    world().devices[1].has_info = false;
}

std::string in_words(const std::vector<std::int16_t>& pcm, float rms, float peak) {
    std::ostringstream text;
    text << pcm.size() << " samples, rms " << (std::isnan(rms) ? "nan" : std::to_string(rms)) << ", peak " << peak
         << ":";
    for (size_t i = 0; i < pcm.size();) {
        const auto end = std::find_if(pcm.begin() + static_cast<std::ptrdiff_t>(i), pcm.end(),
                                      [&](std::int16_t x) { return x != pcm[i]; });
        const auto length = static_cast<size_t>(end - pcm.begin()) - i;
        text << " " << length << "x" << pcm[i];
        i += length;
    }
    return text.str();
}

constexpr std::int16_t untouched = 12321;

// Looks at everything that a read may write.
std::string read_in_words(wrapper_audio_ctx* ctx, int ms) {
    std::vector<std::int16_t> pcm(5000, untouched);
    float rms = -7.0F;
    float peak = -8.0F;
    const int count = wrapper_audio_read(ctx, ms, pcm.data(), static_cast<int>(pcm.size()), &rms, &peak);
    const auto written = static_cast<std::ptrdiff_t>(std::max(count, 0));
    if (std::any_of(pcm.begin() + written, pcm.end(), [](std::int16_t x) { return x != untouched; }))
        return "samples written behind the count";
    if (count < 0) return rms == -7.0F && peak == -8.0F ? std::to_string(count) : "levels written by a failed read";
    return in_words({pcm.begin(), pcm.begin() + written}, rms, peak);
}

std::string meter_in_words(wrapper_audio_meter* meter) {
    float rms = -7.0F;
    float peak = -8.0F;
    const int count = wrapper_audio_meter_read(meter, &peak, &rms);
    if (count < 0) return rms == -7.0F && peak == -8.0F ? std::to_string(count) : "levels written by a failed read";
    return std::to_string(count) + " samples, rms " + std::to_string(rms) + ", peak " + std::to_string(peak);
}

std::string list_in_words() {
    char* text = wrapper_audio_list_devices_json();
    if (text == nullptr) return "null";
    const std::string copy = text;
    wrapper_audio_free_text(text);
    return copy;
}

std::string rate_of(const shown_device& device) {
    return "(capture_rate=" + std::to_string(device.rate) + ")";
}

constexpr const char* freed = "Ресурсы освобождены";
constexpr const char* released = "release_stream: микрофон отпущен, ctx остаётся armed";
constexpr const char* stopped = "Запись остановлена";

// ---- The ways ----

void add_creations(std::vector<way>& ways) {
    std::vector<way> requests;
    const auto request = [&](const std::string& name, const char* id, const shown_device& wanted) -> way& {
        way w;
        w.name = name;
        w.world = many_devices;
        w.id = id;
        w.wanted = wanted;
        return requests.emplace_back(w);
    };
    request("the default device", nullptr, {});
    request("an empty id", "", {});
    request("an id", "Host:B", {2, "B", 44100}).output_rate = 44100;
    request("an id of a device whose host API is unknown", "?:S", {3, "S", 16000}).with_host_api = false;
    request("an id of an output", "Host:O", {4, "O", 48000}).output_rate = 48000;
    request("an unknown id", "Host:Z", {}).known = false;
    request("another default device", nullptr, {2, "B", 44100}).world = [] {
        many_devices();
        world().default_input = 2;
    };
    requests.back().fallback = requests.back().wanted;
    request("a device of unknown rate", nullptr, {}).world = [] {
        many_devices();
        world().devices[0].rate = 0.0;
    };
    request("a device without a name", nullptr, {0, "", 8000}).world = [] {
        many_devices();
        world().devices[0] = device{std::nullopt, 8000};
    };
    requests.back().output_rate = 0;
    request("no device information at all", nullptr, {0, "unknown", 48000}).world = [] {
        many_devices();
        world().devices[0].has_info = false;
    };

    for (way& w : requests) {
        for (const int denoise : {0, 1}) {
            w.denoise = denoise;
            w.call = "init";
            w.run = [=](handles& held) {
                held.ctx = wrapper_audio_init(w.output_rate, denoise, w.id);
                return held.ctx != nullptr ? "created" : "null";
            };
            w.good = created(w, w.wanted, !w.known);
            ways.push_back(w);
            w.call = "arm";
            w.run = [=](handles& held) {
                held.ctx = wrapper_audio_arm(w.output_rate, denoise, w.id);
                return held.ctx != nullptr ? "created" : "null";
            };
            w.good = created(w, w.wanted, !w.known);
            ways.push_back(w);
        }
        w.call = "meter_open";
        w.run = [=](handles& held) {
            held.meter = wrapper_audio_meter_open(w.id);
            return held.meter != nullptr ? "created" : "null";
        };
        w.good = created(w, w.wanted, !w.known);
        ways.push_back(w);
    }
}

void add_calls_on_contexts(std::vector<way>& ways) {
    struct beginning {
        std::string name;
        state before;
        std::function<void(handles&)> prepare;
        int lost_streams = 0;
    };
    const std::vector<beginning> beginnings{
        {"armed", state::armed, [](handles& held) { held.ctx = wrapper_audio_arm(16000, 1, nullptr); }},
        {"capturing", state::capturing, [](handles& held) { held.ctx = wrapper_audio_init(16000, 1, nullptr); }},
        {"stopped", state::stopped,
         [](handles& held) {
             held.ctx = wrapper_audio_init(16000, 0, nullptr);
             wrapper_audio_stop(held.ctx);
         }},
        {"capturing again, a stopped stream lost", state::capturing,
         [](handles& held) {
             held.ctx = wrapper_audio_init(16000, 0, nullptr);
             wrapper_audio_stop(held.ctx);
             wrapper_audio_open(held.ctx);
         },
         1},
        {"capturing again after a release", state::capturing,
         [](handles& held) {
             held.ctx = wrapper_audio_init(16000, 1, nullptr);
             wrapper_audio_release_stream(held.ctx);
             wrapper_audio_open(held.ctx);
         }},
    };
    for (const beginning& from : beginnings) {
        const bool streaming = from.before != state::armed;
        const auto add = [&](const char* call, std::function<std::string(handles&)> run, outcome good) {
            way& w =
                ways.emplace_back(way{call, from.name, many_devices, from.prepare, std::move(run), std::move(good)});
            w.lost_streams = from.lost_streams + (w.call == "open" && from.before == state::stopped ? 1 : 0);
        };
        add("open", [](handles& held) { return std::to_string(wrapper_audio_open(held.ctx)); },
            {"0", {"open: микрофон захвачен " + rate_of({})}, state::capturing});
        add("stop",
            [](handles& held) {
                wrapper_audio_stop(held.ctx);
                return "";
            },
            {"", streaming ? std::vector<std::string>{stopped} : std::vector<std::string>{},
             streaming ? state::stopped : state::armed});
        add("release_stream",
            [](handles& held) {
                wrapper_audio_release_stream(held.ctx);
                return "";
            },
            {"", streaming ? std::vector<std::string>{released} : std::vector<std::string>{}, state::armed});
        add("free",
            [](handles& held) {
                wrapper_audio_free(std::exchange(held.ctx, nullptr));
                return "";
            },
            {"", {freed}, state::nothing});
        if (from.before != state::capturing)
            add("read", [](handles& held) { return read_in_words(held.ctx, 10); }, {"-1", {}, from.before});
    }
}

void add_reads(std::vector<way>& ways) {
    struct rates {
        int capture;
        int output;
    };
    for (const rates each : {rates{48000, 16000}, rates{48000, 48000}, rates{48000, 44100}, rates{44100, 16000},
                             rates{44100, 44100}, rates{16000, 48000}}) {
        const int capture = each.capture;
        const int output = each.output;
        for (const int denoise : {0, 1}) {
            for (const int ms : {0, 5, 10, 25, 100, 250}) {
                way w;
                w.call = "read";
                w.name = std::to_string(ms) + " ms from " + std::to_string(capture) + " to " + std::to_string(output) +
                         (denoise != 0 ? ", denoised" : "");
                w.world = [=] {
                    hear_a_constant();
                    world().devices = {device{"A", static_cast<double>(capture)}};
                };
                w.prepare = [=](handles& held) { held.ctx = wrapper_audio_init(output, denoise, nullptr); };
                w.run = [=](handles& held) { return read_in_words(held.ctx, ms); };
                w.wanted.rate = capture;
                w.output_rate = output;
                w.denoise = denoise;
                w.ms = ms;
                w.good = {read_text(w, -1), {}, state::capturing};
                ways.push_back(w);
            }
        }
    }
}

void add_meters(std::vector<way>& ways) {
    const auto open = [](handles& held) { held.meter = wrapper_audio_meter_open("Host:B"); };
    ways.push_back({"meter_read",
                    "both levels",
                    many_devices,
                    open,
                    [](handles& held) { return meter_in_words(held.meter); },
                    {"1323 samples, rms 0.500000, peak 0.500000", {}, state::metering}});
    ways.push_back(
        {"meter_read",
         "no level",
         many_devices,
         open,
         [](handles& held) { return std::to_string(wrapper_audio_meter_read(held.meter, nullptr, nullptr)); },
         {"1323", {}, state::metering}});
    ways.push_back({"meter_read",
                    "behind a failed one",
                    many_devices,
                    [=](handles& held) {
                        open(held);
                        world().results["Pa_ReadStream"] = {paTimedOut};
                        wrapper_audio_meter_read(held.meter, nullptr, nullptr);
                    },
                    [](handles& held) { return meter_in_words(held.meter); },
                    {"1323 samples, rms 0.500000, peak 0.500000", {}, state::metering}});
    ways.push_back({"meter_close",
                    "a meter",
                    many_devices,
                    open,
                    [](handles& held) {
                        wrapper_audio_meter_close(std::exchange(held.meter, nullptr));
                        return "";
                    },
                    {"", {"meter_close"}, state::nothing}});
}

void add_queries(std::vector<way>& ways) {
    const auto none = [](handles&) {};
    const auto list = [](handles&) { return list_in_words(); };
    const auto ask = [](handles&) { return std::to_string(wrapper_audio_capabilities()); };
    const auto outputs = [] { world().devices = {device{"O", 48000, 0, 2}, device{"P", 48000, 0, 2}}; };
    const auto no_devices = [] {
        world().devices.clear();
        world().default_input = paNoDevice;
    };
    many_devices();
    const std::string all = list_text(5, 0, {}, {});
    ways.push_back(
        {"list_devices_json", "many devices", many_devices, none, list, {all, {"list_devices: 5 устройств"}}});
    ways.push_back({"list_devices_json",
                    "beside a context",
                    many_devices,
                    [](handles& held) { held.ctx = wrapper_audio_init(16000, 1, nullptr); },
                    list,
                    {all, {"list_devices: 5 устройств"}, state::capturing}});
    no_devices();
    ways.push_back({"list_devices_json", "no devices", no_devices, none, list, {"[]", {"list_devices: 0 устройств"}}});
    ways.push_back({"capabilities", "many devices", many_devices, none, ask, {"3", {}}});
    ways.push_back({"capabilities", "outputs only", outputs, none, ask, {"1", {}}});
    ways.push_back({"capabilities", "no devices", no_devices, none, ask, {"1", {}}});
    ways.push_back({"free_text",
                    "a list",
                    many_devices,
                    none,
                    [](handles&) {
                        wrapper_audio_free_text(wrapper_audio_list_devices_json());
                        return "";
                    },
                    {"", {"list_devices: 5 устройств"}}});
}

// What takes no device: the signal functions and the placeholders. Only the resampler allocates.
void add_the_rest(std::vector<way>& ways) {
    static std::array<float, 480> block{};
    static std::array<float, 480> other{};
    const auto add = [&](const char* call, std::function<std::string(handles&)> run, std::vector<std::string> lines,
                         const std::string& result = "") {
        ways.push_back({call, "", [] {}, [](handles&) {}, std::move(run), {result, std::move(lines)}});
    };
    const auto nothing = [](auto action) {
        return [action](handles&) {
            action();
            return std::string();
        };
    };
    const std::string resampling = "soxr недоступен, используется linear interpolation";
    const auto create = [](handles&) {
        wrapper_audio_resampler* made = wrapper_audio_resampler_init(48000, 16000, 0);
        const int count = wrapper_audio_resample(made, block.data(), 480, other.data(), 480);
        wrapper_audio_resampler_free(made);
        return (made != nullptr ? "created, " : "null, ") + std::to_string(count);
    };
    for (const char* call : {"resampler_init", "resample", "resampler_free"})
        add(call, create, {resampling}, "created, 160");
    add("hpf_init", nothing([] { wrapper_audio_hpf_init(100, 0.7F); }),
        {"HPF инициализирован: cutoff=100 Hz, Q=0.700"});
    add("hpf_process", nothing([] { wrapper_audio_hpf_process(nullptr, block.data(), 480); }), {});
    add("depop_process", nothing([] { wrapper_audio_depop_process(nullptr, block.data(), 480, 0.5F); }), {});
    add("agc_init", nothing([] { wrapper_audio_agc_init(-20, 100); }),
        {"AGC инициализирован: target=-20.0 dB (0.1000 lin), release=100 ms"});
    add("agc_process", nothing([] { wrapper_audio_agc_process(nullptr, block.data(), 480); }), {});
    add("snr", nothing(wrapper_audio_snr), {});
    add("clipping_ratio", nothing(wrapper_audio_clipping_ratio), {});
    add("update_noise_profile", nothing([] { wrapper_audio_update_noise_profile(nullptr, 0); }), {});
    add("denoise_stats", nothing([] { wrapper_audio_denoise_stats(nullptr, nullptr); }), {});
    add("input_volume_get", nothing([] { wrapper_audio_input_volume_get(); }), {});
    add("input_volume_set", nothing([] { wrapper_audio_input_volume_set(); }), {});
}

} // namespace

std::vector<way> all_ways() {
    std::vector<way> ways;
    add_creations(ways);
    add_calls_on_contexts(ways);
    add_reads(ways);
    add_meters(ways);
    add_queries(ways);
    add_the_rest(ways);
    return ways;
}

std::string warning(const way& w) {
    return "WARN device_id '" + std::string(w.id) + "' не найден, fallback на default input";
}

std::string ctx_create_line(const way& w, const shown_device& device) {
    return "ctx_create device='" + device.name + "' (idx=" + std::to_string(device.index) + ", requested='" +
           (w.id != nullptr ? w.id : "(null)") + "') capture_rate=" + std::to_string(device.rate) +
           " output_rate=" + std::to_string(w.output_rate < 1 ? 16000 : w.output_rate) +
           " denoise=" + std::to_string(w.denoise);
}

outcome not_created(const way& w, std::vector<std::string> lines, bool warned) {
    if (warned) lines.insert(lines.begin(), warning(w));
    return {"null", std::move(lines), state::nothing};
}

outcome created(const way& w, const shown_device& device, bool warned) {
    outcome made{"created", {}, state::metering};
    if (warned) made.lines.push_back(warning(w));
    if (w.call == "meter_open") {
        const int frames = std::max(64, device.rate * 30 / 1000);
        made.lines.push_back("meter_open device='" + std::string(w.id != nullptr ? w.id : "(null)") +
                             "' (idx=" + std::to_string(device.index) + ") rate=" + std::to_string(device.rate) +
                             " frames=" + std::to_string(frames));
        return made;
    }
    const bool opened = w.call == "init";
    made.after = opened ? state::capturing : state::armed;
    made.lines.push_back(ctx_create_line(w, device));
    made.lines.push_back((opened ? "init: поток открыт " : "arm: микрофон свободен до open ") + rate_of(device));
    return made;
}

std::string list_text(int count, int default_input, const std::vector<int>& hidden, const std::vector<int>& strays) {
    const auto has = [](const std::vector<int>& set, int i) {
        return std::find(set.begin(), set.end(), i) != set.end();
    };
    std::string text;
    for (int i = 0; i < count; ++i) {
        const device& each = world().devices[static_cast<size_t>(i)];
        if (!each.has_info || has(hidden, i)) continue;
        const std::string api = each.host_api == 0 && !has(strays, i) ? "Host" : "?";
        text += std::string(text.empty() ? "" : ",") + R"({"id":")" + api + ":" + *each.name + R"(","name":")" +
                *each.name + R"(","kind":")" + (each.inputs > 0 ? "input" : "output") + R"(","isDefault":)" +
                (i == default_input ? "true}" : "false}");
    }
    return "[" + text + "]";
}

std::string read_text(const way& w, int spoilt_frame) {
    std::vector<float> captured(static_cast<size_t>(w.wanted.rate * std::min(w.ms, 100) / 1000), sound);
    int frame = 0;
    const auto spoil = [&](float* samples) {
        if (frame++ == spoilt_frame) std::fill_n(samples, 480, std::nanf(""));
    };
    if (w.denoise != 0 && w.wanted.rate == 48000) captured = reference::denoised(captured, spoil);
    const auto expected = reference::measured(reference::at_rate(captured, w.wanted.rate, w.output_rate, 5000));
    return in_words(expected.pcm, expected.rms, expected.peak);
}

} // namespace faults
