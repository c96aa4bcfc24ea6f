/**
 * wrapper-audio devices: what there is to record from.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>

namespace {

bool is_input(const wrapper_audio_device& device) {
    return device.input_channels > 0;
}

const char* kind_of(const wrapper_audio_device& device) {
    return is_input(device) ? "input" : "output";
}

/** How `record --denoise` would denoise it; null where it would not. */
const char* denoising_of(const wrapper_audio_device& device) {
    return device.denoising == WRAPPER_AUDIO_DENOISING_NATIVE      ? "native"
           : device.denoising == WRAPPER_AUDIO_DENOISING_CONVERTED ? "converted"
                                                                   : nullptr;
}

std::string table(const std::vector<wrapper_audio_device>& devices) {
    using row = std::array<std::string, 5>;
    std::vector<row> rows{{"ID", "NAME", "RATE", "DENOISE", "KIND"}};
    std::string marks = " ";
    for (const auto& each : devices) {
        const char* denoising = denoising_of(each);
        rows.push_back({printable(each.id), printable(each.name), std::to_string(each.default_rate),
                        denoising != nullptr ? denoising : "-", kind_of(each)});
        marks += each.is_default != 0 ? '*' : ' ';
    }
    std::array<std::size_t, std::tuple_size_v<row>> widths{};
    for (const row& each : rows)
        for (std::size_t i = 0; i < each.size(); ++i)
            widths[i] = std::max(widths[i], static_cast<std::size_t>(columns(each[i])));
    std::string text;
    for (std::size_t line = 0; line < rows.size(); ++line) {
        text += marks[line];
        for (std::size_t i = 0; i + 1 < widths.size(); ++i) {
            const std::string& cell = rows[line][i];
            text +=
                (i == 0 ? " " : "  ") + cell + std::string(widths[i] - static_cast<std::size_t>(columns(cell)), ' ');
        }
        text += "  " + rows[line].back() + "\n";
    }
    return text;
}

/** As UTF-8, in which U+FFFD stands for what is none. */
nlohmann::ordered_json utf8_of(const std::string& bytes) {
    using nlohmann::json;
    return json::parse(json(bytes).dump(-1, ' ', false, json::error_handler_t::replace));
}

nlohmann::ordered_json json_of(const wrapper_audio_device& device) {
    nlohmann::ordered_json entry{{"id", utf8_of(device.id)},   {"name", device.name},
                                 {"kind", kind_of(device)},    {"isDefault", device.is_default != 0},
                                 {"hostApi", device.host_api}, {"rate", device.default_rate},
                                 {"denoise", nullptr}};
    if (const char* denoising = denoising_of(device)) entry["denoise"] = denoising;
    if (entry["id"] != device.id) {
        std::string bytes;
        for (const char byte : std::string(device.id))
            bytes += fmt::format("{:02x}", static_cast<unsigned char>(byte));
        entry["idHex"] = bytes;
    }
    return entry;
}

/** The bytes themselves for a program; for a person what a terminal cannot be harmed by. */
void print_line(const std::string& text) {
    print((isatty(STDOUT_FILENO) == 1 ? printable(text) : text) + "\n");
}

std::vector<wrapper_audio_device> shown_of(const device_list& list, const devices_options& wanted) {
    std::vector<wrapper_audio_device> shown;
    std::copy_if(list.begin(), list.end(), std::back_inserter(shown),
                 [&](const auto& each) { return wanted.all || wanted.json || is_input(each); });
    return shown;
}

/* ---- Watching ------------------------------------------------------------------------------------------------ */

using device_entries = std::map<std::string, nlohmann::ordered_json>; // by their ids

/** Writes the devices of this moment, one on each line. */
void write_devices(int to, const devices_options& wanted, bool failed_before) try {
    const device_list list;
    for (const wrapper_audio_device& each : shown_of(list, wanted))
        console::write_all(to, json_of(each).dump() + "\n");
    console::write_all(to, "\n");
} catch (const failure& failed) {
    if (!failed_before) console::error(failed.text());
}

/** What a process writes, which ends with it or when a signal ends the command. */
std::string output_of(pid_t child, int from) {
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t count = 1; count != 0 && !stop_requested();) {
        count = read(from, part.data(), part.size());
        text.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return text;
}

/**
 * Looks in a process of its own: PortAudio does not look again where it has found a JACK server, and it may hang. Nothing
 * if that failed, which is said once.
 */
std::optional<device_entries> look(const devices_options& wanted, bool failed_before) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw failure(unexpected, std::strerror(errno));
    const pid_t child = fork();
    if (child == 0) {
        write_devices(ends[1], wanted, failed_before);
        _exit(fine);
    }
    const int error = errno;
    close(ends[1]);
    const std::string text = child < 0 ? "" : output_of(child, ends[0]);
    close(ends[0]);
    if (child < 0) throw failure(unexpected, std::strerror(error));
    if (text != "\n" && !text.ends_with("\n\n")) return std::nullopt;
    device_entries entries;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        auto entry = nlohmann::ordered_json::parse(line);
        const std::string id = entry.value("idHex", entry["id"].get<std::string>());
        entries.emplace(id, std::move(entry));
    }
    return entries;
}

void show(const char* event, const nlohmann::ordered_json& device, const devices_options& wanted) {
    if (wanted.json)
        print_line(nlohmann::ordered_json{{"event", event}, {"device", device}}.dump());
    else
        print(fmt::format("{:8} {}  {}\n", event, printable(device["id"].get<std::string>()),
                          printable(device["name"].get<std::string>())));
}

/** Until a signal comes. */
exit_code watch(const devices_options& wanted) {
    stop_on_signals();
    device_entries before;
    const char* arrival = "present";
    for (bool failed = false; !stop_requested(); poll(nullptr, 0, 1000)) {
        const auto now = look(wanted, failed);
        failed = !now;
        if (failed) continue;
        for (const auto& [id, device] : before)
            if (!now->contains(id)) show("left", device, wanted);
        for (const auto& [id, device] : *now)
            if (!before.contains(id)) show(arrival, device, wanted);
        before = *now;
        arrival = "arrived";
    }
    return fine;
}

} // namespace

exit_code list_devices(const devices_options& wanted) {
    if (wanted.watch) return watch(wanted);
    const device_list list;
    const std::vector<wrapper_audio_device> shown = shown_of(list, wanted);
    if (wanted.json) {
        auto entries = nlohmann::ordered_json::array();
        for (const auto& each : shown)
            entries.push_back(json_of(each));
        print_line(entries.dump());
    } else if (wanted.ids) {
        for (const auto& each : shown) {
            std::string id = each.id;
            std::replace(id.begin(), id.end(), '\n', '?'); // one id a line, whatever it holds
            print_line(id);
        }
    } else if (!shown.empty()) {
        print(table(shown));
    }
    if (!list.has_input())
        throw failure_of(WRAPPER_AUDIO_NO_INPUT_DEVICE,
                         "there is no input device; `wrapper-audio doctor` may tell why");
    if (!wanted.json && !wanted.ids &&
        std::any_of(list.begin(), list.end(), [](auto& each) { return each.is_default; }))
        console::note("* marks the default");
    return fine;
}
