/**
 * wrapper-audio devices: what there is to record from.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <array>

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

} // namespace

exit_code list_devices(const devices_options& wanted) {
    const device_list list;
    std::vector<wrapper_audio_device> shown;
    std::copy_if(list.begin(), list.end(), std::back_inserter(shown),
                 [&](const auto& each) { return wanted.all || wanted.json || is_input(each); });
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
