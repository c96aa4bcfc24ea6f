/**
 * Input devices: listed, chosen, opened.
 */
#ifndef INPUT_H
#define INPUT_H

#include <wrapper_audio.h>

#include <memory>
#include <string>
#include <vector>

struct device {
    std::string id;
    std::string name;
    bool can_capture = false;
    bool is_default = false;
};

/** The library's own text. */
std::string device_list_text();

/** Throws a failure when the text is no list, which it is not when it had to be cut. */
std::vector<device> parse_device_list(const std::string& json);

struct chosen_input {
    std::string id; // "": the default
    bool is_jack = false;
};

/**
 * The one input device that `wanted` means: its exact id, or a part of it in whatever case; "" is the default. Throws a
 * failure that lists the candidates when there is none or several.
 */
chosen_input choose_input(const std::string& wanted);

/**
 * The only block that may be read from a JACK device. PortAudio 19.6 counts its samples there as twice as long as they
 * are: it fills twice the buffer that it is given, and the sound is whole only when the block is that of the stream.
 * The library opens streams with blocks of 30 ms and holds room for 100.
 */
constexpr int jack_block_ms = 30;

/** Throws the failure of a device that did not open: there is none, or it refuses, or `id` is gone meanwhile. */
[[noreturn]] void report_open_failure(const std::string& log, const std::string& id);

/** Throws a failure when the library's lines tell that it fell back on another device. */
void check_for_fallback(const std::string& log, const std::string& id);

/** A capture context that is open. */
class microphone {
public:
    /** Throws a failure when there is no device or it does not open. */
    microphone(int rate, bool denoise, const std::string& id);

    wrapper_audio_ctx* get() const { return ctx.get(); }

    /** The rate the device runs at, in Hz; 0 when the library did not tell. */
    int device_rate() const { return rate_of_device; }

    /** What the library says it opened. */
    const std::string& name() const { return device_name; }

    void close() { ctx.reset(); }

private:
    struct closer {
        void operator()(wrapper_audio_ctx* open) const { wrapper_audio_free(open); }
    };
    std::unique_ptr<wrapper_audio_ctx, closer> ctx;
    int rate_of_device = 0;
    std::string device_name;
};

/** The only rate of a device at which the library denoises. */
constexpr int denoising_rate = 48000;

/** Why denoising stays off on a device at this rate, in a sentence without a full stop. */
std::string denoise_inactive(int device_rate);

#endif
