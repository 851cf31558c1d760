#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <benchmarks/support/PairedRatio.h>

namespace TarnBenchmark {

/// How a benchmark program was asked to run.
struct Plan {
    bool quick = false;  ///< a smoke run: everything runs, for a moment, and no target is judged

    /// @return the pairs of slices to measure where a full measurement takes `full`.
    int Pairs(int full) const { return quick ? 3 : full; }
};

/// What a program measured against its targets: one row for each claim. Threads: the one that runs the benchmarks.
class TargetTable {
public:
    /// A claim about speed: the median ratio must reach `at_least`. Sets the benchmark's counters `ratio`, `ratio_25`,
    /// `ratio_75` (the quartiles) and `target`.
    ///
    /// @param library, baseline  the figures of both sides, with their unit.
    void AddRatio(benchmark::State& state, const std::string& what, const PairedRatio& measured,
                  const std::string& library, const std::string& baseline, double at_least);

    /// A claim about an amount: `value` must not be more than `at_most`. Sets no counter.
    ///
    /// @param baseline  the same amount of something to compare with, or "-".
    void AddLimit(const std::string& what, double value, const std::string& unit, const std::string& baseline,
                  double at_most);

    /// The benchmark cannot be measured: it ends with this error, and so does the program.
    void Fail(benchmark::State& state, const std::string& error);

    /// Runs the program: registers its benchmarks, runs those that were asked for, writes the table.
    ///
    /// Beside Google Benchmark's own options it takes `--quick` and `--table=FILE`, which appends the rows to a file
    /// instead of printing them: what, library, baseline, ratio, target and verdict, with tabs in between.
    ///
    /// @return the exit status: 0 if all is well, 1 if a target was missed, 2 if something could not be measured or
    ///         an option is not known.
    int Run(int argc, char** argv, const std::function<void(const Plan&)>& register_benchmarks);

private:
    struct Row {
        std::string what, library, baseline, ratio, target;
        bool met;
    };

    void Write(std::ostream& out) const;
    bool AreAllMet() const;

    Plan m_plan;
    std::vector<Row> m_rows;
    bool m_failed = false;
};

/// A number with its unit, as it stands in the table: "12.3 ns".
std::string Figure(double value, int decimals, const std::string& unit);

}  // namespace TarnBenchmark
