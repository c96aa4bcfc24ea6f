// What a thread writes to C's `stderr` while it is in the layer, and what everybody else writes there.
#include "recorder/log.h"

#include "wrapper_audio_recorder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::HasSubstr;
namespace log = recorder::log;

std::string taken(std::size_t capacity = 2000000) {
    std::string text(capacity, '#');
    const std::size_t length = wrapper_audio_log_take(text.data(), capacity);
    EXPECT_EQ(std::char_traits<char>::length(text.c_str()), length);
    text.resize(length);
    return text;
}

// The host's standard error is a text in memory.
class log_lines : public testing::Test {
protected:
    void SetUp() override {
        taken();
        stderr = open_memstream(&text_, &length_);
        ASSERT_NE(stderr, nullptr);
        host_stream_ = stderr;
    }
    void TearDown() override {
        stderr = real_;
        std::fclose(host_stream_);
        std::free(text_);
        wrapper_audio_log_echo(0);
        taken();
    }

    std::string at_host() {
        std::fflush(host_stream_);
        return {text_, length_};
    }

private:
    FILE* const real_ = stderr;
    FILE* host_stream_ = nullptr;
    char* text_ = nullptr;
    std::size_t length_ = 0;
};

// ---- Whose line goes where ----

TEST_F(log_lines, of_a_thread_in_the_layer_are_collected) {
    {
        const log::scope scope;
        std::fprintf(stderr, "one %d %s\n", 1, "two");
        std::fputs("three\n", stderr);
        std::fputc('f', stderr);
        std::fwrite("ou", 1, 2, stderr);
        std::fputs("r\nfive\nsi", stderr);
        std::fputs("x\n", stderr);
        std::fputs("\n", stderr);
        perror("seven"); // through a copy of the stream
    }
    EXPECT_THAT(taken(), testing::StartsWith("one 1 two\nthree\nfour\nfive\nsix\n\nseven: "));
    EXPECT_EQ(at_host(), "");
    EXPECT_EQ(taken(), "");
}

TEST_F(log_lines, outside_the_layer_arrive_as_before) {
    std::fputs("before\n", stderr);
    {
        const log::scope scope;
        std::fputs("inside\n", stderr);
    }
    std::fputs("after, without a line feed", stderr);
    EXPECT_EQ(at_host(), "before\nafter, without a line feed");
    EXPECT_EQ(taken(), "inside\n");
}

TEST_F(log_lines, of_other_threads_arrive_as_before) {
    const log::scope scope;
    std::fputs("begun ", stderr);
    std::thread([] { std::fputs("from a thread of the host\n", stderr); }).join();
    std::thread([] {
        const log::scope another;
        std::fputs("from another thread in the layer\n", stderr);
    }).join();
    std::fputs("and ended\n", stderr);
    EXPECT_EQ(at_host(), "from a thread of the host\n");
    EXPECT_EQ(taken(), "from another thread in the layer\nbegun and ended\n");
}

TEST_F(log_lines, of_many_threads_stay_whole) {
    const log::scope first; // which points `stderr` elsewhere before they look at it
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 100; ++i) {
                const log::scope scope;
                std::fprintf(stderr, "%d-", thread);
                std::fprintf(stderr, "%d\n", i);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::istringstream lines(taken());
    std::vector<int> next(4);
    for (std::string line; std::getline(lines, line);) {
        int thread = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "%d-%d", &thread, &i), 2) << line;
        ASSERT_TRUE(thread >= 0 && thread < 4);
        EXPECT_EQ(i, next[static_cast<std::size_t>(thread)]++);
    }
    EXPECT_EQ(next, std::vector<int>(4, 100));
    EXPECT_EQ(at_host(), "");
}

TEST_F(log_lines, of_nested_calls_are_collected_to_the_end_of_the_outer_one) {
    {
        const log::scope outer;
        std::fputs("outer, ", stderr);
        {
            const log::scope inner;
            std::fputs("inner\n", stderr);
        }
        std::fputs("and outer again\n", stderr);
    }
    std::fputs("host\n", stderr);
    EXPECT_EQ(taken(), "inner\nouter, and outer again\n");
    EXPECT_EQ(at_host(), "host\n");
}

