#include "tests/support/RuntimeCalls.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <utility>

#include "tests/support/FailingCalls.h"
#include "tests/support/Resources.h"

namespace TarnTest {

namespace {

thread_local std::vector<std::chrono::nanoseconds>* sleeps_of_this_thread = nullptr;

thread_local SleptTime* time_of_this_thread = nullptr;

// Not an atomic: the device has none of eight bytes.
struct ClockState {
    std::mutex mutex;
    std::chrono::microseconds shift{0};
};

ClockState shifted_clock;

struct SchedulingState {
    std::mutex mutex;
    bool watched = false;
    bool always_succeeds = false;
    std::vector<SchedulingRequest> requests;
};

SchedulingState scheduling;

bool signals_watched = false;
std::vector<int> signals_asked;

std::atomic<int> threads_made{0};
std::atomic<int> threads_detached{0};
std::atomic<bool> had_default_attributes{false};

/// @return whether the call is answered here, with success.
bool RecordScheduling(pid_t pid, int policy, int priority) {
    const std::lock_guard<std::mutex> lock(scheduling.mutex);
    if (!scheduling.watched) {
        return false;
    }
    scheduling.requests.push_back({pid, policy, priority, ThisThread()});
    return scheduling.always_succeeds;
}

/// @param time  since 1970.
timeval ClockReading(std::chrono::microseconds time) {
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    timeval reading = {};
    reading.tv_sec = static_cast<decltype(reading.tv_sec)>(second.count());
    reading.tv_usec = static_cast<decltype(reading.tv_usec)>((time - second).count());
    return reading;
}

/// Adds the shift of the clock to a time.
void Shift(timeval& time) {
    const std::lock_guard<std::mutex> lock(shifted_clock.mutex);
    time =
        ClockReading(std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec) + shifted_clock.shift);
}

}  // namespace

SleepWatch::SleepWatch() {
    m_requested.reserve(100'000);
    sleeps_of_this_thread = &m_requested;
}

SleepWatch::~SleepWatch() {
    sleeps_of_this_thread = nullptr;
}

void SleepWatch::Record(std::chrono::nanoseconds duration) {
    if (sleeps_of_this_thread != nullptr) {
        sleeps_of_this_thread->push_back(duration);
    }
}

ClockShift::ClockShift(std::chrono::microseconds shift) {
    Set(shift);
}

ClockShift::~ClockShift() {
    Set(std::chrono::microseconds(0));
}

void ClockShift::Set(std::chrono::microseconds shift) {
    const std::lock_guard<std::mutex> lock(shifted_clock.mutex);
    shifted_clock.shift = shift;
}

SleptTime::SleptTime(std::chrono::microseconds start, std::function<void(int)> in_sleep)
    : m_now(start), m_in_sleep(std::move(in_sleep)) {
    time_of_this_thread = this;
}

SleptTime::~SleptTime() {
    time_of_this_thread = nullptr;
}

void SleptTime::Sleep(std::chrono::nanoseconds duration) {
    if (m_in_sleep) {
        m_in_sleep(m_sleeps);
    }
    ++m_sleeps;
    m_now += std::chrono::ceil<std::chrono::microseconds>(duration);
}

SchedulingWatch::SchedulingWatch(Answer answer) {
    const std::lock_guard<std::mutex> lock(scheduling.mutex);
    scheduling.watched = true;
    scheduling.always_succeeds = answer == Answer::Success;
    scheduling.requests.clear();
}

SchedulingWatch::~SchedulingWatch() {
    const std::lock_guard<std::mutex> lock(scheduling.mutex);
    scheduling.watched = false;
}

std::vector<SchedulingRequest> SchedulingWatch::Requests() const {
    const std::lock_guard<std::mutex> lock(scheduling.mutex);
    return scheduling.requests;
}

SignalActionWatch::SignalActionWatch() {
    signals_asked.clear();
    signals_watched = true;
}

SignalActionWatch::~SignalActionWatch() {
    signals_watched = false;
}

std::vector<int> SignalActionWatch::Signals() const {
    return signals_asked;
}

int ThreadsMade() {
    return threads_made;
}

int ThreadsDetached() {
    return threads_detached;
}

bool HadDefaultAttributes() {
    return had_default_attributes;
}

}  // namespace TarnTest

using TarnTest::Call;
using TarnTest::MustFail;

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker prescribes the names
extern "C" {

int __real_nanosleep(const timespec* duration, timespec* rest);
int __real_gettimeofday(timeval* time, void* zone);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg);
int __real_pthread_detach(pthread_t thread);
int __real_sched_setscheduler(pid_t pid, int policy, const sched_param* parameters);
int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* old_action);

int __wrap_nanosleep(const timespec* duration, timespec* rest) {
    const std::chrono::nanoseconds requested =
        std::chrono::seconds(duration->tv_sec) + std::chrono::nanoseconds(duration->tv_nsec);
    TarnTest::SleepWatch::Record(requested);
    if (MustFail(Call::Sleep, -1)) {
        return -1;
    }
    if (TarnTest::time_of_this_thread != nullptr) {
        TarnTest::time_of_this_thread->Sleep(requested);
        return 0;
    }
    return __real_nanosleep(duration, rest);
}

int __wrap_gettimeofday(timeval* time, void* zone) {
    const int result = __real_gettimeofday(time, zone);
    TarnTest::Shift(*time);
    if (TarnTest::time_of_this_thread != nullptr) {
        *time = TarnTest::ClockReading(TarnTest::time_of_this_thread->Now());
    }
    return result;
}

// These report their failure by their result.
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return MustFail(Call::CreateMutex, -1) ? errno : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg) {
    TarnTest::had_default_attributes = attributes == nullptr;
    if (MustFail(Call::CreateThread, -1)) {
        return errno;
    }
    const int result = __real_pthread_create(thread, attributes, routine, arg);
    TarnTest::threads_made += result == 0 ? 1 : 0;
    return result;
}

int __wrap_pthread_detach(pthread_t thread) {
    ++TarnTest::threads_detached;
    return __real_pthread_detach(thread);
}

int __wrap_sched_setscheduler(pid_t pid, int policy, const sched_param* parameters) {
    const bool is_answered = TarnTest::RecordScheduling(pid, policy, parameters->sched_priority);
    if (MustFail(Call::SetScheduler, -1)) {
        return -1;
    }
    return is_answered ? 0 : __real_sched_setscheduler(pid, policy, parameters);
}

int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* old_action) {
    if (action != nullptr) {
        if (TarnTest::signals_watched) {
            TarnTest::signals_asked.push_back(signal);
        }
        if (MustFail(Call::SetSignalAction, -1)) {
            return -1;
        }
    }
    return __real_sigaction(signal, action, old_action);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
