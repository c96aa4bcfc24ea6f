#include "failing_memory.h"

#include "fakes.h"
#include "sound_server.h"

#include <locale.h>
#include <soxr.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <system_error>

namespace failing_memory {

namespace {

std::atomic<int> g_fail_at{0};
std::atomic<int> g_allocations{0};
std::atomic<int> g_live{0};
std::atomic<int> g_threads_left{-1}; // before one cannot be had; -1: no end
std::atomic<bool> g_refuses_of_libc{false};
thread_local bool t_in_layer = gettid() != getpid();

// The layer's blocks, by their address. No allocation of its own.
constexpr std::size_t places = 1 << 16;
std::mutex g_mutex;
void* g_blocks[places];
void* const nobody = &g_mutex; // a block was there

std::size_t place_of(const void* block) {
    return std::hash<const void*>()(block) / 16 % places;
}

void remember(void* block) {
    const std::lock_guard hold{g_mutex};
    std::size_t at = place_of(block);
    while (g_blocks[at] != nullptr && g_blocks[at] != nobody)
        at = (at + 1) % places;
    g_blocks[at] = block;
    ++g_live;
}

void forget(const void* block) {
    const std::lock_guard hold{g_mutex};
    for (std::size_t at = place_of(block); g_blocks[at] != nullptr; at = (at + 1) % places) {
        if (g_blocks[at] != block) continue;
        g_blocks[at] = g_blocks[(at + 1) % places] == nullptr ? nullptr : nobody;
        --g_live;
        return;
    }
}

} // namespace

void fail(int n) {
    g_allocations = 0;
    g_fail_at = n;
}

int allocations() {
    return g_allocations;
}

int live() {
    return g_live;
}

void refuse_thread(int after) {
    g_threads_left = after;
}

int threads_left() {
    return g_threads_left;
}

void refuse_of_libc(bool refuse) {
    g_refuses_of_libc = refuse;
}

in_layer::in_layer() {
    t_in_layer = true;
}

in_layer::~in_layer() {
    t_in_layer = false;
}

namespace {

bool is_layers() {
    return t_in_layer && !fake::inside_a_double::is_here() && !fake::is_inside_the_server();
}

bool fails_now() {
    return is_layers() && ++g_allocations == g_fail_at;
}

void* allocate(std::size_t size) {
    if (fails_now()) throw std::bad_alloc();
    void* const block = std::malloc(size > 0 ? size : 1);
    if (block == nullptr) throw std::bad_alloc();
    if (is_layers()) remember(block);
    return block;
}

void release(void* block) {
    if (block == nullptr) return;
    forget(block);
    std::free(block);
}

} // namespace

} // namespace failing_memory

void* operator new(std::size_t size) {
    return failing_memory::allocate(size);
}

// Which a sanitizer would otherwise bring, with blocks that are not ours to release.
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    try {
        return failing_memory::allocate(size);
    } catch (...) {
        return nullptr;
    }
}

void operator delete(void* memory) noexcept {
    failing_memory::release(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    failing_memory::release(memory);
}

// std::thread's beginning, to which the linker leads from the layer.
#define START_THREAD _ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
// NOLINTBEGIN(cppcoreguidelines-macro-usage): nothing else makes a name of two
#define JOINED(a, b) a##b
#define NAMED(prefix, name) JOINED(prefix, name)
// NOLINTEND(cppcoreguidelines-macro-usage)

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" void NAMED(__real_, START_THREAD)(void* thread, void* state, void (*depend)());

extern "C" void NAMED(__wrap_, START_THREAD)(void* thread, void* state, void (*depend)()) {
    if (failing_memory::g_threads_left >= 0 && failing_memory::g_threads_left-- == 0)
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    NAMED(__real_, START_THREAD)(thread, state, depend);
}

extern "C" {

soxr_t __real_soxr_create(double in_rate, double out_rate, unsigned channels, soxr_error_t* error,
                          const soxr_io_spec_t* io, const soxr_quality_spec_t* quality,
                          const soxr_runtime_spec_t* runtime);
soxr_error_t __real_soxr_process(soxr_t state, soxr_in_t in, std::size_t in_count, std::size_t* taken, soxr_out_t out,
                                 std::size_t capacity, std::size_t* given);
FILE* __real_fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions);
locale_t __real_newlocale(int mask, const char* name, locale_t base);

soxr_t __wrap_soxr_create(double in_rate, double out_rate, unsigned channels, soxr_error_t* error,
                          const soxr_io_spec_t* io, const soxr_quality_spec_t* quality,
                          const soxr_runtime_spec_t* runtime) {
    if (!failing_memory::fails_now())
        return __real_soxr_create(in_rate, out_rate, channels, error, io, quality, runtime);
    *error = "no memory";
    return nullptr;
}

soxr_error_t __wrap_soxr_process(soxr_t state, soxr_in_t in, std::size_t in_count, std::size_t* taken, soxr_out_t out,
                                 std::size_t capacity, std::size_t* given) {
    if (failing_memory::fails_now()) return "no memory";
    return __real_soxr_process(state, in, in_count, taken, out, capacity, given);
}

FILE* __wrap_fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions) {
    return failing_memory::g_refuses_of_libc ? nullptr : __real_fopencookie(cookie, mode, functions);
}

locale_t __wrap_newlocale(int mask, const char* name, locale_t base) {
    return failing_memory::g_refuses_of_libc ? nullptr : __real_newlocale(mask, name, base);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
