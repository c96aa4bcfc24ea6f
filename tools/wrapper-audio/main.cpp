/**
 * wrapper-audio, the command-line host: a program like any other that knows the library by a public header.
 */
#include "command_line.h"
#include "console.h"
#include "failure.h"
#include "status_line.h"
#include "stopping.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>

namespace {

/** A file opened later must not become file descriptor 2, where others write as well. */
void fill_standard_descriptors() {
    int descriptor = 0;
    do
        descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

struct run_command {
    exit_code operator()(const devices_options& wanted) const { return list_devices(wanted); }
    exit_code operator()(const meter_options& wanted) const { return show_meter(wanted); }
    exit_code operator()(const record_options& wanted) const { return record(wanted); }
    int operator()(const dictate_options& wanted) const { return dictate(wanted); }
    exit_code operator()(const process_options& wanted) const { return process(wanted); }
    exit_code operator()(const doctor_options& wanted) const { return examine(wanted); }
};

/** Whoever reads our output has gone. */
struct reader_gone {};

int run(const command_line& wanted) try {
    return std::visit([](const auto& options) -> int { return run_command()(options); }, wanted.command);
} catch (const reader_gone&) {
    return fine;
} catch (const failure& end) {
    console::error(end.text());
    return end.code;
} catch (const std::exception& error) {
    console::error(error.what());
    return unexpected;
}

} // namespace

void print(const std::string& text) {
    status_line::make_room();
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) return;
    if (errno == EPIPE) throw reader_gone();
    throw failure(file_trouble, fmt::format("cannot write to standard output: {}", std::strerror(errno)));
}

// NOLINTNEXTLINE(bugprone-exception-escape): only where there is no memory for a line, and so none to say it with
int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    fill_standard_descriptors();
    ignore_write_signals();
    command_line wanted;
    if (const auto code = parse(argc, argv, wanted)) return *code;
    console::begin(wanted.loudness);
    const int code = run(wanted);
    status_line::finish();
    if (wrapper_audio_abandoned_threads() == 0) return code;
    // What libraries do at the end of a process would wait for the device that hangs, or be used by its thread.
    std::fflush(nullptr);
    _exit(code);
}
