// When samples were captured, by when they arrived.
#include "recorder/arrival_times.h"

#include <gtest/gtest.h>

namespace {

TEST(arrival_times, are_those_of_the_first_arrival_that_has_the_sample) {
    recorder::arrival_times arrivals(4, 1000);
    arrivals.add(30, 1000000000);
    EXPECT_EQ(arrivals.time_of(30), 1000000000);
    EXPECT_EQ(arrivals.time_of(20), 990000000);
    EXPECT_EQ(arrivals.time_of(32), 1002000000) << "which rounding may add";
    arrivals.add(60, 1100000000);
    arrivals.add(90, 1110000000);
    EXPECT_EQ(arrivals.time_of(30), 1000000000);
    EXPECT_EQ(arrivals.time_of(31), 1071000000);
    EXPECT_EQ(arrivals.time_of(60), 1100000000);
    EXPECT_EQ(arrivals.time_of(90), 1110000000);
    arrivals.add(120, 1200000000);
    arrivals.add(150, 1210000000);
    EXPECT_EQ(arrivals.time_of(30), 1070000000) << "by the oldest that is kept";
    EXPECT_EQ(arrivals.time_of(140), 1200000000);
}

} // namespace
