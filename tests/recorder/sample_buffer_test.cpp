// The samples that wait for the host, against a queue that is plain and slow.
#include "recorder/sample_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <numeric>
#include <random>

namespace {

using recorder::sample_buffer;

// Samples and losses in the order in which they came.
class plain_buffer {
public:
    explicit plain_buffer(std::size_t capacity) : capacity_(capacity) {}

    std::size_t available() const {
        return static_cast<std::size_t>(
            std::count_if(queue_.begin(), queue_.end(), [](const entry& each) { return each.lost == 0; }));
    }

    void write(const std::vector<float>& samples) {
        const std::size_t kept = std::min(samples.size(), capacity_ - available());
        for (std::size_t i = 0; i < kept; ++i)
            queue_.push_back({samples[i], 0});
        lose(samples.size() - kept);
    }

    // The buffer remembers 64 places; what is lost later is told at the last of them.
    void lose(uint64_t count) {
        if (count == 0) return;
        const auto is_loss = [](const entry& each) { return each.lost > 0; };
        if (std::count_if(queue_.begin(), queue_.end(), is_loss) == 64)
            std::find_if(queue_.rbegin(), queue_.rend(), is_loss)->lost += count;
        else if (!queue_.empty() && is_loss(queue_.back()))
            queue_.back().lost += count;
        else
            queue_.push_back({0.0F, count});
    }

    std::vector<float> read(std::size_t count, uint64_t& lost) {
        lost = 0;
        if (!queue_.empty() && queue_.front().lost > 0) {
            lost = queue_.front().lost;
            queue_.pop_front();
        }
        std::vector<float> samples;
        while (samples.size() < count && !queue_.empty() && queue_.front().lost == 0) {
            samples.push_back(queue_.front().sample);
            queue_.pop_front();
        }
        return samples;
    }

private:
    struct entry {
        float sample;
        uint64_t lost; // 0 for a sample
    };
    const std::size_t capacity_;
    std::deque<entry> queue_;
};

void expect_as_plain(std::size_t capacity, unsigned seed, unsigned losses_in_100) {
    std::mt19937 random(seed);
    sample_buffer buffer(capacity);
    plain_buffer plain(capacity);
    float next = 0.0F;
    uint64_t read_count = 0;
    uint64_t lost_count = 0;
    for (int round = 0; round < 3000; ++round) {
        if (random() % 100 < losses_in_100) {
            const uint64_t lost = random() % 5 == 0 ? uint64_t{1} << 40 : random() % 4;
            buffer.lose(lost);
            plain.lose(lost);
        }
        if (random() % 2 == 0) {
            std::vector<float> samples(random() % (capacity / 3 + 2));
            for (float& x : samples)
                x = next += 1.0F;
            buffer.write(samples);
            plain.write(samples);
        } else if (random() % 3 != 0 || losses_in_100 < 50) {
            std::vector<float> samples(random() % (capacity / 2 + 2), -1.0F);
            const auto [count, lost] = buffer.read(samples);
            uint64_t expected_loss = 0;
            const auto expected = plain.read(samples.size(), expected_loss);
            ASSERT_EQ(lost, expected_loss);
            ASSERT_EQ(count, expected.size());
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), samples.begin()));
            ASSERT_TRUE(std::all_of(samples.begin() + static_cast<std::ptrdiff_t>(count), samples.end(),
                                    [](float x) { return x == -1.0F; }));
            read_count += count;
            lost_count += lost;
        }
        ASSERT_EQ(buffer.available(), plain.available());
        ASSERT_EQ(buffer.room(), capacity - plain.available());
        ASSERT_EQ(buffer.read_count(), read_count);
        ASSERT_EQ(buffer.lost_count(), lost_count);
        ASSERT_EQ(buffer.position(), read_count + lost_count);
    }
}

