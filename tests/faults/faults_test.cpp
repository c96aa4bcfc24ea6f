// Whatever fails below the library, and whenever: the documented result and lines, nothing left behind, and the next
// call works. The faults are generated from the journals of good runs, so that a new call in src/ is failed as well.
#include "expectations.h"
#include "fixture.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

using fake::world;
using faults::fault;
using faults::handles;
using faults::journal;
using faults::outcome;
using faults::state;
using faults::way;

namespace faults {

// How gtest shows an outcome.
void PrintTo(const outcome& o, std::ostream* out) {
    *out << "'" << o.result << "', state " << static_cast<int>(o.after) << ", lines:";
    for (const std::string& line : o.lines)
        *out << "\n    " << line;
}

} // namespace faults

namespace {

// The lines written since the last look, without their ends and the library's mark.
std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const bool marked = line.rfind("[audio_wrapper] ", 0) == 0 || line.rfind("[dsp] ", 0) == 0;
        lines.push_back(marked ? line.substr(line.find(' ') + 1) : "without a mark: " + line);
    }
    return lines;
}

struct tally {
    int ways = 0;
    int single = 0;
    int twofold = 0;
};

class fault_matrix : public with_fakes {
protected:
    // Runs the way in a new world, with these faults; `seen` receives the result and the lines.
    handles run(const way& w, const std::map<size_t, int>& at, outcome& seen, journal& calls_made) {
        fake::reset();
        w.world();
        handles held;
        w.prepare(held);
        forget();
        world().faults = at;
        seen.result = w.run(held);
        EXPECT_THAT(world().faults, testing::IsEmpty()) << "a fault was not met";
        world().faults.clear();
        seen.lines = lines_of(log());
        calls_made = calls();
        return held;
    }

    // What the handles are worth now, found out through the exported calls alone.
    static state state_of(handles& held, const way& w) {
        if (held.meter != nullptr) {
            EXPECT_GE(wrapper_audio_meter_read(held.meter, nullptr, nullptr), 64) << "the meter does not measure";
            wrapper_audio_meter_close(held.meter);
            EXPECT_EQ(log(), "[audio_wrapper] meter_close\n");
            return state::metering;
        }
        if (held.ctx == nullptr) return state::nothing;
        const bool was_capturing = reads(held.ctx, w);
        bool had_stream = was_capturing;
        if (!was_capturing) {
            EXPECT_EQ(log(), "") << "a refused read says something";
            wrapper_audio_release_stream(held.ctx);
            had_stream = !log().empty();
            EXPECT_EQ(wrapper_audio_open(held.ctx), 0) << "the context does not open any more";
            EXPECT_THAT(log(), testing::StartsWith("[audio_wrapper] open: микрофон захвачен (capture_rate="));
            EXPECT_TRUE(reads(held.ctx, w)) << "the context does not capture any more";
        }
        wrapper_audio_free(held.ctx);
        EXPECT_EQ(log(), "[audio_wrapper] Ресурсы освобождены\n");
        return was_capturing ? state::capturing : had_stream ? state::stopped : state::armed;
    }

    // Whether 10 ms can be read; if so, they have to be right.
    static bool reads(wrapper_audio_ctx* ctx, const way& w) {
        int16_t pcm[480] = {};
        float rms = 0.0F;
        float peak = 0.0F;
        const int count = wrapper_audio_read(ctx, 10, pcm, 480, &rms, &peak);
        if (count < 0) return false;
        EXPECT_EQ(count, (w.output_rate < 1 ? 16000 : w.output_rate) / 100);
        EXPECT_EQ(std::count(pcm, pcm + count, 16383), count);
        EXPECT_EQ(peak, 0.5F);
        return true;
    }

