// Everything that the header lets run at once, does so here; and a little more. The thread sanitizer judges.
#include "fixture.h"

#include <atomic>
#include <barrier>
#include <mutex>
#include <thread>

using fake::device;
using fake::world;

namespace {

// What the calling thread hears, so that no thread can pass with the sound of another.
thread_local float t_sound = 0.5F;

class threads : public with_fakes {
protected:
    void SetUp() override {
        with_fakes::SetUp();
        world().devices = {device{"A"}, device{"B", 44100}};
        world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, t_sound); };
    }

    static void at_once(const std::vector<std::function<void()>>& jobs) {
        std::vector<std::thread> running;
        running.reserve(jobs.size());
        for (const auto& job : jobs)
            running.emplace_back(job);
        for (auto& thread : running)
            thread.join();
    }

    // Reads 100 ms and expects nothing but the thread's own sound.
    static void read(wrapper_audio_ctx* ctx, int output_rate) {
        int16_t pcm[4800];
        float rms = 0.0F;
        float peak = 0.0F;
        ASSERT_EQ(wrapper_audio_read(ctx, 100, pcm, 4800, &rms, &peak), output_rate / 10);
        ASSERT_FLOAT_EQ(peak, t_sound);
        ASSERT_FLOAT_EQ(rms, t_sound);
        const int expected = static_cast<int>(t_sound * 32767.0F);
        const int count = output_rate / 10;
        ASSERT_NEAR(*std::min_element(pcm, pcm + count), expected, 1);
        ASSERT_NEAR(*std::max_element(pcm, pcm + count), expected, 1);
    }

    static void measure(wrapper_audio_meter* meter, int count) {
        float peak = 0.0F;
        float rms = 0.0F;
        ASSERT_EQ(wrapper_audio_meter_read(meter, &peak, &rms), count);
        ASSERT_EQ(peak, t_sound);
        ASSERT_FLOAT_EQ(rms, t_sound);
    }
};

// More than a host may do with PortAudio: the library itself has to survive it.
TEST_F(threads, contexts_meters_and_queries_keep_out_of_each_others_way) {
    const auto capture = [](int denoise, const char* id) {
        for (int i = 0; i < 20; ++i) {
            wrapper_audio_ctx* ctx = wrapper_audio_init(16000, denoise, id);
            for (int j = 0; j < 5; ++j)
                read(ctx, 16000);
            wrapper_audio_release_stream(ctx);
            ASSERT_EQ(wrapper_audio_open(ctx), 0);
            wrapper_audio_free(ctx);
        }
    };
    const auto meter = [] {
        for (int i = 0; i < 20; ++i) {
            wrapper_audio_meter* opened = wrapper_audio_meter_open("Host:B");
            for (int j = 0; j < 5; ++j)
                measure(opened, 1323);
            wrapper_audio_meter_close(opened);
        }
    };
    const auto query = [] {
        for (int i = 0; i < 40; ++i) {
            wrapper_audio_free_text(wrapper_audio_list_devices_json());
            ASSERT_EQ(wrapper_audio_capabilities(), 3);
        }
    };
    at_once({[&] { capture(1, nullptr); }, [&] { capture(0, "Host:B"); }, meter, meter, query, query});
}

// "Different contexts and meters may be read on different threads at once."
TEST_F(threads, contexts_and_meters_are_read_at_once) {
    struct reader {
        int output_rate;
        int denoise;
        const char* id;
    };
    const std::vector<reader> readers{{16000, 1, "Host:A"}, {48000, 1, "Host:A"}, {44100, 1, "Host:A"},
                                      {16000, 0, "Host:A"}, {16000, 0, "Host:B"}, {44100, 1, "Host:B"}};
    constexpr int rounds = 30;
    // All have their sound at the same moment. What they do with it is then ordered by nothing.
    std::barrier together(static_cast<std::ptrdiff_t>(readers.size()) + 2);
    world().microphone = [&](float* samples, unsigned long count) {
        std::fill_n(samples, count, t_sound);
        together.arrive_and_wait();
    };
    std::vector<std::function<void()>> jobs;
    std::vector<wrapper_audio_ctx*> contexts;
    for (const reader& each : readers) {
        wrapper_audio_ctx* ctx = contexts.emplace_back(wrapper_audio_init(each.output_rate, each.denoise, each.id));
        jobs.emplace_back([=, number = jobs.size()] {
            t_sound = 0.1F * static_cast<float>(number + 1);
            for (int i = 0; i < rounds; ++i)
                read(ctx, each.output_rate);
        });
    }
    std::vector<wrapper_audio_meter*> meters;
    for (const auto& [id, count] : {std::pair{"Host:A", 1440}, std::pair{"Host:B", 1323}}) {
        wrapper_audio_meter* meter = meters.emplace_back(wrapper_audio_meter_open(id));
        jobs.emplace_back([=, frames = count] {
            t_sound = frames == 1440 ? 0.85F : 0.95F;
            for (int i = 0; i < rounds; ++i)
                measure(meter, frames);
        });
    }
    at_once(jobs);
    std::for_each(contexts.begin(), contexts.end(), wrapper_audio_free);
    std::for_each(meters.begin(), meters.end(), wrapper_audio_meter_close);
}

