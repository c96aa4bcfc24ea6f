// Running a function that works in place on a copy of a block that lies between guard pages.
#pragma once

#include "guarded_buffer.h"

#include <algorithm>
#include <cstddef>
#include <vector>

// Touching a page before or behind the block crashes; within the pages the block may begin at any sample.
template <typename Function>
std::vector<float> in_place(const std::vector<float>& samples, guard side, std::size_t shift, Function function) {
    // A block that ends at its page has the alignment that its length gives it.
    guarded_buffer<float> buffer(side == guard::before ? samples.size() + shift : samples.size(), side);
    float* block = side == guard::before ? buffer.data() + shift : buffer.data();
    std::copy(samples.begin(), samples.end(), block);
    function(block, static_cast<int32_t>(samples.size()));
    return {block, block + samples.size()};
}
