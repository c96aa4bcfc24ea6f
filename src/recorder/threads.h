// The threads of the layer, of which some have to be left behind in an audio system that does not return.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

namespace recorder {

// For the audio system to open something, and to let go of it.
constexpr std::chrono::milliseconds opening_patience{10000};
constexpr std::chrono::milliseconds stopping_patience{900};

// With all signals blocked, so that they reach the host's own threads. Throws where there are no more threads.
std::thread start_thread(std::function<void()> action);

// Threads that were left behind, and still hang there.
void count_abandoned(int32_t more);
uint32_t abandoned_threads();

// Runs an action on a thread of its own, and throws its failure. The thread is left behind if it has not returned in
// time: then this throws AUDIO_SYSTEM_STUCK. What the action touches must belong to it.
void run_with_patience(std::function<void()> action, std::chrono::milliseconds patience, const char* reason);

} // namespace recorder
