// Whatever fails below the layer, and whenever: a status that fits, nothing left behind, and the next try works. The
// faults are generated from good runs, so that a new call in the layer or the core is failed as well.
#include "failing_memory.h"
#include "sound_server.h"
#include "with_recorder.h"

#include <cstdio>
#include <filesystem>

using failing_memory::in_layer;
using fake::device;
using fake::world;
using testing::AnyOf;
using testing::IsEmpty;

namespace {

constexpr std::size_t first_read = 960;

// What came of a list, a recording, and its end.
struct journey {
    wrapper_audio_status list = WRAPPER_AUDIO_OK;
    wrapper_audio_status found = WRAPPER_AUDIO_UNKNOWN_DEVICE;
    std::size_t devices = 0;
    wrapper_audio_status created = WRAPPER_AUDIO_OK;
    wrapper_audio_status opened = WRAPPER_AUDIO_INVALID_STATE;
    wrapper_audio_status read = WRAPPER_AUDIO_INVALID_STATE;
    wrapper_audio_status stopped = WRAPPER_AUDIO_INVALID_STATE;
    wrapper_audio_status end = WRAPPER_AUDIO_INVALID_STATE;
    uint64_t samples = 0;
    std::string reason;
    std::string line;
    std::string english;
};

class recorder_faults : public with_recorder {
protected:
    // Sets the scene, without a fault yet.
    void begin(float denoise, int32_t undenoised = 0) {
        fake::reset();
        options_ = {.rate = 16000, .denoise = denoise, .buffer_ms = 100, .undenoised = undenoised};
        world().layered = true;
        world().device_read = std::ref(microphone);
        world().devices = {device{.name = "Loud", .inputs = 0}, device{.name = "A", .rate = 44100, .rates = {48000}},
                           device{"A"}};
        world().default_input = 2;
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 1000) / 2000.0F; };
    }

    void record_with_watchdog_and_hang() {
        begin(0.0F);
        options_.reconnect = 1;
        microphone.hang_after(block);
        record(options_);
        ASSERT_TRUE(has_captured(block));
    }

    // The recorder's thread has nothing to do until somebody reads: the journal is the same each time then.
    void wait_until_full() const {
        // At another rate it is another number.
        const uint64_t full = info().device_rate == 48000 ? captured_when_full_ : 0;
        uint64_t before = UINT64_MAX;
        EXPECT_TRUE(soon([&] {
            const wrapper_audio_recorder_info now = info();
            if (full != 0) return now.captured >= full || thread_is_gone();
            return std::exchange(before, now.captured) == now.captured && now.available >= 1600;
        }));
    }

    static bool thread_is_gone() {
        const std::lock_guard hold{world().guard};
        return world().initialisations == 0;
    }

    wrapper_audio_status read(std::size_t count, uint64_t done, wrapper_audio_block& told) {
        if (options_.undenoised != 0)
            return wrapper_audio_recorder_read_both_f32(recorder, &denoised_.at(done), &undenoised_.at(done), count, -1,
                                                        &told);
        int16_t pcm[first_read];
        return wrapper_audio_recorder_read_s16(recorder, pcm, count, -1, &told);
    }

    // The denoiser changes nothing, but is two frames late: one output is what the other becomes 20 ms later.
    void expect_outputs_in_step(uint64_t count) const {
        constexpr std::size_t edge = 200; // of the recording, where the converters hear its beginning or its end
        for (std::size_t i = edge; i + 320 + edge < count; ++i)
            ASSERT_NEAR(denoised_[i], undenoised_[i + 320], 1e-4) << i;
    }

    // Each call of the layer but those that cannot fail.
    journey run() {
        journey seen;
        const auto layer = [](auto call) {
            const in_layer here;
            return call();
        };
        wrapper_audio_device_list* list = nullptr;
        seen.list = layer([&] { return wrapper_audio_device_list_create(&list); });
        seen.devices = wrapper_audio_device_list_count(list);
        std::size_t index = 0;
        char copied[1000] = "";
        if (list != nullptr)
            seen.found = layer([&] { return wrapper_audio_device_list_find(list, "nobody's", &index, copied, 1000); });
        layer([&] { wrapper_audio_device_list_free(list); });
        seen.created = layer([&] { return wrapper_audio_recorder_create(&recorder, &options_); });
        if (recorder == nullptr) return seen;
        seen.opened = layer([&] { return wrapper_audio_recorder_open(recorder, "Host:A"); });
        if (seen.opened == WRAPPER_AUDIO_OK) {
            wrapper_audio_block told;
            seen.read = layer([&] { return read(first_read, 0, told); });
            seen.samples = told.count;
            if (seen.read == WRAPPER_AUDIO_OK) wait_until_full();
            seen.stopped = layer([&] { return wrapper_audio_recorder_stop(recorder); });
            for (seen.end = WRAPPER_AUDIO_OK; seen.end == WRAPPER_AUDIO_OK; seen.samples += told.count)
                seen.end = layer([&] { return read(480, seen.samples, told); });
        } else {
            EXPECT_TRUE(no_device_is_held());
        }
        captured_ = info().captured;
        layer([&] { return wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_REASON, copied, 1000); });
        seen.reason = copied;
        layer([&] { return wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_LOG_LINE, copied, 1000); });
        seen.line = copied;
        const char* const line = "[audio_wrapper] list_devices: 12 устройств\n";
        layer([&] { return wrapper_audio_log_in_english(line, copied, 1000); });
        seen.english = copied;
        return seen;
    }

    // The recorder that a fault has hit, or a new one, works when nothing fails any more.
    void expect_good_calls() {
        failing_memory::fail(0);
        world().faults.clear();
        world().results.clear();
        const in_layer here;
        if (recorder == nullptr) {
            ASSERT_EQ(wrapper_audio_recorder_create(&recorder, &options_), WRAPPER_AUDIO_OK);
        }
        ASSERT_EQ(wrapper_audio_recorder_open(recorder, "Host:A"), WRAPPER_AUDIO_OK);
        int16_t pcm[first_read];
        wrapper_audio_block told;
        ASSERT_EQ(wrapper_audio_recorder_read_s16(recorder, pcm, first_read, -1, &told), WRAPPER_AUDIO_OK);
        EXPECT_EQ(told.position, 0U);
        EXPECT_GT(told.peak, 0.4F);
        wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
    }

    void expect_nothing_left() const {
        EXPECT_TRUE(soon(no_device_is_held));
        EXPECT_TRUE(soon(no_denoiser_is_held));
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 0U);
        EXPECT_EQ(world().lost_streams, 0);
        EXPECT_EQ(world().log, "");
        EXPECT_THAT(world().violations, IsEmpty());
        take_log();
        if (blocks_at_rest_ >= 0) {
            EXPECT_TRUE(soon([&] { return failing_memory::live() == blocks_at_rest_; }))
                << failing_memory::live() << " blocks, not " << blocks_at_rest_;
        }
    }

    // A run in which nothing fails; its calls.
    std::vector<std::string> good_run(float denoise, int32_t undenoised = 0) {
        blocks_at_rest_ = -1;
        captured_when_full_ = 0;
        begin(denoise, undenoised);
        const journey seen = run();
        EXPECT_EQ(seen.list, WRAPPER_AUDIO_OK);
        EXPECT_EQ(seen.devices, 3U);
        EXPECT_EQ(seen.opened, WRAPPER_AUDIO_OK);
        EXPECT_EQ(seen.read, WRAPPER_AUDIO_OK);
        EXPECT_EQ(seen.stopped, WRAPPER_AUDIO_OK);
        EXPECT_EQ(seen.end, WRAPPER_AUDIO_STOPPED);
        captured_when_full_ = captured_;
        const auto journal = calls();
        expect_good_calls();
        expect_nothing_left();
        blocks_at_rest_ = failing_memory::live();
        return journal;
    }

    // What this call answers when it fails.
    static std::vector<int> failing_answers(const std::string& call) {
        for (const char* never : {"lock", "unlock", "free", "log ", "rnnoise_destroy", "Pa_GetErrorText"})
            if (call.starts_with(never)) return {};
        if (call.starts_with("Pa_GetDeviceCount")) return {0, paNotInitialized};
        if (call.starts_with("Pa_GetDefaultInputDevice")) return {paNoDevice, paNotInitialized};
        if (call.starts_with("Pa_")) return {paUnanticipatedHostError};
        return {0}; // a null pointer, or a probability and a frame of NaN
    }

    static bool is_denoisings(const std::string& call) { return call.starts_with("rnnoise"); }

    // What a failure of this call may lead to, besides that nothing happens.
    static void expect_fitting(const std::string& call, bool in_list, const journey& seen) {
        const auto begins = [&](const char* name) { return call.starts_with(name); };
        if (in_list) {
            EXPECT_EQ(seen.opened, WRAPPER_AUDIO_OK);
            EXPECT_EQ(seen.list, begins("Pa_Initialize") ? WRAPPER_AUDIO_NO_AUDIO_SYSTEM : WRAPPER_AUDIO_OK);
            if (begins("Pa_GetDeviceCount")) {
                EXPECT_THAT(seen.devices, AnyOf(0U, 3U)); // it is asked for JACK, too
            }
            return;
        }
        EXPECT_EQ(seen.list, WRAPPER_AUDIO_OK);
        if (begins("Pa_ReadStream")) {
            EXPECT_EQ(seen.opened, WRAPPER_AUDIO_OK);
            EXPECT_EQ(seen.end, WRAPPER_AUDIO_DEVICE_FAILED);
            EXPECT_THAT(seen.line, testing::StartsWith("[audio_wrapper] Pa_ReadStream ОШИБКА"));
        } else if (begins("Pa_OpenStream") || begins("Pa_StartStream")) {
            EXPECT_THAT(seen.opened, AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_DEVICE_REFUSED)); // at another rate
        } else if (begins("calloc") || begins("rnnoise_create")) {
            EXPECT_THAT(seen.opened, AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_OUT_OF_MEMORY));
        } else if (begins("rnnoise_process_frame") || begins("Pa_StopStream") || begins("Pa_CloseStream") ||
                   begins("Pa_Terminate") || begins("Pa_IsFormatSupported") || begins("Pa_GetHostApiInfo")) {
            if (!begins("Pa_GetHostApiInfo")) {
                EXPECT_EQ(seen.opened, WRAPPER_AUDIO_OK);
            }
        } else if (begins("Pa_Initialize")) {
            EXPECT_THAT(seen.opened, AnyOf(WRAPPER_AUDIO_NO_AUDIO_SYSTEM, WRAPPER_AUDIO_OUT_OF_MEMORY, // the core's
                                           WRAPPER_AUDIO_OK));
        } else {
            EXPECT_TRUE(begins("Pa_GetDevice") || begins("Pa_GetDefaultInputDevice")) << "a new call: " << call;
        }
        if (seen.opened < 0 || seen.end < 0) {
            EXPECT_NE(seen.reason, "");
        }
        if (seen.opened == WRAPPER_AUDIO_OK && seen.read == WRAPPER_AUDIO_OK) {
            EXPECT_GE(seen.samples, first_read);
        }
    }

    wrapper_audio_recorder_options options_{};
    std::vector<float> denoised_ = std::vector<float>(20000); // of a recorder that returns both
    std::vector<float> undenoised_ = denoised_;
    uint64_t captured_ = 0;
    uint64_t captured_when_full_ = 0;
    int blocks_at_rest_ = -1;
};

