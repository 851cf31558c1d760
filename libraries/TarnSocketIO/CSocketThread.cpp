#include <TarnSocketIO/CSocketThread.h>

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <new>

#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/Pause.h>

namespace TarnSocketIO {

bool CSocketThread::g_bOverrideInheritedScheduling = false;
int CSocketThread::g_iDefaultSchedulingPolicy = 0;
int CSocketThread::g_iDefaultSchedulingPriority = 0;
CMutex CSocketThread::g_oDefaultSchedulingMutex(CMutex::enNormal);

namespace {

constexpr int no_priority = -1;
constexpr long stop_timeout_seconds = 10;

void SetSchedulingOfThisThread(int policy, int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    // On Linux 0 is the calling thread, not its process.
    if (sched_setscheduler(0, policy, &parameters) != -1) {
        CUtility::Debug("CSocketThread::Start - set thread priority OK");
    } else {
        CUtility::Debug("CSocketThread::Start - error setting thread priority");
    }
}

/// Not below zero: the loop may also be run by a thread that nobody has counted, because Start has not made it.
void CountDown(std::atomic<int>& workers) {
    int count = workers;
    while (count > 0 && !workers.compare_exchange_weak(count, count - 1)) {
    }
}

}  // namespace

CSocketThread::CSocketThread() : m_nPriority(no_priority), m_Thread(), m_nDelaySeconds(0), m_nDelayNanoseconds(0) {}

CSocketThread::~CSocketThread() = default;

bool CSocketThread::Start(int priority) {
    m_nPriority = priority;
    if (!MakeWorkerCount()) {
        return false;
    }
    // Counted before it runs, so that Stop cannot miss it.
    ++*m_pWorkers;
    if (pthread_create(&m_Thread, nullptr, ThreadProcWrapper, this) != 0) {
        --*m_pWorkers;
        return false;
    }
    // Nobody joins it, and so its stack is given back when it ends.
    pthread_detach(m_Thread);
    return true;
}

bool CSocketThread::MakeWorkerCount() {
    try {
        if (m_pWorkers == nullptr) {
            m_pWorkers = std::make_shared<std::atomic<int>>(0);
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CSocketThread::SetIterationDelay(unsigned long seconds, unsigned long nanoseconds) {
    m_nDelaySeconds = seconds;
    m_nDelayNanoseconds = nanoseconds;
}

bool CSocketThread::Stop() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point give_up = Clock::now() + std::chrono::seconds(stop_timeout_seconds);
    CUtility::Debug("CSocketThread::Stop - started");
    m_StopEvent.SetEvent();
    bool ok = m_EndedEvent.WaitOnEvent(stop_timeout_seconds, 0);
    // The event is never reset. So after a second Start it says nothing about the second thread, but this count does.
    while (ok && IsRunning()) {
        ok = Clock::now() < give_up;
        detail::PauseOneStep();
    }
    CUtility::ConditionalDebug("CSocketThread::Stop - wait for thread sync", ok);
    return ok;
}

bool CSocketThread::IsRunning() const {
    return m_pWorkers != nullptr && *m_pWorkers > 0;
}

void CSocketThread::AssignDefaultScheduling(int priority, int policy) {
    const CScopedLocker<CMutex> lock(g_oDefaultSchedulingMutex);
    g_bOverrideInheritedScheduling = true;
    g_iDefaultSchedulingPriority = priority;
    g_iDefaultSchedulingPolicy = policy;
}

void* CSocketThread::ThreadProc(void* arg) {
    CUtility::Debug("CSocketThread::ThreadProc - started");
    if (arg != nullptr) {
        CSocketThread& thread = *static_cast<CSocketThread*>(arg);
        if (const auto wanted = thread.WantedScheduling()) {
            SetSchedulingOfThisThread(wanted->policy, wanted->priority);
        }
        thread.IterateThreadFunction();
    }
    CUtility::Debug("CSocketThread::ThreadProc - ending");
    return nullptr;
}

std::optional<CSocketThread::Scheduling> CSocketThread::WantedScheduling() const {
    const int priority = m_nPriority;
    if (priority != no_priority) {
        return Scheduling{SCHED_RR, priority};
    }
    const CScopedLocker<CMutex> lock(g_oDefaultSchedulingMutex);
    if (g_bOverrideInheritedScheduling) {
        return Scheduling{g_iDefaultSchedulingPolicy, g_iDefaultSchedulingPriority};
    }
    return std::nullopt;
}

void CSocketThread::IterateThreadFunction() {
    const std::shared_ptr<std::atomic<int>> workers = m_pWorkers;
    m_StartedEvent.SetEvent();
    ThreadStarted();
    do {
        CallDo();
    } while (!PauseUntilStopped());
    m_EndedEvent.SetEvent();
    // From here on nothing of the object is touched: when the count has come down, too, the owner may destroy it.
    if (workers != nullptr) {
        CountDown(*workers);
    }
    CUtility::Debug("CSocketThread::IterateThreadFunction - ending");
}

void CSocketThread::CallDo() {
    try {
        Do();
    } catch (...) {
        CUtility::Debug("CSocketThread::ThreadProc - Do threw exception!");
    }
}

bool CSocketThread::PauseUntilStopped() {
    // A pause for ever must not become a negative one.
    constexpr unsigned long longest = std::numeric_limits<long>::max();
    const unsigned long seconds = std::min<unsigned long>(m_nDelaySeconds, longest);
    const unsigned long microseconds = m_nDelayNanoseconds / 1000;
    return m_StopEvent.WaitOnEvent(static_cast<long>(seconds), static_cast<long>(microseconds));
}

void CSocketThread::ThreadStarted() {}

void* ThreadProcWrapper(void* arg) {
    return CSocketThread::ThreadProc(arg);
}

}  // namespace TarnSocketIO
