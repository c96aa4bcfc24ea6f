// Sound that is lost inside the system, told by the clock.
#include "recorder/loss_watch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

namespace {

constexpr int32_t rate = 48000;
constexpr std::size_t block = 1440;
constexpr double block_seconds = 0.03;

// A device whose blocks come when they are due, and are read as late as the host says.
class device {
public:
    explicit device(double drift = 0.0) : step_(block_seconds * (1.0 + drift)) {}

    // Reads `count` blocks, each up to `lateness` seconds after it was due.
    uint64_t read(int count, double lateness = 0.0) {
        std::uniform_real_distribution<double> late(0.0, lateness);
        uint64_t lost = 0;
        for (int i = 0; i < count; ++i) {
            due_ += step_;
            now_ = std::max(now_, due_ + late(lot_));
            lost += watch_.add(now_, block);
        }
        return lost;
    }

    double excess() const { return watch_.excess(); }
    void lose(double seconds) { due_ += seconds; }
    void pause_host(double seconds) { now_ = due_ + seconds; }

private:
    recorder::loss_watch watch_{rate};
    std::mt19937 lot_{1};
    const double step_;
    double due_ = 0.0;
    double now_ = 0.0;
};

TEST(loss_watch, a_device_that_keeps_to_the_clock_loses_nothing) {
    EXPECT_EQ(device().read(20000), 0U);
    EXPECT_EQ(device().read(20000, 0.02), 0U);
}

TEST(loss_watch, a_clock_that_drifts_loses_nothing) {
    for (const double drift : {3e-4, -3e-4, 9e-4}) {
        device drifting(drift);
        EXPECT_EQ(drifting.read(20000, 0.01), 0U) << drift;
    }
}

TEST(loss_watch, what_is_lost_is_told_once_and_within_a_second) {
    for (const double drift : {0.0, 3e-4, -3e-4}) {
        device losing(drift);
        EXPECT_EQ(losing.read(1000, 0.01), 0U);
        losing.lose(3.0);
        const uint64_t told = losing.read(33, 0.01);
        EXPECT_NEAR(static_cast<double>(told), 3.0 * rate, 0.012 * rate) << drift;
        EXPECT_EQ(losing.read(1000, 0.01), 0U) << drift;
    }
}

TEST(loss_watch, several_losses_are_told_each) {
    device losing;
    losing.read(100);
    for (const double seconds : {0.5, 0.11, 20.0}) {
        losing.lose(seconds);
        EXPECT_NEAR(static_cast<double>(losing.read(60)), seconds * rate, 2.0) << seconds;
    }
}

TEST(loss_watch, less_than_a_tenth_of_a_second_is_not_told) {
    device losing;
    losing.read(100);
    losing.lose(0.09);
    EXPECT_EQ(losing.read(1000), 0U);
}

TEST(loss_watch, what_is_only_late_is_not_lost) {
    device held_up;
    held_up.read(100);
    for (const double seconds : {0.2, 0.6, 1.5}) {
        held_up.pause_host(seconds); // the device goes on, and a buffer holds what it gives
        EXPECT_EQ(held_up.read(500), 0U) << seconds;
    }
}

TEST(loss_watch, bursts_of_a_sound_server_are_no_losses) {
    recorder::loss_watch watch(rate);
    uint64_t lost = 0;
    for (int i = 0; i < 5000; ++i) {
        const int burst = i < 1000 ? 1 : 6; // the server changes to larger blocks
        const int bursts = i / burst + 1;
        lost += watch.add(block_seconds * (bursts * burst), block);
    }
    EXPECT_EQ(lost, 0U);
}

TEST(loss_watch, a_device_that_begins_late_has_lost_nothing) {
    recorder::loss_watch watch(rate);
    uint64_t lost = 0;
    for (int i = 0; i < 1000; ++i)
        lost += watch.add(5.0 + block_seconds * i, block);
    EXPECT_EQ(lost, 0U);
}

TEST(loss_watch, knows_how_much_later_than_usual_the_last_block_came) {
    device on_time;
    EXPECT_EQ(on_time.excess(), 0.0) << "before the first block";
    on_time.read(5);
    on_time.pause_host(0.3);
    on_time.read(1);
    EXPECT_EQ(on_time.excess(), 0.0) << "nobody knows what is usual";
    on_time.read(100);
    EXPECT_NEAR(on_time.excess(), 0.0, 0.01);
    on_time.lose(2.0);
    on_time.read(1);
    EXPECT_NEAR(on_time.excess(), 2.0, 0.01);
    on_time.read(100);
    EXPECT_NEAR(on_time.excess(), 0.0, 0.01) << "it has been told as lost";
}

} // namespace
