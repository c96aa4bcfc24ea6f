// Lives long with the recorder layer: reads, recordings from nothing, lists and voice chains, many times, and looks
// whether the process grows.
//
//     soak_recorder READS CYCLES [TRIES]
//
// Under valgrind, where one thread runs at a time, the library's patience can be too short on a busy machine: a device
// is then opened so often, and may be stuck when it stops.
//
// The microphones are those that scripts/soak configures. Exits with 1 when something grew, and with 2 when a call did
// not do what it should.
#include "figures.h"
#include "wrapper_audio_recorder.h"

#include <array>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

long tries = 1;

void require(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what);
}

void require_ok(wrapper_audio_status status, const std::string& call) {
    require(status == WRAPPER_AUDIO_OK, call + " failed: " + wrapper_audio_status_text(status));
}

template <typename Handle, void (*free_handle)(Handle*)>
struct release {
    void operator()(Handle* handle) const { free_handle(handle); }
};
using recorder = std::unique_ptr<wrapper_audio_recorder, release<wrapper_audio_recorder, wrapper_audio_recorder_free>>;
using processor =
    std::unique_ptr<wrapper_audio_processor, release<wrapper_audio_processor, wrapper_audio_processor_free>>;
using device_list =
    std::unique_ptr<wrapper_audio_device_list, release<wrapper_audio_device_list, wrapper_audio_device_list_free>>;

recorder make_recorder(int32_t rate, float denoise) {
    wrapper_audio_recorder_options options{};
    options.rate = rate;
    options.denoise = denoise;
    options.buffer_ms = 200;
    options.stall_ms = 60000;
    wrapper_audio_recorder* made = nullptr;
    require_ok(wrapper_audio_recorder_create(&made, &options), "create");
    return recorder(made);
}

void open(const recorder& closed, const char* device) {
    wrapper_audio_status status = WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK;
    for (long i = 0; i < tries && status == WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK; ++i)
        status = wrapper_audio_recorder_open(closed.get(), device);
    require_ok(status, "open");
}

wrapper_audio_block read(const recorder& open, std::size_t count) {
    std::array<int16_t, 4800> pcm{};
    wrapper_audio_block block;
    require_ok(wrapper_audio_recorder_read_s16(open.get(), pcm.data(), count, 60000, &block), "read");
    require(block.count == count, "a sample is missing");
    return block;
}

// Four recordings at once, in reads of any length.
bool soak_reads(long count, const soak::figures& start) {
    recorder recorders[4];
    for (std::size_t i = 0; i < std::size(recorders); ++i) {
        recorders[i] = make_recorder(i % 2 == 0 ? 16000 : 48000, i < 2 ? 1.0F : 0.0F);
        open(recorders[i], i % 2 == 0 ? "ALSA:cd" : "ALSA:studio");
    }
    std::mt19937 lot(1);
    std::uniform_int_distribution<std::size_t> any_count(1, 1600);
    std::uniform_int_distribution<std::size_t> any_recorder(0, std::size(recorders) - 1);
    std::array<float, 64> probabilities{};
    std::array<uint64_t, 4> next{}; // position
    soak::series figures(std::to_string(count) + " reads of recorders", count, start);
    for (long i = 1; i <= count; ++i) {
        const std::size_t which = any_recorder(lot);
        const wrapper_audio_block block = read(recorders[which], any_count(lot));
        // Under valgrind a file is slower than the clock, and counts as a device that drops what comes too late.
        const uint64_t dropped_before = block.dropped_at == 0 ? block.dropped : 0;
        require(block.position == next[which] + dropped_before, "the position jumps");
        next[which] = block.position + block.count + block.dropped - dropped_before;
        wrapper_audio_recorder_take_speech(recorders[which].get(), probabilities.data(), probabilities.size());
        figures.after(i);
    }
    return figures.report();
}

void record(long which) {
    const recorder made = make_recorder(16000, which % 2 == 0 ? 1.0F : 0.0F);
    open(made, which % 3 == 0 ? "ALSA:cd" : nullptr);
    read(made, 160);
    if (which % 4 == 0) return; // freed while it records
    const wrapper_audio_status stopped = wrapper_audio_recorder_stop(made.get());
    const bool may_be_stuck = tries > 1;
    if (may_be_stuck && stopped == WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK) return;
    require_ok(stopped, "stop");
    if (which % 4 == 1) open(made, "ALSA:studio");
    const wrapper_audio_status opened = wrapper_audio_recorder_open(make_recorder(16000, 1.0F).get(), "ALSA:nowhere");
    require(opened == WRAPPER_AUDIO_UNKNOWN_DEVICE || (may_be_stuck && opened == WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK),
            "a device that is not there opens");
}

// Its lines are kept, and would count as growth.
void empty_log() {
    std::array<char, 4096> lines{};
    while (wrapper_audio_log_take(lines.data(), lines.size()) > 0) {
    }
}

void record_and_forget(long which) {
    record(which);
    empty_log();
}

void list(long /*which*/) {
    wrapper_audio_device_list* made = nullptr;
    require_ok(wrapper_audio_device_list_create(&made), "the list");
    require(wrapper_audio_device_list_count(device_list(made).get()) > 1, "the list is empty");
}

void convert(long which) {
    const wrapper_audio_voice_options options{.in_rate = which % 2 == 0 ? 44100 : 16000,
                                              .out_rate = 16000,
                                              .denoise = which % 3 == 0 ? 1.0F : 0.0F,
                                              .speech = 0,
                                              .conversion = static_cast<int32_t>(which % 5 == 0)};
    wrapper_audio_processor* made = nullptr;
    require_ok(wrapper_audio_voice_create(&made, &options), "the voice chain");
    const processor chain(made);
    std::array<float, 4410> samples{};
    std::size_t count = 0;
    require_ok(
        wrapper_audio_processor_process(made, samples.data(), samples.size(), samples.data(), samples.size(), &count),
        "process");
    require_ok(wrapper_audio_processor_flush(made, samples.data(), samples.size(), &count), "flush");
}

bool repeated(const std::string& name, long count, const soak::figures& start, void (*step)(long)) {
    soak::series figures(std::to_string(count) + name, count, start);
    for (long i = 1; i <= count; ++i) {
        step(i);
        figures.after(i);
    }
    return figures.report();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fputs("usage: soak_recorder READS CYCLES [TRIES]\n", stderr);
        return 2;
    }
    try {
        const soak::figures start = soak::figures_now();
        const long reads = std::stol(argv[1]);
        const long cycles = std::stol(argv[2]);
        if (argc == 4) tries = std::stol(argv[3]);
        bool flat = reads < 1 || soak_reads(reads, start);
        if (cycles > 0) {
            // PortAudio runs all the time: what its own start costs is measured beside the core.
            const recorder other = make_recorder(16000, 1.0F);
            open(other, nullptr);
            flat &= repeated(" recordings from nothing", cycles, start, record_and_forget);
            flat &= repeated(" lists of devices", cycles, start, list);
            flat &= repeated(" voice chains", cycles, start, convert);
        }
        return flat ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("soak: FAILED: %s\n", error.what());
        return 2;
    }
}
