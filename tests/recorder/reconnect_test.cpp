// Devices that come and go while a recorder waits for them.
#include "with_recorder.h"

#include <climits>

using fake::device;
using fake::host_api;
using fake::world;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;

namespace {

class lost_device : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        microphone.keeps_time = true;
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 30011) / 32767.0F + 1e-5F; };
    }

    void TearDown() override {
        place.open();
        with_recorder::TearDown();
    }

    static void plug_in(std::vector<device> devices) {
        const std::lock_guard hold{world().guard};
        world().devices = std::move(devices);
        world().default_input = world().devices.empty() ? paNoDevice : 0;
    }

    // Records so many samples of the device, which then is pulled out.
    void record_and_lose(wrapper_audio_recorder_options options, uint64_t samples, const char* id = nullptr) {
        options.reconnect = 1;
        microphone.go_on();
        microphone.fail_after(samples);
        record(options, id);
        ASSERT_TRUE(waits());
        microphone.fail_after(UINT64_MAX);
    }

    // Until the time of the next attempt, which does not come by itself. The recorder's watchdog waits all the time.
    bool waits() const {
        return soon([this] { return signal() == WRAPPER_AUDIO_SIGNAL_LOST && test_clock::waiting() > 1; });
    }

    // Lets this time pass, and then it delivers so many samples.
    void find_after(milliseconds time, uint64_t samples) {
        const uint64_t before = info().captured;
        microphone.hang_after(samples);
        test_clock::skip(time);
        ASSERT_TRUE(has_captured(before + samples));
    }

    gate place;
};

TEST_F(lost_device, goes_on_when_it_is_back_and_the_time_between_was_lost) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, 10 * block, "Host:Mic"));
    EXPECT_TRUE(soon(no_device_is_held)) << "nobody else is kept from PortAudio";
    EXPECT_THAT(text(WRAPPER_AUDIO_TEXT_REASON), HasSubstr("Host:Mic failed: "));
    const reading before = read(10 * block);
    EXPECT_EQ(before.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(before.pcm, microphone.expected(0, 10 * block));

    plug_in({device{"Other"}});
    calls();
    test_clock::skip(milliseconds(500));
    ASSERT_TRUE(soon([] { return !calls_of("Pa_Terminate").empty(); })) << "it has looked";
    ASSERT_TRUE(waits());
    plug_in({device{"Other"}, device{}});
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(9500), 2 * block));
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);

    const reading behind = read(2 * block);
    EXPECT_EQ(behind.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(behind.block.dropped, 480000U);
    EXPECT_EQ(behind.block.dropped_at, 0U);
    EXPECT_EQ(behind.block.position, 10 * block + 480000);
    EXPECT_EQ(behind.pcm, microphone.expected(0, 2 * block));
    EXPECT_EQ(behind.block.speech_probability, -1.0F);
    EXPECT_EQ(info().dropped, 480000U);
    EXPECT_EQ(info().captured, 12 * block);
}

TEST_F(lost_device, is_told_of_by_the_place_in_a_read_across) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, 10 * block));
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(3000), 2 * block));
    const reading across = read(12 * block);
    EXPECT_EQ(across.block.count, 12 * block);
    EXPECT_EQ(across.block.position, 0U);
    EXPECT_EQ(across.block.dropped, 144000U);
    EXPECT_EQ(across.block.dropped_at, 10 * block);
}

TEST_F(lost_device, lets_reads_time_out_and_tell_what_has_been_lost_so_far) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 16000}, 10 * block));
    plug_in({});
    read(10 * block / 3);
    uint64_t dropped = 0;
    for (int seconds = 1; seconds <= 3; ++seconds) {
        test_clock::skip(milliseconds(1000));
        ASSERT_TRUE(soon([&] {
            const reading none = read(160, 0);
            EXPECT_EQ(none.status, WRAPPER_AUDIO_TIMEOUT);
            EXPECT_EQ(none.block.count, 0U);
            dropped += none.block.dropped;
            EXPECT_EQ(none.block.position, 10 * block / 3 + dropped);
            return dropped == static_cast<uint64_t>(seconds) * 16000;
        })) << dropped;
        ASSERT_TRUE(waits());
    }
    test_clock::let_waits_pass(true);
    EXPECT_EQ(read(160).status, WRAPPER_AUDIO_NO_DATA) << "a read without a limit does not hang";
    test_clock::let_waits_pass(false);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_LOST);
}

