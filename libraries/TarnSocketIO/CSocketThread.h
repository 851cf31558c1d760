#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <optional>

#include <TarnSocketIO/CEvent.h>
#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/ThreadAnnotations.h>

namespace TarnSocketIO {

/// A worker thread: calls Do() over and over, with a pause after each call, until it is told to stop.
///
///     class Sampler : public TarnSocketIO::CSocketThread {
///     public:
///         ~Sampler() override { while (IsRunning() && !Stop()) {} }   // while there still is a Do() to run
///         bool Begin() { SetIterationDelay(1, 500000000); return Start(-1); }   // every 1.5 s
///     private:
///         void Do() override { ... }
///     };
///
/// **Stop before you destroy.** The destructor of this class does not stop the thread, and could not: by then the
/// derived class, whose Do() the thread calls, is gone. Call Stop() in the most derived destructor or before it. Once
/// Stop() has returned true nothing touches the object any more, and it may be destroyed; when it returned false the
/// thread still uses it.
///
/// **Pauses** are waits for the stop event in steps of 3 ms (CEvent), so two calls of Do() are never less than 3 ms
/// apart, and Stop() cuts a long pause short.
///
/// **One life.** Start an object once. A second Start() before Stop() makes a second thread, and both run Do() at the
/// same time; after Stop() it makes a thread that calls Do() once and ends. Make a new object instead.
///
/// **Threads.** ThreadStarted() and Do() run on the worker thread. Start(), Stop(), IsRunning() and SetIterationDelay()
/// are for the thread that owns the object, one at a time. The worker is never joined nor cancelled: the system takes
/// its resources back when it has ended. It must not be ended from outside (pthread_cancel), nor by pthread_exit in
/// Do().
///
/// **Log** (CUtility), in this order: "CSocketThread::ThreadProc - started", the outcome of setting a priority if there
/// was one to set, "CSocketThread::ThreadProc - Do threw exception!" for each call that threw,
/// "CSocketThread::IterateThreadFunction - ending", "CSocketThread::ThreadProc - ending"; on the thread that stops it
/// "CSocketThread::Stop - started" and "CSocketThread::Stop - wait for thread sync" with the outcome. The worker's last
/// two lines may come after Stop() has returned.
class CSocketThread {
public:
    /// No thread yet; no pause between calls but the 3 ms.
    CSocketThread();

    /// Does not stop the thread: see above.
    virtual ~CSocketThread();
    CSocketThread(const CSocketThread&) = delete;
    CSocketThread& operator=(const CSocketThread&) = delete;

    /// Makes the thread, with pthread_create(3) and default attributes.
    ///
    /// @param priority  a real-time priority, 1 (lowest) to 99, with which the thread runs under SCHED_RR; -1 for none:
    ///                  then AssignDefaultScheduling counts, and without that the scheduling of the calling thread is
    ///                  inherited. Needs CAP_SYS_NICE or RLIMIT_RTPRIO; a thread that may not have its priority runs
    ///                  without it, and the log tells: "CSocketThread::Start - error setting thread priority". So
    ///                  does one with any other value.
    /// @return false if there is no thread: the limit of processes (EAGAIN: RLIMIT_NPROC, the system's limit of
    ///         threads) or memory is used up.
    bool Start(int priority);

    /// Sets the pause after each call of Do(), from the next pause on. (One that begins at this very moment may take
    /// its seconds from the old setting.)
    ///
    /// @param nanoseconds  below 1,000,000,000; rounded down to microseconds, and to no less than a step of 3 ms
    ///                     altogether.
    void SetIterationDelay(unsigned long seconds, unsigned long nanoseconds);

    /// Tells the thread to end after its current call of Do(), and waits for it, 10 seconds at most (of the system's
    /// clock: see CEvent::WaitOnEvent for what setting it does). Not to be called in Do(), which it would wait for. Of
    /// an object that was started more than once it waits for all threads.
    ///
    /// @return true if the thread has ended: the object is the caller's alone. False if Do() did not return in time, or
    ///         if the thread was never started: in the first case the thread ends by itself when Do() returns, and the
    ///         object must live until then; Stop() may be called again to wait for that.
    bool Stop();

    /// @return whether a thread that Start made has not left the object yet: false before the first Start, and after
    ///         Stop has returned true.
    bool IsRunning() const;

    /// Sets the scheduling of all threads that are started with priority -1 from now on, in the whole process. Any
    /// thread may call it.
    ///
    /// @param priority  for SCHED_RR and SCHED_FIFO 1 to 99, for the others 0. Note the order: first the priority.
    /// @param policy    as for sched_setscheduler(2).
    static void AssignDefaultScheduling(int priority, int policy);

    /// What the thread runs, from its first log line to its last. @param arg  the CSocketThread; null does nothing but
    /// log. @return null.
    static void* ThreadProc(void* arg);

    /// The loop of the thread: ThreadStarted(), then Do() and pause until stopped. Called by ThreadProc.
    void IterateThreadFunction();

    // The settings of AssignDefaultScheduling.
    static bool g_bOverrideInheritedScheduling TARN_GUARDED_BY(g_oDefaultSchedulingMutex);
    static int g_iDefaultSchedulingPolicy TARN_GUARDED_BY(g_oDefaultSchedulingMutex);
    static int g_iDefaultSchedulingPriority TARN_GUARDED_BY(g_oDefaultSchedulingMutex);
    static CMutex g_oDefaultSchedulingMutex;

protected:
    /// One unit of work. It should return within a few seconds, or Stop() gives up waiting. Exceptions are logged, and
    /// the next call follows after the pause as if there had been none.
    virtual void Do() = 0;

    /// Called once, before the first Do(). The base version does nothing. An exception here ends the process
    /// (std::terminate).
    virtual void ThreadStarted();

private:
    struct Scheduling {
        int policy;
        int priority;
    };

    std::optional<Scheduling> WantedScheduling() const;
    bool MakeWorkerCount();
    void CallDo();
    bool PauseUntilStopped();

    std::atomic<int> m_nPriority;
    pthread_t m_Thread;
    CEvent m_StartedEvent;
    CEvent m_StopEvent;
    CEvent m_EndedEvent;
    std::atomic<unsigned long> m_nDelaySeconds;
    std::atomic<unsigned long> m_nDelayNanoseconds;

    /// How many of the threads that Start made have not left the object yet. They share it with the object, so that
    /// leaving is nothing that they do in it. Null before the first Start.
    std::shared_ptr<std::atomic<int>> m_pWorkers;
};

/// The start routine that pthread_create(3) is given: CSocketThread::ThreadProc.
void* ThreadProcWrapper(void* arg);

}  // namespace TarnSocketIO
