/**
 * wrapper-audio dictate: one utterance, for a command.
 */
#include "commands.h"
#include "console.h"
#include "file_names.h"
#include "stopping.h"
#include "text.h"

#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

/** A file that is gone when nobody needs it any more. */
class temporary_file {
public:
    temporary_file() {
        const char* folder = std::getenv("TMPDIR");
        path_ = fmt::format("{}/wrapper-audio-XXXXXX.wav", folder != nullptr && *folder != '\0' ? folder : "/tmp");
        const int descriptor = mkstemps(path_.data(), 4);
        if (descriptor < 0)
            throw failure(file_trouble, fmt::format("cannot create {}: {}", printable(path_), std::strerror(errno)));
        close(descriptor);
    }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;
    ~temporary_file() { unlink(path_.c_str()); }

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/** Where the command is, before anybody speaks for nothing. */
void find_command(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::string folders = name.find('/') != std::string::npos ? "" : path != nullptr ? path : "/usr/bin:/bin";
    int error = ENOENT;
    for (std::size_t at = 0; at <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', at), folders.size());
        const std::string folder = folders.substr(at, end - at);
        if (access((folder.empty() ? name : fmt::format("{}/{}", folder, name)).c_str(), X_OK) == 0) return;
        if (errno != ENOENT && errno != ENOTDIR) error = errno;
        at = end + 1;
    }
    throw failure(usage, fmt::format("cannot run '{}': {}", printable(name), std::strerror(error)));
}

/** Each {} becomes the file's name, which otherwise is the last argument. */
std::vector<std::string> arguments(const std::vector<std::string>& command, const std::string& file) {
    std::vector<std::string> all = command;
    bool is_named = false;
    for (std::string& each : all)
        for (std::size_t at = 0; (at = each.find("{}", at)) != std::string::npos; at += file.size()) {
            each.replace(at, 2, file);
            is_named = true;
        }
    if (!is_named) all.push_back(file);
    return all;
}

volatile std::sig_atomic_t g_child = 0;

extern "C" void pass_on(int number) {
    if (number != SIGINT) kill(g_child, number); // the terminal sends Ctrl-C to both
}

/** Returns the command's exit code; 128 and the number of the signal that ended it. */
int run(std::vector<std::string> words) {
    std::vector<char*> pointers(words.size() + 1, nullptr); // the last one ends them
    std::transform(words.begin(), words.end(), pointers.begin(), [](std::string& word) { return word.data(); });
    sigset_t passed_on;
    sigemptyset(&passed_on);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&passed_on, number);
    sigset_t usual = passed_on;
    sigaddset(&usual, SIGPIPE);
    sigaddset(&usual, SIGXFSZ);
    sigset_t former;
    sigprocmask(SIG_BLOCK, &passed_on, &former); // until there is somebody to pass them on to
    posix_spawnattr_t how;
    posix_spawnattr_init(&how);
    posix_spawnattr_setsigdefault(&how, &usual);
    posix_spawnattr_setsigmask(&how, &former);
    posix_spawnattr_setflags(&how, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    const int error = posix_spawnp(&child, pointers[0], nullptr, &how, pointers.data(), environ);
    posix_spawnattr_destroy(&how);
    if (error == 0) {
        g_child = child;
        struct sigaction action {};
        action.sa_handler = pass_on;
        for (const int number : {SIGINT, SIGTERM, SIGHUP})
            sigaction(number, &action, nullptr);
    }
    sigprocmask(SIG_SETMASK, &former, nullptr);
    if (error != 0) throw failure(usage, fmt::format("cannot run '{}': {}", printable(words[0]), std::strerror(error)));
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int dictate(const dictate_options& wanted) {
    find_command(wanted.command[0]);
    std::optional<temporary_file> temporary;
    record_options options = wanted.recording;
    options.path = options.path.empty() ? temporary.emplace().path() : expanded(options.path);
    options.for_a_command = options.speech.start = true;
    if (const exit_code code = record(options); code != fine) return code;
    return run(arguments(wanted.command, options.path));
}