TEST_F(recorder_faults, of_every_call_below_are_survived) {
    int count = 0;
    for (const float denoise : {0.0F, 1.0F}) {
        const std::vector<std::string> journal = good_run(denoise);
        const auto end_of_list = std::find(journal.begin(), journal.end(), "Pa_Terminate");
        for (std::size_t at = 0; at < journal.size() && !HasFailure(); ++at) {
            const bool in_list = at <= static_cast<std::size_t>(end_of_list - journal.begin());
            for (const int answer : failing_answers(journal[at])) {
                SCOPED_TRACE("entry " + std::to_string(at) + ", " + journal[at] + ", answers " +
                             std::to_string(answer));
                begin(denoise);
                world().faults = {{at, answer}};
                const journey seen = run();
                EXPECT_THAT(world().faults, IsEmpty()) << "the fault was not met";
                expect_fitting(journal[at], in_list, seen);
                expect_good_calls();
                expect_nothing_left();
                ++count;
            }
        }
    }
    std::printf("%d faults injected\n", count);
    EXPECT_GT(count, 100);
}

TEST_F(recorder_faults, of_every_allocation_are_survived) {
    for (const auto& [denoise, undenoised] : {std::pair{0.0F, 0}, std::pair{1.0F, 0}, std::pair{1.0F, 1}}) {
        good_run(denoise, undenoised);
        int n = 1;
        for (; !HasFailure(); ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            begin(denoise, undenoised);
            failing_memory::fail(n);
            const journey seen = run();
            const bool was_met = failing_memory::allocations() >= n;
            failing_memory::fail(0);
            const auto fitting = AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_OUT_OF_MEMORY);
            EXPECT_THAT(seen.list, fitting);
            EXPECT_THAT(seen.found, AnyOf(WRAPPER_AUDIO_UNKNOWN_DEVICE, WRAPPER_AUDIO_OUT_OF_MEMORY));
            EXPECT_THAT(seen.created, fitting);
            if (seen.created == WRAPPER_AUDIO_OK) {
                EXPECT_THAT(seen.opened, fitting);
                EXPECT_THAT(seen.english, AnyOf("", "devices listed: 12"));
            }
            if (seen.opened == WRAPPER_AUDIO_OK) {
                EXPECT_THAT(seen.read, fitting);
                EXPECT_EQ(seen.stopped, WRAPPER_AUDIO_OK);
                EXPECT_THAT(seen.end, AnyOf(WRAPPER_AUDIO_STOPPED, WRAPPER_AUDIO_OUT_OF_MEMORY));
            }
            if (undenoised != 0) expect_outputs_in_step(seen.samples);
            expect_good_calls();
            expect_nothing_left();
            if (!was_met) break;
        }
        std::printf("%d allocations failed\n", n - 1);
        EXPECT_GT(n, 30);
    }
}

