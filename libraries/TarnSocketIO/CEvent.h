#pragma once

#include <pthread.h>

#include <atomic>

namespace TarnSocketIO {

/// A flag that one thread sets and others wait for. It stays set until ResetEvent: waiting does not reset it.
///
/// Waiting is polling, in steps of 3 ms: a waiting thread wakes about 333 times a second, and sees the event at most
/// one step (and the scheduler's delay) after it was set. There is no kernel object behind it to be signalled, so
/// SetEvent may also be called in a signal handler.
///
/// Threads: every operation from any thread; the state is one atomic byte. What a thread has written before SetEvent is
/// seen by whoever has found the event fired. The event must outlive its waiters; SetEvent touches nothing of it after
/// the state is set, so a waiter may destroy it as soon as its wait returned true.
class CEvent {
public:
    /// Not fired.
    CEvent();
    virtual ~CEvent();
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    /// Fires the event. Setting it again changes nothing.
    void SetEvent();

    void ResetEvent();

    /// Whether the event is fired now.
    bool GetFired() const;

    /// Do nothing: the state needs no lock.
    void Lock() {}
    void Unlock() {}

    /// Waits until the event is fired or the time is over.
    ///
    /// An event that is fired already returns at once. Otherwise the wait lasts one step of nanosleep(2) at least, also
    /// with a zero or negative timeout, and the end of the time is noticed up to one step late. Signals do not cut it
    /// short. The time is that of gettimeofday(2): setting the system's clock meanwhile moves the end of the wait with
    /// it.
    ///
    /// @param microseconds  below 1,000,000; with larger values the wait ends at the next full second.
    /// @return whether the event is fired, not whether the time is over: an event that fires with the last step is
    ///         true.
    bool WaitOnEvent(long seconds, long microseconds);

private:
    pthread_mutex_t m_mutex;  ///< kept: made and destroyed with the event, taken by nobody
    std::atomic<bool> m_bFired;
};

}  // namespace TarnSocketIO
