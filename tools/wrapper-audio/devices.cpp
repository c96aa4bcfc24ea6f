/**
 * wrapper-audio devices: what there is to record from.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

namespace {

std::string padded(const std::string& text, int width) {
    return text + std::string(static_cast<std::size_t>(std::max(width - columns(text), 0)), ' ');
}

std::string table(const std::vector<device>& devices) {
    int id_width = 2;
    int name_width = 4;
    for (const device& each : devices) {
        id_width = std::max(id_width, columns(printable(each.id)));
        name_width = std::max(name_width, columns(printable(each.name)));
    }
    std::string text = fmt::format("  {}  {}  KIND\n", padded("ID", id_width), padded("NAME", name_width));
    for (const device& each : devices)
        text += fmt::format("{} {}  {}  {}\n", each.is_default ? '*' : ' ', padded(printable(each.id), id_width),
                            padded(printable(each.name), name_width), each.can_capture ? "input" : "output");
    return text;
}

/** The bytes themselves for a program; for a person what a terminal cannot be harmed by. */
void print_bytes(const std::string& text) {
    print(isatty(STDOUT_FILENO) == 1 ? disarmed(text) : text);
}

} // namespace

exit_code list_devices(const devices_options& wanted) {
    const std::string json = device_list_text();
    if (wanted.json) print_bytes(json + "\n"); // before it is looked into: it is the library's, whatever it holds
    const std::vector<device> all = parse_device_list(json);
    std::vector<device> shown;
    std::copy_if(all.begin(), all.end(), std::back_inserter(shown),
                 [&](const device& each) { return wanted.all || each.can_capture; });
    if (wanted.ids)
        for (const device& each : shown)
            print_bytes(each.id + "\n");
    else if (!wanted.json && !shown.empty())
        print(table(shown));
    if (std::none_of(all.begin(), all.end(), [](const device& each) { return each.can_capture; }))
        throw failure(no_input_device, "there is no input device; `wrapper-audio doctor` tells more");
    if (!wanted.json && !wanted.ids && std::any_of(all.begin(), all.end(), [](auto& each) { return each.is_default; }))
        console::note("* marks the default");
    return fine;
}
