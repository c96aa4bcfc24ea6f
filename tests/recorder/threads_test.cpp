// Everything that the header lets run at once, does so here, by a clock that goes on. The thread sanitizer judges.
#include "with_recorder.h"

#include <barrier>
#include <random>

using fake::device;
using fake::world;

namespace {

constexpr wrapper_audio_recorder_options denoised{.denoise = 1.0F};

class recorder_threads : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        test_clock::release(20);
        world().devices = {device{"A"}, device{.name = "A", .rate = 44100, .rates = {48000}},
                           device{.name = "B", .rate = 16000}, device{.name = "Loud", .inputs = 0}};
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 1000) / 2000.0F; };
        // A device needs some time for a block, so that the threads get in each other's way.
        world().device_read = [this](const fake::stream& from, float* samples, unsigned long count) {
            const timespec pause{0, 200000};
            nanosleep(&pause, nullptr);
            return microphone(from, samples, count);
        };
    }

    static void at_once(const std::vector<std::function<void()>>& jobs) {
        std::barrier begin(static_cast<std::ptrdiff_t>(jobs.size()));
        std::vector<std::thread> running;
        running.reserve(jobs.size());
        for (const auto& job : jobs)
            running.emplace_back([&begin, &job] {
                begin.arrive_and_wait();
                job();
            });
        for (auto& thread : running)
            thread.join();
    }

    // Reads one recorder and expects each sample once, in its place.
    static void expect_whole(wrapper_audio_recorder* from, int reads) {
        uint64_t position = 0;
        for (int i = 0; i < reads; ++i) {
            int16_t pcm[441];
            wrapper_audio_block told;
            ASSERT_EQ(wrapper_audio_recorder_read_s16(from, pcm, 441, -1, &told), WRAPPER_AUDIO_OK);
            ASSERT_EQ(told.position, position);
            ASSERT_EQ(told.dropped, 0U);
            position += told.count;
        }
    }
};

TEST_F(recorder_threads, recorders_record_beside_each_other) {
    const auto job = [](const char* id, float denoise) {
        return [=] {
            for (int time = 0; time < 6; ++time) {
                wrapper_audio_recorder* mine = nullptr;
                const wrapper_audio_recorder_options options{.rate = 16000, .denoise = denoise};
                ASSERT_EQ(wrapper_audio_recorder_create(&mine, &options), WRAPPER_AUDIO_OK);
                for (int again = 0; again < 2; ++again) {
                    ASSERT_EQ(wrapper_audio_recorder_open(mine, id), WRAPPER_AUDIO_OK);
                    expect_whole(mine, 10);
                    ASSERT_EQ(wrapper_audio_recorder_stop(mine), WRAPPER_AUDIO_OK);
                }
                wrapper_audio_recorder_free(mine);
            }
        };
    };
    at_once(
        {job("Host:A", 0.0F), job("Host:A#2", 1.0F), job("Host:B", 0.0F), job("Host:A#2", 0.0F), job(nullptr, 1.0F)});
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 0U);
}

// The names and rates in PortAudio's table are changed while a device opens; nobody sees it.
TEST_F(recorder_threads, lists_never_show_what_opening_changes) {
    std::atomic<bool> done = false;
    at_once({[&] {
                 for (int i = 0; i < 40; ++i) {
                     wrapper_audio_device_list* list = nullptr;
                     ASSERT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
                     ASSERT_EQ(wrapper_audio_device_list_count(list), 4U);
                     const wrapper_audio_device& second = *wrapper_audio_device_list_get(list, 1);
                     ASSERT_STREQ(second.id, "Host:A#2");
                     ASSERT_EQ(second.default_rate, 44100);
                     ASSERT_EQ(second.denoising, WRAPPER_AUDIO_DENOISING_NATIVE);
                     wrapper_audio_device_list_free(list);
                 }
                 done = true;
             },
             [&] {
                 ASSERT_EQ(wrapper_audio_recorder_create(&recorder, &denoised), WRAPPER_AUDIO_OK);
                 while (!done) {
                     ASSERT_EQ(wrapper_audio_recorder_open(recorder, "Host:A#2"), WRAPPER_AUDIO_OK);
                     ASSERT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
                 }
             }});
}

