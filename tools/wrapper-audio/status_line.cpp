#include "status_line.h"

#include "console.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

int drawn_on = -1;
std::string drawn_text;
int drawn_columns = 0;
// NOLINTNEXTLINE(cert-err58-cpp): made by the compiler, not at run time
constinit std::chrono::steady_clock::time_point drawn_at;

bool is_set(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

} // namespace

terminal::terminal(int to)
    : redraws(isatty(to) == 1), utf8(std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0), descriptor(to) {
    const char* kind = std::getenv("TERM");
    colours = redraws && !is_set("NO_COLOR") && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

int terminal::width() const {
    winsize size{};
    const bool known = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return (known ? size.ws_col : 80) - 1;
}

namespace status_line {

bool is_due() {
    return drawn_on < 0 || std::chrono::steady_clock::now() - drawn_at >= std::chrono::milliseconds(50);
}

void show(const terminal& on, const shown_text& line) {
    if (!on.redraws || !is_due()) return;
    // Spaces rather than an escape sequence clear what a longer line left: every terminal knows them.
    const int rest = std::min(std::max(drawn_columns - line.columns, 0), std::max(on.width() - line.columns, 0));
    // The cursor waits at the front: there the echo of Ctrl-C breaks no line.
    console::write_all(on.descriptor, fmt::format("\r{}{:{}}\r", line.text, "", rest));
    drawn_on = on.descriptor;
    drawn_text = line.text;
    drawn_columns = line.columns;
    drawn_at = std::chrono::steady_clock::now();
}

void make_room() {
    if (drawn_on < 0) return;
    console::write_all(drawn_on, fmt::format("\r{:{}}\r", "", drawn_columns));
    drawn_on = -1;
    drawn_columns = 0;
}

void finish() {
    if (drawn_on < 0) return;
    console::write_all(drawn_on, fmt::format("\r{}\n", drawn_text)); // once more, over that echo
    drawn_on = -1;
    drawn_columns = 0;
}

} // namespace status_line
