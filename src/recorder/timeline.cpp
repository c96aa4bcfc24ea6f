#include "timeline.h"

#include <algorithm>
#include <cmath>

namespace recorder {

void timeline::add(std::span<const float> samples, double seconds) {
    if (samples.empty()) return;
    const double since = added_ == 0 ? 0.0 : std::max(0.0, seconds - heard_until_); // clocks do not go back
    heard_until_ = added_ == 0 ? seconds : heard_until_ + since;
    active_ += std::min(since, pause);
    waiting_.insert(waiting_.end(), samples.begin(), samples.end());
    added_ += samples.size();
    const double lateness = heard_until_ - static_cast<double>(added_) / rate_;
    if (!arrivals_.empty() && heard_until_ - arrivals_.back().at < moment) {
        arrivals_.back().count += samples.size();
        arrivals_.back().lateness = std::min(arrivals_.back().lateness, lateness);
    } else {
        arrivals_.push_back({samples.size(), heard_until_, active_, lateness});
    }
    while (active_ - arrivals_.front().active >= patience)
        settle_oldest();
}

void timeline::settle(double now) {
    while (!arrivals_.empty() && now - arrivals_.front().at >= patience)
        settle_oldest();
}

void timeline::finish() {
    ended_ = true;
    while (!arrivals_.empty())
        settle_oldest();
}

// Finds the place of the oldest arrival.
void timeline::settle_oldest() {
    double least = arrivals_.front().lateness;
    for (const arrival& each : arrivals_)
        least = std::min(least, each.lateness);
    double lateness = least - static_cast<double>(lost_) / rate_;
    if (lateness_ && active_ - arrivals_.front().active < evidence) lateness = *lateness_;
    const double step = lateness - lateness_.value_or(lateness);
    uint64_t lost = 0;
    if (step >= tolerance) {
        lost = static_cast<uint64_t>(std::llround(step * rate_));
        lateness -= static_cast<double>(lost) / rate_;
    }
    const arrival oldest = arrivals_.front();
    if (stretches_.empty() || lost > 0) stretches_.push_back({position_ + lost, {}});
    auto& samples = stretches_.back().samples;
    const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(oldest.count);
    samples.insert(samples.end(), waiting_.begin(), end);
    places_.push_back({position_ + lost + oldest.count, lateness, oldest.active});
    waiting_.erase(waiting_.begin(), end);
    arrivals_.pop_front();
    lost_ += lost;
    position_ = places_.back().end;
    lateness_ = lateness;
}

void timeline::copy(int64_t begin, std::span<float> to) const {
    std::fill(to.begin(), to.end(), 0.0F);
    const int64_t end = begin + static_cast<int64_t>(to.size());
    for (const stretch& each : stretches_) {
        const auto its_begin = static_cast<int64_t>(each.begin);
        const int64_t from = std::max(begin, its_begin);
        const int64_t until = std::min(end, its_begin + static_cast<int64_t>(each.samples.size()));
        if (from < until)
            std::copy(each.samples.begin() + (from - its_begin), each.samples.begin() + (until - its_begin),
                      to.begin() + (from - begin));
    }
}

timeline::place timeline::place_of(int64_t position) const {
    const auto found = std::find_if(places_.begin(), places_.end(),
                                    [&](const place& each) { return static_cast<int64_t>(each.end) > position; });
    return found != places_.end() ? *found : places_.back();
}

void timeline::forget(int64_t before) {
    // The last place is kept, for what comes after it.
    while (places_.size() > 1 && static_cast<int64_t>(places_.front().end) <= before)
        places_.pop_front();
    while (!stretches_.empty()) {
        stretch& oldest = stretches_.front();
        const int64_t passed = before - static_cast<int64_t>(oldest.begin);
        if (passed <= 0) return;
        const auto count = std::min<std::size_t>(oldest.samples.size(), static_cast<std::size_t>(passed));
        oldest.samples.erase(oldest.samples.begin(), oldest.samples.begin() + static_cast<std::ptrdiff_t>(count));
        oldest.begin += count;
        if (!oldest.samples.empty() || stretches_.size() == 1) return;
        stretches_.pop_front();
    }
}

} // namespace recorder
