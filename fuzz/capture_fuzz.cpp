// The whole capture side, driven by a script of calls and of what PortAudio, RNNoise and the allocator answer. A small
// model foretells every result, every sample, every call on a stream and every balance.
#include "devices.h"
#include "held.h"
#include "microphone.h"
#include "script.h"

#include "bits.h"
#include "fakes.h"
#include "read_reference.h"
#include "wrapper_audio.h"

#include <portaudio.h>

#include <array>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int most_calls = 80;
constexpr std::int64_t most_samples = 100000;
constexpr float untouched = -123.25F;

void denoise(float* frame) {
    for (int i = 0; i < 480; ++i)
        frame[i] = frame[i] * 0.75F + static_cast<float>(i);
}

class session {
public:
    explicit session(script& bytes) : script_(bytes) {
        fake::world().largest_block = largest_block;
        fake::world().microphone = [this](float* samples, unsigned long count) { mic_.hear(reads_, samples, count); };
        fake::world().denoiser = denoise;
        devices::read(script_);
    }

    void run() {
        for (int calls = 0; calls < most_calls && samples_ < most_samples && !script_.at_end(); ++calls)
            step();
        for (auto& each : captures_)
            free(each);
        for (auto& each : meters_)
            close(each);
        while (!texts_.empty())
            free_text();
        require(fake::world().initialisations == 0, "at the end nothing is initialised");
    }

private:
    void step();
    void answer();
    void create(std::unique_ptr<capture>& slot, bool opens);
    void open(std::unique_ptr<capture>& slot);
    void read(const std::unique_ptr<capture>& slot);
    void read_into(const capture& from, std::int32_t ms, std::int32_t capacity, unsigned nulls);
    void stop(std::unique_ptr<capture>& slot);
    void release(std::unique_ptr<capture>& slot);
    void free(std::unique_ptr<capture>& slot);
    void list();
    void free_text();
    void ask_capabilities();
    void open_meter(std::unique_ptr<level_meter>& slot);
    void read_meter(std::unique_ptr<level_meter>& slot);
    void close(std::unique_ptr<level_meter>& slot);

    const char* choose_id();
    bool foretell_open(int device, std::int32_t rate, std::int32_t frames, int& stream);
    bool foretell_create(const char* id, bool opens, capture& made);
    void check(const char* call);
    void check_balances(const char* call) const;

    script& script_;
    microphone mic_;
    std::uint32_t reads_ = 0;
    std::int64_t samples_ = 0;
    std::string id_;
    std::array<std::unique_ptr<capture>, 4> captures_;
    std::array<std::unique_ptr<level_meter>, 3> meters_;
    std::vector<std::unique_ptr<char, decltype(&wrapper_audio_free_text)>> texts_;
    int lost_streams_ = 0;                  // of stopped contexts that were opened again
    std::vector<std::string> stream_calls_; // that the call under test must make
    bool silent_ = false;                   // whether it must write no line
    unsigned previous_call_ = 0;
};

// ---- What must hold after every call ----

void session::check_balances(const char* call) const {
    const fake::state& world = fake::world();
    std::size_t contexts = 0;
    std::size_t meters = 0;
    std::size_t streams = static_cast<std::size_t>(lost_streams_);
    for (const auto& each : captures_) {
        if (!each) continue;
        ++contexts;
        streams += each->stream != 0;
    }
    for (const auto& each : meters_)
        meters += each != nullptr;
    require(world.initialisations == static_cast<int>(contexts + meters), "one initialisation each", call);
    require(world.open_streams.size() == streams + meters, "as many streams as were opened and not closed", call);
    require(world.live_denoisers == static_cast<int>(contexts), "one denoiser a context", call);
    require(world.live_blocks.size() == 3 * contexts + 2 * meters + texts_.size(), "no block too many or too few",
            call);
}

