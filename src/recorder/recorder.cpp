// The plain C functions of devices and recorders.
#include "audio_system.h"
#include "capture.h"
#include "failure.h"
#include "text.h"
#include "threads.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>

using namespace recorder;

// ---- Devices ----

struct wrapper_audio_device_list {
    std::vector<device> devices;
    std::vector<wrapper_audio_device> records; // whose texts belong to `devices`
};

namespace {

wrapper_audio_device record_of(const device& device) {
    const auto denoising = device.input_channels < 1 ? WRAPPER_AUDIO_DENOISING_OFF
                           : runs_at_48000(device)   ? WRAPPER_AUDIO_DENOISING_NATIVE
                                                     : WRAPPER_AUDIO_DENOISING_CONVERTED;
    return {.id = device.id.c_str(),
            .name = device.name.c_str(),
            .host_api = device.host_api.c_str(),
            .default_rate = device.default_rate,
            .input_channels = device.input_channels,
            .output_channels = device.output_channels,
            .is_default = device.is_default ? 1 : 0,
            .denoising = denoising};
}

} // namespace

wrapper_audio_status wrapper_audio_device_list_create(wrapper_audio_device_list** list) noexcept {
    if (list == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *list = nullptr;
    return guarded([&] {
        const auto made = std::make_shared<wrapper_audio_device_list>();
        const auto look = [made] {
            const log::scope log;
            const audio_system_lock lock{opening_patience};
            const audio_system system;
            made->devices = read_devices();
            for (const device& each : made->devices)
                made->records.push_back(record_of(each));
        };
        run_with_patience(look, opening_patience + stopping_patience,
                          "the audio system does not respond: it has not listed its devices within 10 seconds");
        *list = std::make_unique<wrapper_audio_device_list>(std::move(*made)).release();
        return WRAPPER_AUDIO_OK;
    });
}

std::size_t wrapper_audio_device_list_count(const wrapper_audio_device_list* list) noexcept {
    return list == nullptr ? 0 : list->records.size();
}

const wrapper_audio_device* wrapper_audio_device_list_get(const wrapper_audio_device_list* list,
                                                          std::size_t index) noexcept {
    return index < wrapper_audio_device_list_count(list) ? &list->records[index] : nullptr;
}

namespace {

// The one input device that is meant. Throws a failure with the candidates.
std::size_t find(const std::vector<device>& devices, const std::string& wanted) {
    std::vector<const device*> inputs;
    std::vector<const device*> matches;
    std::vector<const device*> named; // as a whole, without the audio API before it
    for (const device& each : devices) {
        if (each.input_channels < 1) continue;
        if (each.id == wanted) return static_cast<std::size_t>(&each - devices.data());
        inputs.push_back(&each);
        const std::string id = folded(each.id);
        if (id.find(folded(wanted)) != std::string::npos) matches.push_back(&each);
        if (id.substr(id.find(':') + 1) == folded(wanted)) named.push_back(&each);
    }
    if (!named.empty()) matches = named;
    if (inputs.empty()) throw failure{WRAPPER_AUDIO_NO_INPUT_DEVICE, "there is no input device"};
    if (matches.empty())
        throw failure{WRAPPER_AUDIO_UNKNOWN_DEVICE,
                      "no input device matches '" + valid_utf8(wanted) + "'. There are:" + candidates(inputs)};
    if (matches.size() > 1)
        throw failure{WRAPPER_AUDIO_AMBIGUOUS_DEVICE,
                      "'" + valid_utf8(wanted) + "' may mean any of:" + candidates(matches)};
    return static_cast<std::size_t>(matches.front() - devices.data());
}

} // namespace

wrapper_audio_status wrapper_audio_device_list_find(const wrapper_audio_device_list* list, const char* wanted,
                                                    std::size_t* index, char* reason, std::size_t capacity) noexcept {
    copy_out("", reason, capacity);
    if (list == nullptr || wanted == nullptr || index == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    // cppcheck-suppress throwInNoexceptFunction ; guarded() lets nothing through
    return guarded([&] {
        try {
            *index = find(list->devices, wanted);
        } catch (const failure& failed) {
            copy_out(failed.reason, reason, capacity);
            throw;
        }
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_device_list_find_system(const wrapper_audio_device_list* list,
                                                           std::size_t* index) noexcept {
    if (list == nullptr || index == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    const auto& devices = list->devices;
    const auto found = std::find_if(devices.begin(), devices.end(), [](const device& each) { return each.is_system; });
    if (found == devices.end()) return WRAPPER_AUDIO_NO_SYSTEM_SOUND;
    *index = static_cast<std::size_t>(found - devices.begin());
    return WRAPPER_AUDIO_OK;
}

void wrapper_audio_device_list_free(wrapper_audio_device_list* list) noexcept {
    delete list;
}

// ---- Recorder ----

struct wrapper_audio_recorder {
    explicit wrapper_audio_recorder(const wrapper_audio_recorder_options& wanted) : options(wanted) {}

    const wrapper_audio_recorder_options options; // with defaults filled in
    std::mutex mutex;                             // protects all that follows
    std::condition_variable idle;
    std::shared_ptr<capture> current;
    failure failed_open;
    int calls = 0;
    bool closing = false;
};

namespace {

wrapper_audio_recorder_options with_defaults(const wrapper_audio_recorder_options* given) {
    wrapper_audio_recorder_options options = given != nullptr ? *given : wrapper_audio_recorder_options{};
    if (options.rate == 0) options.rate = 16000;
    if (options.buffer_ms == 0) options.buffer_ms = 5000;
    if (options.stall_ms == 0) options.stall_ms = 1500;
    return options;
}

bool is_valid(const wrapper_audio_recorder_options& options) {
    const auto is_time = [](int32_t ms) { return ms >= 100 && ms <= 60000; };
    const auto is_zero = [](int32_t reserved) { return reserved == 0; };
    const wrapper_audio_voice_options chain{.in_rate = denoiser_rate,
                                            .out_rate = options.rate,
                                            .denoise = options.denoise,
                                            .speech = options.speech,
                                            .conversion = options.conversion};
    const bool keeps_undenoised = options.undenoised == 1 && options.denoise > 0.0F;
    return voice_chain::is_valid(chain) && (options.undenoised == 0 || keeps_undenoised) &&
           (options.reconnect == 0 || options.reconnect == 1) && is_time(options.buffer_ms) &&
           is_time(options.stall_ms) && std::all_of(std::begin(options.reserved), std::end(options.reserved), is_zero);
}

// A call on a recorder, which is not released until the call is over, and the recording it concerns.
class call {
public:
    explicit call(wrapper_audio_recorder& recorder) : recorder_(recorder), current_(entered(recorder)) {}
    ~call() {
        const std::lock_guard hold{recorder_.mutex};
        if (--recorder_.calls == 0) recorder_.idle.notify_all();
    }
    call(const call&) = delete;
    call& operator=(const call&) = delete;

    const std::shared_ptr<capture>& current() const { return current_; }

private:
    static std::shared_ptr<capture> entered(wrapper_audio_recorder& recorder) {
        const std::lock_guard hold{recorder.mutex};
        ++recorder.calls;
        return recorder.current;
    }

    wrapper_audio_recorder& recorder_;
    const std::shared_ptr<capture> current_;
};

wrapper_audio_status open(wrapper_audio_recorder& recorder, const std::string& device_id) {
    const call running{recorder};
    if (running.current() != nullptr && running.current()->has_ended()) running.current()->stop();
    const auto made = std::make_shared<capture>(recorder.options, device_id);
    {
        const std::lock_guard hold{recorder.mutex};
        const bool is_open = recorder.current != nullptr && !recorder.current->has_ended();
        if (is_open || recorder.closing) return WRAPPER_AUDIO_INVALID_STATE;
        recorder.current = made; // so that another thread can stop it while it is opening
        recorder.failed_open = {};
    }
    failure failed{WRAPPER_AUDIO_OUT_OF_MEMORY};
    try {
        made->open();
        return WRAPPER_AUDIO_OK;
    } catch (failure& reason) {
        failed = std::move(reason);
    } catch (...) { // no memory, or no more threads
    }
    const wrapper_audio_status status = failed.status;
    const std::lock_guard hold{recorder.mutex};
    // Another thread may have stopped it and opened the recorder again.
    if (recorder.current == made) recorder.current = nullptr; // GCOVR_EXCL_BR_LINE: whichever thread comes first
    recorder.failed_open = std::move(failed);
    return status;
}

wrapper_audio_status read(wrapper_audio_recorder* recorder, std::size_t count, const captured_sound::destination& to,
                          bool is_valid, int32_t timeout_ms, wrapper_audio_block* block) {
    if (block != nullptr) {
        *block = {};
        block->speech_probability = -1.0F;
    }
    if (recorder == nullptr || !is_valid || block == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    const call running{*recorder};
    if (running.current() == nullptr) return WRAPPER_AUDIO_INVALID_STATE;
    return running.current()->read(count, to, timeout_ms, *block);
}

} // namespace

wrapper_audio_status wrapper_audio_recorder_create(wrapper_audio_recorder** recorder,
                                                   const wrapper_audio_recorder_options* options) noexcept {
    if (recorder == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    *recorder = nullptr;
    const wrapper_audio_recorder_options wanted = with_defaults(options);
    if (!is_valid(wanted)) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        *recorder = std::make_unique<wrapper_audio_recorder>(wanted).release();
        return WRAPPER_AUDIO_OK;
    });
}

wrapper_audio_status wrapper_audio_recorder_open(wrapper_audio_recorder* recorder, const char* device_id) noexcept {
    if (recorder == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] { return open(*recorder, device_id != nullptr ? device_id : ""); });
}

wrapper_audio_status wrapper_audio_recorder_read_s16(wrapper_audio_recorder* recorder, int16_t* samples,
                                                     std::size_t count, int32_t timeout_ms,
                                                     wrapper_audio_block* block) noexcept {
    return read(recorder, count, {.pcm = {samples, count}}, samples != nullptr || count == 0, timeout_ms, block);
}

wrapper_audio_status wrapper_audio_recorder_read_f32(wrapper_audio_recorder* recorder, float* samples,
                                                     std::size_t count, int32_t timeout_ms,
                                                     wrapper_audio_block* block) noexcept {
    return read(recorder, count, {.floats = {samples, count}}, samples != nullptr || count == 0, timeout_ms, block);
}

wrapper_audio_status wrapper_audio_recorder_read_both_f32(wrapper_audio_recorder* recorder, float* denoised,
                                                          float* undenoised, std::size_t count, int32_t timeout_ms,
                                                          wrapper_audio_block* block) noexcept {
    const bool is_valid = recorder != nullptr && recorder->options.undenoised != 0 &&
                          ((denoised != nullptr && undenoised != nullptr) || count == 0);
    return read(recorder, count, {.floats = {denoised, count}, .undenoised = {undenoised, count}}, is_valid, timeout_ms,
                block);
}

wrapper_audio_status wrapper_audio_recorder_read_gate(wrapper_audio_recorder* recorder, wrapper_audio_speech_gate* gate,
                                                      std::size_t count, int32_t timeout_ms,
                                                      wrapper_audio_block* block) noexcept {
    return guarded([&] {
        const bool is_valid = recorder != nullptr && gate != nullptr && gate->gate.rate() == recorder->options.rate &&
                              hears_speech(recorder->options);
        return read(recorder, count, {.gate = is_valid ? &gate->gate : nullptr}, is_valid, timeout_ms, block);
    });
}

wrapper_audio_status wrapper_audio_recorder_read_aligner(wrapper_audio_recorder* recorder,
                                                         wrapper_audio_aligner* aligner, int32_t side,
                                                         std::size_t count, int32_t timeout_ms,
                                                         wrapper_audio_block* block) noexcept {
    return guarded([&] {
        const bool is_valid = recorder != nullptr && aligner != nullptr && (side == 0 || side == 1) &&
                              aligner->aligner.rate() == recorder->options.rate;
        return read(recorder, count,
                    {.aligner = is_valid ? &aligner->aligner : nullptr, .side = static_cast<std::size_t>(side)},
                    is_valid, timeout_ms, block);
    });
}

std::size_t wrapper_audio_recorder_take_speech(wrapper_audio_recorder* recorder, float* probabilities,
                                               std::size_t capacity) noexcept {
    if (recorder == nullptr || probabilities == nullptr) return 0;
    const call running{*recorder};
    return running.current() == nullptr ? 0 : running.current()->take_speech(probabilities, capacity);
}

wrapper_audio_status wrapper_audio_recorder_get_info(wrapper_audio_recorder* recorder,
                                                     wrapper_audio_recorder_info* info) noexcept {
    if (recorder == nullptr || info == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    const call running{*recorder};
    *info = running.current() != nullptr ? running.current()->info() : wrapper_audio_recorder_info{};
    info->rate = recorder->options.rate;
    return WRAPPER_AUDIO_OK;
}

wrapper_audio_status wrapper_audio_recorder_get_signal(wrapper_audio_recorder* recorder, int32_t* signal) noexcept {
    if (recorder == nullptr || signal == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    const call running{*recorder};
    *signal = running.current() != nullptr ? running.current()->signal() : WRAPPER_AUDIO_SIGNAL_UNKNOWN;
    return WRAPPER_AUDIO_OK;
}

std::size_t wrapper_audio_recorder_get_text(wrapper_audio_recorder* recorder, int32_t kind, char* text,
                                            std::size_t capacity) noexcept {
    copy_out("", text, capacity);
    if (recorder == nullptr) return 0;
    std::size_t length = 0;
    guarded([&] {
        const call running{*recorder};
        const auto& current = running.current();
        failure failed;
        device device;
        if (current != nullptr) {
            failed = current->last_failure();
            device = current->device();
        }
        if (failed.status == WRAPPER_AUDIO_OK) {
            const std::lock_guard hold{recorder->mutex};
            failed = recorder->failed_open;
        }
        if (failed.status < 0 && failed.reason.empty()) failed.reason = wrapper_audio_status_text(failed.status);
        switch (kind) {
        case WRAPPER_AUDIO_TEXT_DEVICE_ID:
            length = copy_out(device.id, text, capacity);
            break;
        case WRAPPER_AUDIO_TEXT_DEVICE_NAME:
            length = copy_out(device.name, text, capacity);
            break;
        case WRAPPER_AUDIO_TEXT_REASON:
            length = copy_out(failed.reason, text, capacity);
            break;
        case WRAPPER_AUDIO_TEXT_LOG_LINE:
            length = copy_out(failed.log_line, text, capacity);
            break;
        default:
            break;
        }
        return WRAPPER_AUDIO_OK;
    });
    return length;
}

wrapper_audio_status wrapper_audio_recorder_stop(wrapper_audio_recorder* recorder) noexcept {
    if (recorder == nullptr) return WRAPPER_AUDIO_INVALID_ARGUMENT;
    return guarded([&] {
        const call running{*recorder};
        return running.current() == nullptr ? WRAPPER_AUDIO_INVALID_STATE : running.current()->stop();
    });
}

void wrapper_audio_recorder_free(wrapper_audio_recorder* recorder) noexcept {
    const std::unique_ptr<wrapper_audio_recorder> last_owner{recorder};
    if (recorder == nullptr) return;
    {
        const std::lock_guard hold{recorder->mutex};
        recorder->closing = true;
    }
    wrapper_audio_recorder_stop(recorder);
    std::unique_lock hold{recorder->mutex};
    recorder->idle.wait(hold, [&] { return recorder->calls == 0; });
}

uint32_t wrapper_audio_abandoned_threads() noexcept {
    return abandoned_threads();
}
