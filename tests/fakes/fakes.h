// Scripted doubles of PortAudio, RNNoise, the allocator and the mutex, with a journal of every call.
//
// The library's objects are linked against these instead of the real thing. A test scripts the devices and failures in
// `fake::world()`, calls the library, and reads the journal. What must hold in every test (balance, lock discipline,
// no use of closed streams) is collected in `violations` and checked by the fixture in fixture.h.
#pragma once

#include <portaudio.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake {

struct device {
    std::optional<std::string> name = "Mic";
    double rate = 48000.0;
    int inputs = 1;
    int outputs = 0;
    int host_api = 0;
    double low_latency = 0.01;
    bool has_info = true;
    std::set<double> rates{}; // that it runs at besides its default one
};

struct host_api {
    std::optional<std::string> name = "Host";
    PaHostApiTypeId type = paALSA;
};

struct stream {
    int number = 0;
    bool running = false;
    PaDeviceIndex device = paNoDevice;
    double rate = 0.0;
    unsigned long delivered = 0; // samples, before the read that is going on
};

// What it does may take as long as it likes: the doubles hold nothing meanwhile. It stands between what the layer and
// the core do, so that no allocation in it counts as theirs.
class inside_a_double {
public:
    inside_a_double();
    ~inside_a_double();
    inside_a_double(const inside_a_double&) = delete;
    inside_a_double& operator=(const inside_a_double&) = delete;

    static bool is_here(); // on this thread
};

struct state {
    // The script.
    std::vector<device> devices{device{}};
    std::vector<host_api> host_apis{host_api{}};
    PaDeviceIndex default_input = 0;
    std::optional<int> device_count;                    // what Pa_GetDeviceCount says, instead of the truth
    std::map<std::string, std::deque<PaError>> results; // what the next calls return, by function; then paNoError
    std::set<int> failing_allocations;                  // by their number since the last reset, from 1
    // What the call answers that becomes this entry of the journal: the number, or a null pointer where it gives a
    // pointer. It takes nothing then, but what it has to give back it gives back all the same. A denoiser spoils its
    // frame with NaN.
    std::map<size_t, int> faults;
    size_t largest_block = SIZE_MAX; // larger ones cannot be allocated
    bool denoiser_refused = false;
    bool doubled_reads = false; // reads write twice the samples asked for, as PortAudio 19.6 does on JACK
    std::function<void(float* samples, unsigned long count)> microphone; // null: silence
    std::function<void(float* frame)> denoiser;                          // null: frames stay as they are
    std::function<float(const float* frame)> speech;                     // null: its probability is always 1

    // For the recorder layer, which calls into PortAudio from threads and under a lock of its own. Its calls need not be
    // under the core's, but no two of those that open or close may run at once.
    bool layered = false;
    std::function<void(const std::string& function)> entering; // a call into PortAudio, which may hang in it
    std::function<PaError(const stream& from, float* samples, unsigned long count)>
        device_read; // wins over `microphone`

    // What happened.
    std::vector<std::string> journal;
    std::vector<std::string> violations;
    std::string log;
    int allocations = 0;
    int initialisations = 0;
    std::set<PaStream*> open_streams;
    int lost_streams = 0;                           // that were open until the last Pa_Terminate
    std::map<const void*, std::string> live_blocks; // with their sizes, as in the journal
    int live_denoisers = 0;

    // What the library holds pointers into.
    std::vector<PaDeviceInfo> device_infos;
    std::vector<PaHostApiInfo> host_api_infos;
    int streams_opened = 0;
    int opening_or_closing = 0; // threads
    std::string pending_log;
    pthread_mutex_t* library_lock = nullptr;
    std::recursive_mutex guard;
};

state& world();

// Forgets everything and puts one input device at 48000 Hz there. Takes over standard error.
void reset();

// Whether this thread has left the library with its lock.
bool lock_is_held();

// The text that Pa_GetErrorText gives for an error.
std::string error_text(PaError error);

} // namespace fake