TEST_F(log_lines, that_nobody_ended_end_with_the_call) {
    {
        const log::scope scope;
        std::fputs("no line feed", stderr);
    }
    {
        const log::scope scope;
        std::fputs("next\n", stderr);
    }
    EXPECT_EQ(taken(), "no line feed\nnext\n");
}

TEST_F(log_lines, about_an_assertion_reach_the_host) {
    const log::scope scope;
    std::fputs("program: file.c:12: function: Assertion `x == 1' failed.\n", stderr);
    EXPECT_EQ(at_host(), "program: file.c:12: function: Assertion `x == 1' failed.\n");
    EXPECT_EQ(taken(), "");
}

TEST_F(log_lines, follow_a_host_that_changes_its_stream) {
    { const log::scope scope; }
    FILE* const ours = stderr;
    char* text = nullptr;
    std::size_t length = 0;
    FILE* const second = open_memstream(&text, &length);
    stderr = second;
    {
        const log::scope scope;
        std::fputs("inside\n", stderr);
    }
    EXPECT_EQ(stderr, ours);
    std::fputs("to the second\n", stderr);
    std::fflush(second);
    EXPECT_STREQ(text, "to the second\n");
    EXPECT_EQ(at_host(), "");
    EXPECT_EQ(taken(), "inside\n");
    std::fclose(second);
    std::free(text);
}

TEST_F(log_lines, need_no_stream_of_the_host) {
    FILE* const host = stderr;
    stderr = nullptr;
    {
        const log::scope scope; // and nothing happens
        EXPECT_EQ(stderr, nullptr);
    }
    stderr = host;
}

// ---- The descriptor ----

TEST(descriptor, of_standard_error_stays_what_it_is) {
    const int kept = dup(2);
    const int file = memfd_create("standard error", 0);
    ASSERT_NE(file, -1);
    std::fflush(stderr);
    dup2(file, 2);
    {
        const log::scope scope;
        EXPECT_EQ(fileno(stderr), 2);
        std::fputs("collected\n", stderr);
        EXPECT_EQ(write(2, "written\n", 8), 8);
        std::thread([] { std::fputs("host\n", stderr); }).join();
        EXPECT_EQ(system("echo child >&2"), 0);
    }
    std::fputs("after\n", stderr);
    std::fflush(stderr);
    EXPECT_EQ(fileno(stderr), 2);
    dup2(kept, 2);
    close(kept);
    char text[100] = {};
    EXPECT_GT(pread(file, text, sizeof text - 1, 0), 0);
    EXPECT_STREQ(text, "written\nhost\nchild\nafter\n");
    close(file);
    EXPECT_EQ(taken(), "collected\n");
}

// ---- What is kept ----

TEST_F(log_lines, are_kept_to_the_thousandth) {
    {
        const log::scope scope;
        for (int i = 0; i < 1003; ++i)
            std::fprintf(stderr, "%d\n", i);
    }
    std::string expected;
    for (int i = 3; i < 1003; ++i)
        expected += std::to_string(i) + "\n";
    EXPECT_EQ(taken(), expected);
}

TEST_F(log_lines, are_cut_at_1000_bytes) {
    const std::string longest(1000, 'x');
    {
        const log::scope scope;
        std::fprintf(stderr, "%s\n", longest.c_str());
        std::fprintf(stderr, "%sy\n", longest.c_str());
        for (int i = 0; i < 3; ++i)
            std::fprintf(stderr, "%.600s", longest.c_str());
        std::fputs("\nnext\n", stderr);
    }
    EXPECT_EQ(taken(), longest + "\n" + longest + "\n" + longest + "\nnext\n");
}

