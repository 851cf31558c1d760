#pragma once

#include <benchmark/benchmark.h>

#include <string>

#include <benchmarks/support/CountedNew.h>
#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/TargetTable.h>

namespace TarnBenchmark {

/// Calls `call(n)` for the numbers of a slice. @return its seconds.
template <class Call>
double Slice(int calls, Call call) {
    return SecondsOf([&] {
        for (int i = 0; i < calls; ++i) {
            call(i);
            // Each call is made: none may be moved, joined or left out.
            benchmark::ClobberMemory();
        }
    });
}

/// Measures both sides in turn, and leaves the nanoseconds of a call in the counters `library_ns` and `baseline_ns`.
template <class Library, class Baseline>
PairedRatio Compare(benchmark::State& state, int calls, Library library, Baseline baseline) {
    PairedRatio pairs;
    for (auto _ : state) {
        const double seconds =
            pairs.MeasurePair([&] { return Slice(calls, library); }, [&] { return Slice(calls, baseline); });
        state.SetIterationTime(seconds / calls);
    }
    state.counters["library_ns"] = pairs.LibrarySeconds() / calls * 1e9;
    state.counters["baseline_ns"] = pairs.BaselineSeconds() / calls * 1e9;
    return pairs;
}

/// One of the counters that Compare leaves, as it stands in the table.
std::string Nanoseconds(const benchmark::State& state, const char* counter);

/// For CompareResults, where calls leave a text.
bool IsSameText(const char* left, const char* right);

/// A claim about the speed of calls: its row in the table, and the ratio that must be reached.
struct SpeedClaim {
    const char* what;
    double at_least;
};

/// Judges a claim about calls that have a result. Both sides must give the same for each number of a slice; otherwise
/// nothing is measured, and the benchmark fails.
///
/// @param same  callable that compares the result of a call of the library with that of the baseline.
template <class Same, class Library, class Baseline>
void CompareResults(TargetTable& table, benchmark::State& state, const SpeedClaim& claim, int calls, Same same,
                    Library library, Baseline baseline) {
    for (int i = 0; i < calls; ++i) {
        if (!same(library(i), baseline(i))) {
            table.Fail(state, "library and baseline differ at input " + std::to_string(i));
            return;
        }
    }
    const PairedRatio pairs = Compare(
        state, calls, [&](int i) { benchmark::DoNotOptimize(library(i)); },
        [&](int i) { benchmark::DoNotOptimize(baseline(i)); });
    table.AddRatio(state, claim.what, pairs, Nanoseconds(state, "library_ns"), Nanoseconds(state, "baseline_ns"),
                   claim.at_least);
}

/// Judges the claim that none of the calls of a slice allocates.
template <class Call>
void ExpectNoAllocations(TargetTable& table, benchmark::State& state, const char* what, int calls, Call call) {
    if (!AreAllocationsCounted()) {
        table.Fail(state, "allocations are not counted");
        return;
    }
    long allocated = 0;
    for (auto _ : state) {
        allocated += AllocationsOf([&] { state.SetIterationTime(Slice(calls, call) / calls); });
    }
    state.counters["allocations"] = static_cast<double>(allocated);
    table.AddLimit(what, static_cast<double>(allocated), "", "-", 0);
}

}  // namespace TarnBenchmark
