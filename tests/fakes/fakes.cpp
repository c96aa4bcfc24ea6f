#include "fakes.h"

#include <pthread.h>
#include <rnnoise.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <sstream>

struct DenoiseState {
    int number;
};

namespace fake {

namespace {

std::unique_ptr<state> g_world;

// How many calls this thread has made under the library's lock; -1 while it does not hold it.
thread_local int t_calls_under_lock = -1;

thread_local int t_inside = 0;

template <typename... Pieces>
std::string text(const Pieces&... pieces) {
    std::ostringstream out;
    (out << ... << pieces);
    return out.str();
}

void violation(const std::string& what) {
    world().violations.push_back(what);
}

// What a call answers although nothing has gone wrong, when the script wants it to fail.
using scripted_fault = std::optional<int>;

scripted_fault write_down(const std::string& entry) {
    const auto fault = world().faults.extract(world().journal.size());
    world().journal.push_back(entry);
    return fault ? scripted_fault(fault.mapped()) : std::nullopt;
}

// Every call but initialise, terminate and the unlock itself comes through here.
scripted_fault note(const std::string& entry) {
    const std::lock_guard hold{world().guard};
    if (t_calls_under_lock >= 0) violation("under the lock: " + entry);
    return write_down(entry);
}

scripted_fault note_locked_call(const std::string& entry) {
    const std::lock_guard hold{world().guard};
    if (t_calls_under_lock < 0 && world().layered) return write_down(entry);
    if (t_calls_under_lock < 0) {
        violation(entry + " without the lock");
    } else if (++t_calls_under_lock > 1) {
        violation(entry + " is the second call under one lock");
    }
    return write_down(entry);
}

PaError result_of(const std::string& function, scripted_fault fault) {
    if (fault) return *fault;
    const std::lock_guard hold{world().guard};
    auto& script = world().results[function];
    if (script.empty()) return paNoError;
    const PaError result = script.front();
    script.pop_front();
    return result;
}

// A call into PortAudio that opens or closes: no two of them at once.
class alone {
public:
    explicit alone(const char* function) {
        std::unique_lock hold{world().guard};
        if (world().layered && world().opening_or_closing++ > 0)
            violation(text(function, " while another thread opens or closes"));
        const auto entering = world().entering;
        hold.unlock();
        if (entering) entering(function);
    }
    ~alone() {
        const std::lock_guard hold{world().guard};
        if (world().layered) --world().opening_or_closing;
    }
    alone(const alone&) = delete;
    alone& operator=(const alone&) = delete;

private:
    const inside_a_double inside_;
};

void require_initialised(const char* function) {
    const std::lock_guard hold{world().guard};
    if (world().initialisations < 1) violation(text(function, " without an initialisation"));
}

stream* require_open(const char* function, PaStream* handle) {
    const std::lock_guard hold{world().guard};
    if (world().open_streams.contains(handle)) return static_cast<stream*>(handle);
    violation(text(function, " on a stream that is not open"));
    std::fflush(nullptr);
    std::abort(); // the handle cannot be looked into
}

ssize_t write_log(void* /*cookie*/, const char* bytes, size_t size) {
    const inside_a_double here;
    state& w = world();
    const std::lock_guard hold{w.guard};
    w.log.append(bytes, size);
    w.pending_log.append(bytes, size);
    for (size_t end; (end = w.pending_log.find('\n')) != std::string::npos;) {
        note("log " + w.pending_log.substr(0, end));
        w.pending_log.erase(0, end + 1);
    }
    return static_cast<ssize_t>(size);
}

void build_tables(state& w) {
    w.device_infos.clear();
    w.host_api_infos.clear();
    for (const device& d : w.devices) {
        PaDeviceInfo info{};
        info.structVersion = 2;
        info.name = d.name ? d.name->c_str() : nullptr;
        info.hostApi = d.host_api;
        info.maxInputChannels = d.inputs;
        info.maxOutputChannels = d.outputs;
        info.defaultLowInputLatency = d.low_latency;
        info.defaultSampleRate = d.rate;
        w.device_infos.push_back(info);
    }
    for (const host_api& h : w.host_apis) {
        PaHostApiInfo info{};
        info.structVersion = 1;
        info.type = h.type;
        info.name = h.name ? h.name->c_str() : nullptr;
        w.host_api_infos.push_back(info);
    }
}

void* allocate(const std::string& entry, void* (*take)(size_t, size_t), size_t count, size_t size) {
    const std::lock_guard hold{world().guard};
    const bool fails = note(entry).has_value();
    if (world().failing_allocations.contains(++world().allocations) || fails) return nullptr;
    if (size != 0 && count > world().largest_block / size) return nullptr;
    void* block = take(count, size);
    if (block != nullptr) world().live_blocks[block] = entry.substr(std::min(entry.find('('), entry.size()));
    return block;
}

} // namespace

state& world() {
    return *g_world;
}

void reset() {
    if (t_calls_under_lock >= 0) pthread_mutex_unlock(world().library_lock); // the test before has told of it
    g_world = std::make_unique<state>();
    t_calls_under_lock = -1;
    static FILE* const log = [] {
        cookie_io_functions_t functions{};
        functions.write = write_log;
        FILE* file = fopencookie(nullptr, "w", functions);
        std::setvbuf(file, nullptr, _IONBF, 0);
        return file;
    }();
    stderr = log;
}

bool lock_is_held() {
    return t_calls_under_lock >= 0;
}

inside_a_double::inside_a_double() {
    ++t_inside;
}

inside_a_double::~inside_a_double() {
    --t_inside;
}

bool inside_a_double::is_here() {
    return t_inside > 0;
}

std::string error_text(PaError error) {
    return text("error ", error);
}

} // namespace fake

