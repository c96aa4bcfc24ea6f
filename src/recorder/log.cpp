#include "log.h"

#include "text.h"
#include "wrapper_audio_recorder.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

namespace recorder::log {

namespace {

constexpr std::size_t most_lines = 1000;
constexpr std::size_t longest_line = 1000;

struct kept_lines {
    std::mutex mutex;
    std::deque<std::string> lines;
};

// Never destroyed: a thread abandoned in a device may still write when the process ends.
kept_lines& kept() {
    static auto* const lines = new kept_lines; // GCOVR_EXCL_BR_LINE: whichever thread comes first
    return *lines;
}

std::atomic<bool> g_echo{false};
std::atomic<FILE*> g_hosts_stderr{nullptr};
thread_local scope* t_scope = nullptr;

void pass_on(const char* bytes, std::size_t size) {
    FILE* const to = g_hosts_stderr;
    static_cast<void>(std::fwrite(bytes, 1, size, to)); // a failure cannot be reported anywhere
}

constexpr std::string_view no_input_device = "there is no input device";

struct translation {
    std::string_view begins;
    std::string_view english;
    std::string_view ends = {}; // left out
    bool is_failure = begins.find("ОШИБКА") != std::string_view::npos ||
                      begins.find("WARN") != std::string_view::npos || english == no_input_device;
};

// What follows the beginning of a line is the same in both languages: PortAudio's message and numbers.
constexpr translation translations[] = {
    {"[audio_wrapper] WARN device_id ", "the default input device is used, because no device has the id ",
     " не найден, fallback на default input"},
    {"[audio_wrapper] Pa_Initialize ОШИБКА: ", "PortAudio does not start: "},
    {"[audio_wrapper] rnnoise_create ОШИБКА", "there is no memory for the noise suppression"},
    {"[audio_wrapper] нет устройства ввода", no_input_device, " (resolve → paNoDevice)"},
    {"[audio_wrapper] calloc буферов ОШИБКА", "there is no memory for the buffers", " (OOM)"},
    {"[audio_wrapper] ctx_create ", "a device was chosen: "},
    {"[audio_wrapper] open_input_stream ОШИБКА: ", "the device did not open: "},
    {"[audio_wrapper] init: поток открыт", "the device was opened"},
    {"[audio_wrapper] arm: микрофон свободен до open", "the device stays free until it is opened"},
    {"[audio_wrapper] open: микрофон захвачен", "the device was opened"},
    {"[audio_wrapper] release_stream: микрофон отпущен, ctx остаётся armed",
     "the device was released and can be opened again"},
    {"[audio_wrapper] Запись остановлена", "the device was stopped"},
    {"[audio_wrapper] Ресурсы освобождены", "everything was released"},
    {"[audio_wrapper] Pa_ReadStream ОШИБКА: ", "reading from the device failed: "},
    {"[audio_wrapper] list_devices: ", "devices listed: ", " устройств"},
    {"[audio_wrapper] meter_open: Pa_Initialize ОШИБКА: ", "PortAudio does not start: "},
    {"[audio_wrapper] meter_open: нет устройства ввода", no_input_device},
    {"[audio_wrapper] meter_open: open_input_stream ОШИБКА: ", "the device did not open: "},
    {"[audio_wrapper] meter_open device=", "a meter was opened: device="},
    {"[audio_wrapper] meter_read Pa_ReadStream ОШИБКА: ", "reading from the device failed (reported only once): ",
     " (далее подавляется)"},
    {"[audio_wrapper] meter_close", "the meter was closed"},
    {"[dsp] soxr недоступен, используется linear interpolation", "rates are converted by linear interpolation"},
    {"[dsp] HPF инициализирован: ", "the high-pass filter was set up: "},
    {"[dsp] AGC инициализирован: ", "the gain control was set up: "},
};

const translation* find_translation(std::string_view line) {
    const auto* const found = std::find_if(std::begin(translations), std::end(translations),
                                           [&](const translation& each) { return line.starts_with(each.begins); });
    return found == std::end(translations) ? nullptr : found;
}

// Of these lines, only the warning contains a name from outside.
bool is_failure(std::string_view line) {
    const translation* const known = find_translation(line);
    return known != nullptr && known->is_failure;
}

} // namespace

struct collector {
    static void add(scope& to, std::string_view text) {
        for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
            append(to, text.substr(0, end));
            keep(to);
        }
        append(to, text);
    }

private:
    static void append(scope& to, std::string_view text) {
        to.line_.append(text.substr(0, longest_line - std::min(to.line_.size(), longest_line)));
    }