TEST_F(lost_device, can_be_stopped_and_freed_at_once) {
    for (const bool frees : {false, true}) {
        plug_in({device{}});
        ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, 10 * block));
        plug_in({});
        const auto before = std::chrono::steady_clock::now();
        if (frees) {
            wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
        } else {
            EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
            EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN) << "it is not waited for any more";
            const reading rest = read_to_end();
            EXPECT_EQ(rest.status, WRAPPER_AUDIO_STOPPED);
            EXPECT_EQ(rest.pcm.size(), 10 * block);
        }
        EXPECT_EQ(std::chrono::steady_clock::now(), before) << "it has waited";
    }
}

TEST_F(lost_device, may_hang_while_it_is_looked_for) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, 10 * block));
    before_each([this](const std::string& called) {
        if (called == "Pa_Initialize") place.pass();
    });
    test_clock::skip(milliseconds(500));
    place.wait_for_somebody();
    test_clock::let_waits_pass(true);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_LE(std::chrono::steady_clock::now() - before, milliseconds(1000));
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_STOPPED);
    test_clock::let_waits_pass(false);
    before_each(nullptr);
    place.open();
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_EQ(info().captured, 10 * block);
}

TEST_F(lost_device, that_fails_after_the_stop_is_not_waited_for) {
    microphone.hang_after(block);
    microphone.fail_after(block);
    record({.rate = 48000, .reconnect = 1});
    ASSERT_TRUE(has_captured(block));
    test_clock::let_waits_pass(true);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    test_clock::let_waits_pass(false);
    microphone.go_on();
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_STOPPED);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
}

TEST_F(lost_device, opened_as_the_default_is_whichever_is_the_default_then) {
    plug_in({device{"A"}, device{"B"}});
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, block));
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:A");
    plug_in({device{"B"}});
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(500), block));
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:B");
}

// Whatever runs at another rate has a chain and levels of its own, and everything keeps its place.
TEST_F(lost_device, may_come_back_at_another_rate) {
    for (const float denoise : {0.0F, 1.0F}) {
        plug_in({device{}});
        ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 16000, .denoise = denoise}, 10 * block, "Host:Mic"));
        plug_in({device{.name = "Mic", .rate = 16000}});
        ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(2000), 48000));
        EXPECT_EQ(info().device_rate, 16000);
        EXPECT_EQ(info().denoising, denoise == 0.0F ? WRAPPER_AUDIO_DENOISING_OFF : WRAPPER_AUDIO_DENOISING_CONVERTED);
        EXPECT_EQ(read(4800).block.count, 4800U);
        const reading behind = read(160);
        EXPECT_EQ(behind.block.dropped, 32000U);
        EXPECT_EQ(behind.block.position, 36800U);
        EXPECT_EQ(behind.block.speech_probability, denoise == 0.0F ? -1.0F : 1.0F);
        const float loudest = microphone.sound(159);
        EXPECT_NEAR(behind.block.captured_peak, loudest, 1e-4) << "of the same 10 ms";
    }
}

TEST_F(lost_device, keeps_speech_in_its_place) {
    world().speech = [](const float* /*samples*/) { return 0.75F; };
    for (const double rate : {48000.0, 44100.0}) {
        plug_in({device{.name = "Mic", .rate = rate}});
        const auto third = static_cast<uint64_t>(rate) * 3 / 10;
        ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 16000, .speech = 1}, third));
        ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(2000), 3 * third));
        EXPECT_EQ(read(4800 + 9600).block.dropped, 32000U);
        std::vector<float> probabilities(1000);
        probabilities.resize(wrapper_audio_recorder_take_speech(recorder, probabilities.data(), 1000));
        std::vector<float> expected(30, 0.75F);
        expected.insert(expected.end(), 200, 0.0F);
        expected.insert(expected.end(), 60, 0.75F);
        EXPECT_EQ(probabilities, expected) << rate;
    }
}

TEST_F(lost_device, keeps_both_outputs_in_step) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000, .denoise = 1.0F, .undenoised = 1}, 10 * block));
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(1000), 10 * block));
    std::vector<float> denoised(15 * block);
    std::vector<float> undenoised(denoised.size());
    wrapper_audio_block told;
    EXPECT_EQ(
        wrapper_audio_recorder_read_both_f32(recorder, denoised.data(), undenoised.data(), denoised.size(), -1, &told),
        WRAPPER_AUDIO_OK);
    EXPECT_EQ(told.dropped, 48000U);
    EXPECT_EQ(told.dropped_at, 10 * block);
    const auto expected = microphone.expected(0, 5 * block);
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_NEAR(undenoised[10 * block + i] * 32767.0F, expected[i], 0.5) << i;
}

