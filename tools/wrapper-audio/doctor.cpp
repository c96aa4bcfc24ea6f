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
#include <string_view>
#include <vector>

namespace {

/* ---- What is loaded ------------------------------------------------------------------------------------------ */

/** The files of the shared objects that decide about sound. Their names carry the versions. */
std::vector<std::string> loaded_libraries() {
    std::vector<std::string> files;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* to) {
            static constexpr std::array names{"libwrapper_audio", "libportaudio", "librnnoise",
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

/** PortAudio is no business of the library's header, but it is in the process and can be asked. */
std::string portaudio_version() {
    void* const symbol = dlsym(RTLD_DEFAULT, "Pa_GetVersionText");
    if (symbol == nullptr) return "PortAudio does not tell its version";
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
        print("  /dev/snd is not there: no sound hardware, or a container that was not given it\n");
    else if (access("/dev/snd", R_OK | X_OK) != 0)
        print("  /dev/snd cannot be read by this user: the group audio may\n");
    else
        print("  /dev/snd is there\n");
    const std::filesystem::path runtime = variable("XDG_RUNTIME_DIR");
    const bool pulse = !runtime.empty() && std::filesystem::exists(runtime / "pulse/native", error);
    const bool pipewire = !runtime.empty() && std::filesystem::exists(runtime / "pipewire-0", error);
    print(fmt::format("  sound server of this user: {}\n", pipewire ? "PipeWire"
                                                           : pulse  ? "PulseAudio"
                                                                    : "none that can be seen"));
}

/** Returns whether there is something to open. */
bool report_devices() {
    const int capabilities = wrapper_audio_capabilities();
    print("\nDevices\n");
    print(fmt::format("  capabilities {}: {}\n", capabilities,
                      capabilities == 0   ? "PortAudio does not start"
                      : capabilities == 1 ? "PortAudio starts, but no device can capture"
                                          : "at least one device can capture"));
    for (const device& each : parse_device_list(device_list_text()))
        print(fmt::format("  {} {} ({})\n", each.is_default ? '*' : ' ', printable(each.id),
                          each.can_capture ? "input" : "output"));
    return capabilities == 3;
}

/* ---- What opening it says ------------------------------------------------------------------------------------ */

int on_stall(stall_guard::reason reason) {
    if (reason == stall_guard::reason::stop_requested) return fine;
    console::show_library_lines();
    console::error(
        "the device opens, but no sound has come for 5 seconds. A sound server may hold it; try another one");
    return read_failed;
}

/** Half a second of sound. */
level listen(microphone& opened, int block_ms) {
    std::vector<std::int16_t> samples(16000 / 10 + 1);
    level heard;
    stop_on_signals();
    stall_guard guard(on_stall);
    for (int reads = 0; reads * block_ms < 500 && !stop_requested(); ++reads) {
        std::int32_t got = 0;
        guard.watch([&] {
            got = wrapper_audio_read(opened.get(), block_ms, samples.data(), static_cast<std::int32_t>(samples.size()),
                                     nullptr, nullptr);
        });
        if (got < 0 && !stop_requested()) throw failure(read_failed, "the device opens, but reading from it fails");
        heard.add(std::span<const std::int16_t>(samples).first(static_cast<std::size_t>(std::max(got, 0))));
    }
    return heard;
}

constexpr const char* how_to_get_48000 =
    "  What to do:\n"
    "    ALSA        take the hardware itself: a device called `… (hw:0,0)` in `wrapper-audio devices`\n"
    "    PulseAudio  default-sample-rate = 48000 in ~/.config/pulse/daemon.conf, then `pulseaudio -k`;\n"
    "                its `pulse` device may stay at 44100 all the same: take the hw: device\n"
    "    PipeWire    default.clock.rate = 48000 in ~/.config/pipewire/pipewire.conf.d/rate.conf, or use its JACK:\n"
    "                `pw-jack wrapper-audio record --denoise …`\n"
    "    JACK        start the server at 48000: `jackd -d alsa -r 48000`\n";

void report_denoising(int device_rate) {
    print("\nDenoising\n");
    if (device_rate == denoising_rate) {
        print("  denoise will run: the device runs at 48000 Hz\n");
    } else if (device_rate == 0) {
        print("  unknown: the library did not tell the rate of the device\n");
    } else {
        print("  " + denoise_inactive(device_rate) + "\n");
        print(how_to_get_48000);
    }
}

void report_back_ends() {
    const auto& lines = console::back_end_lines();
    if (lines.empty() || console::is_verbose()) return;
    constexpr std::size_t few = 8;
    print(fmt::format("\nThe audio system said {} lines meanwhile, most of them harmless{}\n", lines.size(),
                      lines.size() > few ? "; --verbose shows all:" : ":"));
    for (std::size_t i = 0; i < std::min(few, lines.size()); ++i)
        print("  " + printable(lines[i]) + "\n");
}

void report_opening(const std::string& wanted) {
    const auto [id, is_jack] = choose_input(wanted);
    print(fmt::format("\nOpening {}\n", id.empty() ? "the default input" : printable(id)));
    microphone opened(16000, true, id);
    print(fmt::format("  '{}' opens and runs at {} Hz\n", printable(opened.name()), opened.device_rate()));
    const level heard = listen(opened, is_jack ? jack_block_ms : 100);
    if (heard.peak() > 0)
        print(fmt::format("  half a second of it: peak {} dBFS, RMS {} dBFS\n", decibel_text(heard.peak()),
                          decibel_text(heard.rms())));
    else
        print("  half a second of it: pure silence (muted? the wrong device?)\n");
    report_denoising(opened.device_rate());
}

} // namespace

exit_code examine(const doctor_options& wanted) {
    report_versions();
    report_surroundings();
    const bool some = report_devices();
    try {
        if (!some)
            throw failure(no_input_device, "there is no input device. Is a microphone plugged in? `arecord -l` lists "
                                           "what the kernel sees");
        report_opening(wanted.device);
    } catch (...) {
        report_back_ends();
        throw;
    }
    report_back_ends();
    return fine;
}