void session::check(const char* call) {
    fake::state& world = fake::world();
    if (world.initialisations == 0) lost_streams_ = 0;
    std::vector<std::string> stream_calls;
    int locks = 0;
    for (const std::string& entry : world.journal) {
        locks += (entry == "lock") - (entry == "unlock");
        if (entry.find("Stream(") != std::string::npos && !entry.starts_with("log ")) stream_calls.push_back(entry);
    }
    if (stream_calls != stream_calls_) {
        for (const std::string& entry : world.journal)
            dprintf(STDERR_FILENO, "%s\n", entry.c_str());
        for (const std::string& entry : stream_calls_)
            dprintf(STDERR_FILENO, "expected: %s\n", entry.c_str());
    }
    require(stream_calls == stream_calls_, "just these calls on streams", call);
    require(locks == 0, "each lock is unlocked", call);
    require(world.violations.empty(), "nothing forbidden", world.violations.empty() ? call : world.violations.front());
    require(world.log.empty() || (world.log.starts_with("[audio_wrapper] ") && world.log.ends_with('\n')),
            "whole lines with a prefix", world.log);
    require(!silent_ || world.log.empty(), "no line", world.log);
    check_balances(call);
    world.journal.clear();
    world.log.clear();
    stream_calls_.clear();
    silent_ = false;
}

// ---- Contexts ----

const char* session::choose_id() {
    const unsigned kind = script_.below(12);
    if (kind == 0) return nullptr;
    id_.clear();
    if (kind < 10) {
        const auto& all = fake::world().devices;
        if (kind < all.size() + 1) id_ = devices::id(all[kind - 1]);
    } else {
        id_ = script_.text();
    }
    return id_.c_str();
}

bool session::foretell_open(int device, std::int32_t rate, std::int32_t frames, int& stream) {
    stream = 0;
    const double latency = devices::at(device) != nullptr ? devices::at(device)->low_latency : 0.06;
    stream_calls_.push_back(text("Pa_OpenStream(device=", device, ", channels=1, paFloat32, latency=", latency,
                                 ", rate=", static_cast<double>(rate), ", frames=", frames, ", paClipOff)"));
    if (next_result("Pa_OpenStream") != paNoError) return false;
    const int number = fake::world().streams_opened + 1;
    stream_calls_.push_back(text("Pa_StartStream(", number, ")"));
    if (next_result("Pa_StartStream") != paNoError) {
        stream_calls_.push_back(text("Pa_CloseStream(", number, ")"));
        return false;
    }
    stream = number;
    return true;
}

// Whether a context can be made, and which.
bool session::foretell_create(const char* id, bool opens, capture& made) {
    if (next_result("Pa_Initialize") != paNoError || no_memory(0, 0) || fake::world().denoiser_refused) return false;
    made.device = devices::resolve(id);
    if (made.device == paNoDevice) return false;
    made.rate = devices::rate(made.device);
    const auto bytes = static_cast<std::size_t>(made.capacity()) * sizeof(float);
    if (no_memory(1, 2 * bytes) || no_memory(2, bytes)) return false;
    made.running = opens;
    return !opens || foretell_open(made.device, made.rate, frames_in(made.rate, 30), made.stream);
}

void session::create(std::unique_ptr<capture>& slot, bool opens) {
    free(slot);
    constexpr int usual_rates[] = {16000, 48000, 8000, 44100, 24000, 0, -1};
    const int output_rate = script_.usual(usual_rates);
    const int denoises = script_.flag() ? script_.number<std::int32_t>() : 0;
    const char* id = choose_id();
    capture made{};
    made.output_rate = output_rate < 1 ? 16000 : output_rate;
    made.denoise = denoises != 0;
    const bool expected = foretell_create(id, opens, made);
    made.handle = (opens ? wrapper_audio_init : wrapper_audio_arm)(output_rate, denoises, id);
    require((made.handle != nullptr) == expected, "a context unless something failed", opens ? "init" : "arm");
    if (made.handle != nullptr) slot = std::make_unique<capture>(made);
    check(opens ? "init" : "arm");
}

