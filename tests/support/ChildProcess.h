#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tests/support/ErrorCapture.h"
#include "tests/support/Eventually.h"

namespace TarnTest {

/// To be called by a thread that other threads or processes will send signals to, before they do: the thread sanitizer
/// loses a signal that comes while a thread sets out for its first blocking call.
inline void PrepareForSignals() {
#if defined(__SANITIZE_THREAD__)
    usleep(1);
#endif
}

/// A value that the process shares with the children that it makes while the object lives.
template <class Value>
class Shared {
    static_assert(std::is_trivially_destructible_v<Value>, "nobody would know whose the end is");

public:
    Shared()
        : m_memory(mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
          m_value(m_memory != MAP_FAILED ? new (m_memory) Value() : throw std::bad_alloc()) {}
    ~Shared() { munmap(m_memory, sizeof(Value)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    Value& operator*() const { return *m_value; }
    Value* operator->() const { return m_value; }

private:
    void* const m_memory;
    Value* const m_value;
};

/// Takes what a child writes to one descriptor.
class Sink {
public:
    enum class Kind {
        File,
        Pipe,  ///< for less than 64 KiB, which is what a pipe holds
    };

    explicit Sink(Kind kind) {
        if (kind == Kind::Pipe) {
            std::array<int, 2> ends = {-1, -1};
            if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) == 0) {
                fcntl(ends[1], F_SETFL, 0);
                m_read_end = ends[0];
                m_write_end = ends[1];
            }
        } else {
            m_write_end = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
            // An offset of its own: where the one reads is not where the other writes.
            const std::string name = "/proc/self/fd/" + std::to_string(m_write_end);
            m_read_end = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        }
        if (m_read_end == -1 || m_write_end == -1) {
            throw std::runtime_error("nothing to catch the output of a child in");
        }
    }
    ~Sink() {
        close(m_read_end);
        CloseWriteEnd();
    }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    int WriteEnd() const { return m_write_end; }

    void CloseWriteEnd() {
        if (m_write_end != -1) {
            close(m_write_end);
            m_write_end = -1;
        }
    }

    /// All that has been written so far.
    const std::string& Text() {
        std::array<char, 4096> part;
        ssize_t length;
        while ((length = read(m_read_end, part.data(), part.size())) > 0) {
            m_text.append(part.data(), static_cast<std::size_t>(length));
        }
        return m_text;
    }

private:
    int m_read_end = -1;
    int m_write_end = -1;
    std::string m_text;
};

/// A child process that runs a function, so that what the function does to a process is not done to this one.
///
/// Its standard output, fully buffered, its standard error and the expectations that fail in it are caught. The child
/// ends with status 0 when the function returns, or with 1 if an expectation has failed.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<void()>& act, Sink::Kind output = Sink::Kind::File)
        : m_output(output), m_errors(Sink::Kind::File), m_failures(Sink::Kind::File), m_id(Start(act)) {}
    ~ChildProcess() {
        if (!m_has_ended) {
            Kill();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Id() const { return m_id; }

    /// Waits until it has ended, for half a minute at most; then it is killed.
    ///
    /// @return its exit status; -1 if a signal has ended it.
    int ExitStatus() {
        Wait();
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

    /// Waits likewise. @return the signal that has ended it; 0 if it ended by itself.
    int EndingSignal() {
        Wait();
        return WIFSIGNALED(m_status) ? WTERMSIG(m_status) : 0;
    }

    /// All that it has written so far.
    const std::string& Output() { return m_output.Text(); }

    /// The same for standard error, where sanitizers complain; without an emulator's word about the end.
    std::string Errors() { return LastWords(m_errors.Text()); }

    /// The expectations that have failed in it so far.
    const std::string& Failures() { return m_failures.Text(); }

private:
    /// Tells of failed expectations by a way of its own: a test may have caught standard output.
    class FailureReporter : public testing::EmptyTestEventListener {
    public:
        explicit FailureReporter(int fd) : m_fd(fd) {}
        bool HasFailed() const { return m_has_failed; }
        void OnTestPartResult(const testing::TestPartResult& result) override {
            if (!result.failed()) {
                return;
            }
            m_has_failed = true;
            const char* const file = result.file_name() != nullptr ? result.file_name() : "";
            const std::string text =
                file + (":" + std::to_string(result.line_number())) + ": " + result.message() + "\n";
            static_cast<void>(!write(m_fd, text.data(), text.size()));
        }

    private:
        const int m_fd;
        std::atomic<bool> m_has_failed{false};
    };

    /// Takes the place of what tells of failures otherwise.
    const FailureReporter& ReportFailures() {
        testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
        listeners.Release(listeners.default_result_printer());
        auto* const reporter = new FailureReporter(m_failures.WriteEnd());
        listeners.Append(reporter);  // and belongs to it
        return *reporter;
    }

    pid_t Start(const std::function<void()>& act) {
        // What is still in a buffer would be the child's, too, and come out twice.
        std::cout.flush();
        std::fflush(stdout);
        const pid_t id = fork();
        if (id == -1) {
            throw std::runtime_error("no child process");
        }
        if (id == 0) {
            Run(act);
        }
        m_output.CloseWriteEnd();
        m_errors.CloseWriteEnd();
        m_failures.CloseWriteEnd();
        return id;
    }

    // Not to throw: an exception would make the child go on with the other tests.
    [[noreturn]] void Run(const std::function<void()>& act) noexcept {
        alarm(120);  // if nobody waits for it any more
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(m_output.WriteEnd(), STDOUT_FILENO);
        dup2(m_errors.WriteEnd(), STDERR_FILENO);
        std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        const FailureReporter& reporter = ReportFailures();
        PrepareForSignals();
        act();
        std::fflush(stdout);
        _exit(reporter.HasFailed() ? 1 : 0);
    }

    void Wait() {
        if (m_has_ended) {
            return;
        }
        m_has_ended = Eventually([this] { return waitpid(m_id, &m_status, WNOHANG) == m_id; });
        if (!m_has_ended) {
            ADD_FAILURE() << "the child does not end";
            Kill();
        }
    }

    void Kill() {
        kill(m_id, SIGKILL);
        waitpid(m_id, &m_status, 0);
        m_has_ended = true;
    }

    Sink m_output;
    Sink m_errors;
    Sink m_failures;
    int m_status = 0;
    bool m_has_ended = false;
    const pid_t m_id;
};

/// Runs `act` in a child process. Expectations that fail there fail here.
inline void InChild(const std::function<void()>& act) {
    ChildProcess child(act);
    const int status = child.ExitStatus();
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("", child.Errors());
    EXPECT_EQ(0, status) << "ended by signal " << child.EndingSignal() << ", output:\n" << child.Output();
}

}  // namespace TarnTest