// The reason may be lost, but not that it failed.
TEST_F(recorder_faults, of_every_allocation_are_survived_where_a_device_refuses) {
    good_run(0.0F);
    bool was_met = true;
    int lost = 0;
    for (int n = 1; was_met && !HasFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        begin(0.0F);
        world().results["Pa_OpenStream"] = {paDeviceUnavailable, paDeviceUnavailable, paDeviceUnavailable};
        // A back end leaves a line unfinished, which ends with the call, and needs memory then.
        world().entering = [](const std::string& function) {
            if (function == "Pa_Terminate") std::fputs("thirty characters without end.", stderr);
        };
        failing_memory::fail(n);
        const journey seen = run();
        was_met = failing_memory::allocations() >= n;
        failing_memory::fail(0);
        world().entering = nullptr;
        if (seen.created == WRAPPER_AUDIO_OK) {
            EXPECT_THAT(seen.opened, AnyOf(WRAPPER_AUDIO_DEVICE_REFUSED, WRAPPER_AUDIO_OUT_OF_MEMORY));
            lost += seen.opened == WRAPPER_AUDIO_OUT_OF_MEMORY ? 1 : 0;
        }
        if (!was_met) {
            EXPECT_EQ(seen.opened, WRAPPER_AUDIO_DEVICE_REFUSED);
            EXPECT_THAT(seen.reason, testing::StartsWith("Host:A did not open: "));
            EXPECT_THAT(take_log(), testing::HasSubstr("\nthirty characters without end.\n"));
        }
        expect_good_calls();
        expect_nothing_left();
    }
    EXPECT_GT(lost, 0);
}

