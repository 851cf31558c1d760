#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/LogTest.h"
#include "tests/support/OutputCapture.h"

using TarnTest::Entry;
using TarnTest::Eventually;
using TarnTest::Fields;
using TarnTest::LockIsFree;
using TarnTest::Log;
using TarnTest::Message;
using TarnTest::OutputCapture;
using TarnTest::OutputOf;
using TarnTest::Restart;
using TarnTest::Start;

namespace {

using CUtility = TarnTest::LogTest;

/// Runs `act` on a thread of its own while this one holds the log's lock, and calls `look` meanwhile.
void RunWhileLocked(const std::function<void()>& act, const std::function<void(const std::atomic<bool>& ended)>& look) {
    std::atomic<bool> begun{false};
    std::atomic<bool> ended{false};
    pthread_mutex_lock(&Log::m_mutex);
    std::thread other([&] {
        begun = true;
        act();
        ended = true;
    });
    Eventually([&begun] { return begun.load(); });
    look(ended);
    pthread_mutex_unlock(&Log::m_mutex);
    other.join();
}

/// Whether `act` ends only when the lock is free.
bool WaitsForTheLock(const std::function<void()>& act) {
    bool waits = false;
    RunWhileLocked(act, [&waits](const std::atomic<bool>& ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        waits = !ended;
    });
    return waits;
}

/// Whether `act` ends while somebody else holds the lock.
bool NeedsNoLock(const std::function<void()>& act) {
    bool through = false;
    RunWhileLocked(
        act, [&through](const std::atomic<bool>& ended) { through = Eventually([&ended] { return ended.load(); }); });
    return through;
}

TEST_F(CUtility, MessagesAndSettersWaitForTheLock) {
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"Debug", [] { Log::Debug("m"); }},
        {"DebugLocal", [] { Log::DebugLocal("s", "f", "m"); }},
        {"ConditionalDebug", [] { Log::ConditionalDebug("m", true); }},
        {"ConditionalDebugLocal", [] { Log::ConditionalDebugLocal("s", "f", "m", true); }},
        {"SetFileDebug", [] { Log::SetFileDebug("log.txt"); }},
        {"ClearFileDebug", [] { Log::ClearFileDebug(); }},
        {"SetSubsystem", [] { Log::SetSubsystem("s"); }},
        {"ClearSubsystem", [] { Log::ClearSubsystem(); }},
        {"SetFilter", [] { Log::SetFilter("f"); }},
        {"ClearFilter", [] { Log::ClearFilter(); }},
    };
    for (const auto& [name, call] : calls) {
        Restart(1);
        bool waits = false;
        OutputOf([&waits, &act = call] { waits = WaitsForTheLock(act); });
        EXPECT_TRUE(waits) << name;
        EXPECT_TRUE(LockIsFree()) << name;
    }
}

TEST_F(CUtility, NothingIsWrittenOrSetWhileTheLockIsHeldElsewhere) {
    for (const bool set : {false, true}) {
        Restart(3);
        const Fields before;
        bool unchanged = false;
        const auto act = [set] {
            if (set) {
                Log::SetSubsystem("net");
            } else {
                Log::Debug("m");
            }
        };
        RunWhileLocked(act, [&](const std::atomic<bool>&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            unchanged = before == Fields();
        });
        EXPECT_TRUE(unchanged);
        EXPECT_FALSE(before == Fields());
    }
}

TEST_F(CUtility, ClearSubsystemPrintsBeforeItTakesTheLock) {
    Start(1);
    Log::SetSubsystem("net");
    bool printed = false;
    bool still_in_force = false;
    {
        const OutputCapture output;
        RunWhileLocked([] { Log::ClearSubsystem(); },
                       [&](const std::atomic<bool>&) {
                           printed = Eventually([&output] { return output.Text() == "CUtility::ClearSubsystems\n"; });
                           still_in_force = Log::m_bHaveSubsystem && Log::m_strSubsystem == std::string("net");
                       });
    }
    EXPECT_TRUE(printed);
    EXPECT_TRUE(still_in_force);
    EXPECT_FALSE(Log::m_bHaveSubsystem);
}

