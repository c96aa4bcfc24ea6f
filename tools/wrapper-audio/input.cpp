#include "input.h"

#include "console.h"
#include "failure.h"
#include "text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

/** How the lines begin that show what was opened. */
constexpr std::string_view created = "[audio_wrapper] ctx_create device='";
constexpr std::string_view metered = "[audio_wrapper] meter_open device='";

std::string with_candidates(const std::string& sentence, const std::vector<std::string>& ids) {
    std::string text = sentence;
    for (const std::string& id : ids)
        text += "\n  " + printable(id);
    return text;
}

bool is_jack(const std::string& id) {
    return id.starts_with("JACK Audio Connection Kit:");
}

/** The ids of the inputs, each once: of two devices with the same id only the first can be reached. */
std::vector<std::string> input_ids(const std::vector<device>& devices) {
    std::vector<std::string> ids;
    for (const device& each : devices)
        if (each.can_capture && std::find(ids.begin(), ids.end(), each.id) == ids.end()) ids.push_back(each.id);
    return ids;
}

} // namespace

std::string device_list_text() {
    const std::unique_ptr<char, decltype(&wrapper_audio_free_text)> text(wrapper_audio_list_devices_json(),
                                                                         wrapper_audio_free_text);
    console::collect();
    if (!text) throw failure(unexpected, "not enough memory for the list of devices");
    return text.get();
}

std::vector<device> parse_device_list(const std::string& json) {
    // Names are bytes of any encoding, JSON is UTF-8. Read as Latin-1 every byte survives the way there and back.
    const auto list = nlohmann::json::parse(utf8_from_latin1(json), nullptr, false);
    if (!list.is_array()) throw failure(unexpected, "the list of devices is too long to be read");
    std::vector<device> devices;
    for (const auto& entry : list)
        devices.push_back({latin1_from_utf8(entry.at("id").get<std::string>()),
                           latin1_from_utf8(entry.at("name").get<std::string>()), entry.at("kind") == "input",
                           entry.at("isDefault").get<bool>()});
    return devices;
}

chosen_input choose_input(const std::string& wanted) {
    const std::vector<device> devices = parse_device_list(device_list_text());
    if (wanted.empty())
        return {"", std::any_of(devices.begin(), devices.end(),
                                [](const device& each) { return each.is_default && is_jack(each.id); })};
    const std::vector<std::string> ids = input_ids(devices);
    if (ids.empty()) throw failure(no_input_device, "there is no input device");
    if (std::find(ids.begin(), ids.end(), wanted) != ids.end()) return {wanted, is_jack(wanted)};
    std::vector<std::string> matches;
    for (const std::string& id : ids)
        if (folded(id).find(folded(wanted)) != std::string::npos) matches.push_back(id);
    if (matches.size() == 1) return {matches.front(), is_jack(matches.front())};
    if (matches.empty())
        throw failure(usage,
                      with_candidates(fmt::format("no input device matches '{}'. There are:", printable(wanted)), ids));
    throw failure(usage, with_candidates(fmt::format("'{}' may mean any of:", printable(wanted)), matches));
}

void check_for_fallback(const std::string& log, const std::string& id) {
    // Behind the line that shows what was opened there are names, which may hold anything.
    const std::string before_names = log.substr(0, std::min(log.find(created), log.find(metered)));
    if (before_names.find("[audio_wrapper] WARN device_id") == std::string::npos) return;
    throw failure(usage,
                  fmt::format("the device '{}' cannot be found by its id; the library would take the default one",
                              printable(id)));
}

void report_open_failure(const std::string& log, const std::string& id) {
    check_for_fallback(log, id);
    if (wrapper_audio_capabilities() != 3) throw failure(no_input_device, "there is no input device");
    throw failure(open_failed,
                  fmt::format("{} could not be opened. Is another program using it? `wrapper-audio doctor` "
                              "tells more",
                              id.empty() ? "the default input device" : printable(id)));
}

microphone::microphone(int rate, bool denoise, const std::string& id) {
    const std::string log =
        console::listen_to([&] { ctx.reset(wrapper_audio_init(rate, denoise ? 1 : 0, id.c_str())); });
    if (!ctx) report_open_failure(log, id);
    check_for_fallback(log, id);
    // From the end, because a name may look like the fields behind it.
    const std::size_t start = log.find(created);
    const std::string request = fmt::format(", requested='{}') capture_rate=", id);
    const std::size_t rate_at = log.rfind(request);
    const std::size_t end = log.rfind("' (idx=", rate_at);
    if (start == std::string::npos || rate_at == std::string::npos || end < start + created.size()) return;
    rate_of_device = static_cast<int>(std::strtol(log.c_str() + rate_at + request.size(), nullptr, 10));
    device_name = log.substr(start + created.size(), end - start - created.size());
}

std::string denoise_inactive(int device_rate) {
    return fmt::format("denoise inactive: the device runs at {} Hz, it needs {}", device_rate, denoising_rate);
}