TEST_F(lost_device, that_fails_before_its_first_sample_is_still_lost) {
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, 0));
    microphone.fail_after(0);
    calls();
    test_clock::skip(milliseconds(1000));
    ASSERT_TRUE(soon([] { return !calls_of("Pa_CloseStream").empty(); }));
    EXPECT_EQ(info().first_sample_time, 0);
    ASSERT_TRUE(waits());
    microphone.fail_after(UINT64_MAX);
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(1000), block));
    const reading first = read(block);
    EXPECT_EQ(first.block.dropped, 96000U);
    EXPECT_EQ(first.block.position, 96000U);
}

// Between the last sample and its late arrival there was time, which nothing that follows makes up for.
TEST_F(lost_device, counts_what_was_lost_before_its_failure) {
    microphone.hang_after(100 * block); // 3 s, and how late it usually is
    record({.rate = 48000, .reconnect = 1});
    ASSERT_TRUE(has_captured(100 * block));
    microphone.fail_after(101 * block);
    test_clock::skip(milliseconds(2000));
    microphone.go_on();
    ASSERT_TRUE(waits());
    microphone.fail_after(UINT64_MAX);
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(1000), block));
    const reading all = read(102 * block);
    EXPECT_EQ(all.block.count, 102 * block);
    EXPECT_NEAR(all.block.dropped, 3 * 48000, 200) << "within what clocks may drift";
    EXPECT_EQ(all.block.dropped_at, 101 * block);
}

TEST_F(lost_device, may_be_lost_again_and_again_and_every_sample_counts) {
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 44100}, block));
    for (int times = 0; times < 20; ++times) {
        const uint64_t before = info().captured;
        microphone.fail_after(block);
        test_clock::skip(milliseconds(777));
        ASSERT_TRUE(soon([&] { return info().captured == before + block; }));
        ASSERT_TRUE(waits());
    }
    microphone.fail_after(UINT64_MAX);
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(777), block));
    const reading all = read(21 * 1323 + 100); // the last ones are still inside the converter
    EXPECT_EQ(all.block.count, 21U * 1323 + 100);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
    EXPECT_NEAR(all.block.dropped, (elapsed.count() - 22 * 0.03) * 44100, 21) << "less than a sample each";
}

// ---- Devices that hang ----

class hung_device : public lost_device {
protected:
    void SetUp() override {
        lost_device::SetUp();
        world().device_read = [this](const fake::stream& from, float* samples, unsigned long count) -> PaError {
            if (from.number >= clock_stops_at) test_clock::let_waits_pass(false);
            if (from.number > last_hung || from.delivered < delivered) return microphone(from, samples, count);
            place.pass();
            return outcome;
        };
    }

    // Records from so many streams that hang one after the other, until the first one does. Time that passes from now on
    // stands still again when the second one is read.
    void record_and_hang(int hung, wrapper_audio_recorder_options options = {.rate = 48000}) {
        place.close();
        microphone.go_on();
        options.reconnect = 1;
        last_hung = streams_opened() + hung;
        clock_stops_at = streams_opened() + 2;
        record(options);
        place.wait_for_somebody();
    }

    static int streams_opened() {
        const std::lock_guard hold{world().guard};
        return world().streams_opened;
    }

    static void refuse_to_open(std::size_t times) {
        const std::lock_guard hold{world().guard};
        world().results["Pa_OpenStream"].assign(times, paDeviceUnavailable);
    }

    std::atomic<int> last_hung{0};
    std::atomic<int> clock_stops_at{0};
    uint64_t delivered = 10 * block; // by each that hangs
    std::atomic<PaError> outcome{paNoError};
};

TEST_F(hung_device, is_lost_and_opened_again_while_its_reader_hangs) {
    ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
    const auto hung = std::chrono::steady_clock::now();
    const reading before = read(10 * block);
    EXPECT_EQ(before.pcm, microphone.expected(0, 10 * block));
    microphone.hang_after(2 * block);
    test_clock::let_waits_pass(true);
    ASSERT_TRUE(has_captured(12 * block));
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:Mic failed: it hangs");
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    const std::chrono::duration<double> away = std::chrono::steady_clock::now() - hung;
    EXPECT_GE(away.count(), 5.56) << "the watchdog's patience, the next attempt, and two blocks";

    const reading behind = read(2 * block);
    EXPECT_EQ(behind.pcm, microphone.expected(0, 2 * block));
    EXPECT_NEAR(behind.block.dropped, (away.count() - 0.06) * 48000, 200) << "within what clocks may drift";
    EXPECT_EQ(behind.block.dropped_at, 0U);
    EXPECT_EQ(behind.block.position, 10 * block + behind.block.dropped);
}

