/**
 * wrapper-audio meter: the level of an input, live.
 */
#include "commands.h"
#include "console.h"
#include "input.h"
#include "level.h"
#include "stopping.h"

#include <fmt/format.h>
#include <unistd.h>
#include <wrapper_audio.h>

#include <cmath>
#include <limits>
#include <memory>

namespace {

constexpr int block_ms = 30; // what the library measures at a time
static_assert(block_ms == jack_block_ms);

struct closer {
    void operator()(wrapper_audio_meter* open) const { wrapper_audio_meter_close(open); }
};
using open_meter = std::unique_ptr<wrapper_audio_meter, closer>;

/** What there is to measure. */
class listener {
public:
    explicit listener(const chosen_input& input) {
        if (input.is_jack) { // a meter has no room for what PortAudio writes there, a context has
            context = std::make_unique<microphone>(48000, false, input.id);
            return;
        }
        const std::string log = console::listen_to([&] { meter.reset(wrapper_audio_meter_open(input.id.c_str())); });
        if (!meter) report_open_failure(log, input.id);
        check_for_fallback(log, input.id);
    }

    /** Returns the number of samples measured, below 1 when the device failed. */
    int read(float& rms, float& peak) {
        if (meter) return wrapper_audio_meter_read(meter.get(), &peak, &rms);
        return wrapper_audio_read(context->get(), block_ms, samples, static_cast<std::int32_t>(std::size(samples)),
                                  &rms, &peak);
    }

private:
    open_meter meter;
    std::unique_ptr<microphone> context;
    std::int16_t samples[48000 * block_ms / 1000]{};
};

std::int64_t blocks_wanted(const std::optional<double>& seconds) {
    if (!seconds) return std::numeric_limits<std::int64_t>::max();
    const double blocks = std::ceil(*seconds * 1000.0 / block_ms - 1e-9);
    if (!(blocks >= 1.0 && blocks < 1e15)) throw failure(usage, "--seconds: must be above 0, and a number to live by");
    return static_cast<std::int64_t>(blocks);
}

/** A bar on a terminal, a line a second elsewhere. The time is that of the sound. */
class display {
public:
    void show(std::int64_t blocks, float rms, float peak, int samples) {
        const double now = static_cast<double>(blocks) * block_ms / 1000.0;
        second_.add(rms, peak, static_cast<std::uint64_t>(samples));
        block_.add(rms, peak, static_cast<std::uint64_t>(samples));
        if (screen_.redraws)
            draw(now);
        else if (blocks * block_ms / 1000 > (blocks - 1) * block_ms / 1000)
            print_second(now);
    }

    /** The last second, when it was none. */
    void finish(std::int64_t blocks) {
        if (!screen_.redraws && second_.samples() > 0) print_second(static_cast<double>(blocks) * block_ms / 1000.0);
    }

private:
    void draw(double now) {
        meter_.hold(now, block_.peak());
        if (!status_line::is_due()) return;
        status_line::show(screen_, meter_.line(screen_, now, "", block_.rms(), block_.peak()));
        block_ = {};
    }

    void print_second(double now) {
        print(fmt::format("{}  RMS {:>5}  peak {:>5} dBFS{}\n", time_text(now), decibel_text(second_.rms()),
                          decibel_text(second_.peak()), second_.peak() >= 32767.0F / 32768.0F ? "  CLIP" : ""));
        second_ = {};
    }

    const terminal screen_{STDOUT_FILENO};
    level_meter meter_;
    level block_;
    level second_;
};

int rescue(stall_guard::reason reason) {
    status_line::finish();
    if (reason == stall_guard::reason::stop_requested) return fine;
    console::show_library_lines();
    console::error("no sound has come for 5 seconds: the device is gone or stuck");
    return read_failed;
}

} // namespace

exit_code show_meter(const meter_options& wanted) {
    const std::int64_t limit = blocks_wanted(wanted.seconds);
    listener input(choose_input(wanted.device));
    stop_on_signals();
    stall_guard guard(rescue);
    display shown;
    std::int64_t blocks = 0;
    while (!stop_requested() && blocks < limit) {
        int got = 0;
        float rms = 0;
        float peak = 0;
        guard.watch([&] { got = input.read(rms, peak); });
        console::collect();
        if (got <= 0 && stop_requested()) break;
        if (got <= 0) {
            status_line::finish();
            throw failure(read_failed, "the input device failed");
        }
        shown.show(++blocks, rms, peak, got);
    }
    shown.finish(blocks);
    status_line::finish();
    return fine;
}