void session::open(std::unique_ptr<capture>& slot) {
    int expected = -1;
    if (slot && slot->running) {
        expected = 0;
    } else if (slot) {
        lost_streams_ += slot->stream != 0;
        slot->running = foretell_open(slot->device, slot->rate, frames_in(slot->rate, 30), slot->stream);
        expected = slot->running ? 0 : -1;
    } else {
        silent_ = true;
    }
    require(wrapper_audio_open(slot ? slot->handle : nullptr) == expected, "open gives 0 when capturing, otherwise -1");
    check("open");
}

void session::stop(std::unique_ptr<capture>& slot) {
    silent_ = !slot || slot->stream == 0;
    if (!silent_) stream_calls_.push_back(text("Pa_StopStream(", slot->stream, ")"));
    wrapper_audio_stop(slot ? slot->handle : nullptr);
    if (slot) slot->running = false;
    check("stop");
}

void session::release(std::unique_ptr<capture>& slot) {
    silent_ = !slot || slot->stream == 0;
    if (!silent_) {
        stream_calls_.push_back(text("Pa_StopStream(", slot->stream, ")"));
        stream_calls_.push_back(text("Pa_CloseStream(", slot->stream, ")"));
    }
    wrapper_audio_release_stream(slot ? slot->handle : nullptr);
    if (slot) {
        slot->stream = 0;
        slot->running = false;
    }
    check("release_stream");
}

void session::free(std::unique_ptr<capture>& slot) {
    silent_ = !slot;
    if (slot && slot->running) stream_calls_.push_back(text("Pa_StopStream(", slot->stream, ")"));
    if (slot && slot->stream != 0) stream_calls_.push_back(text("Pa_CloseStream(", slot->stream, ")"));
    wrapper_audio_free(slot ? slot->handle : nullptr);
    slot.reset();
    check("free");
}

// ---- Reads ----

void session::read(const std::unique_ptr<capture>& slot) {
    constexpr std::int32_t usual_ms[] = {10, 20, 30, 100, 25, 1, 0, -1, 44739, 44740};
    constexpr std::int32_t usual_capacities[] = {1600, 480, 1,  160,
                                                 4800, 0,   -1, std::numeric_limits<std::int32_t>::max()};
    const std::int32_t ms = script_.usual(usual_ms);
    const std::int32_t capacity = script_.usual(usual_capacities);
    const unsigned nulls = script_.below(8);
    if (slot) {
        read_into(*slot, ms, capacity, nulls);
    } else {
        std::int16_t sample = 77;
        silent_ = true;
        require(wrapper_audio_read(nullptr, ms, &sample, capacity, nullptr, nullptr) == -1,
                "a read from nothing is -1");
        require(sample == 77, "a read from nothing writes nothing");
    }
    check("read");
}

void session::read_into(const capture& from, std::int32_t ms, std::int32_t capacity, unsigned nulls) {
    capacity = std::min<std::int32_t>(capacity, most_samples);
    const std::int64_t product = std::int64_t{from.rate} * ms;
    const bool allowed = (nulls & 1) == 0 && capacity > 0 && from.running && ms >= 0 && product <= 2147483647;
    silent_ = !allowed;
    reference::block expected;
    bool delivered = false;
    if (allowed) {
        const std::int64_t frames = std::min<std::int64_t>(product / 1000, from.capacity());
        stream_calls_.push_back(text("Pa_ReadStream(", from.stream, ", ", frames, ")"));
        const PaError result = next_result("Pa_ReadStream");
        delivered = result == paNoError || result == paInputOverflowed;
        silent_ = delivered;
        std::vector<float> samples = mic_.heard(reads_, frames);
        if (from.denoise && from.rate == 48000) samples = reference::denoised(std::move(samples), denoise);
        if (delivered && frames > 0)
            expected = reference::measured(reference::at_rate(samples, from.rate, from.output_rate, capacity));
        samples_ += frames + static_cast<std::int64_t>(expected.pcm.size()) + 100;
    }
    const auto count = static_cast<std::int32_t>(expected.pcm.size());
    // Exactly as long as what is to be written: one sample too many and the sanitizer says so.
    const std::unique_ptr<std::int16_t[]> pcm(new std::int16_t[expected.pcm.size()]);
    const auto rms = std::make_unique<float>(untouched);
    const auto peak = std::make_unique<float>(untouched);
    const std::int32_t got =
        wrapper_audio_read(from.handle, ms, (nulls & 1) == 0 ? pcm.get() : nullptr, capacity,
                           (nulls & 2) == 0 ? rms.get() : nullptr, (nulls & 4) == 0 ? peak.get() : nullptr);
    reads_ += allowed;
    require(got == (delivered ? count : -1), "the count of a read", text(got, " for ", delivered ? count : -1));
    require(std::equal(expected.pcm.begin(), expected.pcm.end(), pcm.get()), "the samples of a read");
    require(same_bits(*rms, delivered && (nulls & 2) == 0 ? expected.rms : untouched), "the RMS of a read");
    require(same_bits(*peak, delivered && (nulls & 4) == 0 ? expected.peak : untouched), "the peak of a read");
}