TEST_F(recorder_threads, share_a_recorder_and_its_samples) {
    record({.rate = 48000, .denoise = 1.0F, .undenoised = 1});
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> spoken{0};
    std::atomic<bool> stopped = false;
    const auto reader = [&] {
        for (wrapper_audio_status status = WRAPPER_AUDIO_OK; status == WRAPPER_AUDIO_OK;) {
            float samples[333];
            wrapper_audio_block told;
            status = wrapper_audio_recorder_read_f32(recorder, samples, 333, -1, &told);
            count += told.count;
            dropped += told.dropped;
        }
    };
    const auto reader_of_both = [&] {
        for (wrapper_audio_status status = WRAPPER_AUDIO_OK; status == WRAPPER_AUDIO_OK;) {
            float cleaned = 0.0F;
            float raw = 0.0F;
            wrapper_audio_block told;
            // One at a time: others may take some while a read waits for more.
            status = wrapper_audio_recorder_read_both_f32(recorder, &cleaned, &raw, 1, -1, &told);
            if (told.count == 1) {
                ASSERT_NEAR(raw, microphone.sound(told.position), 1e-4);
            }
            count += told.count;
            dropped += told.dropped;
        }
    };
    const auto asker = [&] {
        while (!stopped) {
            float probabilities[5];
            spoken += wrapper_audio_recorder_take_speech(recorder, probabilities, 5);
            const wrapper_audio_recorder_info now = info();
            ASSERT_LE(now.read, now.captured);
            ASSERT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:A");
            take_log();
        }
    };
    const auto stopper = [&] {
        EXPECT_TRUE(soon([&] { return count > 30000; }));
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
        stopped = true;
    };
    at_once({reader, reader_of_both, reader_of_both, asker, stopper});
    EXPECT_EQ(count, info().captured);
    EXPECT_EQ(dropped, 0U);
    EXPECT_EQ(info().read, count);
    EXPECT_GT(spoken, 0U);
}

TEST_F(recorder_threads, may_open_read_and_stop_one_recorder_in_any_order) {
    create({.rate = 16000, .buffer_ms = 100});
    const auto job = [&](unsigned seed) {
        return [=, this] {
            std::minstd_rand numbers(seed);
            for (int i = 0; i < 60; ++i) {
                int16_t pcm[100];
                wrapper_audio_block told;
                char copied[100];
                switch (numbers() % 6) {
                case 0: {
                    const char* const ids[] = {"Host:A", "Host:A#2", "Host:Loud", nullptr};
                    const auto status = wrapper_audio_recorder_open(recorder, ids[numbers() % 4]);
                    EXPECT_THAT(status, testing::AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_INVALID_STATE,
                                                       WRAPPER_AUDIO_STOPPED, WRAPPER_AUDIO_NOT_AN_INPUT));
                    break;
                }
                case 1:
                    EXPECT_THAT(wrapper_audio_recorder_stop(recorder),
                                testing::AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_INVALID_STATE));
                    break;
                case 2:
                    wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_REASON, copied, sizeof copied);
                    break;
                default:
                    EXPECT_THAT(wrapper_audio_recorder_read_s16(recorder, pcm, 100, 10, &told),
                                testing::AnyOf(WRAPPER_AUDIO_OK, WRAPPER_AUDIO_INVALID_STATE, WRAPPER_AUDIO_STOPPED,
                                               WRAPPER_AUDIO_TIMEOUT));
                }
                info();
            }
        };
    };
    at_once({job(1), job(2), job(3), job(4)});
    wrapper_audio_recorder_stop(recorder);
    EXPECT_TRUE(soon(no_device_is_held)) << "a recording that nobody can stop";
}

TEST_F(recorder_threads, are_waited_for_by_a_free) {
    for (int i = 0; i < 20; ++i) {
        microphone.hang_after(4800);
        record({.rate = 48000});
        ASSERT_TRUE(has_captured(4320));
        const std::atomic<wrapper_audio_recorder*> mine = std::exchange(recorder, nullptr);
        std::atomic<int> began{0};
        const auto reader = [&] {
            std::vector<int16_t> pcm(100000);
            wrapper_audio_block told;
            ++began;
            EXPECT_EQ(wrapper_audio_recorder_read_s16(mine, pcm.data(), pcm.size(), -1, &told), WRAPPER_AUDIO_STOPPED);
        };
        std::thread first(reader);
        std::thread second(reader);
        ASSERT_TRUE(soon([&] { // both wait in it: then nothing is available
            wrapper_audio_recorder_info told{};
            wrapper_audio_recorder_get_info(mine, &told);
            return began == 2 && told.available == 0;
        }));
        nanosleep(std::array{timespec{0, 5000000}}.data(), nullptr);
        std::thread device([&] {
            nanosleep(std::array{timespec{0, 1000000}}.data(), nullptr);
            microphone.go_on();
        });
        wrapper_audio_recorder_free(mine);
        first.join();
        second.join();
        device.join();
    }
}

TEST_F(recorder_threads, of_recordings_take_no_signals) {
    std::atomic<bool> all_blocked = false;
    world().device_read = [&](const fake::stream& from, float* samples, unsigned long count) {
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        all_blocked = sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGTERM) == 1 &&
                      sigismember(&blocked, SIGUSR1) == 1;
        return microphone(from, samples, count);
    };
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    record({});
    read(100);
    wrapper_audio_recorder_stop(recorder); // which asks no more
    EXPECT_TRUE(all_blocked);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number < 32; ++number)
        EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
}

TEST_F(recorder_threads, wait_by_the_machines_clock) {
    test_clock::release();
    microphone.hang_after(0);
    record({.stall_ms = 500});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(read(10, 50).status, WRAPPER_AUDIO_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    EXPECT_EQ(read(10).status, WRAPPER_AUDIO_NO_DATA);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
    microphone.go_on();
}

} // namespace
