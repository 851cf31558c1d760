// Waiting for an event: how long it takes the waiter to notice, and what an idle waiter costs.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

#include <TarnSocketIO/CEvent.h>

#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::Figure;
using TarnBenchmark::PairedRatio;
using TarnBenchmark::Plan;
using TarnBenchmark::Quantile;
using TarnBenchmark::SecondsOf;
using TarnBenchmark::TargetTable;
using TarnBenchmark::ThreadSeconds;
using TarnSocketIO::CEvent;
using Clock = std::chrono::steady_clock;

TargetTable table;

void SleepOneStep() {
    const timespec step{0, 3'000'000};
    ::nanosleep(&step, nullptr);
}

/// An event as it is written by hand.
class PlainEvent {
public:
    void SetEvent() { m_fired = true; }
    bool WaitOnEvent(long /*seconds*/, long /*microseconds*/) const {
        while (!m_fired) {
            SleepOneStep();
        }
        return true;
    }

private:
    std::atomic<bool> m_fired{false};
};

/// Seconds from setting an event to the return of the one that waits for it.
///
/// @param delay  from the begin of the wait to the setting: where in a step of the waiter it falls.
template <class Event>
double SecondsToNotice(std::chrono::microseconds delay) {
    Event event;
    std::atomic<bool> waiting{false};
    Clock::time_point noticed;
    std::thread waiter([&] {
        waiting = true;
        event.WaitOnEvent(10, 0);
        noticed = Clock::now();
    });
    while (!waiting) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(delay);
    const Clock::time_point set = Clock::now();
    event.SetEvent();
    waiter.join();
    return std::chrono::duration<double>(noticed - set).count();
}

void Notice(benchmark::State& state) {
    std::vector<double> library;
    std::vector<double> baseline;
    for (auto _ : state) {
        // All parts of a step come about equally often.
        const std::chrono::microseconds delay(5000 + 37 * (library.size() % 83));
        library.push_back(SecondsToNotice<CEvent>(delay));
        baseline.push_back(SecondsToNotice<PlainEvent>(delay));
        state.SetIterationTime(library.back());
    }
    const auto row = [&](const char* what, double part, double at_most_ms) {
        table.AddLimit(what, Quantile(library, part) * 1e3, "ms", Figure(Quantile(baseline, part) * 1e3, 2, "ms"),
                       at_most_ms);
    };
    row("SetEvent to the waiter's return, median", 0.5, 2);
    row("SetEvent to the waiter's return, 95 of 100", 0.95, 4);
}

/// Processor seconds that this thread uses in a second of `wait()`.
template <class Wait>
double Load(Wait wait) {
    const Clock::time_point start = Clock::now();
    const double used = ThreadSeconds();
    wait();
    return (ThreadSeconds() - used) / std::chrono::duration<double>(Clock::now() - start).count();
}

void Idle(benchmark::State& state, int steps) {
    CEvent event;
    PairedRatio pairs;
    for (auto _ : state) {
        const auto library = [&] { return Load([&] { event.WaitOnEvent(0, steps * 3000L); }); };
        const auto baseline = [&] {
            return Load([&] {
                for (int i = 0; i < steps; ++i) {
                    SleepOneStep();
                }
            });
        };
        state.SetIterationTime(SecondsOf([&] { pairs.MeasurePair(library, baseline); }));
    }
    table.AddRatio(state, "idle waiter's processor time / bare nanosleep", pairs,
                   Figure(pairs.LibrarySeconds() * 1e3, 3, "ms/s"), Figure(pairs.BaselineSeconds() * 1e3, 3, "ms/s"),
                   1 / 1.1);
}

void Register(const Plan& plan) {
    benchmark::RegisterBenchmark("CEvent/notice", Notice)
        ->Iterations(plan.Pairs(498))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("CEvent/idle", Idle, plan.quick ? 3 : 100)
        ->Iterations(plan.Pairs(50))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
