#include "audio_system.h"

#include "server_sources.h"
#include "text.h"

#include <alsa/asoundlib.h>
#include <portaudio.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

namespace recorder {

namespace {

struct ownership {
    std::mutex mutex;
    std::condition_variable given_back;
    bool taken = false;

    bool is_free() const { return !taken; }
};

// Never destroyed: an abandoned thread may still hold it when the process ends.
ownership& audio_system_ownership() {
    static auto* const owned = new ownership; // GCOVR_EXCL_BR_LINE: whichever thread comes first
    return *owned;
}

const char* text_or(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

std::string host_api_name(const PaDeviceInfo& info) {
    const PaHostApiInfo* host_api = Pa_GetHostApiInfo(info.hostApi);
    return host_api == nullptr ? "?" : text_or(host_api->name, "");
}

// PortAudio calls hardware by its name, with ALSA's name in brackets behind it, and other devices as ALSA does.
std::string name_in_alsa(const std::string& name) {
    const std::size_t bracket = name.rfind('(');
    const bool is_hardware = name.ends_with(')') && name.find("hw:", bracket) != std::string::npos;
    return is_hardware ? name.substr(bracket + 1, name.size() - bracket - 2) : name;
}

std::string core_id(const PaDeviceInfo& info) {
    return host_api_name(info) + ":" + text_or(info.name, "");
}

// The default rate as the core reads it.
int32_t rounded_rate(double rate) {
    constexpr double limit = 2147483648.0;
    const double rounded = rate > 0.0 ? rate + 0.5 : limit;
    return rounded < limit ? static_cast<int32_t>(rounded) : 48000;
}

// Changes PortAudio's entry for a device during its own lifetime. The core opens a device at the default rate and finds
// it by its name; it reads both from PortAudio's table, which is PortAudio's own memory, and not constant. PortAudio
// itself uses neither when it opens an ALSA device, but the name when it opens a JACK device, so this must be undone by
// then. So a device can be opened at another rate, and whatever its name is, even one that it shares with others.
class table_entry {
public:
    explicit table_entry(const PaDeviceInfo* info)
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
        : info_(const_cast<PaDeviceInfo*>(info)), name_(info->name), rate_(info->defaultSampleRate) {}
    ~table_entry() {
        info_->name = name_;
        info_->defaultSampleRate = rate_;
    }
    table_entry(const table_entry&) = delete;
    table_entry& operator=(const table_entry&) = delete;

    // Returns the id by which the core finds this device and no other.
    std::string set(double rate, std::string& unique_name) {
        constexpr std::size_t room = 250; // the core compares 255 bytes at most
        const std::size_t host_api_length = host_api_name(*info_).size() + 1;
        unique_name = std::string(text_or(name_, "")).substr(0, room - std::min(room, host_api_length));
        // The core logs the name, and whatever follows a line feed would look like one of the core's lines.
        std::replace(unique_name.begin(), unique_name.end(), '\n', '?');
        while (is_taken(host_api_name(*info_) + ":" + unique_name))
            unique_name += '\'';
        info_->name = unique_name.c_str();
        info_->defaultSampleRate = rate;
        return core_id(*info_);
    }

private:
    bool is_taken(const std::string& id) const {
        const int count = Pa_GetDeviceCount();
        for (int other = 0; other < count; ++other) {
            const PaDeviceInfo* const info = Pa_GetDeviceInfo(other);
            if (info == nullptr || info == info_) continue;
            if (core_id(*info) == id) return true;
        }
        return false;
    }

    PaDeviceInfo* const info_;
    const char* const name_;
    const double rate_;
};

// The sentence, followed by PortAudio's own message from the core's line. The core's warning that it uses another device
// has no such message, but it has the id, in which there may be anything.
std::string with_words(const std::string& sentence, const std::string& log_line) {
    const std::string english = log::in_english(log_line);
    const std::size_t words = english.find(": ");
    if (words == std::string::npos || log_line.starts_with("[audio_wrapper] WARN ")) return sentence;
    return sentence + english.substr(words);
}

} // namespace

audio_system_lock::audio_system_lock() {
    ownership& owned = audio_system_ownership();
    std::unique_lock hold{owned.mutex};
    owned.given_back.wait(hold, [&] { return owned.is_free(); });
    owned.taken = true;
}

audio_system_lock::audio_system_lock(std::chrono::milliseconds patience) {
    ownership& owned = audio_system_ownership();
    std::unique_lock hold{owned.mutex};
    if (!owned.given_back.wait_for(hold, patience, [&] { return owned.is_free(); }))
        throw failure{WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK, "the audio system does not respond: a call into it has not "
                                                        "returned"};
    owned.taken = true;
}

audio_system_lock::~audio_system_lock() {
    ownership& owned = audio_system_ownership();
    const std::lock_guard hold{owned.mutex};
    owned.taken = false;
    owned.given_back.notify_one();
}

audio_system::audio_system() {
    // PortAudio looks for devices at its first initialisation, which may have been the host's.
    if (Pa_GetDeviceCount() == paNotInitialized) define_server_sources();
    const PaError error = Pa_Initialize();
    if (error != paNoError)
        throw failure{WRAPPER_AUDIO_NO_AUDIO_SYSTEM,
                      "PortAudio does not start: " + valid_utf8(text_or(Pa_GetErrorText(error), "no reason given"))};
}

namespace {

bool has_jack_devices() {
    const int count = Pa_GetDeviceCount();
    for (int index = 0; index < count; ++index) {
        const PaDeviceInfo* const info = Pa_GetDeviceInfo(index);
        const PaHostApiInfo* const host_api = info != nullptr ? Pa_GetHostApiInfo(info->hostApi) : nullptr;
        if (host_api != nullptr && host_api->type == paJACK) return true;
    }
    return false;
}

} // namespace

// If a JACK server that was there at the start has ended, terminating PortAudio ends the process, by an assertion in
// PortAudio or inside libjack, whatever device was used. So if there is JACK, PortAudio is never terminated.
audio_system::~audio_system() {
    if (!has_jack_devices()) Pa_Terminate();
}

std::vector<device> read_devices() {
    std::vector<device> devices;
    const int count = Pa_GetDeviceCount();
    const int default_input = Pa_GetDefaultInputDevice();
    for (int index = 0; index < count; ++index) {
        const PaDeviceInfo* const info = Pa_GetDeviceInfo(index);
        if (info == nullptr) continue;
        device found;
        found.index = index;
        found.id = core_id(*info);
        found.name = valid_utf8(text_or(info->name, ""));
        found.host_api = valid_utf8(host_api_name(*info));
        found.default_rate = rounded_rate(info->defaultSampleRate);
        found.input_channels = info->maxInputChannels;
        found.output_channels = info->maxOutputChannels;
        found.is_default = index == default_input;
        const PaHostApiInfo* const host_api = Pa_GetHostApiInfo(info->hostApi);
        if (host_api != nullptr && host_api->type == paALSA) found.alsa_name = name_in_alsa(text_or(info->name, ""));
        if (const server_source* const source = server_source_of(text_or(info->name, ""))) {
            found.id = source->server + ":" + source->name;
            found.name = valid_utf8(source->description);
            found.host_api = source->server;
            found.default_rate = source->rate;
            found.input_channels = source->channels;
            found.output_channels = 0;
            found.is_server_source = true;
            found.is_system = source->is_of_default_output;
        }
        const auto is_taken = [&](const std::string& id) {
            return std::any_of(devices.begin(), devices.end(), [&](const device& other) { return other.id == id; });
        };
        const std::string shared = found.id;
        for (int number = 2; is_taken(found.id); ++number)
            found.id = shared + "#" + std::to_string(number);
        devices.push_back(std::move(found));
    }
    return devices;
}

// PortAudio's default rate of an ALSA device is the hardware's rate nearest to 44100 Hz. If that is farther away than
// 48000, the hardware does not support 48000, and ALSA would fake it by linear interpolation.
bool runs_at_48000(const device& device) {
    constexpr int32_t portaudios_rate = 44100;
    if (device.default_rate == denoiser_rate) return true;
    if (device.is_server_source) return false; // the server would convert, and this layer does that better
    if (std::abs(device.default_rate - portaudios_rate) > denoiser_rate - portaudios_rate) return false;
    const PaDeviceInfo* const info = Pa_GetDeviceInfo(device.index);
    PaStreamParameters input{};
    input.device = device.index;
    input.channelCount = 1;
    input.sampleFormat = paFloat32;
    input.suggestedLatency = info != nullptr ? info->defaultLowInputLatency : 0.0;
    return Pa_IsFormatSupported(&input, nullptr, denoiser_rate) == paFormatIsSupported;
}

std::string candidates(const std::vector<const device*>& devices) {
    std::string text;
    for (const device* each : devices)
        text += "\n  " + valid_utf8(each->id);
    return text;
}

namespace {

// Why a device does not open. PortAudio does not pass on what ALSA says, so ALSA is asked once more. DEVICE_REFUSED if it
// gives no reason, opens the device now, or does not have it.
wrapper_audio_status refusal_of(const std::string& alsa_name) {
    if (alsa_name.empty()) return WRAPPER_AUDIO_DEVICE_REFUSED;
    snd_pcm_t* pcm = nullptr;
    const int result = snd_pcm_open(&pcm, alsa_name.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    if (result >= 0) snd_pcm_close(pcm);
    switch (result) {
    case -EBUSY:
        return WRAPPER_AUDIO_DEVICE_BUSY;
    case -EACCES:
    case -EPERM:
        return WRAPPER_AUDIO_DEVICE_FORBIDDEN;
    case -ENODEV: // its driver still waits for those who use it
    case -ENOENT:
        return WRAPPER_AUDIO_DEVICE_GONE;
    default:
        return WRAPPER_AUDIO_DEVICE_REFUSED;
    }
}

std::string sentence_about(const std::string& id, wrapper_audio_status refusal) {
    return valid_utf8(id) + " did not open: " + wrapper_audio_status_text(refusal);
}

// PortAudio leaves a device out of its table, or has it as an output only, if ALSA does not open it at once.
void throw_if_kept_away(const std::string& id) {
    const std::string alsa = "ALSA:";
    std::string alsa_name;
    std::string shown = id;
    if (id.empty()) {
        alsa_name = "default";
        shown = "the default input device";
    } else if (id.starts_with(alsa)) {
        alsa_name = name_in_alsa(id.substr(alsa.size()));
    }
    const wrapper_audio_status refusal = refusal_of(alsa_name);
    if (refusal == WRAPPER_AUDIO_DEVICE_BUSY || refusal == WRAPPER_AUDIO_DEVICE_FORBIDDEN)
        throw failure{refusal, sentence_about(shown, refusal)};
}

device choose(const std::string& id) {
    const std::vector<device> devices = read_devices();
    std::vector<const device*> inputs;
    for (const device& each : devices)
        if (each.input_channels > 0) inputs.push_back(&each);
    const auto chosen = std::find_if(devices.begin(), devices.end(),
                                     [&](const device& each) { return id.empty() ? each.is_default : each.id == id; });
    if (chosen == devices.end() || chosen->input_channels < 1) throw_if_kept_away(id);
    if (inputs.empty()) throw failure{WRAPPER_AUDIO_NO_INPUT_DEVICE, "there is no input device"};
    if (chosen == devices.end() && id.empty())
        throw failure{WRAPPER_AUDIO_NO_INPUT_DEVICE,
                      "there is no default input device. There are:" + candidates(inputs)};
    if (chosen == devices.end())
        throw failure{WRAPPER_AUDIO_UNKNOWN_DEVICE,
                      "no device has the id '" + valid_utf8(id) + "'. There are:" + candidates(inputs)};
    if (chosen->input_channels < 1) throw failure{WRAPPER_AUDIO_NOT_AN_INPUT, "'" + valid_utf8(id) + "' cannot record"};
    return *chosen;
}

} // namespace

microphone::microphone(const std::string& id, int32_t best_rate, log::scope& log) : device_(choose(id)) {
    const int32_t default_rate = device_.default_rate;
    const bool prefers_48000 = default_rate != best_rate && default_rate != denoiser_rate && runs_at_48000(device_);
    if (prefers_48000 && open(denoiser_rate, log)) return;
    log.take_failure();
    if (open(default_rate, log)) return;
    const std::string line = log.take_failure();
    const std::string english = log::in_english(line); // empty where there was no memory for the line
    const bool has_no_memory = english.empty() || english.starts_with("there is no memory");
    context_.reset(); // a device that is still its own would seem to be somebody else's
    if (const auto refusal = refusal_of(device_.alsa_name); !has_no_memory && refusal != WRAPPER_AUDIO_DEVICE_REFUSED)
        throw failure{refusal, sentence_about(device_.id, refusal), line};
    throw failure{has_no_memory ? WRAPPER_AUDIO_OUT_OF_MEMORY : WRAPPER_AUDIO_DEVICE_REFUSED,
                  with_words(valid_utf8(device_.id) + " did not open", line), line};
}

// Returns false if the device refuses, and if the core would use another one instead: it may not find this one if
// PortAudio fails during the search.
bool microphone::open(int32_t rate, const log::scope& log) {
    const PaDeviceInfo* const info = Pa_GetDeviceInfo(device_.index);
    if (info == nullptr)
        throw failure{WRAPPER_AUDIO_DEVICE_REFUSED, "PortAudio no longer knows " + valid_utf8(device_.id)};
    {
        table_entry entry{info};
        std::string unique_name;
        const std::string core_id = entry.set(rate, unique_name);
        context_.reset(wrapper_audio_arm(rate, 0, core_id.c_str()));
    }
    if (context_ == nullptr || log.has_failure()) return false;
    rate_ = rate;
    opened_at_ = std::chrono::steady_clock::now();
    return wrapper_audio_open(context_.get()) == 0;
}

int32_t microphone::read(std::vector<int16_t>& samples, log::scope& log) {
    const auto room = static_cast<int32_t>(samples.size());
    const int32_t count = wrapper_audio_read(context_.get(), block_ms, samples.data(), room, nullptr, nullptr);
    if (count > 0) return count;
    const std::string line = log.take_failure();
    if (is_gone())
        throw failure{WRAPPER_AUDIO_DEVICE_GONE,
                      valid_utf8(device_.id) + " failed: " + wrapper_audio_status_text(WRAPPER_AUDIO_DEVICE_GONE),
                      line};
    throw failure{WRAPPER_AUDIO_DEVICE_FAILED, with_words(valid_utf8(device_.id) + " failed", line), line};
}

// Whether ALSA does not have it any more. Nobody knows while somebody else keeps the lock, which ALSA's table needs.
bool microphone::is_gone() const {
    try {
        const audio_system_lock lock{std::chrono::seconds(1)};
        return refusal_of(device_.alsa_name) == WRAPPER_AUDIO_DEVICE_GONE;
    } catch (...) {
        return false;
    }
}

} // namespace recorder