TEST_F(CUtility, DestinationRingAndStampNeedNoLock) {
    Start(1);
    EXPECT_TRUE(NeedsNoLock([] { Log::SetLoggingDestination(3); }));
    EXPECT_EQ(3, Log::m_nLogDest);
    EXPECT_TRUE(NeedsNoLock([] { Log::GetCyclicLogEntries(0); }));
    EXPECT_TRUE(NeedsNoLock([] { Log::PrefixTimestamp("text"); }));
}

TEST_F(CUtility, SuppressedMessagesNeedNoLock) {
    Start(0);
    EXPECT_TRUE(NeedsNoLock([] { Log::Debug("m"); }));
    EXPECT_TRUE(NeedsNoLock([] { Log::ConditionalDebug("m", true); }));
    EXPECT_TRUE(NeedsNoLock([] { Log::ConditionalDebugLocal("s", "f", "m", true); }));
    Log::SetLoggingDestination(1);
    Log::SetFilter("f");
    EXPECT_TRUE(NeedsNoLock([] { Log::Debug("m"); }));
    EXPECT_TRUE(NeedsNoLock([] { Log::ConditionalDebug("m", true); }));
}

constexpr int threads = 8;
constexpr int lines_per_thread = 2000;

/// What thread `thread` writes as its message `number`: of a length and with letters of its own.
std::string ThreadMessage(int thread, int number) {
    return "thread " + std::to_string(thread) + " line " + std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(10 + 17 * thread), static_cast<char>('a' + thread)) + " end";
}

