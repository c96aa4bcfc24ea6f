/**
 * Signal processors in a row, on a stream of any length in blocks of any size.
 */
#ifndef EFFECTS_H
#define EFFECTS_H

#include <wrapper_audio_recorder.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct high_pass {
    float corner_hz = 0;
    float q = 0.707F;
};

struct gain_control {
    float target_db = 0;
    float release_ms = 200;
};

struct effect_options {
    std::optional<high_pass> highpass;
    std::optional<float> depop;
    std::optional<gain_control> agc;

    bool any() const { return highpass || depop || agc; }
};

/** De-pop, high-pass, gain control and a limiter for what that makes too loud, in this order. */
class effect_chain {
public:
    effect_chain() = default;

    /** Throws a failure when an effect is impossible at this rate. */
    effect_chain(const effect_options& wanted, int rate);

    /** Puts a voice chain in front of the others. */
    void begin_with(const wrapper_audio_voice_options& voice);

    /** Puts a limiter behind the others. */
    void end_with_limiter(int rate, float ceiling_db);

    /** Takes samples in and gives those out that are ready. Valid until the next call. */
    std::span<const float> process(std::span<const float> samples) { return run(samples, false); }

    /** What is still inside. */
    std::span<const float> finish() { return run({}, true); }

    /** The probabilities of speech that the voice chain in front has told since the last call. */
    std::vector<float> take_speech();

private:
    struct closer {
        void operator()(wrapper_audio_processor* made) const { wrapper_audio_processor_free(made); }
    };
    struct stage {
        std::unique_ptr<wrapper_audio_processor, closer> processor;
        std::vector<float> out;
    };

    template <class Create, class... Arguments>
    static stage make(Create create, Arguments... arguments);
    static void pass(stage& through, std::span<const float> samples, bool at_end);
    std::span<const float> run(std::span<const float> samples, bool at_end);

    std::vector<stage> stages;
};

/** "denoising at 48000 Hz, the device's own rate", "denoising, converted from 44100 Hz" or "nothing is denoised". */
std::string denoising_text(std::int32_t denoising, int rate, const char* whose = "the device's");

/** Says that nothing is denoised although it was wanted, or throws a failure when it had to be. */
void report_no_denoising(bool must_denoise);

#endif