TEST_F(log_lines, are_taken_whole) {
    {
        const log::scope scope;
        std::fputs("first\nsecond\nthird\n", stderr);
    }
    EXPECT_EQ(wrapper_audio_log_take(nullptr, 100), 0U);
    char none[] = "###";
    EXPECT_EQ(wrapper_audio_log_take(none, 0), 0U);
    EXPECT_STREQ(none, "###");
    EXPECT_EQ(taken(1), "");
    EXPECT_EQ(taken(6), "") << "no room for the terminator";
    EXPECT_EQ(taken(13), "first\n");
    EXPECT_EQ(taken(14), "second\nthird\n");
    EXPECT_EQ(taken(14), "");
}

TEST_F(log_lines, are_shown_as_well_where_the_host_asks) {
    const log::scope scope;
    std::fputs("hidden\n", stderr);
    wrapper_audio_log_echo(1);
    std::fputs("shown \x1B[31m caf\xE9\n", stderr);
    std::fputs("in pie", stderr);
    EXPECT_EQ(at_host(), "shown \xEF\xBF\xBD[31m caf\xEF\xBF\xBD\n");
    std::fputs("ces\n", stderr);
    wrapper_audio_log_echo(0);
    std::fputs("hidden again\n", stderr);
    EXPECT_THAT(at_host(), testing::EndsWith("\nin pieces\n"));
    EXPECT_EQ(taken(), "hidden\nshown \x1B[31m caf\xE9\nin pieces\nhidden again\n");
}

// ---- The core's lines ----

TEST_F(log_lines, about_a_failure_are_told_once) {
    log::scope scope;
    EXPECT_EQ(scope.take_failure(), "");
    std::fputs("[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)\n", stderr);
    std::fputs("ALSA lib pcm.c:8526:(snd_pcm_recover) ОШИБКА\n", stderr);
    std::fputs("[audio_wrapper] Ресурсы освобождены\n", stderr);
    EXPECT_EQ(scope.take_failure(), "[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)");
    EXPECT_EQ(scope.take_failure(), "");
    std::fputs("[audio_wrapper] Pa_Initialize ОШИБКА: a\n", stderr);
    std::fputs("[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n", stderr);
    EXPECT_EQ(scope.take_failure(), "[audio_wrapper] нет устройства ввода (resolve → paNoDevice)");
}

TEST_F(log_lines, with_a_device_whose_name_is_a_failure_are_none) {
    log::scope scope;
    std::fputs("[audio_wrapper] ctx_create device='ОШИБКА: нет устройства' (idx=1, requested='WARN') "
               "capture_rate=48000 output_rate=48000 denoise=0\n"
               "[audio_wrapper] meter_open device='ОШИБКА' (idx=1) rate=48000 frames=1440\n",
               stderr);
    EXPECT_EQ(scope.take_failure(), "");
    std::fputs("[audio_wrapper] WARN device_id 'x' не найден, fallback на default input\n", stderr);
    EXPECT_THAT(scope.take_failure(), HasSubstr("'x'")) << "another device than was wanted";
}

std::string in_english(const std::string& line) {
    std::string text(1000, '#');
    const std::size_t length = wrapper_audio_log_in_english(line.c_str(), text.data(), text.size());
    text.resize(length);
    EXPECT_EQ(text, log::in_english(line));
    return text;
}

// The text at a quotation mark and those that follow upon it, put together.
std::string literal(std::string_view code) {
    std::string text;
    while (code.front() == '"') {
        for (code.remove_prefix(1); code.front() != '"'; code.remove_prefix(1)) {
            const bool escape = code.front() == '\\';
            if (escape) code.remove_prefix(1);
            text += escape && code.front() == 'n' ? '\n' : code.front();
        }
        code.remove_prefix(code.find_first_not_of(" \n", 1));
    }
    return text;
}

