#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

/// What the runtime classes ask of the system: recorded, and the clock set by the test.
///
/// The program that links this must link FailingCalls too, which orders failures of these calls, must hold the library
/// statically, and must send its calls here, with the linker options
///
///     -Wl,--wrap=nanosleep,--wrap=gettimeofday,--wrap=pthread_mutex_init
///     -Wl,--wrap=pthread_create,--wrap=pthread_detach,--wrap=sched_setscheduler,--wrap=sigaction
namespace TarnTest {

/// Remembers how long each call of nanosleep in this thread was to last, while the object lives. One at a time for each
/// thread. A call that goes on with a sleep which a signal has cut short is a call of its own.
class SleepWatch {
public:
    SleepWatch();
    ~SleepWatch();
    SleepWatch(const SleepWatch&) = delete;
    SleepWatch& operator=(const SleepWatch&) = delete;

    const std::vector<std::chrono::nanoseconds>& Requested() const { return m_requested; }

    /// For what comes in between. @param duration  of a call of nanosleep by this thread.
    static void Record(std::chrono::nanoseconds duration);

private:
    std::vector<std::chrono::nanoseconds> m_requested;
};

/// Sets the clock that gettimeofday shows, for all threads, for as long as the object lives. One at a time.
class ClockShift {
public:
    explicit ClockShift(std::chrono::microseconds shift);
    ~ClockShift();
    ClockShift(const ClockShift&) = delete;
    ClockShift& operator=(const ClockShift&) = delete;

    void Set(std::chrono::microseconds shift);
};

/// Time that passes in sleeps only, for the thread that makes the object and for as long as it lives: its nanosleep
/// returns at once and has set the clock that its gettimeofday shows on by what it was asked for. One at a time for
/// each thread.
class SleptTime {
public:
    /// @param start     what the clock shows before the first sleep, since 1970.
    /// @param in_sleep  called in each sleep, before its time has passed, with the number of sleeps before it.
    explicit SleptTime(std::chrono::microseconds start, std::function<void(int)> in_sleep = nullptr);
    ~SleptTime();
    SleptTime(const SleptTime&) = delete;
    SleptTime& operator=(const SleptTime&) = delete;

    int Sleeps() const { return m_sleeps; }
    std::chrono::microseconds Now() const { return m_now; }
    void SetClock(std::chrono::microseconds now) { m_now = now; }

    /// For what comes in between.
    void Sleep(std::chrono::nanoseconds duration);

private:
    std::chrono::microseconds m_now;
    int m_sleeps = 0;
    const std::function<void(int)> m_in_sleep;
};

/// What sched_setscheduler was called with.
struct SchedulingRequest {
    pid_t pid;
    int policy;
    int priority;
    pid_t caller;  ///< number of the thread that called
};

/// Records the calls of sched_setscheduler made by any thread while the object lives, failing ones included, and may
/// answer them in the system's place. One at a time.
class SchedulingWatch {
public:
    enum class Answer {
        System,   ///< what the system says; failures can be ordered with FailingCalls
        Success,  ///< success, and nothing happens: for machines that give no real-time priority
    };
    explicit SchedulingWatch(Answer answer);
    ~SchedulingWatch();
    SchedulingWatch(const SchedulingWatch&) = delete;
    SchedulingWatch& operator=(const SchedulingWatch&) = delete;

    std::vector<SchedulingRequest> Requests() const;
};

/// Records the signals that sigaction was asked to handle (not those that it was only asked about), in their order,
/// failing calls included, while the object lives. One at a time, and only on one thread.
class SignalActionWatch {
public:
    SignalActionWatch();
    ~SignalActionWatch();
    SignalActionWatch(const SignalActionWatch&) = delete;
    SignalActionWatch& operator=(const SignalActionWatch&) = delete;

    std::vector<int> Signals() const;
};

/// How many threads the process has made and detached so far, by pthread_create and pthread_detach.
int ThreadsMade();
int ThreadsDetached();

/// Whether the last pthread_create was given default attributes (null).
bool HadDefaultAttributes();

}  // namespace TarnTest