TEST_F(recorder_faults, of_the_allocations_for_a_servers_sources_are_survived) {
    good_run(0.0F);
    bool was_met = true;
    int refused = 0;
    for (int n = 1; was_met && !HasFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        begin(0.0F);
        fake::server().is_there = true;
        fake::server().sources = {{.name = "a name that is too long to need no memory", .is_monitor = true},
                                  {.name = "b"}};
        fake::server().default_output = "an output whose name needs memory, too";
        fake::server().plugins = {"pipewire"};
        wrapper_audio_device_list* list = nullptr;
        wrapper_audio_status status = WRAPPER_AUDIO_OK;
        failing_memory::fail(n);
        {
            const in_layer here;
            status = wrapper_audio_device_list_create(&list);
            was_met = failing_memory::allocations() >= n;
            failing_memory::fail(0);
            wrapper_audio_device_list_free(list);
            EXPECT_THAT(status, AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_OUT_OF_MEMORY));
            fake::server().is_there = false;
            EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK) << "the sources are forgotten";
            wrapper_audio_device_list_free(list);
        }
        refused += status == WRAPPER_AUDIO_OUT_OF_MEMORY ? 1 : 0;
        EXPECT_EQ(fake::server().held, 0);
        EXPECT_THAT(fake::server().devices, IsEmpty());
        expect_nothing_left();
    }
    EXPECT_GT(refused, 10);
}

