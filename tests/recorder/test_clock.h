// The steady clock of the test program, which a test may stop: then neither a busy machine nor a long patience matters.
//
// The linker leads std::chrono::steady_clock::now() and the waits on it, of the layer and of the tests, in here.
#pragma once

#include <chrono>

namespace test_clock {

using std::chrono::nanoseconds;

// Stands still from now on, but for what follows.
void freeze();

// Goes on as the machine's does, or so many times slower, where a busy machine needs more patience.
void release(int slowness = 1);

void skip(nanoseconds time);

// While it stands still: what waits until a time and is not woken soon, has waited until then.
void let_waits_pass(bool pass);

// How many threads wait until a time.
int waiting();

} // namespace test_clock
