#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace TarnBenchmark {

/// How often `operator new` was called so far, by any thread. A program that calls this has the counting form of it
/// for all its code.
long Allocations();

/// How often it is called while `work()` runs.
template <class Work>
long AllocationsOf(Work work) {
    const long before = Allocations();
    work();
    return Allocations() - before;
}

/// @return false if another form of `operator new` is in the program, so that a count of 0 would tell nothing.
inline bool AreAllocationsCounted() {
    return AllocationsOf([] {
               std::string longer_than_a_string_holds_itself(100, 'x');
               benchmark::DoNotOptimize(longer_than_a_string_holds_itself.data());
           }) > 0;
}

}  // namespace TarnBenchmark
