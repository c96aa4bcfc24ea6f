// Runs every benchmark, interleaved and repeated, and holds the shortest times against what is required.
#include "report.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

namespace {

struct requirement {
    enum kind { gain, share, shown };
    kind type;
    std::string what;
    std::string numerator;
    std::string denominator;
    double limit;
};

std::vector<requirement> g_requirements;

// Keeps the shortest repetition of each benchmark: what disturbs a measurement only ever makes it longer.
class shortest : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override {
        PrintBasicContext(&GetErrorStream(), context);
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            const double nanoseconds = run.GetAdjustedCPUTime();
            const auto [place, fresh] = times_.try_emplace(run.run_name.function_name, nanoseconds);
            if (!fresh) place->second = std::min(place->second, nanoseconds);
        }
    }

    // Prints the times and the ratios, writes them for the chart too, and returns how many requirements are not met.
    int verdict() const {
        std::FILE* table = std::fopen("ratios.tsv", "w");
        std::printf("\n%-58s %12s\n", "shortest time", "ns");
        for (const auto& [name, time] : times_)
            std::printf("%-58s %12.0f\n", name.c_str(), time);
        std::printf("\n%-66s %9s %10s\n", "ratio", "measured", "required");
        int missed = 0;
        for (const requirement& r : g_requirements) {
            const auto numerator = times_.find(r.numerator);
            const auto denominator = times_.find(r.denominator);
            if (numerator == times_.end() || denominator == times_.end()) continue; // left out by a filter
            const double ratio = numerator->second / denominator->second;
            if (table != nullptr) std::fprintf(table, "%s\t%g\n", r.what.c_str(), ratio);
            if (r.type == requirement::shown) {
                std::printf("%-66s %8.2fx\n", r.what.c_str(), ratio);
                continue;
            }
            const bool met = r.type == requirement::gain ? ratio >= r.limit : ratio <= r.limit;
            missed += met ? 0 : 1;
            const char* unit = r.type == requirement::share && r.limit < 0.1 ? "%" : "x";
            const double scale = *unit == '%' ? 100.0 : 1.0;
            std::printf("%-66s %8.2f%s %s %6.2f%s  %s\n", r.what.c_str(), ratio * scale, unit,
                        r.type == requirement::gain ? ">=" : "<=", r.limit * scale, unit, met ? "pass" : "FAIL");
        }
        if (table != nullptr) std::fclose(table);
        std::printf("\n%d requirements missed\n", missed);
        return missed;
    }

private:
    std::map<std::string, double> times_;
};

} // namespace

namespace bench {

void require_gain(const std::string& what, const std::string& slow, const std::string& fast, double least) {
    g_requirements.push_back({requirement::gain, what, slow, fast, least});
}

void require_share(const std::string& what, const std::string& part, const std::string& whole, double most) {
    g_requirements.push_back({requirement::share, what, part, whole, most});
}

void show_gain(const std::string& what, const std::string& slow, const std::string& fast) {
    g_requirements.push_back({requirement::shown, what, slow, fast, 0.0});
}

} // namespace bench

int main(int argc, char** argv) {
    // The defaults come first, so that the command line wins.
    std::vector<std::string> words{argv[0], "--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
                                   "--benchmark_min_time=0.01"};
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    int count = static_cast<int>(arguments.size());

    bench::register_read();
    bench::register_functions();
    bench::register_recorder();
    bench::register_peers();
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
    shortest reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.verdict() == 0 ? 0 : 1;
}
