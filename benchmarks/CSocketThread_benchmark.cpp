// A worker thread's life: making it, its one unit of work, and stopping it.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

#include <TarnSocketIO/CSocketThread.h>

#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::Figure;
using TarnBenchmark::Plan;
using TarnBenchmark::Quantile;
using TarnBenchmark::SecondsOf;
using TarnBenchmark::TargetTable;
using TarnSocketIO::CSocketThread;

TargetTable table;

class IdleThread : public CSocketThread {
private:
    void Do() override {}
};

/// The same by hand: a loop that looks at a flag after every step.
class PlainThread {
public:
    bool Start() { return pthread_create(&m_thread, nullptr, Run, this) == 0; }

    bool Stop() {
        m_stop = true;
        return pthread_join(m_thread, nullptr) == 0;
    }

private:
    static void* Run(void* arg) {
        const PlainThread& self = *static_cast<const PlainThread*>(arg);
        while (!self.m_stop) {
            const timespec step{0, 3'000'000};
            ::nanosleep(&step, nullptr);
        }
        return nullptr;
    }

    pthread_t m_thread{};
    std::atomic<bool> m_stop{false};
};

struct Life {
    double start;  ///< seconds that Start takes
    double stop;   ///< seconds that Stop takes, of a thread that is in its pause
};

/// @param delay  from start to stop: where in a step of the thread the stop falls.
/// @return whether the thread was made and has ended.
template <class Thread, class... Priority>
bool MeasureLife(std::chrono::microseconds delay, Life& life, Priority... priority) {
    Thread thread;
    bool ok = true;
    life.start = SecondsOf([&] { ok = thread.Start(priority...); });
    if (!ok) {
        return false;
    }
    std::this_thread::sleep_for(delay);
    life.stop = SecondsOf([&] { ok = thread.Stop(); });
    return ok;
}

double Median(const std::vector<Life>& lives, double Life::*part) {
    std::vector<double> values(lives.size());
    std::transform(lives.begin(), lives.end(), values.begin(), [part](const Life& life) { return life.*part; });
    return Quantile(values, 0.5);
}

void StartAndStop(benchmark::State& state) {
    std::vector<Life> library;
    std::vector<Life> baseline;
    for (auto _ : state) {
        // All parts of a step come about equally often.
        const std::chrono::microseconds delay(5000 + 37 * (library.size() % 83));
        Life of_library{};
        Life of_baseline{};
        if (!MeasureLife<IdleThread>(delay, of_library, -1) || !MeasureLife<PlainThread>(delay, of_baseline)) {
            table.Fail(state, "a thread could not be made or stopped");
            return;
        }
        library.push_back(of_library);
        baseline.push_back(of_baseline);
        state.SetIterationTime(of_library.start + of_library.stop);
    }
    table.AddLimit("start of a thread (beside: pthread_create)", Median(library, &Life::start) * 1e6, "us",
                   Figure(Median(baseline, &Life::start) * 1e6, 2, "us"), 200);
    // The thread sees the stop after its step, and the owner sees the end after a step of its own.
    table.AddLimit("stop of a thread in its pause (beside: join)", Median(library, &Life::stop) * 1e3, "ms",
                   Figure(Median(baseline, &Life::stop) * 1e3, 2, "ms"), 7);
}

void Register(const Plan& plan) {
    benchmark::RegisterBenchmark("CSocketThread/start_and_stop", StartAndStop)
        ->Iterations(plan.Pairs(498))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
