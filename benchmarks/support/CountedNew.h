#pragma once

namespace TarnBenchmark {

/// How often `operator new` was called so far, by any thread. A program that calls this has the counting form of it
/// for all its code.
long Allocations();

}  // namespace TarnBenchmark
