#include "input.h"

#include "stopping.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

constexpr int patience_ms = 5000; // with a device that delivers nothing

exit_code code_of(wrapper_audio_status status) {
    switch (status) {
    case WRAPPER_AUDIO_NO_AUDIO_SYSTEM:
    case WRAPPER_AUDIO_NO_INPUT_DEVICE:
    case WRAPPER_AUDIO_NO_SYSTEM_SOUND:
        return no_input_device;
    case WRAPPER_AUDIO_UNKNOWN_DEVICE:
    case WRAPPER_AUDIO_AMBIGUOUS_DEVICE:
    case WRAPPER_AUDIO_NOT_AN_INPUT:
        return usage;
    case WRAPPER_AUDIO_DEVICE_REFUSED:
    case WRAPPER_AUDIO_DEVICE_BUSY:
    case WRAPPER_AUDIO_DEVICE_FORBIDDEN:
    case WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK:
        return open_failed;
    case WRAPPER_AUDIO_DEVICE_FAILED:
    case WRAPPER_AUDIO_DEVICE_GONE:
    case WRAPPER_AUDIO_NO_DATA:
        return read_failed;
    default:
        return unexpected;
    }
}

} // namespace

failure failure_of(wrapper_audio_status status, const std::string& reason) {
    return {code_of(status), reason.empty() ? wrapper_audio_status_text(status) : printable_lines(reason),
            wrapper_audio_status_advice(status)};
}

device_list::device_list() {
    wrapper_audio_device_list* made = nullptr;
    const wrapper_audio_status status = wrapper_audio_device_list_create(&made);
    list.reset(made);
    if (status != WRAPPER_AUDIO_OK) throw failure_of(status);
    for (std::size_t i = 0; i < wrapper_audio_device_list_count(made); ++i)
        devices.push_back(*wrapper_audio_device_list_get(made, i));
}

bool device_list::has_input() const {
    return std::any_of(begin(), end(), [](const wrapper_audio_device& each) { return each.input_channels > 0; });
}

std::string device_list::find(const std::string& wanted) const {
    std::size_t index = 0;
    std::vector<char> reason(65536);
    const wrapper_audio_status status =
        wrapper_audio_device_list_find(list.get(), wanted.c_str(), &index, reason.data(), reason.size());
    if (status != WRAPPER_AUDIO_OK) throw failure_of(status, reason.data());
    return devices[index].id;
}

std::string device_list::system() const {
    std::size_t index = 0;
    const wrapper_audio_status status = wrapper_audio_device_list_find_system(list.get(), &index);
    if (status != WRAPPER_AUDIO_OK) throw failure_of(status);
    return devices[index].id;
}

microphone::microphone(const std::string& wanted, wrapper_audio_recorder_options options,
                       std::function<void(const std::string& sentences)> hint)
    : waits_(options.reconnect != 0), hint_(std::move(hint)) {
    options.stall_ms = patience_ms / 2; // for the first sample the recorder waits twice as long by itself
    wrapper_audio_recorder* made = nullptr;
    wrapper_audio_status status = wrapper_audio_recorder_create(&made, &options);
    recorder.reset(made);
    if (status != WRAPPER_AUDIO_OK) throw failure_of(status);
    const std::string id = wanted.empty() ? "" : device_list().find(wanted);
    status = wrapper_audio_recorder_open(made, id.c_str());
    if (status != WRAPPER_AUDIO_OK) throw failed(status);
}

std::size_t microphone::read(std::span<float> samples, wrapper_audio_block& block, std::span<float> undenoised) {
    return read_by(
        [&](int timeout) {
            return undenoised.empty()
                       ? wrapper_audio_recorder_read_f32(recorder.get(), samples.data(), samples.size(), timeout,
                                                         &block)
                       : wrapper_audio_recorder_read_both_f32(recorder.get(), samples.data(), undenoised.data(),
                                                              samples.size(), timeout, &block);
        },
        block);
}

std::size_t microphone::read(wrapper_audio_aligner& aligner, int side, std::size_t count, wrapper_audio_block& block) {
    return read_by(
        [&](int timeout) {
            return wrapper_audio_recorder_read_aligner(recorder.get(), &aligner, side, count, timeout, &block);
        },
        block);
}

void microphone::read_what_is_there(wrapper_audio_aligner& aligner, int side) {
    constexpr std::size_t some = 1000;
    wrapper_audio_block block{};
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    while (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_recorder_read_aligner(recorder.get(), &aligner, side, some, 0, &block);
    if (status < 0 && status != WRAPPER_AUDIO_NO_DATA && !trouble_) trouble_.emplace(failed(status));
}

template <class Read>
std::size_t microphone::read_by(Read read, wrapper_audio_block& block) {
    constexpr int often_enough = 100; // ms, to notice a signal soon
    for (std::uint32_t lost = 0;;) {  // before the first sample
        if (stop_requested()) stop();
        const wrapper_audio_status status = read(often_enough);
        listen();
        stalls = block.count > 0 ? 0 : stalls + (status == WRAPPER_AUDIO_NO_DATA ? 1 : 0);
        if (!trouble_ && (stalls == 2 || (stalls == 1 && info().captured == 0))) {
            trouble_.emplace(failure_of(status, fmt::format("{}: nothing has come for {} seconds",
                                                            wrapper_audio_status_text(status), patience_ms / 1000)));
            stop(); // what is still inside comes then
        }
        const bool is_over =
            status != WRAPPER_AUDIO_OK && status != WRAPPER_AUDIO_TIMEOUT && status != WRAPPER_AUDIO_NO_DATA;
        if (is_over && status < 0 && !trouble_) trouble_.emplace(failed(status));
        if (lost > 0) block.dropped_at = 0;
        lost = block.dropped += lost;
        if (is_over || block.count > 0 || (waits_ && lost > 0)) return block.count;
    }
}

void microphone::listen() {
    const wrapper_audio_signal now = signal();
    const std::string advice = wrapper_audio_signal_advice(now);
    if (now == WRAPPER_AUDIO_SIGNAL_LOST) return; // each time, by whoever reads
    if (!advice.empty() && heard_.insert(now).second)
        hint_(fmt::format("{}. {}", wrapper_audio_signal_text(now), advice));
}

std::vector<float> microphone::take_speech() {
    std::vector<float> probabilities;
    for (std::size_t room = 64, taken = room; taken == room;) {
        const std::size_t old = probabilities.size();
        probabilities.resize(old + room);
        taken = wrapper_audio_recorder_take_speech(recorder.get(), probabilities.data() + old, room);
        probabilities.resize(old + taken);
    }
    return probabilities;
}

wrapper_audio_recorder_info microphone::info() const {
    wrapper_audio_recorder_info info{};
    wrapper_audio_recorder_get_info(recorder.get(), &info);
    return info;
}

wrapper_audio_signal microphone::signal() const {
    int32_t signal = WRAPPER_AUDIO_SIGNAL_UNKNOWN;
    wrapper_audio_recorder_get_signal(recorder.get(), &signal);
    return static_cast<wrapper_audio_signal>(signal);
}

void microphone::stop() {
    if (!stopped) wrapper_audio_recorder_stop(recorder.get());
    stopped = true;
}

std::string microphone::text(wrapper_audio_recorder_text_kind kind) const {
    std::string text(wrapper_audio_recorder_get_text(recorder.get(), kind, nullptr, 0), '\0');
    wrapper_audio_recorder_get_text(recorder.get(), kind, text.data(), text.size() + 1);
    return text;
}

failure microphone::failed(wrapper_audio_status status) const {
    return failure_of(status, text(WRAPPER_AUDIO_TEXT_REASON));
}
