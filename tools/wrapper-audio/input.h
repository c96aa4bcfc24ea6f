/**
 * Input devices: listed, chosen, listened to.
 */
#ifndef INPUT_H
#define INPUT_H

#include "console.h"
#include "failure.h"
#include "text.h"

#include <wrapper_audio_recorder.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

/** What a status of the library means to the user, and what to do about it. `reason` says more than its own text. */
failure failure_of(wrapper_audio_status status, const std::string& reason = "");

/** The devices of this moment. */
class device_list {
public:
    /** Throws a failure when the audio system gives none. */
    device_list();

    auto begin() const { return devices.begin(); }
    auto end() const { return devices.end(); }

    /** Whether one of them can record. */
    bool has_input() const;

    /** The id of the one input that is called or has in its id what is `wanted`. Throws a failure. */
    std::string find(const std::string& wanted) const;

    /** The id of the one that records what the computer plays. Throws a failure. */
    std::string system() const;

private:
    struct closer {
        void operator()(wrapper_audio_device_list* made) const { wrapper_audio_device_list_free(made); }
    };
    std::unique_ptr<wrapper_audio_device_list, closer> list;
    std::vector<wrapper_audio_device> devices; // their texts belong to the list
};

/** For an input whose silence is no defect. */
inline void no_hint(const std::string& /*sentences*/) {}

/** An input that is being recorded. */
class microphone {
public:
    /**
     * `wanted` is an id or a part of one; "" is the default. Throws a failure when there is no such device or it does
     * not open. `hint` is told once of each kind of sound that nobody would want to record, and what to do about it.
     */
    microphone(const std::string& wanted, wrapper_audio_recorder_options options,
               std::function<void(const std::string& sentences)> hint = console::note);

    /**
     * Waits for samples, at most as many as fit, and returns how many came; 0 at the end. When a signal or a failure
     * ends the recording, what was recorded before still comes. Five seconds without a sample are a failure. If the
     * recorder keeps undenoised samples and there is room for as many, they come too. A recorder that reconnects is waited
     * for; then a block without a sample may tell what has been lost so far.
     */
    std::size_t read(std::span<float> samples, wrapper_audio_block& block, std::span<float> undenoised = {});

    /** The same into an aligner, `count` samples at most. */
    std::size_t read(wrapper_audio_aligner& aligner, int side, std::size_t count, wrapper_audio_block& block);

    /** Reads what has come into an aligner, without waiting; nothing, too, when the device is to blame. */
    void read_what_is_there(wrapper_audio_aligner& aligner, int side);

    /** The probabilities of speech of what was read since the last call, if the recorder tells of it. */
    std::vector<float> take_speech();

    /** Whether the device is away, and the recording goes on when it is back. */
    bool is_lost() const { return signal() == WRAPPER_AUDIO_SIGNAL_LOST; }

    /** Why it failed last. */
    std::string reason() const { return printable_lines(text(WRAPPER_AUDIO_TEXT_REASON)); }

    /** Why the recording ended, if the device was to blame. */
    const std::optional<failure>& trouble() const { return trouble_; }

    wrapper_audio_recorder_info info() const;
    wrapper_audio_signal signal() const;
    std::string name() const { return text(WRAPPER_AUDIO_TEXT_DEVICE_NAME); }
    void stop();

private:
    template <class Read>
    std::size_t read_by(Read read, wrapper_audio_block& block);
    std::string text(wrapper_audio_recorder_text_kind kind) const;
    failure failed(wrapper_audio_status status) const;
    void listen();

    struct closer {
        void operator()(wrapper_audio_recorder* open) const { wrapper_audio_recorder_free(open); }
    };
    std::unique_ptr<wrapper_audio_recorder, closer> recorder;
    const bool waits_;
    const std::function<void(const std::string& sentences)> hint_;
    std::set<wrapper_audio_signal> heard_;
    std::optional<failure> trouble_;
    bool stopped = false;
    int stalls = 0;
};

#endif
