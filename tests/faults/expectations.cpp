#include "expectations.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

using fake::error_text;
using fake::world;

namespace faults {

namespace {

std::string name_of(const std::string& entry) {
    return entry.substr(0, entry.find_first_of("( "));
}

// The device that "Pa_GetDeviceInfo(2)" asks for.
int index_in(const std::string& entry) {
    return std::stoi(entry.substr(entry.find('(') + 1));
}

// ---- What becomes of each call ----

using answer = std::function<outcome(const way&, const fault&)>;

outcome as_if_nothing_had_happened(const way& w, const fault&) {
    return w.good;
}

// An id that the search misses means the default device, and a line says so.
outcome found_only_if(bool found, const way& w) {
    return found ? w.good : created(w, w.fallback, true);
}

outcome search_ends_early(const way& w, const fault& f) {
    return found_only_if(w.known && w.wanted.index < f.answer, w);
}

outcome search_skips_the_device(const way& w, const fault& f) {
    return found_only_if(!w.known || w.wanted.index != index_in((*f.run)[f.at]), w);
}

outcome search_takes_the_host_api_for_unknown(const way& w, const fault& f) {
    return found_only_if(!w.known || !w.with_host_api || w.wanted.index != index_in((*f.run)[f.at - 1]), w);
}

outcome runs_at_48000(const way& w, const fault&) {
    shown_device device = w.wanted;
    device.rate = 48000;
    return created(w, device, !w.known);
}

outcome has_no_name(const way& w, const fault&) {
    outcome made = w.good;
    shown_device device = w.wanted;
    device.name = "unknown";
    made.lines.at(w.known ? 0 : 1) = ctx_create_line(w, device);
    return made;
}

outcome gives_nothing(const way&, const fault&) {
    return {"null", {}, state::nothing};
}

answer is_refused(const std::string& line) {
    return [=](const way& w, const fault&) { return not_created(w, {line}, !w.known); };
}

std::string rate_in(const std::string& line) {
    const std::string rest = line.substr(line.rfind("rate=") + 5);
    return rest.substr(0, rest.find(')'));
}

// The context, armed as it was, says what PortAudio says.
std::string stream_line(const way& w, const fault& f) {
    return "open_input_stream ОШИБКА: " + error_text(f.answer) + " (rate=" + rate_in(w.good.lines.back()) + ")";
}

outcome init_finds_the_device_refusing(const way& w, const fault& f) {
    return not_created(w, {ctx_create_line(w, w.wanted), stream_line(w, f)}, !w.known);
}

outcome open_finds_the_device_refusing(const way& w, const fault& f) {
    return {"-1", {stream_line(w, f)}, state::armed};
}

outcome meter_finds_the_device_refusing(const way& w, const fault& f) {
    return not_created(w, {"meter_open: open_input_stream ОШИБКА: " + error_text(f.answer)}, !w.known);
}

outcome read_fails(const way&, const fault& f) {
    return {"-1", {"Pa_ReadStream ОШИБКА: " + error_text(f.answer)}, state::capturing};
}

// Only the first of several failures in a row writes a line.
outcome meter_read_fails(const way& w, const fault& f) {
    const std::string line = "meter_read Pa_ReadStream ОШИБКА: " + error_text(f.answer) + " (далее подавляется)";
    return {"-1", w.name == "behind a failed one" ? std::vector<std::string>{} : std::vector{line}, state::metering};
}

answer unless_overflown(answer otherwise) {
    return [=](const way& w, const fault& f) { return f.answer == paInputOverflowed ? w.good : otherwise(w, f); };
}

outcome frame_is_silent(const way& w, const fault& f) {
    const auto at = f.run->begin() + static_cast<std::ptrdiff_t>(f.at);
    const auto frame = std::count(f.run->begin(), at, "rnnoise_process_frame");
    return {read_text(w, static_cast<int>(frame)), w.good.lines, w.good.after};
}

outcome list_is(const way& w, const std::string& text, int count) {
    return {text, {"list_devices: " + std::to_string(count) + " устройств"}, w.good.after};
}

int devices() {
    return static_cast<int>(world().devices.size());
}

// The first error that PortAudio's calls for a creation may return, in words.
answer does_not_start(const std::string& whose) {
    return [=](const way&, const fault& f) {
        return outcome{"null", {whose + "Pa_Initialize ОШИБКА: " + error_text(f.answer)}, state::nothing};
    };
}

int capabilities_without(int hidden, int count) {
    for (int i = 0; i < std::min(count, devices()); ++i) {
        const fake::device& each = world().devices[static_cast<size_t>(i)];
        if (i != hidden && each.has_info && each.inputs > 0) return 3;
    }
    return 1;
}

// ---- The table ----

struct row {
    std::vector<std::string> calls;
    std::string kind;
    answer then;
};

const std::vector<std::string> contexts{"init", "arm"};
const std::vector<std::string> meters{"meter_open"};
const std::vector<std::string> creations{"init", "arm", "meter_open"};
const std::vector<std::string> queries{"list_devices_json", "free_text", "capabilities"};
const std::vector<std::string> lists{"list_devices_json"};
const std::vector<std::string> endings{"stop", "release_stream", "free", "meter_close"};

const std::vector<row>& table() {
    static const std::vector<row> rows{
        // Creating a context or a meter.
        {contexts, "Pa_Initialize", does_not_start("")},
        {meters, "Pa_Initialize", does_not_start("meter_open: ")},
        {creations, "calloc of a record", gives_nothing},
        {contexts, "rnnoise_create",
         [](const way&, const fault&) {
             return outcome{"null", {"rnnoise_create ОШИБКА"}, state::nothing};
         }},
        {creations, "Pa_GetDeviceCount", search_ends_early},
        {creations, "Pa_GetDeviceInfo, then Pa_GetHostApiInfo", search_skips_the_device},
        {creations, "Pa_GetDeviceInfo, then Pa_GetDeviceInfo", as_if_nothing_had_happened}, // it was passed over anyway
        {creations, "Pa_GetHostApiInfo", search_takes_the_host_api_for_unknown},
        {contexts, "Pa_GetDefaultInputDevice", is_refused("нет устройства ввода (resolve → paNoDevice)")},
        {meters, "Pa_GetDefaultInputDevice", is_refused("meter_open: нет устройства ввода")},
        {creations, "Pa_GetDeviceInfo, then calloc", runs_at_48000},
        {contexts, "calloc of samples", is_refused("calloc буферов ОШИБКА (OOM)")},
        {meters, "calloc of samples", [](const way& w, const fault&) { return not_created(w, {}, !w.known); }},
        {contexts, "Pa_GetDeviceInfo, then log", has_no_name},

        // The stream.
        {{"init", "open", "meter_open"}, "Pa_GetDeviceInfo, then Pa_OpenStream", as_if_nothing_had_happened},
        {{"init"}, "Pa_OpenStream", init_finds_the_device_refusing},
        {{"init"}, "Pa_StartStream", init_finds_the_device_refusing},
        {{"open"}, "Pa_OpenStream", open_finds_the_device_refusing},
        {{"open"}, "Pa_StartStream", open_finds_the_device_refusing},
        {meters, "Pa_OpenStream", meter_finds_the_device_refusing},
        {meters, "Pa_StartStream", meter_finds_the_device_refusing},

        // Reading.
        {{"read"}, "Pa_ReadStream", unless_overflown(read_fails)},
        {{"read"}, "rnnoise_process_frame", frame_is_silent},
        {{"meter_read"}, "Pa_ReadStream", unless_overflown(meter_read_fails)},

        // Whatever an ending meets, it ends.
        {endings, "Pa_StopStream", as_if_nothing_had_happened},
        {{"release_stream", "free", "meter_close"}, "Pa_CloseStream", as_if_nothing_had_happened},
        {{"free", "meter_close", "list_devices_json", "free_text", "capabilities"},
         "Pa_Terminate",
         as_if_nothing_had_happened},

        // Queries.
        {lists, "malloc",
         [](const way& w, const fault&) {
             return outcome{"null", {}, w.good.after};
         }},
        {lists, "Pa_Initialize",
         [](const way& w, const fault&) {
             return outcome{"[]", {}, w.good.after};
         }},
        {lists, "Pa_GetDeviceCount",
         [](const way& w, const fault& f) {
             return list_is(w, list_text(f.answer, world().default_input, {}, {}), f.answer);
         }},
        {lists, "Pa_GetDefaultInputDevice",
         [](const way& w, const fault&) { return list_is(w, list_text(devices(), paNoDevice, {}, {}), devices()); }},
        {lists, "Pa_GetDeviceInfo",
         [](const way& w, const fault& f) {
             const int hidden = index_in((*f.run)[f.at]);
             return list_is(w, list_text(devices(), world().default_input, {hidden}, {}), devices());
         }},
        {lists, "Pa_GetHostApiInfo",
         [](const way& w, const fault& f) {
             const int stray = index_in((*f.run)[f.at - 1]);
             return list_is(w, list_text(devices(), world().default_input, {}, {stray}), devices());
         }},
        {{"free_text"}, "malloc", [](const way&, const fault&) { return outcome{}; }},
        {{"free_text"}, "Pa_Initialize", [](const way&, const fault&) { return outcome{}; }},
        {{"free_text"}, "Pa_GetDeviceCount", [](const way& w, const fault& f) { return list_is(w, "", f.answer); }},
        {{"free_text"}, "Pa_GetDefaultInputDevice", as_if_nothing_had_happened},
        {{"free_text"}, "Pa_GetDeviceInfo", as_if_nothing_had_happened},
        {{"free_text"}, "Pa_GetHostApiInfo", as_if_nothing_had_happened},
        {{"capabilities"},
         "Pa_Initialize",
         [](const way&, const fault&) {
             return outcome{"0", {}, state::nothing};
         }},
        {{"capabilities"},
         "Pa_GetDeviceCount",
         [](const way&, const fault& f) {
             return outcome{std::to_string(capabilities_without(-1, f.answer)), {}, state::nothing};
         }},
        {{"capabilities"},
         "Pa_GetDeviceInfo",
         [](const way&, const fault& f) {
             const int hidden = index_in((*f.run)[f.at]);
             return outcome{std::to_string(capabilities_without(hidden, devices())), {}, state::nothing};
         }},

        {{"resampler_init", "resample", "resampler_free"},
         "calloc of a record",
         [](const way&, const fault&) {
             return outcome{"null, 0", {}, state::nothing};
         }},
    };
    return rows;
}

std::set<const row*>& used() {
    static std::set<const row*> rows;
    return rows;
}

} // namespace

std::string kind_of(const journal& run, size_t at) {
    const std::string name = name_of(run[at]);
    if (name == "calloc") return run[at] == name ? "calloc of a record" : "calloc of samples";
    if (name == "Pa_GetDeviceInfo" && at + 1 < run.size()) return name + ", then " + name_of(run[at + 1]);
    return name;
}

// Waiting for the lock, giving back, writing a line; and Pa_GetErrorText, which knows a text for every number.
bool may_fail(const std::string& kind) {
    static const std::set<std::string> unfailing{"lock", "unlock", "log", "free", "rnnoise_destroy", "Pa_GetErrorText"};
    return !unfailing.contains(kind);
}

std::vector<int> failing_answers(const std::string& kind, const way& w) {
    static const std::map<std::string, std::vector<int>> answers{
        {"Pa_Initialize", {paInternalError, paUnanticipatedHostError, paInsufficientMemory, 1}},
        {"Pa_Terminate", {paNotInitialized, paUnanticipatedHostError}},
        {"Pa_GetDefaultInputDevice", {paNoDevice}},
        {"Pa_OpenStream",
         {paDeviceUnavailable, paInvalidDevice, paInvalidSampleRate, paInvalidChannelCount, paInsufficientMemory,
          paUnanticipatedHostError, 1}},
        {"Pa_StartStream", {paUnanticipatedHostError, paDeviceUnavailable, paStreamIsNotStopped, 1}},
        {"Pa_ReadStream",
         {paUnanticipatedHostError, paInputOverflowed, paTimedOut, paStreamIsStopped, paBadStreamPtr, paInternalError,
          1}},
        {"Pa_StopStream", {paUnanticipatedHostError, paStreamIsStopped, paTimedOut}},
        {"Pa_CloseStream", {paUnanticipatedHostError, paBadStreamPtr}},
        {"rnnoise_process_frame", {-1}},
    };
    static const std::set<std::string> pointers{"calloc of a record", "calloc of samples", "malloc",
                                                "rnnoise_create",     "Pa_GetHostApiInfo", "Pa_GetDeviceInfo"};
    if (pointers.contains(kind.substr(0, kind.find(',')))) return {0};
    if (kind == "Pa_GetDeviceCount") {
        w.world(); // one device fewer than there are, or none, or an error
        std::set<int> counts{0, paNotInitialized, paInternalError};
        counts.insert(std::max(devices() - 1, 0));
        counts.insert(devices() / 2);
        return {counts.begin(), counts.end()};
    }
    const auto known = answers.find(kind);
    return known != answers.end() ? known->second : std::vector<int>{};
}

std::optional<outcome> expected(const way& w, const fault& f) {
    const std::string kind = kind_of(*f.run, f.at);
    for (const std::string& name : {kind, kind.substr(0, kind.find(','))}) {
        for (const row& each : table()) {
            if (each.kind != name || std::count(each.calls.begin(), each.calls.end(), w.call) == 0) continue;
            used().insert(&each);
            return each.then(w, f);
        }
    }
    return std::nullopt;
}

std::vector<std::string> unused_rows() {
    std::vector<std::string> rows;
    for (const row& each : table()) {
        if (!used().contains(&each)) rows.push_back(each.calls.front() + ": " + each.kind);
    }
    return rows;
}

bool is_documented(const std::string& line) {
    static const std::vector<testing::Matcher<const std::string&>> shapes{
        testing::MatchesRegex(R"(Pa_Initialize ОШИБКА: error -?[0-9]+)"),
        testing::MatchesRegex("rnnoise_create ОШИБКА"),
        testing::MatchesRegex(R"(WARN device_id '.*' не найден, fallback на default input)"),
        testing::MatchesRegex(R"(нет устройства ввода \(resolve → paNoDevice\))"),
        testing::MatchesRegex(R"(calloc буферов ОШИБКА \(OOM\))"),
        testing::MatchesRegex(
            R"(ctx_create device='.*' \(idx=[0-9]+, requested='.*'\) capture_rate=[0-9]+ output_rate=[0-9]+ denoise=[0-9])"),
        testing::MatchesRegex(R"(open_input_stream ОШИБКА: error -?[0-9]+ \(rate=[0-9]+\))"),
        testing::MatchesRegex(R"(init: поток открыт \(capture_rate=[0-9]+\))"),
        testing::MatchesRegex(R"(arm: микрофон свободен до open \(capture_rate=[0-9]+\))"),
        testing::MatchesRegex(R"(open: микрофон захвачен \(capture_rate=[0-9]+\))"),
        testing::MatchesRegex(R"(Pa_ReadStream ОШИБКА: error -?[0-9]+)"),
        testing::MatchesRegex(R"(list_devices: -?[0-9]+ устройств)"),
        testing::MatchesRegex(R"(meter_open: Pa_Initialize ОШИБКА: error -?[0-9]+)"),
        testing::MatchesRegex("meter_open: нет устройства ввода"),
        testing::MatchesRegex(R"(meter_open: open_input_stream ОШИБКА: error -?[0-9]+)"),
        testing::MatchesRegex(R"(meter_open device='.*' \(idx=[0-9]+\) rate=[0-9]+ frames=[0-9]+)"),
        testing::MatchesRegex(R"(meter_read Pa_ReadStream ОШИБКА: error -?[0-9]+ \(далее подавляется\))"),
    };
    return std::any_of(shapes.begin(), shapes.end(), [&](const auto& each) { return each.Matches(line); });
}

} // namespace faults
