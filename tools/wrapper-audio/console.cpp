#include "console.h"

#include "status_line.h"
#include "text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <sstream>

// The sanitizers' way to write elsewhere than to descriptor 2. Null in a build without them.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the name is theirs
extern "C" [[gnu::weak]] void __sanitizer_set_report_fd(void* descriptor);

namespace {

int users_descriptor = STDERR_FILENO;
int memory = -1;
off_t collected_until = 0;
volatile off_t shown_until = 0; // the crash handler reads it
console::loudness volume = console::loudness::normal;
std::vector<std::string> unseen_library_lines;
std::vector<std::string> other_lines;

constexpr std::size_t most_lines_kept = 1000;

bool is_library_line(const std::string& line) {
    return line.starts_with("[audio_wrapper]") || line.starts_with("[dsp]");
}

/** Nothing but system calls: it runs in signal handlers. */
void show_what_is_left() {
    char part[512];
    ssize_t got = 0;
    while ((got = pread(memory, part, sizeof part, shown_until)) > 0) {
        disarm(part, static_cast<std::size_t>(got));
        if (write(users_descriptor, part, static_cast<std::size_t>(got)) < 0) return;
        shown_until = shown_until + got;
    }
}

/** PortAudio aborts the process on some broken ALSA configurations; what it says then must not be lost. */
constexpr int crashes[] = {SIGABRT, SIGSEGV, SIGBUS, SIGILL, SIGFPE};
struct sigaction former_actions[std::size(crashes)];

extern "C" void on_crash(int number, siginfo_t* info, void* /*context*/) {
    show_what_is_left();
    for (std::size_t i = 0; i < std::size(crashes); ++i)
        if (crashes[i] == number) sigaction(number, &former_actions[i], nullptr);
    // A faulting instruction runs into its fault again. What was sent by a call has to be sent once more.
    if (info->si_code <= 0) raise(number);
}

/** A back end that ends the process by exit() must not take its reasons with it either. */
extern "C" void on_exit_inside_a_library() {
    if (memory >= 0) show_what_is_left();
}

void watch_for_crashes() {
    alignas(16) static char stack[32768]; // an overflown stack cannot carry the handler
    stack_t alternative{};
    alternative.ss_sp = stack;
    alternative.ss_size = sizeof stack;
    sigaltstack(&alternative, nullptr);
    struct sigaction action {};
    action.sa_sigaction = on_crash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < std::size(crashes); ++i)
        sigaction(crashes[i], &action, &former_actions[i]);
    std::atexit(on_exit_inside_a_library);
}

/** From here to the end of what has been written to descriptor 2. */
std::string uncollected_text() {
    std::string text;
    char part[4096];
    ssize_t got = 0;
    while ((got = pread(memory, part, sizeof part, collected_until + static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<std::size_t>(got));
    return text;
}

void sort_in(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        auto& kept = is_library_line(line) ? unseen_library_lines : other_lines;
        if (kept.size() < most_lines_kept) kept.push_back(line);
    }
}

void say(const std::string& sentence) {
    status_line::make_room();
    console::write_all(users_descriptor, fmt::format("wrapper-audio: {}\n", sentence));
}

} // namespace

namespace console {

void begin(loudness wanted) {
    volume = wanted;
    const int copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    memory = memfd_create("stderr", MFD_CLOEXEC);
    if (copy < 0 || memory < 0 || dup2(memory, STDERR_FILENO) < 0) { // then the user sees everything
        if (copy >= 0) close(copy);
        if (memory >= 0) close(memory);
        memory = -1;
        return;
    }
    users_descriptor = copy;
    watch_for_crashes();
    if (__sanitizer_set_report_fd != nullptr)
        // NOLINTNEXTLINE(performance-no-int-to-ptr): so they want their descriptor
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(copy)));
}

void end() {
    collect();
    status_line::finish();
    if (memory < 0) return;
    dup2(users_descriptor, STDERR_FILENO);
    close(memory);
    memory = -1;
}

bool is_quiet() {
    return volume == loudness::quiet;
}

bool is_verbose() {
    return volume == loudness::verbose;
}

int descriptor() {
    return users_descriptor;
}

void write_all(int to, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t wrote = write(to, text.data() + at, text.size() - at);
        if (wrote < 0 && errno != EINTR) return;
        at += static_cast<std::size_t>(std::max<ssize_t>(wrote, 0));
    }
}

void note(const std::string& sentence) {
    if (!is_quiet()) say(sentence);
}

void error(const std::string& sentence) {
    say(sentence);
}

std::string collect() {
    if (memory < 0) return {};
    std::string text = uncollected_text();
    text.resize(text.rfind('\n') + 1); // npos + 1 is 0: half a line has to wait for its end
    if (text.empty()) return text;
    collected_until += static_cast<off_t>(text.size());
    sort_in(text);
    if (is_verbose()) {
        status_line::make_room();
        write_all(users_descriptor, disarmed(text));
        unseen_library_lines.clear();
    }
    constexpr off_t plenty = 1 << 20; // a device may complain for hours
    if (is_verbose() || collected_until - shown_until > plenty) {
        fallocate(memory, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, shown_until, collected_until - shown_until);
        shown_until = collected_until;
    }
    return text;
}

void show_library_lines() {
    collect();
    if (unseen_library_lines.empty()) return;
    status_line::make_room();
    for (const std::string& line : unseen_library_lines)
        write_all(users_descriptor, disarmed(line) + "\n");
    unseen_library_lines.clear();
}

const std::vector<std::string>& back_end_lines() {
    return other_lines;
}

} // namespace console
