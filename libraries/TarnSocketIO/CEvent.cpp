#include <TarnSocketIO/CEvent.h>

#include <sys/time.h>

#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/Pause.h>

namespace TarnSocketIO {

static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
              "the state is one byte, and may be set in a signal handler");

namespace {

timeval Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

}  // namespace

CEvent::CEvent() : m_mutex(), m_bFired(false) {
    pthread_mutex_init(&m_mutex, nullptr);
}

CEvent::~CEvent() {
    pthread_mutex_destroy(&m_mutex);
}

void CEvent::SetEvent() {
    // An exchange and not a store: of two threads that set the event, the second must not hide from the waiter what the
    // first has written before.
    m_bFired.exchange(true);
}

void CEvent::ResetEvent() {
    m_bFired = false;
}

bool CEvent::GetFired() const {
    return m_bFired;
}

bool CEvent::WaitOnEvent(long seconds, long microseconds) {
    const timeval start = Now();
    bool over = GetFired();
    while (!over) {
        detail::PauseOneStep();
        timeval elapsed = Now();
        CUtility::tvSub(start, elapsed);
        const bool timed_out =
            elapsed.tv_sec > seconds || (elapsed.tv_sec == seconds && elapsed.tv_usec >= microseconds);
        over = GetFired() || timed_out;
    }
    return GetFired();
}

}  // namespace TarnSocketIO
