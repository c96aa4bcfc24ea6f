// More at once than a host may do with PortAudio: the library itself has to survive it. The thread sanitizer judges.
#include "fixture.h"

#include <thread>

using fake::device;
using fake::world;

namespace {

class threads : public with_fakes {
protected:
    static void at_once(const std::vector<std::function<void()>>& jobs) {
        std::vector<std::thread> running;
        running.reserve(jobs.size());
        for (const auto& job : jobs)
            running.emplace_back(job);
        for (auto& thread : running)
            thread.join();
    }
};

TEST_F(threads, contexts_meters_and_queries_keep_out_of_each_others_way) {
    world().devices = {device{"A"}, device{"B", 44100}};
    world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, 0.5F); };
    const auto capture = [](int denoise, const char* id) {
        for (int i = 0; i < 20; ++i) {
            wrapper_audio_ctx* ctx = wrapper_audio_init(16000, denoise, id);
            for (int j = 0; j < 5; ++j) {
                int16_t pcm[1600];
                float rms = 0.0F;
                float peak = 0.0F;
                ASSERT_EQ(wrapper_audio_read(ctx, 100, pcm, 1600, &rms, &peak), 1600);
                ASSERT_EQ(peak, 0.5F);
                ASSERT_EQ(pcm[1599], 16383);
            }
            wrapper_audio_release_stream(ctx);
            ASSERT_EQ(wrapper_audio_open(ctx), 0);
            wrapper_audio_free(ctx);
        }
    };
    const auto measure = [] {
        for (int i = 0; i < 20; ++i) {
            wrapper_audio_meter* meter = wrapper_audio_meter_open("Host:B");
            float peak = 0.0F;
            for (int j = 0; j < 5; ++j)
                ASSERT_EQ(wrapper_audio_meter_read(meter, &peak, nullptr), 1323);
            wrapper_audio_meter_close(meter);
        }
    };
    const auto query = [] {
        for (int i = 0; i < 40; ++i) {
            wrapper_audio_free_text(wrapper_audio_list_devices_json());
            ASSERT_EQ(wrapper_audio_capabilities(), 3);
        }
    };
    at_once({[&] { capture(1, nullptr); }, [&] { capture(0, "Host:B"); }, measure, measure, query, query});
}

TEST_F(threads, a_context_may_move_from_thread_to_thread) {
    wrapper_audio_ctx* ctx = nullptr;
    std::thread([&] { ctx = wrapper_audio_arm(16000, 1, nullptr); }).join();
    std::thread([&] { EXPECT_EQ(wrapper_audio_open(ctx), 0); }).join();
    int16_t pcm[160];
    std::thread([&] { EXPECT_EQ(wrapper_audio_read(ctx, 10, pcm, 160, nullptr, nullptr), 160); }).join();
    wrapper_audio_free(ctx);
}

} // namespace
