// What the debug log costs: a call while it is off, and a line into the ring beside logs written by hand.

#include <benchmark/benchmark.h>

#include <cstdlib>

#include <TarnSocketIO/CUtility.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/CountedNew.h>
#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/PlainLog.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::AllocationsOf;
using TarnBenchmark::AreAllocationsCounted;
using TarnBenchmark::Compare;
using TarnBenchmark::Nanoseconds;
using TarnBenchmark::PairedRatio;
using TarnBenchmark::Plan;
using TarnBenchmark::Slice;
using TarnBenchmark::TargetTable;
using TarnSocketIO::CUtility;

constexpr int calls_off = 20000;
constexpr int calls_ring = 1000;

enum Destination { Off = 0, Memory = 3 };

TargetTable table;

void SwitchedOff(benchmark::State& state) {
    if (!AreAllocationsCounted()) {
        table.Fail(state, "allocations are not counted");
        return;
    }
    CUtility::SetLoggingDestination(Off);
    const auto library = [](int i) { CUtility::Debug("x=%d y=%s", i, "text"); };
    Compare(state, calls_off, library, [](int i) { TarnBenchmark::LogNothing("x=%d y=%s", i, "text"); });

    const long allocated = AllocationsOf([&] { Slice(calls_off, library); });
    state.counters["allocations"] = static_cast<double>(allocated);
    state.counters["target"] = 5;
    table.AddLimit("log call, log off (beside: empty call)", state.counters["library_ns"], "ns",
                   Nanoseconds(state, "baseline_ns"), 5);
    table.AddLimit("log call, log off: allocations", static_cast<double>(allocated), "", "-", 0);
}

template <class Library, class Baseline>
void LineIntoRing(benchmark::State& state, const char* what, double target, Library library, Baseline baseline) {
    CUtility::SetLoggingDestination(Memory);
    const PairedRatio pairs = Compare(state, calls_ring, library, baseline);
    CUtility::SetLoggingDestination(Off);
    table.AddRatio(state, what, pairs, Nanoseconds(state, "library_ns"), Nanoseconds(state, "baseline_ns"), target);
}

void PlainBesideUnstamped(benchmark::State& state) {
    LineIntoRing(
        state, "ring line, plain / no stamp at all", 1.0, [](int) { CUtility::Debug("a connection has ended"); },
        [](int) { TarnBenchmark::LogWithoutStamp("a connection has ended"); });
}

void ArgumentsBesideUnstamped(benchmark::State& state) {
    LineIntoRing(
        state, "ring line, 2 arguments / no stamp at all", 1.0, [](int i) { CUtility::Debug("x=%d y=%s", i, "text"); },
        [](int i) { TarnBenchmark::LogWithoutStamp("x=%d y=%s", i, "text"); });
}

void PlainBesideFreshStamp(benchmark::State& state) {
    LineIntoRing(
        state, "ring line, plain / stamp made each time", 4.0, [](int) { CUtility::Debug("a connection has ended"); },
        [](int) { TarnBenchmark::LogWithFreshStamp("a connection has ended"); });
}

void ArgumentsBesideFreshStamp(benchmark::State& state) {
    LineIntoRing(
        state, "ring line, 2 arguments / stamp made each time", 4.0,
        [](int i) { CUtility::Debug("x=%d y=%s", i, "text"); },
        [](int i) { TarnBenchmark::LogWithFreshStamp("x=%d y=%s", i, "text"); });
}

void Register(const Plan& plan) {
    const auto add = [&](const char* name, void (*benchmark_function)(benchmark::State&), int pairs) {
        benchmark::RegisterBenchmark(name, benchmark_function)->Iterations(plan.Pairs(pairs))->UseManualTime();
    };
    add("CUtility/switched_off", SwitchedOff, 1000);
    add("CUtility/ring_plain/beside_no_stamp", PlainBesideUnstamped, 3000);
    add("CUtility/ring_arguments/beside_no_stamp", ArgumentsBesideUnstamped, 3000);
    add("CUtility/ring_plain/beside_fresh_stamp", PlainBesideFreshStamp, 1000);
    add("CUtility/ring_arguments/beside_fresh_stamp", ArgumentsBesideFreshStamp, 1000);
}

}  // namespace

int main(int argc, char** argv) {
    // The zone of the system, but named: for an unset TZ the C library looks at the zone's file on every call, and the
    // baseline that breaks the time down each time would seem slower than it need be.
    ::setenv("TZ", ":/etc/localtime", 1);
    CUtility::Initialise(Off);
    return table.Run(argc, argv, Register);
}
