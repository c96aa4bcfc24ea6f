// The fixture of the recorder layer's tests: a fresh world, a microphone that delivers what a test tells it to, a clock
// that stands still, and afterwards the promises that always hold.
#pragma once

#include "fixture.h"
#include "test_clock.h"
#include "wrapper_audio_recorder.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

inline constexpr uint64_t block = 1440; // of the core, at 48000 Hz

// A microphone of which each stream begins anew: sample n is sound(n).
class scripted_microphone {
public:
    std::function<float(uint64_t n)> sound = [](uint64_t /*n*/) { return 0.0F; };
    bool keeps_time = false; // the clock goes on as it delivers; otherwise it is a file, which needs no time

    // From now on it hangs once it has delivered so many samples.
    void hang_after(uint64_t samples) {
        const std::lock_guard hold{mutex_};
        limit_ = samples;
        changed_.notify_all();
    }
    void go_on() { hang_after(UINT64_MAX); }

    // Whether somebody hangs in it, with everything before in the layer's hands.
    bool hangs() {
        const std::lock_guard hold{mutex_};
        return hanging_ > 0;
    }

    // It is pulled out once it has delivered so many samples.
    void fail_after(uint64_t samples) { fails_at_ = samples; }

    // What 10 ms and more of it are as the core delivers them.
    std::vector<int16_t> expected(uint64_t first, std::size_t count) const {
        std::vector<int16_t> pcm;
        for (uint64_t n = first; n < first + count; ++n)
            pcm.push_back(static_cast<int16_t>(std::clamp(sound(n), -1.0F, 1.0F) * 32767.0F));
        return pcm;
    }

