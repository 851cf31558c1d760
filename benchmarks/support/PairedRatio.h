#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <vector>

namespace TarnBenchmark {

/// @param values  at least one.
/// @param part  0 is the smallest value, 0.5 the median, 1 the largest.
inline double Quantile(std::vector<double> values, double part) {
    const auto rank = static_cast<std::ptrdiff_t>(static_cast<double>(values.size() - 1) * part);
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<std::size_t>(rank)];
}

/// Wall-clock seconds that `work()` takes.
template <class Work>
double SecondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Processor seconds that the calling thread has used so far.
inline double ThreadSeconds() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/// Compares the library with a baseline on a machine that does other things too.
///
/// Both do the same work in short slices, in turn. What disturbs the machine for long disturbs both slices of a pair,
/// and what disturbs it shortly spoils few pairs: the median over the ratios of the pairs hardly moves.
class PairedRatio {
public:
    /// Runs one slice of each side. The side that goes first changes from pair to pair, so that neither always finds
    /// the caches as the other left them.
    ///
    /// @param library, baseline  callables that do their slice and return its seconds.
    /// @return the seconds of the library's slice.
    template <class Library, class Baseline>
    double MeasurePair(Library library, Baseline baseline) {
        if (m_library.size() % 2 == 0) {
            m_library.push_back(library());
            m_baseline.push_back(baseline());
        } else {
            m_baseline.push_back(baseline());
            m_library.push_back(library());
        }
        m_ratios.push_back(m_baseline.back() / m_library.back());
        return m_library.back();
    }

    /// The library's speed with the baseline's as 1: 2 is twice as fast. After at least one pair.
    double Ratio() const { return Quantile(m_ratios, 0.5); }
    double LowerQuartile() const { return Quantile(m_ratios, 0.25); }
    double UpperQuartile() const { return Quantile(m_ratios, 0.75); }

    /// Median seconds of a slice.
    double LibrarySeconds() const { return Quantile(m_library, 0.5); }
    double BaselineSeconds() const { return Quantile(m_baseline, 0.5); }

private:
    std::vector<double> m_library;
    std::vector<double> m_baseline;
    std::vector<double> m_ratios;
};

}  // namespace TarnBenchmark
