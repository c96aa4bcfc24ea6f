// The layer's memory, which a test may let fail: operator new, soxr, and new threads.
#pragma once

namespace failing_memory {

// From now on the n-th allocation of the layer fails, counted from 1; 0: none does. Each call into soxr that may need
// memory counts as one.
void fail(int n);

// How many there were since then.
int allocations();

// How many blocks the layer has.
int live();

// The next thread cannot be had, or the one after so many others.
void refuse_thread(int after);

// How many can be had before that; below 0 once it was refused.
int threads_left();

// While it is so, the C library has neither streams of the caller's own nor locales.
void refuse_of_libc(bool refuse);

// While one lives, what the calling thread allocates is the layer's. On other threads it always is.
class in_layer {
public:
    in_layer();
    ~in_layer();
    in_layer(const in_layer&) = delete;
    in_layer& operator=(const in_layer&) = delete;
};

} // namespace failing_memory
