// A console reporter that also keeps the best time of each benchmark, the least disturbed by
// other work on the machine, so that a program can print ratios between benchmarks at the end.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>

class BestTimeReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            const std::string name = run.run_name.function_name + "/" + run.run_name.args;
            const double t = run.GetAdjustedRealTime();
            auto it = best.find(name);
            if (it == best.end() || t < it->second)
                best[name] = t;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Best time of a over best time of b ("function/args", args empty for none); 0 when either
    // did not run.
    double timeRatio(const std::string& a, const std::string& b) const
    {
        const auto x = best.find(a), y = best.find(b);
        return x != best.end() && y != best.end() && y->second > 0 ? x->second / y->second : 0.0;
    }

private:
    std::map<std::string, double> best;
};
