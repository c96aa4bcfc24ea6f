/**
 * wrapper-audio doctor: what a person needs to know when it does not work.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "stopping.h"
#include "text.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

namespace {

/* ---- What is loaded ------------------------------------------------------------------------------------------ */

/** The files of the shared objects that decide about sound. Their names carry the versions. */
std::vector<std::string> loaded_libraries() {
    std::vector<std::string> files;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* to) {
            static constexpr std::array names{"libwrapper_audio", "libportaudio", "librnnoise", "libsoxr",
                                              "libasound.",       "libjack",      "libsndfile"};
            const std::string path = info->dlpi_name;
            const std::string file = path.substr(path.rfind('/') + 1);
            if (std::any_of(names.begin(), names.end(), [&](const char* name) { return file.starts_with(name); })) {
                std::error_code error;
                const auto real = std::filesystem::canonical(path, error); // through libx.so.2 to libx.so.2.0.0
                static_cast<std::vector<std::string>*>(to)->push_back(error ? path : real.string());
            }
            return 0;
        },
        &files);
    return files;
}

/** PortAudio is no business of the library's headers, but it is in the process and can be asked. */
std::string portaudio_version() {
    void* const symbol = dlsym(RTLD_DEFAULT, "Pa_GetVersionText");
    if (symbol == nullptr) return "PortAudio does not report its version";
    return reinterpret_cast<const char* (*)()>(symbol)();
}

void report_versions() {
    print("Versions\n  wrapper-audio " WRAPPER_AUDIO_VERSION "\n");
    print("  " + portaudio_version() + "\n");
    print(fmt::format("  {}\n", sf_version_string()));
    for (const std::string& file : loaded_libraries())
        print("  " + printable(file) + "\n");
}

/* ---- What is around ------------------------------------------------------------------------------------------ */

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

void report_surroundings() {
    print("\nSurroundings\n");
    for (const char* name : {"ALSA_CONFIG_PATH", "PULSE_SERVER", "PIPEWIRE_REMOTE", "JACK_DEFAULT_SERVER"})
        if (!variable(name).empty()) print(fmt::format("  {}={}\n", name, printable(variable(name))));
    std::error_code error;
    if (!std::filesystem::exists("/dev/snd", error))
        print("  /dev/snd does not exist: there is no sound hardware, or this is a container without access to it\n");
    else if (access("/dev/snd", R_OK | X_OK) != 0)
        print("  this user cannot read /dev/snd; members of the group audio can\n");
    else
        print("  /dev/snd is there\n");
    const std::filesystem::path runtime = variable("XDG_RUNTIME_DIR");
    const bool pulse = !runtime.empty() && std::filesystem::exists(runtime / "pulse/native", error);
    const bool pipewire = !runtime.empty() && std::filesystem::exists(runtime / "pipewire-0", error);
    print(fmt::format("  sound server of this user: {}\n", pipewire ? "PipeWire"
                                                           : pulse  ? "PulseAudio"
                                                                    : "none found"));
}

void report_devices() {
    print("\nDevices\n");
    const device_list list;
    print(list.has_input() ? "  at least one device can record\n" : "  PortAudio starts, but no device can record\n");
    for (const wrapper_audio_device& each : list)
        print(fmt::format("  {} {} ({})\n", each.is_default != 0 ? '*' : ' ', printable(each.id),
                          each.input_channels > 0 ? "input" : "output"));
}

/* ---- What opening it says ------------------------------------------------------------------------------------ */

constexpr double listening_time = 2.5; // seconds: then the library knows what it hears

level listen(microphone& opened, int rate) {
    std::vector<float> samples(static_cast<std::size_t>(rate) / 10);
    level heard;
    wrapper_audio_block block{};
    stop_on_signals();
    while (static_cast<double>(heard.samples()) < listening_time * rate && opened.read(samples, block) > 0)
        heard.add(block.captured_rms, block.captured_peak, block.count);
    if (opened.trouble()) throw failure(*opened.trouble());
    return heard;
}

void report_opening(const std::string& wanted) {
    print(fmt::format("\nOpening {}\n", wanted.empty() ? "the default input" : printable(wanted)));
    wrapper_audio_recorder_options options{};
    options.rate = 16000;
    options.denoise = 1.0F;
    std::vector<std::string> hints;
    microphone opened(wanted, options, [&](const std::string& hint) { hints.push_back(hint); });
    const wrapper_audio_recorder_info info = opened.info();
    print(fmt::format("  '{}' opens and runs at {} Hz\n", printable(opened.name()), info.device_rate));
    const level heard = listen(opened, options.rate);
    print(fmt::format("  heard for {} s: peak {} dBFS, RMS {} dBFS\n", listening_time, decibel_text(heard.peak()),
                      decibel_text(heard.rms())));
    for (const std::string& hint : hints)
        print(fmt::format("  {}\n", hint));
    print(fmt::format("\nDenoising\n  --denoise works: {}\n", denoising_text(info.denoising, info.device_rate)));
}

/** What PortAudio's back ends wrote, not the library about itself. */
std::vector<std::string> audio_system_lines() {
    std::vector<std::string> lines;
    std::vector<char> text(65536);
    while (wrapper_audio_log_take(text.data(), text.size()) > 0) {
        std::istringstream taken(text.data());
        for (std::string line; std::getline(taken, line);)
            if (wrapper_audio_log_in_english(line.c_str(), nullptr, 0) == 0) lines.push_back(line);
    }
    return lines;
}

void report_audio_system() {
    const std::vector<std::string> lines = audio_system_lines();
    if (lines.empty() || console::is_verbose()) return;
    constexpr std::size_t few = 8;
    print(fmt::format("\nThe audio system printed {} lines, most of them harmless{}\n", lines.size(),
                      lines.size() > few ? "; --verbose shows them all:" : ":"));
    for (std::size_t i = 0; i < std::min(few, lines.size()); ++i)
        print("  " + printable(lines[i]) + "\n");
}

} // namespace

exit_code examine(const doctor_options& wanted) {
    report_versions();
    report_surroundings();
    try {
        report_devices();
        report_opening(wanted.device); // even if there is none: the library says why then
    } catch (...) {
        report_audio_system();
        throw;
    }
    report_audio_system();
    return fine;
}
