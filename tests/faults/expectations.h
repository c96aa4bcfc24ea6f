// What a host is promised when one call below the library fails.
#pragma once

#include "ways.h"

#include <optional>
#include <string>
#include <vector>

namespace faults {

using journal = std::vector<std::string>;

// One call of a good run that is made to fail.
struct fault {
    const journal* run = nullptr;
    size_t at = 0;
    int answer = 0; // the error or count that it returns; of no meaning where it returns a pointer
};

// "Pa_OpenStream" of "Pa_OpenStream(device=0, …)". Allocations are told apart by what they are for, and the calls of
// Pa_GetDeviceInfo by the call that follows and makes use of the answer.
std::string kind_of(const journal& run, size_t at);

// Neither a call that returns nothing, such as free, nor one that cannot fail.
bool may_fail(const std::string& kind);

// The answers with which a call of this kind fails; none when the kind is new.
std::vector<int> failing_answers(const std::string& kind, const way& w);

// Nothing when the table has no row for the call and the kind.
std::optional<outcome> expected(const way& w, const fault& f);

// The rows that nothing has asked for yet.
std::vector<std::string> unused_rows();

// Whether a line is one of those that the library may write at all.
bool is_documented(const std::string& line);

} // namespace faults