// "Calls that open or close a stream must be serialised by the host"; everything else goes on beside them.
TEST_F(threads, reads_stops_queries_and_armed_contexts_go_on_beside_what_opens_and_closes) {
    std::mutex opening; // the host's
    std::atomic<bool> over = false;
    wrapper_audio_ctx* read_along = wrapper_audio_init(16000, 1, "Host:A");
    wrapper_audio_meter* measured_along = wrapper_audio_meter_open("Host:B");
    const auto open_and_close_contexts = [&] {
        for (int i = 0; i < 30; ++i) {
            wrapper_audio_ctx* ctx = nullptr;
            {
                const std::lock_guard hold{opening};
                ctx = wrapper_audio_init(16000, 1, "Host:A");
            }
            read(ctx, 16000);
            wrapper_audio_stop(ctx); // "the context's" thread, and no lock
            {
                const std::lock_guard hold{opening};
                wrapper_audio_release_stream(ctx);
                ASSERT_EQ(wrapper_audio_open(ctx), 0);
            }
            read(ctx, 16000);
            const std::lock_guard hold{opening};
            wrapper_audio_free(ctx);
        }
        over = true;
    };
    const auto open_and_close_meters = [&] {
        while (!over) {
            wrapper_audio_meter* meter = nullptr;
            {
                const std::lock_guard hold{opening};
                meter = wrapper_audio_meter_open("Host:Z"); // unknown: the default, and a line
            }
            measure(meter, 1440);
            const std::lock_guard hold{opening};
            wrapper_audio_meter_close(meter);
        }
    };
    const auto arm_and_free = [&] {
        while (!over) {
            wrapper_audio_ctx* ctx = wrapper_audio_arm(0, 1, "Host:B");
            wrapper_audio_stop(ctx);
            ASSERT_EQ(wrapper_audio_read(ctx, 10, nullptr, 0, nullptr, nullptr), -1);
            wrapper_audio_free(ctx);
        }
    };
    const auto query = [&] {
        while (!over) {
            char* text = wrapper_audio_list_devices_json();
            ASSERT_EQ(text[0], '[');
            std::thread(wrapper_audio_free_text, text).join(); // any thread
            ASSERT_EQ(wrapper_audio_capabilities(), 3);
        }
    };
    at_once({open_and_close_contexts, open_and_close_meters, arm_and_free, arm_and_free, query, query,
             [&] {
                 while (!over)
                     read(read_along, 16000);
             },
             [&] {
                 while (!over)
                     measure(measured_along, 1323);
             }});
    wrapper_audio_meter_close(measured_along);
    wrapper_audio_free(read_along);
}

// "A context or a meter belongs to one thread at a time": it may change hands between two calls.
TEST_F(threads, a_context_or_meter_may_move_from_thread_to_thread) {
    wrapper_audio_ctx* ctx = nullptr;
    std::thread([&] { ctx = wrapper_audio_arm(16000, 1, nullptr); }).join();
    std::thread([&] { EXPECT_EQ(wrapper_audio_open(ctx), 0); }).join();
    std::thread([&] { read(ctx, 16000); }).join();
    std::thread([&] { wrapper_audio_stop(ctx); }).join();
    std::thread([&] { wrapper_audio_release_stream(ctx); }).join();
    wrapper_audio_free(ctx);
    wrapper_audio_meter* meter = nullptr;
    std::thread([&] { meter = wrapper_audio_meter_open(nullptr); }).join();
    std::thread([&] { measure(meter, 1440); }).join();
    wrapper_audio_meter_close(meter);
}

