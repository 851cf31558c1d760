#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>
#include <utility>

#include "tests/support/Resources.h"

namespace TarnTest {

/// One call on a thread of its own.
class BackgroundCall {
public:
    explicit BackgroundCall(std::function<bool()> call)
        : m_id(0), m_has_ended(false), m_result(false), m_thread([this, call = std::move(call)] {
              m_id = ThisThread();
              m_result = call();
              m_has_ended = true;
          }) {}
    ~BackgroundCall() { Join(); }
    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;

    bool Waits() const { return m_id != 0 && IsAsleep(m_id); }
    bool HasEnded() const { return m_has_ended; }

    /// Sends SIGUSR1 to the thread, for which the test has a handler.
    void Interrupt() { pthread_kill(m_thread.native_handle(), SIGUSR1); }

    bool Result() {
        Join();
        return m_result;
    }

private:
    void Join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    std::atomic<pid_t> m_id;
    std::atomic<bool> m_has_ended;
    std::atomic<bool> m_result;
    std::thread m_thread;
};

}  // namespace TarnTest