// ---- Lists and capabilities ----

void session::list() {
    const bool starts = next_result("Pa_Initialize") == paNoError;
    const bool expected = !no_memory(0, 65536);
    texts_.emplace_back(wrapper_audio_list_devices_json(), wrapper_audio_free_text);
    require((texts_.back() != nullptr) == expected, "a list unless there is no memory");
    if (expected && starts) devices::require_list(texts_.back().get());
    if (expected && !starts)
        require(std::strcmp(texts_.back().get(), "[]") == 0, "without PortAudio the list is empty");
    if (!expected) texts_.pop_back();
    check("list_devices_json");
}

void session::free_text() {
    silent_ = true;
    if (texts_.empty()) {
        wrapper_audio_free_text(nullptr);
    } else {
        texts_.pop_back();
    }
    check("free_text");
}

void session::ask_capabilities() {
    int expected = next_result("Pa_Initialize") == paNoError ? 1 : 0;
    for (int index = 0; expected == 1 && index < devices::count(); ++index) {
        if (devices::at(index) != nullptr && devices::at(index)->inputs > 0) expected = 3;
    }
    silent_ = true;
    const int got = wrapper_audio_capabilities();
    require(got == expected, "capabilities", text(got, " for ", expected));
    check("capabilities");
}

// ---- Meters ----

void session::open_meter(std::unique_ptr<level_meter>& slot) {
    close(slot);
    const char* id = choose_id();
    level_meter made{};
    const int device = devices::resolve(id);
    const std::int32_t rate = devices::rate(device);
    made.frames = std::max(64, frames_in(rate, 30));
    const bool expected = next_result("Pa_Initialize") == paNoError && !no_memory(0, 0) && device != paNoDevice &&
                          !no_memory(1, static_cast<std::size_t>(made.frames) * 2 * sizeof(float)) &&
                          foretell_open(device, rate, made.frames, made.stream);
    made.handle = wrapper_audio_meter_open(id);
    require((made.handle != nullptr) == expected, "a meter unless something failed");
    if (made.handle != nullptr) slot = std::make_unique<level_meter>(made);
    check("meter_open");
}

void session::read_meter(std::unique_ptr<level_meter>& slot) {
    const unsigned nulls = script_.below(4);
    auto rms = std::make_unique<float>(untouched);
    auto peak = std::make_unique<float>(untouched);
    float expected_rms = untouched;
    float expected_peak = untouched;
    int expected = -1;
    silent_ = true;
    if (slot) {
        stream_calls_.push_back(text("Pa_ReadStream(", slot->stream, ", ", slot->frames, ")"));
        const PaError result = next_result("Pa_ReadStream");
        const bool fails = result != paNoError && result != paInputOverflowed;
        silent_ = !fails || slot->failing;
        slot->failing = fails;
        slot->has_failed |= fails;
        if (!fails) {
            expected = slot->frames;
            const std::vector<float> samples = mic_.heard(reads_, slot->frames);
            if ((nulls & 1) == 0) expected_peak = reference::peak(samples);
            if ((nulls & 2) == 0) expected_rms = reference::rms(samples);
        }
        samples_ += slot->frames + 100;
    }
    const int got = wrapper_audio_meter_read(slot ? slot->handle : nullptr, (nulls & 1) == 0 ? peak.get() : nullptr,
                                             (nulls & 2) == 0 ? rms.get() : nullptr);
    reads_ += slot != nullptr;
    require(got == expected, "the count of a meter", text(got, " for ", expected));
    require(same_bits(*peak, expected_peak), "the peak of a meter");
    require(same_bits(*rms, expected_rms), "the RMS of a meter");
    require(silent_ == fake::world().log.empty(), "one line for failures in a row");
    check("meter_read");
}

