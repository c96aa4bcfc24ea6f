// A fuzzer's bytes, read as a script of numbers, choices and texts; and what to do when a promise does not hold.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

// Descriptor 2 itself: the targets keep the library's lines away from it by pointing `stderr` elsewhere.
inline void require(bool holds, const char* promise, const std::string& detail = {}) {
    if (holds) return;
    dprintf(STDERR_FILENO, "BROKEN PROMISE: %s%s%s\n", promise, detail.empty() ? "" : ": ", detail.c_str());
    std::abort();
}

// Behind its end a script reads as zeros, so that every input is a script.
class script {
public:
    script(const std::uint8_t* bytes, std::size_t size) : left_(bytes, size) {}

    bool at_end() const { return left_.empty(); }

    // A number of any bits.
    template <typename Number>
    Number number() {
        std::array<std::uint8_t, sizeof(Number)> bytes{};
        const std::size_t there = std::min(sizeof(Number), left_.size());
        std::copy_n(left_.begin(), there, bytes.begin());
        left_ = left_.subspan(there);
        Number value;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    // One byte for a choice of up to 256.
    unsigned below(unsigned limit) { return number<std::uint8_t>() % limit; }

    bool flag() { return below(2) != 0; }

    // One of the usual numbers, or behind the last of them one of any bits.
    template <typename Number, std::size_t count>
    Number usual(const Number (&numbers)[count]) {
        const unsigned choice = below(count + 1);
        return choice < count ? numbers[choice] : number<Number>();
    }

    // A length and so many bytes; the length 255 stands for a unit that is repeated up to a length of 16 bits. Like any
    // C string it ends at its first NUL.
    std::string text() {
        std::size_t unit_length = number<std::uint8_t>();
        std::size_t length = unit_length;
        if (unit_length == 255) {
            unit_length = 1 + below(255);
            length = number<std::uint16_t>();
        }
        std::string unit;
        for (std::size_t i = 0; i < unit_length && !at_end(); ++i)
            unit += number<char>();
        std::string whole;
        while (whole.size() < length && !unit.empty())
            whole += unit;
        whole.resize(std::min(length, whole.size()));
        return whole.substr(0, whole.find('\0'));
    }

private:
    std::span<const std::uint8_t> left_;
};
