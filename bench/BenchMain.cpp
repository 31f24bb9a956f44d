// What every benchmark program runs (BenchMain.h): without the flags below,
// plain Google Benchmark.
//
//   --brief            every benchmark runs once: the repetitions a benchmark
//                      asks for are dropped (bench/run learns names, labels
//                      and counters this way before it pairs them)
//   --paired=GROUPS    each line of GROUPS names one operation and the
//                      baselines it is compared with (exact benchmark names,
//                      tab-separated, the operation first)
//   --paired_rounds=N  rounds per group (default 5)
//   --paired_budget=S  a group that has taken S seconds stops after its
//                      third round (default: never)
//   --paired_out=FILE  one JSON object per line and slice
//
// In the paired mode the members of a group run in turn, one short slice
// each (--benchmark_min_time sets its length, repetitions are dropped), for
// N rounds; odd rounds run the group backwards so that a load rising or
// falling through a round weighs on both sides alike. A slice starts the
// benchmark afresh, and every benchmark sets its input up the same way each
// time, so all slices see the same input. Two slices of one round run
// moments apart, under the same load, which is what keeps their ratio
// steady on a machine that others are using.
#include "BenchMain.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using benchmark::internal::Benchmark;

namespace {

std::vector<Benchmark*>& registered()
{
    static std::vector<Benchmark*> all;
    return all;
}

} // namespace

// The registry keeps its benchmarks to itself; the link wraps its entry point
// (CMakeLists.txt) so that the modes above can drop repetitions, which
// benchmarks may fix in code where no flag reaches them.
extern "C" Benchmark* __real__ZN9benchmark8internal25RegisterBenchmarkInternalEPNS0_9BenchmarkE(Benchmark* b);
extern "C" Benchmark* __wrap__ZN9benchmark8internal25RegisterBenchmarkInternalEPNS0_9BenchmarkE(Benchmark* b)
{
    registered().push_back(b);
    return __real__ZN9benchmark8internal25RegisterBenchmarkInternalEPNS0_9BenchmarkE(b);
}

namespace {

// Keeps what one slice reported instead of printing it.
class Capture : public benchmark::BenchmarkReporter
{
public:
    std::vector<double> ms;
    int64_t iterations = 0;
    std::string error;

    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            if (r.error_occurred)
                error = r.error_message.empty() ? "error" : r.error_message;
            else if (r.run_type == Run::RT_Iteration && r.iterations > 0) {
                // Wall-clock or manual time, whichever the benchmark reports.
                ms.push_back(r.real_accumulated_time * 1e3 / double(r.iterations));
                iterations += r.iterations;
            }
        }
    }
};

// A filter that matches `name` and nothing else, whatever run options the
// registry appends to it.
std::string exactFilter(const std::string& name)
{
    std::string re = "^";
    for (char c : name) {
        if (std::strchr(".[]{}()*+?^$|\\", c))
            re += '\\';
        re += c;
    }
    return re + "(/(real_time|manual_time|process_time|min_time:[^/]*|min_warmup_time:[^/]*|repeats:[0-9]+|"
                "iterations:[0-9]+))*$";
}

std::string jsonString(const std::string& s)
{
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20)
            out += c;
    }
    return out + '"';
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

int runPaired(const std::string& groupsPath, int rounds, double budget, const std::string& outPath)
{
    std::ifstream in(groupsPath);
    if (!in) {
        std::cerr << "cannot read " << groupsPath << '\n';
        return 1;
    }
    std::vector<std::vector<std::string>> groups;
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> names;
        std::istringstream fields(line);
        for (std::string n; std::getline(fields, n, '\t');)
            if (!n.empty())
                names.push_back(n);
        if (!names.empty())
            groups.push_back(names);
    }
    std::ofstream out(outPath);
    if (!out) {
        std::cerr << "cannot write " << outPath << '\n';
        return 1;
    }
    for (size_t g = 0; g < groups.size(); ++g) {
        std::cerr << "  " << groups[g][0] << " (" << groups[g].size() - 1 << " baselines)\n";
        const auto start = std::chrono::steady_clock::now();
        const auto seconds = [&] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        };
        for (int r = 0; r < rounds; ++r) {
            // Three rounds still give a median that one disturbed round
            // cannot move; the slowest operations stop there.
            if (r >= 3 && budget > 0 && seconds() >= budget)
                break;
            std::vector<std::string> order = groups[g];
            if (r % 2)
                std::reverse(order.begin(), order.end());
            for (const std::string& name : order) {
                Capture c;
                if (benchmark::RunSpecifiedBenchmarks(&c, exactFilter(name)) == 0 && c.error.empty())
                    c.error = "no such benchmark";
                out << "{\"group\": " << g << ", \"op\": " << jsonString(groups[g][0]) << ", \"round\": " << r
                    << ", \"name\": " << jsonString(name);
                if (!c.error.empty())
                    out << ", \"error\": " << jsonString(c.error);
                else if (!c.ms.empty())
                    out << ", \"ms\": " << median(c.ms) << ", \"iterations\": " << c.iterations;
                out << "}\n";
                out.flush();
            }
        }
    }
    return 0;
}

// Takes "--name=value" out of argv; true when it was there.
bool takeFlag(int& argc, char** argv, const char* name, std::string* value)
{
    const size_t len = std::strlen(name);
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        if (std::strncmp(a, name, len) != 0 || (a[len] != '=' && a[len] != '\0'))
            continue;
        if (value)
            *value = a[len] == '=' ? a + len + 1 : "";
        for (int j = i; j + 1 < argc; ++j)
            argv[j] = argv[j + 1];
        --argc;
        return true;
    }
    return false;
}

} // namespace

int bench::runBenchmarks(int argc, char** argv)
{
    std::string groups, rounds = "5", budget = "0", out;
    const bool brief = takeFlag(argc, argv, "--brief", nullptr);
    const bool paired = takeFlag(argc, argv, "--paired", &groups);
    takeFlag(argc, argv, "--paired_rounds", &rounds);
    takeFlag(argc, argv, "--paired_budget", &budget);
    takeFlag(argc, argv, "--paired_out", &out);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (paired && (groups.empty() || out.empty() || std::atoi(rounds.c_str()) < 1)) {
        std::cerr << "--paired needs a groups file, --paired_out and at least one round\n";
        return 1;
    }
    if (brief || paired)
        for (Benchmark* b : registered())
            b->Repetitions(1);
    const int status = paired ? runPaired(groups, std::atoi(rounds.c_str()), std::atof(budget.c_str()), out)
                              : (benchmark::RunSpecifiedBenchmarks(), 0);
    benchmark::Shutdown();
    return status;
}