TEST(sample_buffer, is_a_queue_that_counts_what_it_loses) {
    for (const std::size_t capacity : {1U, 2U, 3U, 4U, 5U, 16U, 17U, 100U, 511U, 512U, 513U})
        expect_as_plain(capacity, static_cast<unsigned>(capacity), 20);
}

TEST(sample_buffer, adds_losses_after_64_to_the_last) {
    for (unsigned seed = 0; seed < 5; ++seed)
        expect_as_plain(3000, seed, 95);
}

TEST(sample_buffer, remembers_64_places_where_something_is_lost) {
    sample_buffer buffer(100);
    const float sample = 0.5F;
    for (uint64_t i = 1; i <= 66; ++i) {
        buffer.lose(i);
        buffer.write({&sample, 1});
    }
    std::vector<float> out(100);
    for (uint64_t i = 1; i <= 63; ++i) {
        const auto [count, lost] = buffer.read(out);
        ASSERT_EQ(count, 1U);
        ASSERT_EQ(lost, i);
    }
    const auto [count, lost] = buffer.read(out);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(lost, 64U + 65 + 66);
    EXPECT_EQ(buffer.position(), 66U + 66 * 67 / 2);
}

TEST(sample_buffer, by_hand) {
    sample_buffer buffer(4);
    const std::vector<float> five{1.0F, 2.0F, 3.0F, 4.0F, 5.0F};
    buffer.write(five);
    EXPECT_EQ(buffer.available(), 4U);
    EXPECT_EQ(buffer.room(), 0U);
    buffer.lose(10); // with the fifth
    std::vector<float> out(3);
    auto piece = buffer.read(out);
    EXPECT_EQ(piece.count, 3U);
    EXPECT_EQ(piece.lost, 0U);
    EXPECT_EQ(out, (std::vector{1.0F, 2.0F, 3.0F}));
    buffer.write(std::span(five).first(2));
    piece = buffer.read(out);
    EXPECT_EQ(piece.count, 1U) << "nothing is read across a loss";
    EXPECT_EQ(out[0], 4.0F);
    EXPECT_EQ(buffer.position(), 4U);
    piece = buffer.read({});
    EXPECT_EQ(piece.count, 0U);
    EXPECT_EQ(piece.lost, 11U);
    EXPECT_EQ(buffer.position(), 15U);
    piece = buffer.read(out);
    EXPECT_EQ(piece.count, 2U);
    EXPECT_EQ(piece.lost, 0U);
    EXPECT_EQ(out[0], 1.0F);
    EXPECT_EQ(buffer.position(), 17U);
    EXPECT_EQ(buffer.lost_count(), 11U);
    EXPECT_EQ(buffer.read_count(), 6U);
}

// The ring counts bytes in 32 bits. More than four gigabytes go through, most of them unseen, and around the place where
// the count begins anew every sample is looked at.
TEST(sample_buffer, goes_on_where_its_count_of_bytes_begins_anew) {
    constexpr std::size_t capacity = 5000; // of a ring of 8192
    constexpr uint64_t turn = uint64_t{1} << 30;
    sample_buffer buffer(capacity);
    std::vector<float> in(capacity);
    std::vector<float> out(capacity);
    uint64_t written = 0;
    const auto write = [&](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            in[i] = static_cast<float>((written + i) % 65536);
        buffer.write(std::span(in).first(count));
        written += count;
    };
    while (written + 100000 < turn) {
        buffer.write(in);
        written += capacity;
        ASSERT_EQ(buffer.read(out).count, capacity);
    }
    uint64_t read = written;
    std::mt19937 random(1);
    while (read < turn + 100000) {
        write(std::min<std::size_t>(random() % 3000, buffer.room()));
        const auto [count, lost] = buffer.read(std::span(out).first(random() % 3000));
        ASSERT_EQ(lost, 0U);
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(out[i], static_cast<float>((read + i) % 65536)) << read + i;
        read += count;
        ASSERT_EQ(buffer.available(), written - read);
    }
    EXPECT_EQ(buffer.read_count(), read);
}

} // namespace