void session::close(std::unique_ptr<level_meter>& slot) {
    silent_ = !slot;
    if (slot) {
        stream_calls_.push_back(text("Pa_StopStream(", slot->stream, ")"));
        stream_calls_.push_back(text("Pa_CloseStream(", slot->stream, ")"));
    }
    wrapper_audio_meter_close(slot ? slot->handle : nullptr);
    slot.reset();
    check("meter_close");
}

// ---- The script ----

// What PortAudio, RNNoise, the allocator and the devices do from now on.
void session::answer() {
    constexpr const char* functions[] = {"Pa_ReadStream", "Pa_OpenStream",  "Pa_StartStream", "Pa_Initialize",
                                         "Pa_StopStream", "Pa_CloseStream", "Pa_Terminate"};
    constexpr PaError usual_results[] = {
        paInputOverflowed, paUnanticipatedHostError, paDeviceUnavailable, paNoError, paTimedOut, 1};
    fake::state& world = fake::world();
    const unsigned choice = script_.below(12);
    if (choice < std::size(functions)) {
        auto& results = world.results[functions[choice]];
        const unsigned result = script_.below(std::size(usual_results) + 1);
        results.push_back(result < std::size(usual_results) ? usual_results[result] : script_.number<std::int16_t>());
        return;
    }
    switch (choice) {
    case 7:
        world.failing_allocations.insert(world.allocations + 1 + static_cast<int>(script_.below(4)));
        break;
    case 8:
        world.denoiser_refused = !world.denoiser_refused;
        break;
    case 9:
        world.doubled_reads = !world.doubled_reads;
        break;
    case 10:
        if (world.initialisations == 0) devices::read(script_);
        break;
    default:
        mic_.choose(script_);
    }
}

// Beside the coverage the fuzzer collects which call came in which state, behind which other call.
constexpr unsigned different_calls = 16;
[[gnu::section("__libfuzzer_extra_counters")]] std::uint8_t g_ways[different_calls][different_calls][4][4];

void session::step() {
    const unsigned call = script_.below(different_calls);
    const unsigned which = script_.number<std::uint8_t>();
    auto& slot = captures_[which % captures_.size()];
    auto& meter = meters_[which % meters_.size()];
    const int slot_state = !slot ? 0 : slot->running ? 1 : slot->stream != 0 ? 2 : 3;
    const int meter_state = !meter ? 0 : meter->failing ? 1 : 2 + meter->has_failed;
    g_ways[previous_call_][call][slot_state][meter_state] = 1;
    previous_call_ = call;
    switch (call) {
    case 0:
    case 1:
        return create(slot, call == 0);
    case 2:
        return open(slot);
    case 3:
    case 4:
        return read(slot);
    case 5:
        return stop(slot);
    case 6:
        return release(slot);
    case 7:
        return free(slot);
    case 8:
        return list();
    case 9:
        return free_text();
    case 10:
        return ask_capabilities();
    case 11:
        return open_meter(meter);
    case 12:
        return read_meter(meter);
    case 13:
        return close(meter);
    case 14:
        require(wrapper_audio_input_volume_get(slot.get(), which) == -1.0F, "the volume is -1");
        require(wrapper_audio_input_volume_set(which) == -1, "the volume cannot be set");
        return;
    default:
        return answer();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fake::reset();
    script script(bytes, size);
    session(script).run();
    return 0;
}