    static void keep(scope& to) {
        if (is_failure(to.line_)) to.failure_ = to.line_;
        if (g_echo) { // perhaps to a terminal, and with names from outside
            const std::string shown = valid_utf8(to.line_) + '\n';
            pass_on(shown.data(), shown.size());
        }
        to.line_ += '\n';
        const std::lock_guard hold{kept().mutex};
        if (kept().lines.size() == most_lines) kept().lines.pop_front();
        kept().lines.push_back(std::move(to.line_));
        to.line_.clear();
    }
};

namespace {

ssize_t write_to_stderr(void* /*cookie*/, const char* bytes, std::size_t size) {
    const std::string_view text{bytes, size};
    // A failed assertion inside a library ends the process: its message must not be lost.
    if (t_scope == nullptr || text.find("Assertion") != std::string_view::npos) {
        pass_on(bytes, size);
        return static_cast<ssize_t>(size);
    }
    try {
        collector::add(*t_scope, text);
    } catch (...) { // no memory: the line is lost, the host continues
    }
    return static_cast<ssize_t>(size);
}

// The core and the back ends look up the variable `stderr` at each write. Descriptor 2 is shared with everything else
// in the process and its children, and stays as it is.
void take_over_stderr() {
    static std::mutex mutex;
    static FILE* ours = nullptr;
    const std::lock_guard hold{mutex};
    if (stderr == nullptr || stderr == ours) return;
    if (ours == nullptr) {
        cookie_io_functions_t functions{};
        functions.write = write_to_stderr;
        ours = fopencookie(nullptr, "w", functions);
        if (ours == nullptr) return;
        static_cast<void>(std::setvbuf(ours, nullptr, _IONBF, 0)); // which cannot fail: no buffer is needed
    }
    g_hosts_stderr = stderr;
    ours->_fileno = fileno(stderr); // which the host passes to isatty()
    stderr = ours;
}

} // namespace

scope::scope() : outer_(t_scope) {
    take_over_stderr();
    t_scope = this;
}

scope::~scope() {
    t_scope = outer_;
    try {
        if (!line_.empty()) collector::add(*this, "\n"); // its writer will not continue it
    } catch (...) {                                      // no memory: the line is lost
    }
}

std::string scope::take_failure() {
    return std::exchange(failure_, {});
}

std::string in_english(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    const translation* const known = find_translation(line);
    if (known == nullptr) return {};
    line.remove_prefix(known->begins.size());
    if (line.ends_with(known->ends)) line.remove_suffix(known->ends.size());
    return std::string(known->english).append(line);
}

} // namespace recorder::log

using namespace recorder;

std::size_t wrapper_audio_log_take(char* text, std::size_t capacity) noexcept {
    if (text == nullptr || capacity == 0) return 0;
    const std::lock_guard hold{log::kept().mutex};
    std::size_t length = 0;
    for (auto& lines = log::kept().lines; !lines.empty() && length + lines.front().size() < capacity;
         lines.pop_front()) {
        std::memcpy(text + length, lines.front().data(), lines.front().size());
        length += lines.front().size();
    }
    text[length] = '\0';
    return length;
}

std::size_t wrapper_audio_log_in_english(const char* line, char* text, std::size_t capacity) noexcept {
    try {
        return copy_out(line == nullptr ? std::string() : log::in_english(line), text, capacity);
    } catch (...) { // no memory
        return 0;
    }
}

void wrapper_audio_log_echo(int32_t on) noexcept {
    log::g_echo = on != 0;
}
