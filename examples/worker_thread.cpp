// A worker thread to copy from: it measures how regularly it is called, without a priority or with one.
//
//     worker_thread [priority]      1 to 99 asks for real-time scheduling, which takes CAP_SYS_NICE; default is none
//
// Exit status 1: there was no thread, it did not end, or a pause was shorter than it must be; 2: bad arguments.

#include <TarnSocketIO/CEvent.h>
#include <TarnSocketIO/CSocketThread.h>
#include <TarnSocketIO/CUtility.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

using TarnSocketIO::CEvent;
using TarnSocketIO::CSocketThread;
using TarnSocketIO::CUtility;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::size_t pauses_to_measure = 50;
constexpr std::size_t failing_call = 3;
constexpr std::chrono::milliseconds pause(10);

class Metronome : public CSocketThread {
public:
    // The thread calls our Do(), so it has to end while there still is one: before the base class is destroyed, where
    // only Do()'s declaration is left. There is no other way than to wait for it.
    ~Metronome() override {
        while (IsRunning() && !Stop()) {
        }
    }

    bool Begin(int priority) {
        SetIterationDelay(0, std::chrono::nanoseconds(pause).count());
        return Start(priority);
    }

    // A thread that was never started would let Stop() wait for its ten seconds.
    bool End() { return !IsRunning() || Stop(); }

    bool WaitUntilMeasured() { return m_measured.WaitOnEvent(60, 0); }

    /// Shortest first. Only after End() has returned true: until then they are the thread's.
    std::vector<Milliseconds> SortedPauses() const {
        std::vector<Milliseconds> sorted = m_pauses;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

private:
    // On the worker thread, once.
    void ThreadStarted() override { m_last_call = Clock::now(); }

    // On the worker thread. Takes a moment and returns: all waiting is done by the pauses.
    void Do() override {
        const Clock::time_point now = Clock::now();
        if (m_calls > 0 && m_pauses.size() < pauses_to_measure) {
            m_pauses.emplace_back(now - m_last_call);
        }
        m_last_call = now;
        ++m_calls;
        if (m_pauses.size() == pauses_to_measure) {
            m_measured.SetEvent();
        }
        if (m_calls == failing_call) {
            throw std::runtime_error("goes no further than the log");
        }
    }

    CEvent m_measured;

    // The worker's own while it runs.
    Clock::time_point m_last_call;
    std::size_t m_calls = 0;
    std::vector<Milliseconds> m_pauses;
};

bool ParsePriority(const char* text, int& priority) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, priority);
    return error == std::errc() && stop == end && priority >= 1 && priority <= 99;
}

}  // namespace

int main(int argc, char* argv[]) {
    int priority = -1;
    if (argc > 2) {
        std::fprintf(stderr, "worker_thread: \"%s\" is one argument too many; usage: worker_thread [priority]\n",
                     argv[2]);
        return 2;
    }
    if (argc == 2 && !ParsePriority(argv[1], priority)) {
        std::fprintf(stderr, "worker_thread: \"%s\" is not a priority; give a number from 1 to 99\n", argv[1]);
        return 2;
    }

    // The log tells whether the priority was granted, and what became of the exception.
    CUtility::Initialise(1);

    Metronome metronome;
    if (!metronome.Begin(priority)) {
        std::fprintf(stderr, "worker_thread: cannot make a thread: too many processes, or no memory\n");
        return 1;
    }
    const bool measured = metronome.WaitUntilMeasured();
    if (!metronome.End() || !measured) {
        std::fprintf(stderr, "worker_thread: the thread did not do its work within a minute\n");
        return 1;
    }

    const std::vector<Milliseconds> pauses = metronome.SortedPauses();
    std::printf("worker_thread: %zu pauses of %d ms at least: shortest %.2f, median %.2f, longest %.2f ms\n",
                pauses.size(), static_cast<int>(pause.count()), pauses.front().count(),
                pauses[pauses.size() / 2].count(), pauses.back().count());
    return pauses.front() < pause ? 1 : 0;
}