TEST_F(hung_device, of_jack_is_said_to_be_lost_for_good_if_its_server_has_ended) {
    world().host_apis = {host_api{.name = "JACK", .type = paJACK}};
    ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
    refuse_to_open(1000);
    test_clock::let_waits_pass(true);
    ASSERT_TRUE(soon([this] { return signal() == WRAPPER_AUDIO_SIGNAL_LOST; }));
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON),
              "JACK:Mic failed: it hangs; if its server has ended, only another process finds the next one");
    place.open();
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
    const std::lock_guard hold{world().guard};
    world().initialisations = 0;
}

// Whatever the old stream does in the end, only the new one is heard.
TEST_F(hung_device, that_returns_while_it_is_looked_for_is_closed_and_changes_nothing) {
    for (const PaError error : {paNoError, paUnanticipatedHostError}) {
        outcome = error;
        ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
        refuse_to_open(1000);
        test_clock::let_waits_pass(true);
        ASSERT_TRUE(soon([this] { return signal() == WRAPPER_AUDIO_SIGNAL_LOST; }));
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
        place.open();
        EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:Mic failed: it hangs");
        microphone.hang_after(block);
        refuse_to_open(0);
        ASSERT_TRUE(has_captured(11 * block));
        EXPECT_EQ(read(10 * block).pcm, microphone.expected(0, 10 * block));
        EXPECT_EQ(read(block).pcm, microphone.expected(0, block));
    }
}

TEST_F(hung_device, that_returns_when_another_stream_is_heard_is_closed_and_changes_nothing) {
    for (const PaError error : {paNoError, paUnanticipatedHostError}) {
        outcome = error;
        ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
        microphone.hang_after(block);
        test_clock::let_waits_pass(true);
        ASSERT_TRUE(has_captured(11 * block));
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
        place.open();
        EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
        microphone.hang_after(3 * block);
        ASSERT_TRUE(has_captured(13 * block));
        EXPECT_EQ(read(10 * block).pcm, microphone.expected(0, 10 * block));
        EXPECT_EQ(read(3 * block).pcm, microphone.expected(0, 3 * block));
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);
    }
}

TEST_F(hung_device, of_which_no_stream_delivers_costs_a_thread_each_time_after_twice_as_long) {
    delivered = 0;
    std::mutex mutex;
    std::vector<std::chrono::steady_clock::time_point> openings;
    before_each([&](const std::string& function) {
        const std::lock_guard hold{mutex};
        if (function == "Pa_OpenStream") openings.push_back(std::chrono::steady_clock::now());
    });
    const auto has_opened = [&](std::size_t times) {
        return soon([&] {
            const std::lock_guard hold{mutex};
            return openings.size() >= times;
        });
    };
    for (const auto& [stall_ms, first] : {std::pair{0, 5.0}, std::pair{12000, 12.0}}) {
        openings.clear();
        ASSERT_NO_FATAL_FAILURE(record_and_hang(1000, {.rate = 48000, .stall_ms = stall_ms}));
        clock_stops_at = INT_MAX;
        test_clock::let_waits_pass(true);
        ASSERT_TRUE(has_opened(5));
        test_clock::let_waits_pass(false);
        double patience = first;
        for (std::size_t i = 1; i < 5; ++i, patience *= 2) {
            const std::chrono::duration<double> waited = openings[i] - openings[i - 1];
            EXPECT_GE(waited.count(), patience) << i;
            EXPECT_LE(waited.count(), 3 * patience + 10) << i << ", where the machine is busy";
        }
        EXPECT_EQ(wrapper_audio_abandoned_threads(), openings.size() - 1);
        place.open();
        wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
        ASSERT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    }
    before_each(nullptr);
}

TEST_F(hung_device, is_not_one_that_a_suspended_process_did_not_ask) {
    ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
    for (int times = 0; times < 3; ++times) {
        test_clock::skip(std::chrono::minutes(1));
        const timespec pause{0, 50000000}; // its watchdog looks
        nanosleep(&pause, nullptr);
    }
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_NO_DATA);
    EXPECT_EQ(streams_opened(), 1);
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 0U);
}