    // A new context and every query, in a world where nothing fails.
    static void expect_good_calls() {
        world().devices = {fake::device{"New"}};
        world().default_input = 0;
        world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, 0.5F); };
        wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, "Host:New");
        EXPECT_TRUE(reads(ctx, way{}));
        EXPECT_EQ(wrapper_audio_capabilities(), 3);
        wrapper_audio_meter* meter = wrapper_audio_meter_open(nullptr);
        EXPECT_EQ(wrapper_audio_meter_read(meter, nullptr, nullptr), 1440);
        wrapper_audio_meter_close(meter);
        char* text = wrapper_audio_list_devices_json();
        EXPECT_STREQ(text, R"([{"id":"Host:New","name":"New","kind":"input","isDefault":true}])");
        wrapper_audio_free_text(text);
        wrapper_audio_free(ctx);
        forget();
    }

    // Runs the way and expects this of it, and that life goes on.
    journal survives(const way& w, const std::map<size_t, int>& at, const outcome& promised) {
        outcome seen;
        journal calls_made;
        handles held = run(w, at, seen, calls_made);
        seen.after = state_of(held, w);
        EXPECT_EQ(seen, promised);
        expect_good_calls();
        EXPECT_EQ(world().lost_streams, w.lost_streams) << "streams that only Pa_Terminate closed";
        expect_nothing_left_behind();
        return calls_made;
    }

    // When the call ended at its first fault, the second one comes while it gives back, and changes nothing. Otherwise
    // the host sees what either of the two may lead to. In any case the lines are documented ones, nothing is left
    // behind and life goes on.
    void survives_two(const way& w, const std::map<size_t, int>& at, const outcome& after_the_first) {
        outcome seen;
        journal calls_made;
        handles held = run(w, at, seen, calls_made);
        seen.after = state_of(held, w);
        if (after_the_first.result == "null" || after_the_first.result == "-1") {
            EXPECT_EQ(seen, after_the_first);
        } else if (seen.result == "null") {
            EXPECT_TRUE(seen.after == state::nothing || seen.after == w.good.after);
        } else if (seen.result == "-1") {
            EXPECT_EQ(seen.after, w.call == "open" ? state::armed : w.good.after);
        } else {
            EXPECT_EQ(seen.after, after_the_first.after);
        }
        for (const std::string& line : seen.lines)
            EXPECT_TRUE(w.good.lines == seen.lines || faults::is_documented(line)) << line;
        expect_good_calls();
        EXPECT_EQ(world().lost_streams, w.lost_streams) << "streams that only Pa_Terminate closed";
        expect_nothing_left_behind();
    }

    void inject_a_second(const way& w, size_t first, int answer, const journal& failed,
                         const outcome& after_the_first) {
        for (size_t second = first + 1; second < failed.size(); ++second) {
            const std::string kind = faults::kind_of(failed, second);
            if (!faults::may_fail(kind)) continue;
            EXPECT_THAT(faults::failing_answers(kind, w), testing::Not(testing::IsEmpty())) << "a new kind: " << kind;
            for (const int then : faults::failing_answers(kind, w)) {
                SCOPED_TRACE("and then entry " + std::to_string(second) + ", " + failed[second] + ", answers " +
                             std::to_string(then));
                survives_two(w, {{first, answer}, {second, then}}, after_the_first);
                ++tallies_[w.call].twofold;
                if (HasFailure()) return;
            }
        }
    }

    void inject_everywhere(const way& w) {
        const journal good = survives(w, {}, w.good);
        ++tallies_[w.call].ways;
        for (size_t at = 0; at < good.size() && !HasFailure(); ++at) {
            const std::string kind = faults::kind_of(good, at);
            if (!faults::may_fail(kind)) continue;
            EXPECT_THAT(faults::failing_answers(kind, w), testing::Not(testing::IsEmpty())) << "a new kind: " << kind;
            for (const int answer : faults::failing_answers(kind, w)) {
                SCOPED_TRACE("entry " + std::to_string(at) + ", " + good[at] + ", answers " + std::to_string(answer));
                fake::reset();
                w.world(); // what is expected depends on the devices
                const auto promised = faults::expected(w, {&good, at, answer});
                ASSERT_TRUE(promised) << "nothing is known of what becomes of " << w.call
                                      << " when this fails: " << kind;
                const journal failed = survives(w, {{at, answer}}, *promised);
                ++tallies_[w.call].single;
                if (!HasFailure()) inject_a_second(w, at, answer, failed, *promised);
                if (HasFailure()) return;
            }
        }
    }

    std::map<std::string, tally> tallies_;
};

TEST_F(fault_matrix, every_call_survives_every_fault) {
    const std::vector<way> ways = faults::all_ways();
    for (const way& w : ways) {
        SCOPED_TRACE(w.call + ", " + w.name);
        inject_everywhere(w);
        if (HasFatalFailure()) break;
    }
    tally all;
    std::printf("%-22s %6s %8s %9s\n", "call", "ways", "faults", "twofold");
    for (const auto& [call, counted] : tallies_) {
        std::printf("%-22s %6d %8d %9d\n", call.c_str(), counted.ways, counted.single, counted.twofold);
        all.ways += counted.ways;
        all.single += counted.single;
        all.twofold += counted.twofold;
    }
    std::printf("%-22s %6d %8d %9d\n", "all", all.ways, all.single, all.twofold);
    if (!HasFailure()) std::printf("%d faults injected and survived\n", all.single + all.twofold);
    EXPECT_GT(all.single, 0);
    EXPECT_GT(all.twofold, 0);
    EXPECT_THAT(faults::unused_rows(), testing::IsEmpty()) << "nothing has failed in these ways";
}

// An export that is added has to be run here, too.
TEST_F(fault_matrix, knows_every_export) {
    std::ifstream map(EXPORTS);
    std::set<std::string> exports;
    const std::string prefix = "wrapper_audio_";
    for (std::string word; map >> word;) {
        if (word.rfind(prefix, 0) == 0) exports.insert(word.substr(prefix.size(), word.size() - prefix.size() - 1));
    }
    std::set<std::string> called;
    for (const way& w : faults::all_ways())
        called.insert(w.call);
    EXPECT_EQ(called, exports);
}

// Handles that were never had.
TEST_F(fault_matrix, null_handles_call_nothing_that_could_fail) {
    EXPECT_EQ(wrapper_audio_open(nullptr), -1);
    int16_t pcm[1];
    EXPECT_EQ(wrapper_audio_read(nullptr, 10, pcm, 1, nullptr, nullptr), -1);
    EXPECT_EQ(wrapper_audio_meter_read(nullptr, nullptr, nullptr), -1);
    wrapper_audio_release_stream(nullptr);
    wrapper_audio_stop(nullptr);
    wrapper_audio_free(nullptr);
    wrapper_audio_free_text(nullptr);
    wrapper_audio_meter_close(nullptr);
    wrapper_audio_resampler_free(nullptr);
    EXPECT_EQ(wrapper_audio_resample(nullptr, nullptr, 0, nullptr, 0), 0);
    EXPECT_THAT(calls(), testing::IsEmpty());
}

} // namespace