// What a gate found no memory for is lost, and the next read works.
TEST_F(recorder_faults, of_a_gates_allocations_are_survived) {
    bool was_met = true;
    int lost = 0;
    for (int n = 1; was_met && !HasFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        begin(1.0F);
        ASSERT_EQ(wrapper_audio_recorder_create(&recorder, &options_), WRAPPER_AUDIO_OK);
        ASSERT_EQ(wrapper_audio_recorder_open(recorder, "Host:A"), WRAPPER_AUDIO_OK);
        ASSERT_TRUE(soon([&] { return info().available >= 1600; }));
        wrapper_audio_recorder_stop(recorder);
        failing_memory::fail(n);
        wrapper_audio_speech_gate* gate = nullptr;
        wrapper_audio_status read = WRAPPER_AUDIO_OUT_OF_MEMORY;
        wrapper_audio_block told{};
        {
            const in_layer here;
            if (wrapper_audio_speech_gate_create(&gate, nullptr) == WRAPPER_AUDIO_OK)
                read = wrapper_audio_recorder_read_gate(recorder, gate, 1600, -1, &told);
            was_met = failing_memory::allocations() >= n;
            failing_memory::fail(0);
            if (gate != nullptr) {
                EXPECT_EQ(wrapper_audio_recorder_read_gate(recorder, gate, 1, -1, &told), WRAPPER_AUDIO_OK);
                EXPECT_EQ(wrapper_audio_speech_gate_flush(gate), WRAPPER_AUDIO_OK);
            }
            wrapper_audio_speech_gate_free(gate);
        }
        EXPECT_EQ(read, was_met ? WRAPPER_AUDIO_OUT_OF_MEMORY : WRAPPER_AUDIO_OK);
        lost += was_met ? 1 : 0;
        wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
    }
    EXPECT_GT(lost, 3);
}

TEST_F(recorder_faults, of_an_aligners_allocations_are_survived) {
    const std::vector<float> samples(1600);
    std::vector<float> taken(40000);
    int lost = 0;
    bool was_met = true;
    for (int n = 1; was_met; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        wrapper_audio_aligner* aligner = nullptr;
        const in_layer here;
        failing_memory::fail(n);
        wrapper_audio_status status = wrapper_audio_aligner_create(&aligner, 16000);
        for (int64_t i = 0; i < 40 && status == WRAPPER_AUDIO_OK; ++i) {
            const int64_t time = i * 100000000 + (i > 30 ? 500000000 : 0); // with a loss
            status = wrapper_audio_aligner_add(aligner, static_cast<int32_t>(i % 2), samples.data(), 1600, time);
        }
        std::size_t count = 0;
        if (status == WRAPPER_AUDIO_OK) status = wrapper_audio_aligner_flush(aligner);
        if (status == WRAPPER_AUDIO_OK) { // the rest needs no memory
            status = wrapper_audio_aligner_take(aligner, taken.data(), taken.data(), taken.size(), &count);
        }
        was_met = failing_memory::allocations() >= n;
        failing_memory::fail(0);
        if (was_met && aligner != nullptr) wrapper_audio_aligner_flush(aligner);
        wrapper_audio_aligner_free(aligner);
        EXPECT_EQ(status, was_met ? WRAPPER_AUDIO_OUT_OF_MEMORY : WRAPPER_AUDIO_OK);
        lost += was_met ? 1 : 0;
    }
    EXPECT_GT(lost, 20);
}

using processor_memory = with_recorder;