// Every text in a source that begins as a line of the core does.
std::vector<std::string> formats(const std::string& source) {
    std::ifstream file(source);
    const std::string code{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string> all;
    for (std::size_t at = code.find("\"["); at != std::string::npos; at = code.find("\"[", at + 1)) {
        const std::string text = literal(std::string_view(code).substr(at));
        if (text.starts_with("[audio_wrapper] ") || text.starts_with("[dsp] ")) all.push_back(text);
    }
    return all;
}

// With something plain for every argument.
std::string filled_in(std::string_view format) {
    std::string line;
    for (; !format.empty(); format.remove_prefix(1)) {
        if (format.front() != '%') {
            line += format.front();
            continue;
        }
        format.remove_prefix(format.find_first_of("sdf"));
        line += format.front() == 's' ? "Some words (2)" : "48000";
    }
    return line;
}

TEST(english, is_there_for_every_line_of_the_core) {
    std::vector<std::string> all = formats(CORE_SOURCES "/audio_capture_wrapper.cpp");
    EXPECT_GE(all.size(), 21U);
    const auto more = formats(CORE_SOURCES "/dsp_extensions.cpp");
    EXPECT_GE(more.size(), 3U);
    all.insert(all.end(), more.begin(), more.end());
    for (const auto& format : all) {
        const std::string line = filled_in(format);
        ASSERT_EQ(line.find('%'), std::string::npos) << line;
        ASSERT_EQ(line.back(), '\n') << line;
        const std::string english = in_english(line);
        ASSERT_FALSE(english.empty()) << line;
        EXPECT_TRUE(std::isalpha(english.front())) << english;
        EXPECT_TRUE(std::all_of(english.begin(), english.end(), [](char c) { return c >= ' ' && c <= '~'; }))
            << line << english;
        EXPECT_EQ(english.find("audio_wrapper"), std::string::npos) << english;
        EXPECT_EQ(english, in_english(line.substr(0, line.size() - 1))) << "the line feed makes no difference";
        for (const std::string argument : {"Some words (2)", "48000"}) {
            if (line.find(argument) != std::string::npos) {
                EXPECT_THAT(english, HasSubstr(argument));
            }
        }
    }
}

TEST(english, by_hand) {
    EXPECT_EQ(in_english("[audio_wrapper] WARN device_id 'ALSA:x' не найден, fallback на default input\n"),
              "the default input device is used, because no device has the id 'ALSA:x'");
    EXPECT_EQ(in_english("[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)\n"),
              "the device did not open: Device unavailable (rate=48000)");
    EXPECT_EQ(in_english("[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n"), "there is no input device");
    EXPECT_EQ(in_english("[audio_wrapper] list_devices: 12 устройств\n"), "devices listed: 12");
    EXPECT_EQ(in_english("[audio_wrapper] list_devices: 12"), "devices listed: 12") << "a line that was cut";
    EXPECT_EQ(in_english("[audio_wrapper] Запись остановлена"), "the device was stopped");
    EXPECT_EQ(in_english("[dsp] HPF инициализирован: cutoff=80 Hz, Q=0.707\n"),
              "the high-pass filter was set up: cutoff=80 Hz, Q=0.707");
}

TEST(english, of_other_lines_there_is_none) {
    for (const std::string line :
         {"", "\n", "[audio_wrapper]", "[audio_wrapper] \n",
          "ALSA lib pcm.c:2675:(snd_pcm_open_noupdate) Unknown PCM\n", " [audio_wrapper] meter_close\n", "[dsp] \n"})
        EXPECT_EQ(in_english(line), "") << line;
    EXPECT_EQ(wrapper_audio_log_in_english(nullptr, nullptr, 0), 0U);
    char text[] = "###";
    EXPECT_EQ(wrapper_audio_log_in_english(nullptr, text, 3), 0U);
    EXPECT_STREQ(text, "");
}

TEST(english, is_cut_to_fit) {
    char text[11];
    EXPECT_EQ(wrapper_audio_log_in_english("[audio_wrapper] meter_close\n", text, sizeof text), 20U);
    EXPECT_STREQ(text, "the meter ");
}

} // namespace
