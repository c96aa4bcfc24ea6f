// A failure on its way to the C boundary.
#pragma once

#include "wrapper_audio_recorder.h"

#include <string>
#include <utility>

namespace recorder {

struct failure {
    failure() = default;
    explicit failure(wrapper_audio_status what, std::string why = {}, std::string line = {})
        : status(what), reason(std::move(why)), log_line(std::move(line)) {}

    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    std::string reason;   // English sentences, valid UTF-8
    std::string log_line; // the core's own words
};

// Runs the implementation of a function of the interface. No exception crosses that boundary. Whatever is thrown besides
// failures means that there is no memory, or that there are no more threads.
template <typename Action>
wrapper_audio_status guarded(Action action) noexcept try {
    return action();
} catch (const failure& failed) {
    return failed.status;
} catch (...) {
    return WRAPPER_AUDIO_OUT_OF_MEMORY;
}

} // namespace recorder
