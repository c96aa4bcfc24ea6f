// What the core and PortAudio's back ends write to C's `stderr`: collected, kept and translated into English.
#pragma once

#include <string>
#include <string_view>

namespace recorder::log {

// During its lifetime, what its thread writes to `stderr` is collected. Other threads write as before.
class scope {
public:
    scope();
    ~scope();
    scope(const scope&) = delete;
    scope& operator=(const scope&) = delete;

    // The core's last line about a failure or a warning since the scope began, or since the last call.
    std::string take_failure();
    bool has_failure() const { return !failure_.empty(); }

private:
    friend struct collector;
    scope* const outer_;
    std::string line_;
    std::string failure_;
};

// What a line of the core means, in English; empty for other lines.
std::string in_english(std::string_view line);

} // namespace recorder::log
