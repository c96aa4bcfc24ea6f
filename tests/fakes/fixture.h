// The fixture of every test with doubles: a fresh world before it, and afterwards the promises that always hold.
#pragma once

#include "fakes.h"
#include "wrapper_audio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

class with_fakes : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }

    void TearDown() override { expect_nothing_left_behind(); }

    static void expect_nothing_left_behind() {
        EXPECT_THAT(fake::world().violations, testing::IsEmpty());
        EXPECT_EQ(fake::world().initialisations, 0) << "Pa_Initialize and Pa_Terminate are out of balance";
        EXPECT_THAT(fake::world().open_streams, testing::IsEmpty());
        EXPECT_THAT(fake::world().live_blocks, testing::IsEmpty());
        EXPECT_EQ(fake::world().live_denoisers, 0);
        EXPECT_FALSE(fake::lock_is_held());
        EXPECT_EQ(fake::world().pending_log, "") << "a log line does not end";
    }

    // What was called since the last look.
    static std::vector<std::string> calls() { return std::exchange(fake::world().journal, {}); }

    // What was written since the last look.
    static std::string log() { return std::exchange(fake::world().log, {}); }

    static void fail_next(const std::string& function, PaError error) { fake::world().results[function] = {error}; }

    static void forget() {
        calls();
        log();
    }
};