    PaError operator()(const fake::stream& from, float* samples, unsigned long count) {
        {
            std::unique_lock hold{mutex_};
            ++hanging_;
            changed_.wait(hold, [&] { return from.delivered + count <= limit_; });
            --hanging_;
        }
        if (from.delivered + count > fails_at_) return paUnanticipatedHostError;
        if (keeps_time)
            test_clock::skip(
                std::chrono::nanoseconds(static_cast<int64_t>(static_cast<double>(count) / from.rate * 1e9)));
        for (unsigned long i = 0; i < count; ++i)
            samples[i] = sound(from.delivered + i);
        return paNoError;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t limit_ = UINT64_MAX;
    int hanging_ = 0;
    std::atomic<uint64_t> fails_at_{UINT64_MAX};
};

// A place that a call into PortAudio does not leave before it is told to.
class gate {
public:
    void pass() {
        std::unique_lock hold{mutex_};
        ++waiting_;
        changed_.notify_all();
        changed_.wait(hold, [&] { return open_; });
        --waiting_;
    }
    void open() {
        const std::lock_guard hold{mutex_};
        open_ = true;
        changed_.notify_all();
    }
    void close() {
        const std::lock_guard hold{mutex_};
        open_ = false;
    }
    void wait_for_somebody(int count = 1) {
        std::unique_lock hold{mutex_};
        changed_.wait(hold, [&] { return waiting_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int waiting_ = 0;
};

class with_recorder : public with_fakes {
protected:
    void SetUp() override {
        with_fakes::SetUp();
        fake::world().layered = true;
        fake::world().device_read = std::ref(microphone);
        test_clock::freeze();
    }

    void TearDown() override {
        test_clock::let_waits_pass(false);
        microphone.go_on();
        wrapper_audio_recorder_free(recorder);
        EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
        EXPECT_TRUE(soon(no_device_is_held));
        EXPECT_TRUE(soon(no_denoiser_is_held));
        EXPECT_EQ(fake::world().log, "") << "written to the host's standard error";
        test_clock::release();
        take_log();
        with_fakes::TearDown();
    }

    // Whether this comes true in a time that is long for any machine.
    static bool soon(const std::function<bool()>& condition) {
        for (int i = 0; i < 20000; ++i) {
            if (condition()) return true;
            const timespec pause{0, 1000000};
            nanosleep(&pause, nullptr);
        }
        return false;
    }

    // Of PortAudio and the core. A recorder that was stopped still has a denoiser of its own.
    static bool no_device_is_held() {
        const std::lock_guard hold{fake::world().guard};
        const auto& world = fake::world();
        return world.initialisations == 0 && world.open_streams.empty() && world.live_blocks.empty();
    }

    static bool no_denoiser_is_held() {
        const std::lock_guard hold{fake::world().guard};
        return fake::world().live_denoisers == 0;
    }

    static std::vector<std::string> calls() {
        const std::lock_guard hold{fake::world().guard};
        return with_fakes::calls();
    }

    // Those of them that begin so.
    static std::vector<std::string> calls_of(const std::string& beginning) {
        std::vector<std::string> found = calls();
        std::erase_if(found, [&](const std::string& call) { return !call.starts_with(beginning); });
        return found;
    }

    static std::string take_log() {
        std::string lines(100000, '\0');
        lines.resize(wrapper_audio_log_take(lines.data(), lines.size()));
        return lines;
    }

    void create(const wrapper_audio_recorder_options& options) {
        wrapper_audio_recorder_free(recorder);
        ASSERT_EQ(wrapper_audio_recorder_create(&recorder, &options), WRAPPER_AUDIO_OK);
    }

    // A new recorder that records.
    void record(const wrapper_audio_recorder_options& options, const char* id = nullptr) {
        ASSERT_NO_FATAL_FAILURE(create(options));
        ASSERT_EQ(wrapper_audio_recorder_open(recorder, id), WRAPPER_AUDIO_OK) << text(WRAPPER_AUDIO_TEXT_REASON);
    }

    struct reading {
        wrapper_audio_status status = WRAPPER_AUDIO_OK;
        std::vector<int16_t> pcm;
        wrapper_audio_block block{};
    };

    reading read(std::size_t count, int32_t timeout_ms = -1) const {
        reading got;
        got.pcm.resize(count);
        got.status = wrapper_audio_recorder_read_s16(recorder, got.pcm.data(), count, timeout_ms, &got.block);
        got.pcm.resize(got.block.count);
        return got;
    }

    // Everything until the recording is over, in reads of so many samples. The last block is the last that had some.
    reading read_to_end(std::size_t count = 480) const {
        reading all;
        while (true) {
            const reading got = read(count);
            all.pcm.insert(all.pcm.end(), got.pcm.begin(), got.pcm.end());
            all.status = got.status;
            if (got.block.count > 0) all.block = got.block;
            if (got.status != WRAPPER_AUDIO_OK) return all;
        }
    }

    wrapper_audio_signal signal() const {
        int32_t told = -1;
        EXPECT_EQ(wrapper_audio_recorder_get_signal(recorder, &told), WRAPPER_AUDIO_OK);
        return static_cast<wrapper_audio_signal>(told);
    }

    wrapper_audio_recorder_info info() const {
        wrapper_audio_recorder_info told{};
        EXPECT_EQ(wrapper_audio_recorder_get_info(recorder, &told), WRAPPER_AUDIO_OK);
        return told;
    }

    std::string text(wrapper_audio_recorder_text_kind kind) const {
        char copied[4000] = "";
        const std::size_t length = wrapper_audio_recorder_get_text(recorder, kind, copied, sizeof copied);
        EXPECT_EQ(length, std::string(copied).size());
        return copied;
    }

    // Waits until the microphone has delivered so many samples, and hangs.
    bool has_captured(uint64_t samples) {
        return soon([&] { return info().captured == samples && microphone.hangs(); });
    }

    // What calls into PortAudio that open or close do first.
    static void before_each(std::function<void(const std::string& function)> action) {
        const std::lock_guard hold{fake::world().guard};
        fake::world().entering = std::move(action);
    }

    scripted_microphone microphone;
    wrapper_audio_recorder* recorder = nullptr;
};