// Whoever denoises for hours in a thread that must not wait.
TEST_F(processor_memory, is_all_there_after_half_a_second) {
    const wrapper_audio_voice_options options{
        .in_rate = 48000, .out_rate = 48000, .denoise = 1.0F, .speech = 0, .conversion = 0};
    const in_layer here;
    wrapper_audio_processor* processor = nullptr;
    ASSERT_EQ(wrapper_audio_voice_create(&processor, &options), WRAPPER_AUDIO_OK);
    std::vector<float> sound(480);
    std::vector<float> speech(1);
    const auto process = [&](int frames) {
        for (int i = 0; i < frames; ++i) {
            std::size_t count = 0;
            sound.assign(sound.size(), i % 5 == 0 ? 0.5F : -0.5F);
            ASSERT_EQ(wrapper_audio_processor_process(processor, sound.data(), sound.size(), sound.data(), sound.size(),
                                                      &count),
                      WRAPPER_AUDIO_OK);
            wrapper_audio_processor_take_speech(processor, speech.data(), speech.size());
        }
    };
    process(50);
    const int held = failing_memory::live();
    failing_memory::fail(0);
    process(2000);
    EXPECT_EQ(failing_memory::allocations(), 0);
    EXPECT_EQ(failing_memory::live(), held);
    wrapper_audio_processor_free(processor);
}

using without_libc = with_recorder;

// What the layer has of the C library, it has once in a process: so in a process of its own.
TEST_F(without_libc, lines_of_the_core_reach_the_host_and_letters_beyond_ascii_differ_in_case) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto run = [&] {
        world().devices = {device{"\u00C4rger A"}};
        failing_memory::refuse_of_libc(true);
        wrapper_audio_device_list* list = nullptr;
        std::size_t index = 99;
        const auto found = [&](const char* wanted) {
            return wrapper_audio_device_list_find(list, wanted, &index, nullptr, 0) == WRAPPER_AUDIO_OK;
        };
        const bool opens = wrapper_audio_recorder_create(&recorder, nullptr) == WRAPPER_AUDIO_OK &&
                           wrapper_audio_recorder_open(recorder, nullptr) == WRAPPER_AUDIO_OK &&
                           world().log.starts_with("[audio_wrapper] ");
        wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
        const bool finds =
            wrapper_audio_device_list_create(&list) == WRAPPER_AUDIO_OK && found("RGER a") && !found("\u00E4rger");
        wrapper_audio_device_list_free(list);
        std::exit(opens && finds ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(recorder_faults, of_a_thread_that_cannot_be_had_are_survived) {
    good_run(0.0F);
    for (const int others : {0, 1, 2}) {
        begin(0.0F);
        options_.reconnect = others == 2 ? 1 : 0; // its watchdog's
        failing_memory::refuse_thread(others);
        sigset_t before;
        pthread_sigmask(SIG_SETMASK, nullptr, &before);
        const journey seen = run();
        EXPECT_EQ(seen.list, others == 0 ? WRAPPER_AUDIO_OUT_OF_MEMORY : WRAPPER_AUDIO_OK);
        EXPECT_EQ(seen.reason.empty(), others == 0);
        EXPECT_EQ(seen.opened, others == 0 ? WRAPPER_AUDIO_OK : WRAPPER_AUDIO_OUT_OF_MEMORY);
        sigset_t after;
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        EXPECT_EQ(sigismember(&before, SIGINT), sigismember(&after, SIGINT)) << "the host's signals stay blocked";
        expect_good_calls();
        expect_nothing_left();
    }
}

TEST_F(recorder_faults, of_memory_end_a_recording_that_was_to_reconnect_and_its_watchdog) {
    ASSERT_NO_FATAL_FAILURE(record_with_watchdog_and_hang());
    failing_memory::fail(1);
    microphone.go_on();
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_OUT_OF_MEMORY);
    failing_memory::fail(0);
    EXPECT_TRUE(soon([] {
        using threads = std::filesystem::directory_iterator;
        return std::distance(threads("/proc/self/task"), threads()) == 1;
    })) << "only the test's own is left";
}

TEST_F(recorder_faults, of_the_thread_that_replaces_one_that_hangs_are_survived) {
    ASSERT_NO_FATAL_FAILURE(record_with_watchdog_and_hang());
    failing_memory::refuse_thread(0);
    test_clock::let_waits_pass(true);
    EXPECT_TRUE(soon([] { return failing_memory::threads_left() < 0; })) << "it was wanted";
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() > 0; })) << "later there was one";
    microphone.go_on();
    EXPECT_TRUE(soon([this] { return info().captured > block; }));
}

} // namespace
