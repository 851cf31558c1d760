#include <benchmarks/support/CallLoop.h>

#include <cstring>

namespace TarnBenchmark {

std::string Nanoseconds(const benchmark::State& state, const char* counter) {
    return Figure(state.counters.at(counter), 1, "ns");
}

bool IsSameText(const char* left, const char* right) {
    return std::strcmp(left, right) == 0;
}

}  // namespace TarnBenchmark
