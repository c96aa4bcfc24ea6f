// A failure on its way to the C boundary.
#pragma once

#include "wrapper_audio_recorder.h"

#include <new>
#include <string>
#include <system_error>

namespace recorder {

struct failure {
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    std::string reason = {};   // English sentences, valid UTF-8
    std::string log_line = {}; // the core's own words
};

// Runs the implementation of a function of the interface. No exception crosses that boundary.
template <typename Action>
wrapper_audio_status guarded(Action action) noexcept try {
    return action();
} catch (const failure& failed) {
    return failed.status;
} catch (const std::bad_alloc&) {
    return WRAPPER_AUDIO_OUT_OF_MEMORY;
} catch (const std::system_error&) { // no more threads
    return WRAPPER_AUDIO_OUT_OF_MEMORY;
}

} // namespace recorder