using fake::note;
using fake::world;

extern "C" {

// ---- PortAudio ----

PaError Pa_Initialize() {
    const fake::alone here{"Pa_Initialize"};
    const PaError result = fake::result_of("Pa_Initialize", fake::note_locked_call("Pa_Initialize"));
    const std::lock_guard hold{world().guard};
    if (result == paNoError && world().initialisations++ == 0) fake::build_tables(world());
    return result;
}

// The last one closes what is still open, as PortAudio does.
PaError Pa_Terminate() {
    const fake::alone here{"Pa_Terminate"};
    const auto fault = fake::note_locked_call("Pa_Terminate");
    const std::lock_guard hold{world().guard};
    if (world().initialisations < 1) fake::violation("Pa_Terminate without an initialisation");
    if (--world().initialisations == 0) {
        for (PaStream* handle : world().open_streams) {
            delete static_cast<fake::stream*>(handle);
            ++world().lost_streams;
        }
        world().open_streams.clear();
    }
    return fake::result_of("Pa_Terminate", fault);
}

const char* Pa_GetErrorText(PaError error) {
    const fake::inside_a_double here;
    static std::set<std::string> texts;
    const std::lock_guard hold{world().guard};
    note(fake::text("Pa_GetErrorText(", error, ")"));
    return texts.insert(fake::error_text(error)).first->c_str();
}

PaDeviceIndex Pa_GetDeviceCount() {
    const fake::inside_a_double here;
    {
        const std::lock_guard hold{world().guard};
        if (world().layered && world().initialisations == 0) return paNotInitialized; // the layer asks whether it is so
    }
    const auto fault = note("Pa_GetDeviceCount");
    fake::require_initialised("Pa_GetDeviceCount");
    if (fault) return *fault;
    return world().device_count.value_or(static_cast<int>(world().devices.size()));
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    const fake::inside_a_double here;
    const auto fault = note("Pa_GetDefaultInputDevice");
    fake::require_initialised("Pa_GetDefaultInputDevice");
    return fault.value_or(world().default_input);
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex index) {
    const fake::inside_a_double here;
    const auto fault = note(fake::text("Pa_GetDeviceInfo(", index, ")"));
    fake::require_initialised("Pa_GetDeviceInfo");
    if (fault) return nullptr;
    const auto i = static_cast<size_t>(index);
    return index >= 0 && i < world().devices.size() && world().devices[i].has_info ? &world().device_infos[i] : nullptr;
}

const PaHostApiInfo* Pa_GetHostApiInfo(PaHostApiIndex index) {
    const fake::inside_a_double here;
    const auto fault = note(fake::text("Pa_GetHostApiInfo(", index, ")"));
    fake::require_initialised("Pa_GetHostApiInfo");
    if (fault) return nullptr;
    const auto i = static_cast<size_t>(index);
    return index >= 0 && i < world().host_api_infos.size() ? &world().host_api_infos[i] : nullptr;
}

PaError Pa_IsFormatSupported(const PaStreamParameters* input, const PaStreamParameters* output, double rate) {
    const fake::inside_a_double here;
    const auto fault =
        note(fake::text("Pa_IsFormatSupported(device=", input->device, ", channels=", input->channelCount,
                        input->sampleFormat == paFloat32 ? ", paFloat32" : ", another format",
                        ", latency=", input->suggestedLatency, ", rate=", rate, ")"));
    fake::require_initialised("Pa_IsFormatSupported");
    if (output != nullptr) fake::violation("Pa_IsFormatSupported with an output");
    if (input->hostApiSpecificStreamInfo != nullptr) fake::violation("Pa_IsFormatSupported with host API specifics");
    if (fault) return *fault;
    const auto& device = world().devices.at(static_cast<size_t>(input->device));
    const bool runs = device.inputs > 0 && (rate == device.rate || device.rates.contains(rate));
    return runs ? paFormatIsSupported : paInvalidSampleRate;
}

PaError Pa_OpenStream(PaStream** slot, const PaStreamParameters* input, const PaStreamParameters* output, double rate,
                      unsigned long frames, PaStreamFlags flags, PaStreamCallback* callback, void* user_data) {
    const fake::alone here{"Pa_OpenStream"};
    const auto fault = note(fake::text("Pa_OpenStream(device=", input->device, ", channels=", input->channelCount,
                                       input->sampleFormat == paFloat32 ? ", paFloat32" : ", another format",
                                       ", latency=", input->suggestedLatency, ", rate=", rate, ", frames=", frames,
                                       flags == paClipOff ? ", paClipOff)" : ", other flags)"));
    fake::require_initialised("Pa_OpenStream");
    const std::lock_guard hold{world().guard};
    if (*slot != nullptr) fake::violation("Pa_OpenStream into a slot that is not null");
    if (output != nullptr) fake::violation("Pa_OpenStream with an output");
    if (input->hostApiSpecificStreamInfo != nullptr) fake::violation("Pa_OpenStream with host API specifics");
    if (callback != nullptr || user_data != nullptr) fake::violation("Pa_OpenStream with a callback or user data");
    const PaError result = fake::result_of("Pa_OpenStream", fault);
    if (result != paNoError) return result;
    *slot = new fake::stream{++world().streams_opened, false, input->device, rate};
    world().open_streams.insert(*slot);
    return paNoError;
}

PaError Pa_StartStream(PaStream* handle) {
    const fake::alone here{"Pa_StartStream"};
    const std::lock_guard hold{world().guard};
    fake::stream* stream = fake::require_open("Pa_StartStream", handle);
    const auto fault = note(fake::text("Pa_StartStream(", stream->number, ")"));
    const PaError result = fake::result_of("Pa_StartStream", fault);
    stream->running = result == paNoError;
    return result;
}

PaError Pa_StopStream(PaStream* handle) {
    const fake::alone here{"Pa_StopStream"};
    const std::lock_guard hold{world().guard};
    fake::stream* stream = fake::require_open("Pa_StopStream", handle);
    const auto fault = note(fake::text("Pa_StopStream(", stream->number, ")"));
    stream->running = false;
    return fake::result_of("Pa_StopStream", fault);
}

PaError Pa_CloseStream(PaStream* handle) {
    const fake::alone here{"Pa_CloseStream"};
    const std::lock_guard hold{world().guard};
    fake::stream* stream = fake::require_open("Pa_CloseStream", handle);
    const auto fault = note(fake::text("Pa_CloseStream(", stream->number, ")"));
    world().open_streams.erase(handle);
    delete stream;
    return fake::result_of("Pa_CloseStream", fault);
}

PaError Pa_ReadStream(PaStream* handle, void* buffer, unsigned long frames) {
    const fake::inside_a_double here;
    std::unique_lock hold{world().guard};
    fake::stream* stream = fake::require_open("Pa_ReadStream", handle);
    const auto fault = note(fake::text("Pa_ReadStream(", stream->number, ", ", frames, ")"));
    if (!stream->running) fake::violation("Pa_ReadStream on a stopped stream");
    const PaError result = fake::result_of("Pa_ReadStream", fault);
    const auto microphone = world().microphone;
    const auto device_read = world().device_read;
    const fake::stream heard = *stream;
    stream->delivered += frames;
    if (world().doubled_reads) frames *= 2;
    hold.unlock();
    auto* samples = static_cast<float*>(buffer);
    if (device_read && result == paNoError) return device_read(heard, samples, frames);
    if (microphone) {
        microphone(samples, frames);
    } else {
        std::fill_n(samples, frames, 0.0F);
    }
    return result;
}

// ---- RNNoise ----

DenoiseState* rnnoise_create(RNNModel* model) {
    const fake::inside_a_double here;
    const auto fault = note(model == nullptr ? "rnnoise_create" : "rnnoise_create with a model");
    const std::lock_guard hold{world().guard};
    if (world().denoiser_refused || fault) return nullptr;
    return new DenoiseState{++world().live_denoisers};
}

void rnnoise_destroy(DenoiseState* denoiser) {
    const fake::inside_a_double here;
    note("rnnoise_destroy");
    const std::lock_guard hold{world().guard};
    --world().live_denoisers;
    delete denoiser;
}

float rnnoise_process_frame(DenoiseState* denoiser, float* out, const float* in) {
    const fake::inside_a_double here;
    const auto fault = note("rnnoise_process_frame");
    const std::lock_guard hold{world().guard};
    if (denoiser == nullptr) fake::violation("rnnoise_process_frame without a denoiser");
    if (out != in) fake::violation("rnnoise_process_frame with two buffers");
    if (fault) std::fill_n(out, 480, std::numeric_limits<float>::quiet_NaN());
    const float speech = world().speech ? world().speech(out) : 1.0F;
    if (world().denoiser) world().denoiser(out);
    return fault ? static_cast<float>(*fault) : speech;
}

// ---- Allocator and mutex, under the names that the library's objects are given for the tests ----

void* fake_calloc(size_t count, size_t size) {
    const fake::inside_a_double here;
    return fake::allocate(count == 1 ? "calloc" : fake::text("calloc(", count, ", ", size, ")"), std::calloc, count,
                          size);
}

void* fake_malloc(size_t size) {
    const fake::inside_a_double here;
    return fake::allocate(
        fake::text("malloc(", size, ")"), [](size_t, size_t bytes) { return std::malloc(bytes); }, 1, size);
}

void fake_free(void* block) {
    const fake::inside_a_double here;
    if (block != nullptr) {
        const std::lock_guard hold{world().guard};
        const auto known = world().live_blocks.extract(block);
        note("free" + (known ? known.mapped() : ""));
        if (!known) fake::violation("free of a block that is not the library's");
    }
    std::free(block);
}

int fake_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const fake::inside_a_double here;
    note("lock");
    if (fake::t_calls_under_lock >= 0) return EDEADLK; // noted, and waiting would end the test program instead
    const int result = pthread_mutex_lock(mutex);
    fake::t_calls_under_lock = 0;
    const std::lock_guard hold{world().guard};
    if (world().library_lock != nullptr && world().library_lock != mutex) fake::violation("a second lock");
    world().library_lock = mutex;
    return result;
}

int fake_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const fake::inside_a_double here;
    {
        const std::lock_guard hold{world().guard};
        fake::write_down("unlock");
        if (fake::t_calls_under_lock != 1) fake::violation("unlock after no call or without a lock");
    }
    fake::t_calls_under_lock = -1;
    return pthread_mutex_unlock(mutex);
}

} // extern "C"