TEST_F(hung_device, keeps_nobody_from_stopping) {
    ASSERT_NO_FATAL_FAILURE(record_and_hang(2, {.rate = 48000, .stall_ms = 60000})); // nobody replaces the second
    test_clock::let_waits_pass(true);
    place.wait_for_somebody(2);
    test_clock::let_waits_pass(true); // for the stop
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_LE(std::chrono::steady_clock::now() - before, milliseconds(2000));
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 2U);
    EXPECT_EQ(read_to_end().pcm.size(), 20 * block);
    place.open();
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_EQ(info().captured, 20 * block);

    test_clock::let_waits_pass(false);
    ASSERT_NO_FATAL_FAILURE(record_and_hang(1));
    test_clock::let_waits_pass(true);
    EXPECT_TRUE(soon([this] { return info().captured > 10 * block; }));
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK) << "of another reader";
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
}

// ---- PortAudio, which lists devices when it starts ----

TEST_F(lost_device, is_looked_for_in_the_old_list_while_somebody_else_holds_it) {
    plug_in({device{"A"}, device{"B"}});
    world().device_read = [this](const fake::stream& from, float* samples, unsigned long count) -> PaError {
        return from.device == 0 ? microphone(from, samples, count) : (place.pass(), paNoError);
    };
    wrapper_audio_recorder* other = nullptr;
    ASSERT_EQ(wrapper_audio_recorder_create(&other, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_recorder_open(other, "Host:B"), WRAPPER_AUDIO_OK);
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, block, "Host:A"));
    {
        const std::lock_guard hold{world().guard};
        world().results["Pa_OpenStream"] = {paDeviceUnavailable};
    }
    calls();
    test_clock::skip(milliseconds(500));
    ASSERT_TRUE(soon([] { return !calls_of("Pa_OpenStream").empty(); }));
    ASSERT_TRUE(waits()) << "it is not back yet";
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(500), block));
    {
        const std::lock_guard hold{world().guard};
        EXPECT_EQ(world().lost_streams, 0);
    }
    place.open();
    wrapper_audio_recorder_free(other);
}

TEST_F(lost_device, is_looked_for_in_the_old_list_where_there_is_jack) {
    world().host_apis = {host_api{}, host_api{.name = "JACK", .type = paJACK}};
    plug_in({device{}, device{.name = "system", .host_api = 1}});
    ASSERT_NO_FATAL_FAILURE(record_and_lose({.rate = 48000}, block, "Host:Mic"));
    EXPECT_FALSE(no_device_is_held()) << "PortAudio is never terminated";
    ASSERT_NO_FATAL_FAILURE(find_after(milliseconds(500), block));
    EXPECT_EQ(read(2 * block).block.dropped, 24000U);
    microphone.go_on();
    wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
    const std::lock_guard hold{world().guard};
    world().initialisations = 0;
}

TEST_F(lost_device, is_looked_for_by_each_of_its_recorders) {
    wrapper_audio_recorder* other = nullptr;
    const wrapper_audio_recorder_options options{.rate = 48000, .reconnect = 1};
    microphone.fail_after(block);
    ASSERT_EQ(wrapper_audio_recorder_create(&other, &options), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_recorder_open(other, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_TRUE(soon([&] {
        int32_t told = -1;
        return wrapper_audio_recorder_get_signal(other, &told), told == WRAPPER_AUDIO_SIGNAL_LOST;
    }));
    ASSERT_NO_FATAL_FAILURE(record_and_lose(options, block));
    ASSERT_TRUE(soon(no_device_is_held)) << "PortAudio can begin anew";
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 4; })) << "and their watchdogs";
    plug_in({device{"Other", 48000.0, 0}, device{}});
    {
        const std::lock_guard hold{world().guard};
        world().default_input = 1;
    }
    microphone.hang_after(block);
    test_clock::skip(milliseconds(500));
    for (wrapper_audio_recorder* each : {recorder, other})
        EXPECT_TRUE(soon([&] {
            wrapper_audio_recorder_info told{};
            return wrapper_audio_recorder_get_info(each, &told), told.captured == 2 * block;
        }));
    microphone.go_on();
    wrapper_audio_recorder_free(other);
}

TEST_F(lost_device, is_waited_for_only_if_that_is_wanted) {
    microphone.fail_after(block);
    record({.rate = 48000, .reconnect = 0});
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_DEVICE_FAILED);
}

} // namespace
