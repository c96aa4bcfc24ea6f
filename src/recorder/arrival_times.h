// When the samples were captured that wait for the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace recorder {

// Not locked. Allocates in its constructor only.
class arrival_times {
public:
    arrival_times(std::size_t length, int32_t rate) : rate_(rate), arrivals_(length) {}

    // The samples before `end` had been captured by `time`, in ns. Only so many of the last arrivals are kept.
    void add(uint64_t end, int64_t time) { arrivals_[count_++ % arrivals_.size()] = {end, time}; }

    // When the sample before `end` was captured, or somewhat later: by the first arrival that has it. There was one.
    int64_t time_of(uint64_t end) const {
        std::size_t number = count_ - 1;
        const std::size_t oldest = count_ - (count_ < arrivals_.size() ? count_ : arrivals_.size());
        while (number > oldest && at(number - 1).end >= end)
            --number;
        const auto since = static_cast<int64_t>(at(number).end - end); // below 0 for what rounding adds
        return at(number).time - since * 1000000000 / rate_;
    }

private:
    struct arrival {
        uint64_t end;
        int64_t time;
    };
    const arrival& at(std::size_t number) const { return arrivals_[number % arrivals_.size()]; }

    const int32_t rate_;
    std::vector<arrival> arrivals_; // a ring
    std::size_t count_ = 0;
};

} // namespace recorder