// ---- Signal functions ----

// "One converter may serve several threads at once, as long as their outputs do not overlap."
TEST_F(threads, one_converter_serves_several_threads) {
    wrapper_audio_resampler* shared = wrapper_audio_resampler_init(48000, 44100, 0);
    const std::vector<float> in(480, 0.25F);
    const auto convert = [&] {
        for (int i = 0; i < 100; ++i) {
            std::vector<float> out(480, 0.0F);
            ASSERT_EQ(wrapper_audio_resample(shared, in.data(), 480, out.data(), 480), 440);
            ASSERT_EQ(out[439], 0.25F);
            wrapper_audio_resampler* own = wrapper_audio_resampler_init(48000, 16000, 0);
            ASSERT_EQ(wrapper_audio_resample(own, in.data(), 480, out.data(), 480), 160);
            wrapper_audio_resampler_free(own);
        }
    };
    at_once({convert, convert, convert});
    wrapper_audio_resampler_free(shared);
}

// The high-pass, the gain control and the metrics are one each in the process, but they have nothing in common. What
// has no state runs anywhere, and all of it beside a capture.
TEST_F(threads, each_signal_function_has_a_thread_of_its_own) {
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
    constexpr int rounds = 100;
    const auto filter = [] {
        for (int i = 0; i < rounds; ++i) {
            std::vector<float> block(160, 0.5F);
            wrapper_audio_hpf_init(100.0F, 0.707F);
            wrapper_audio_hpf_process(nullptr, block.data(), 160);
            ASSERT_LT(block[159], 0.1F);
        }
    };
    const auto level = [] {
        for (int i = 0; i < rounds; ++i) {
            std::vector<float> block(160, 0.5F);
            wrapper_audio_agc_init(-20.0F, 0.0F);
            wrapper_audio_agc_process(nullptr, block.data(), 160);
            ASSERT_NEAR(block[159], 0.1F, 1e-4F);
        }
    };
    const auto freeze = [] {
        for (int i = 0; i < rounds; ++i) {
            wrapper_audio_update_noise_profile(nullptr, i % 2);
            ASSERT_EQ(wrapper_audio_snr(), -10.0F);
            ASSERT_EQ(wrapper_audio_clipping_ratio(), 0.0F);
        }
    };
    const auto without_state = [] {
        for (int i = 0; i < rounds; ++i) {
            std::vector<float> block(160, 0.5F);
            wrapper_audio_depop_process(nullptr, block.data(), 160, 0.5F);
            ASSERT_EQ(block[159], 0.25F);
            int32_t statistics = 7;
            ASSERT_EQ(wrapper_audio_denoise_stats(nullptr, &statistics), 1);
            ASSERT_EQ(wrapper_audio_input_volume_get(), -1.0F);
            ASSERT_EQ(wrapper_audio_input_volume_set(), -1);
        }
    };
    const auto capture = [&] {
        for (int i = 0; i < rounds; ++i)
            read(ctx, 16000);
    };
    at_once({filter, level, freeze, without_state, without_state, capture});
    wrapper_audio_free(ctx);
}

// The getters have "Thread: any" as long as nobody updates the profile.
TEST_F(threads, metrics_are_asked_for_on_several_threads) {
    const auto ask = [] {
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(wrapper_audio_snr(), -10.0F);
            ASSERT_EQ(wrapper_audio_clipping_ratio(), 0.0F);
        }
    };
    at_once({ask, ask, ask});
}

// "The host serialises each one's init and process calls": then any thread may make them.
TEST_F(threads, a_filter_and_a_gain_control_behind_the_lock_of_the_host_serve_several_threads) {
    std::mutex lock;
    wrapper_audio_hpf_init(100.0F, 0.707F);
    wrapper_audio_agc_init(-20.0F, 100.0F);
    const auto process = [&] {
        std::vector<float> block(160, 0.0F);
        for (int i = 0; i < 100; ++i) {
            const std::lock_guard hold{lock};
            wrapper_audio_hpf_process(nullptr, block.data(), 160);
            wrapper_audio_agc_process(nullptr, block.data(), 160);
            wrapper_audio_update_noise_profile(nullptr, i % 2);
            ASSERT_EQ(wrapper_audio_snr(), -10.0F);
        }
        ASSERT_EQ(block[159], 0.0F);
    };
    at_once({process, process});
}

} // namespace