/// Logs from all threads at once and waits until they are through.
void LogFromAllThreads(const std::function<void(const std::string&)>& log) {
    std::vector<std::thread> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([thread, &log] {
            for (int number = 0; number < lines_per_thread; ++number) {
                log(ThreadMessage(thread, number));
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

/// Takes lines as they were written, and knows how many came of each thread.
class WholeLines {
public:
    /// Expects the message of a stamped line, later than those of its thread before.
    void Take(const std::string& message) {
        std::istringstream words(message);
        std::string word;
        int thread = -1;
        int number = -1;
        if (!(words >> word >> thread >> word >> number) || thread < 0 || thread >= threads ||
            message != ThreadMessage(thread, number)) {
            ADD_FAILURE() << "not a whole line: " << message;
            return;
        }
        int& last = m_last[static_cast<std::size_t>(thread)];
        EXPECT_LT(last, number) << "out of order in thread " << thread;
        last = number;
        ++m_taken;
    }

    int Taken() const { return m_taken; }

private:
    std::array<int, threads> m_last = {-1, -1, -1, -1, -1, -1, -1, -1};
    int m_taken = 0;
};

std::vector<std::string> Lines(const std::string& output) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end; (end = output.find('\n', begin)) != std::string::npos; begin = end + 1) {
        lines.push_back(output.substr(begin, end - begin));
    }
    EXPECT_EQ(output.size(), begin) << "the last line has no end";
    return lines;
}

TEST_F(CUtility, ThreadsWriteWholeLinesToTheConsoleAndNoneIsLost) {
    Start(1);
    const std::string output =
        OutputOf([] { LogFromAllThreads([](const std::string& message) { Log::Debug("%s", message.c_str()); }); });
    WholeLines whole;
    for (const std::string& line : Lines(output)) {
        whole.Take(Message(line));
    }
    EXPECT_EQ(threads * lines_per_thread, whole.Taken());
}

TEST_F(CUtility, ThreadsWriteWholeOutcomesToTheConsoleAndNoneIsLost) {
    Start(1);
    const std::string output =
        OutputOf([] { LogFromAllThreads([](const std::string& message) { Log::ConditionalDebug(message, true); }); });
    WholeLines whole;
    const std::string succeeded = " - succeeded";
    for (const std::string& line : Lines(output)) {
        const std::string message = Message(line);
        const std::size_t end = message.rfind(succeeded);
        EXPECT_EQ(message.size(), end + succeeded.size()) << message;
        whole.Take(message.substr(0, end));
    }
    EXPECT_EQ(threads * lines_per_thread, whole.Taken());
}

/// The messages of the ring, oldest first.
std::vector<std::string> RingMessages() {
    std::vector<std::string> messages;
    for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
        const std::string line = Entry((Log::m_nLogEntryIter + i) % Log::LOG_ENTRIES);
        if (!line.empty()) {
            messages.push_back(Message(line));
        }
    }
    return messages;
}

TEST_F(CUtility, ThreadsWriteWholeLinesToTheRing) {
    Start(3);
    Log::Debug("one more");  // so that the writers do not end where they began
    LogFromAllThreads([](const std::string& message) { Log::Debug("%s", message.c_str()); });
    EXPECT_EQ((threads * lines_per_thread + 1) % Log::LOG_ENTRIES, Log::m_nLogEntryIter);
    WholeLines whole;
    for (const std::string& message : RingMessages()) {
        whole.Take(message);
    }
    EXPECT_EQ(Log::LOG_ENTRIES, whole.Taken());
}

TEST_F(CUtility, ReaderThatHoldsTheLockSeesOnlyWholeLines) {
    Start(3);
    std::atomic<bool> through{false};
    std::thread reader([&through] {
        while (!through) {
            pthread_mutex_lock(&Log::m_mutex);
            const std::vector<std::string> messages = RingMessages();
            pthread_mutex_unlock(&Log::m_mutex);
            WholeLines whole;
            for (const std::string& message : messages) {
                whole.Take(message);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    LogFromAllThreads([](const std::string& message) { Log::Debug("%s", message.c_str()); });
    through = true;
    reader.join();
}

/// Changes every setting again and again while `act` runs; every round lets all messages pass for a while.
void ChangeSettingsDuring(const std::function<void()>& act) {
    std::atomic<bool> through{false};
    std::thread changer([&through] {
        for (int round = 0; !through; ++round) {
            static constexpr int dests[] = {1, 3, 0, 2, -1};
            Log::SetLoggingDestination(dests[round % 5]);
            Log::SetSubsystem("net");
            Log::SetFilter(round % 2 == 0 ? "rx" : "a longer filter word");
            Log::SetFileDebug(round % 2 == 0 ? "log.txt" : "a/longer/name.txt");
            std::this_thread::yield();
            Log::ClearFilter();
            Log::ClearSubsystem();
            Log::m_bHaveFilter = false;
            Log::SetLoggingDestination(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    act();
    through = true;
    changer.join();
}

/// What all threads get onto the console while settings change.
std::vector<std::string> MessagesWhileSettingsChange() {
    const std::string output = OutputOf([] {
        ChangeSettingsDuring([] {
            LogFromAllThreads([](const std::string& message) {
                Log::Debug("%s", message.c_str());
                Log::DebugLocal("net", "rx", "%s", message.c_str());
            });
        });
    });
    std::vector<std::string> messages;
    for (const std::string& line : Lines(output)) {
        if (line != "CUtility::ClearSubsystems") {
            messages.push_back(Message(line));
        }
    }
    return messages;
}

TEST_F(CUtility, LinesStayWholeWhileSettingsChange) {
    const std::string tags = "net: rx: ";
    std::vector<std::string> messages;
    // All threads may be through before there is a moment in which their messages pass.
    EXPECT_TRUE(Eventually([&] {
        Restart(1);
        messages = MessagesWhileSettingsChange();
        return !messages.empty();
    }));
    for (const auto& written : {messages, RingMessages()}) {
        WholeLines plain;
        WholeLines tagged;
        for (const std::string& message : written) {
            if (message.compare(0, tags.size(), tags) == 0) {
                tagged.Take(message.substr(tags.size()));
            } else {
                plain.Take(message);
            }
        }
        EXPECT_EQ(written.size(), static_cast<std::size_t>(plain.Taken() + tagged.Taken()));
    }
}

}  // namespace
