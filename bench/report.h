// What the figures are held against.
#pragma once

#include <string>

namespace bench {

// `what` holds when time(slow) / time(fast) is at least `least`.
void require_gain(const std::string& what, const std::string& slow, const std::string& fast, double least);
// `what` holds when time(part) / time(whole) is at most `most`.
void require_share(const std::string& what, const std::string& part, const std::string& whole, double most);
// Printed beside the others, without a verdict.
void show_gain(const std::string& what, const std::string& slow, const std::string& fast);

// Each registers its benchmarks and what is required of them.
void register_read();
void register_functions();
void register_recorder();
void register_peers();

} // namespace bench
