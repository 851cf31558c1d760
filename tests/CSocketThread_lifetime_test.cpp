// Many worker threads, and the end of each: when its object may go, and what is left of it.

#include <TarnSocketIO/CSocketThread.h>
#include <TarnSocketIO/CUtility.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/Worker.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TarnSocketIO::CUtility;
using TarnTest::BackgroundCall;
using TarnTest::ConsoleMessagesOf;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::Intervals;
using TarnTest::IsAsleep;
using TarnTest::LogCapture;
using TarnTest::loop_ending_line;
using TarnTest::priority_set_line;
using TarnTest::proc_ending_line;
using TarnTest::proc_started_line;
using TarnTest::Shortest;
using TarnTest::SteadyClock;
using TarnTest::stop_failed_line;
using TarnTest::stop_started_line;
using TarnTest::stop_succeeded_line;
using TarnTest::ThisThread;
using TarnTest::WallClock;
using TarnTest::Worker;
using testing::ElementsAre;
using testing::IsEmpty;

using CSocketThread = TarnTest::WorkerTest;
using Thread = TarnSocketIO::CSocketThread;

// ---- the object

static_assert(std::is_abstract_v<Thread>);
static_assert(std::has_virtual_destructor_v<Thread>);
static_assert(!std::is_copy_constructible_v<Thread> && !std::is_copy_assignable_v<Thread>);

TEST_F(CSocketThread, DestructorOfWhatWasNeverStartedNeitherWaitsNorLogs) {
    const LogCapture log;
    EXPECT_LT(DurationOf([] { const Worker worker; }), seconds(5));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(CSocketThread, DeleteThroughTheBaseClassRunsTheDerivedDestructor) {
    class Derived : public Thread {
    public:
        explicit Derived(bool& is_destroyed) : m_is_destroyed(is_destroyed) {}
        ~Derived() override {
            EXPECT_TRUE(Stop());
            m_is_destroyed = true;
        }

    private:
        void Do() override {}
        bool& m_is_destroyed;
    };
    bool is_destroyed = false;
    std::unique_ptr<Thread> thread = std::make_unique<Derived>(is_destroyed);
    thread->Start(-1);
    thread.reset();
    EXPECT_TRUE(is_destroyed);
}

TEST_F(CSocketThread, DoAndThreadStartedFollowTheDestructorInTheInterfacesOrder) {
    // A pointer to a virtual member begins with 1 plus the offset of its slot on every platform that the library has.
    class Slots : public Thread {
    public:
        static std::vector<std::size_t> All() { return {Of(&Slots::Do), Of(&Slots::ThreadStarted)}; }

    private:
        static std::size_t Of(void (Slots::*function)()) {
            const void* const pointer_to_member = &function;
            return (*static_cast<const std::size_t*>(pointer_to_member) - 1) / sizeof(void*);
        }
        void Do() override {}
    };
    EXPECT_THAT(Slots::All(), ElementsAre(2, 3));
}

/// The exit status of a child process that does nothing but `run`.
int StatusOfChild(const std::function<int()>& run) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(run());
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}

/// Is in one and the same call of Do for ever, and needs nothing of the object there.
class Endless : public Thread {
public:
    static std::atomic<bool> is_in_do;

private:
    void Do() override {
        is_in_do = true;
        for (;;) {
            pause();
        }
    }
};

std::atomic<bool> Endless::is_in_do{false};

TEST_F(CSocketThread, DestructorDoesNotStopTheThread) {
    EXPECT_EQ(0, StatusOfChild([] {
                  auto thread = std::make_unique<Endless>();
                  const std::size_t threads = CountThreads();
                  thread->Start(-1);
                  const bool has_called = Eventually([] { return Endless::is_in_do.load(); });
                  const LogCapture log;
                  const auto duration = DurationOf([&] { thread.reset(); });
                  const bool runs_on = CountThreads() == threads + 1;
                  return has_called && runs_on && duration < seconds(5) && log.Messages().empty() ? 0 : 1;
              }));
}

// ---- many owners

constexpr int owners = 20;
constexpr int rounds = 200;

/// Calls `work` so often on each of `owners` threads.
void OnManyThreads(int times, const std::function<void()>& work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < owners; ++i) {
        threads.emplace_back([&] {
            for (int time = 0; time < times; ++time) {
                work();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Deletes an object and overwrites its memory: a thread that still uses it then falls.
struct DeleteAndOverwrite {
    template <class Object>
    void operator()(Object* object) const {
        object->~Object();
        std::fill_n(reinterpret_cast<volatile unsigned char*>(object), sizeof *object,
                    static_cast<unsigned char>(0xdb));
        ::operator delete(object);
    }
};

template <class Object, class... Arguments>
auto MakeOnHeap(Arguments&... arguments) {
    return std::unique_ptr<Object, DeleteAndOverwrite>(new Object(arguments...));
}

/// Works on what is its own alone: there is no lock, and nothing is atomic.
class Tally final : public Thread {
public:
    int starts = 0;
    std::vector<int> calls;

private:
    void ThreadStarted() override { ++starts; }
    void Do() override { calls.push_back(starts); }
};

TEST_F(CSocketThread, ObjectMayBeDeletedAsSoonAsStopHasReturnedTrue) {
    OnManyThreads(rounds, [] {
        const auto tally = MakeOnHeap<Tally>();
        ASSERT_TRUE(tally->Start(-1));
        ASSERT_TRUE(tally->Stop());
        ASSERT_EQ(1, tally->starts);
        ASSERT_LE(1u, tally->calls.size());
        ASSERT_EQ(1, tally->calls.front());
    });
}

TEST_F(CSocketThread, RunsFromStartUntilStopHasReturnedTrue) {
    std::atomic<bool> let_go{false};
    Worker worker;
    worker.on_do = [&] { Eventually([&] { return let_go.load(); }); };
    EXPECT_FALSE(worker.IsRunning());
    ASSERT_TRUE(worker.Start());
    EXPECT_TRUE(worker.IsRunning());
    ASSERT_TRUE(worker.WaitForCalls(1));
    BackgroundCall stop([&] { return worker.Stop(); });
    EXPECT_TRUE(worker.IsRunning());
    let_go = true;
    EXPECT_TRUE(stop.Result());
    EXPECT_FALSE(worker.IsRunning());
}

TEST_F(CSocketThread, SecondStopWaitsForTheThreadOfASecondStart) {
    OnManyThreads(rounds, [] {
        const auto tally = MakeOnHeap<Tally>();
        ASSERT_TRUE(tally->Start(-1));
        ASSERT_TRUE(tally->Stop());
        const std::size_t calls = tally->calls.size();
        ASSERT_TRUE(tally->Start(-1));
        ASSERT_TRUE(tally->Stop());
        ASSERT_EQ(2, tally->starts);
        ASSERT_EQ(calls + 1, tally->calls.size());
    });
}

/// May be worked on by several threads.
class Pair final : public Thread {
public:
    std::atomic<int> starts{0};
    std::atomic<int> running{0};

private:
    void ThreadStarted() override { ++starts; }
    void Do() override {
        ++running;
        sched_yield();
        --running;
    }
};

TEST_F(CSocketThread, StopWaitsForAllThreadsOfAnObjectThatWasStartedTwice) {
    OnManyThreads(rounds, [] {
        const auto pair = MakeOnHeap<Pair>();
        ASSERT_TRUE(pair->Start(-1));
        ASSERT_TRUE(pair->Start(-1));
        ASSERT_TRUE(pair->Stop());
        ASSERT_EQ(2, pair->starts);
        ASSERT_EQ(0, pair->running);
    });
}

/// Is in its only call of Do until it may leave it.
class Detained final : public Thread {
public:
    struct Sentence {
        std::promise<void> end;
        std::atomic<pid_t> prisoner{0};
        std::atomic<bool> is_served{false};
    };
    explicit Detained(Sentence& sentence) : m_sentence(sentence), m_end(sentence.end.get_future()) {}

private:
    void Do() override {
        m_sentence.prisoner = ThisThread();
        m_end.wait();
        m_sentence.is_served = true;
    }

    Sentence& m_sentence;
    const std::future<void> m_end;
};

TEST_F(CSocketThread, WorkerThatHasOnlyItsEndToLogNeedsTheObjectNoMore) {
    bool has_outlived_the_object = false;
    for (int i = 0; i < 20 && !has_outlived_the_object; ++i) {
        const LogCapture log;
        Detained::Sentence sentence;
        auto thread = MakeOnHeap<Detained>(sentence);
        ASSERT_TRUE(thread->Start(-1));
        ASSERT_TRUE(Eventually([&] { return sentence.prisoner != 0; }));
        BackgroundCall stop([&] { return thread->Stop(); });
        ASSERT_TRUE(Eventually([&] { return log.Count(stop_started_line) == 1; }));

        // Whoever logs now waits for the lock: the worker after its loop. Stop() does not log, if it was not faster.
        pthread_mutex_lock(&CUtility::m_mutex);
        sentence.end.set_value();
        while (!sentence.is_served || !IsAsleep(sentence.prisoner)) {
            sched_yield();
        }
        CUtility::SetLoggingDestination(0);
        const auto end = std::chrono::steady_clock::now() + milliseconds(500);
        while (!stop.HasEnded() && std::chrono::steady_clock::now() < end) {
            sched_yield();
        }
        has_outlived_the_object = stop.HasEnded() && IsAsleep(sentence.prisoner);
        if (has_outlived_the_object) {
            thread.reset();
            CUtility::SetLoggingDestination(3);
        }
        pthread_mutex_unlock(&CUtility::m_mutex);
        EXPECT_TRUE(stop.Result());
        EXPECT_TRUE(AllThreadsHaveEnded());
        EXPECT_EQ(has_outlived_the_object ? 1u : 0u, log.Count(proc_ending_line));
    }
    EXPECT_TRUE(has_outlived_the_object) << "Stop() has always waited for lines of the log";
}

// ---- what threads leave behind

/// @return the number in the line of /proc/self/status that begins with the name.
std::size_t StatusOfThisProcess(const std::string& name) {
    std::ifstream file("/proc/self/status");
    for (std::string word; file >> word;) {
        if (word == name + ':') {
            std::size_t number = 0;
            file >> number;
            return number;
        }
    }
    ADD_FAILURE() << "no " << name;
    return 0;
}

std::size_t CountMappings() {
    std::ifstream file("/proc/self/maps");
    return static_cast<std::size_t>(
        std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
}

std::size_t KilobytesOfAStack() {
    pthread_attr_t attributes;
    std::size_t size = 0;
    pthread_attr_init(&attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size / 1024;
}

TEST_F(CSocketThread, TwoThousandThreadsLeaveNothingBehind) {
    const auto start_and_stop = [] {
        Tally tally;
        ASSERT_TRUE(tally.Start(-1));
        ASSERT_TRUE(tally.Stop());
    };
    OnManyThreads(5, start_and_stop);  // the C library keeps some memory for the threads to come
    ASSERT_TRUE(AllThreadsHaveEnded());
    const std::size_t descriptors = CountOpenDescriptors();
    const std::size_t mappings = CountMappings();
    const std::size_t size = StatusOfThisProcess("VmSize");

    OnManyThreads(100, start_and_stop);

    EXPECT_TRUE(AllThreadsHaveEnded());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    // Each stack is a mapping with another, its guard, beside it.
    EXPECT_LT(CountMappings(), mappings + 1000);
    EXPECT_LT(StatusOfThisProcess("VmSize"), size + 500 * KilobytesOfAStack());
}

// ---- a call of Do that does not return in time

TEST_F(CSocketThread, StopGivesUpAfterTenSecondsAndCanBeCalledAgain) {
    bool has_stopped = true;
    std::chrono::nanoseconds duration(0);
    bool has_ended_alone = false;
    bool has_stopped_then = false;
    const auto messages = ConsoleMessagesOf([&] {
        Detained::Sentence sentence;
        Detained thread(sentence);
        thread.Start(-1);
        Eventually([&] { return sentence.prisoner != 0; });
        const auto start = WallClock();
        has_stopped = thread.Stop();
        duration = WallClock() - start;
        sentence.end.set_value();
        has_ended_alone = AllThreadsHaveEnded();
        has_stopped_then = thread.Stop();
    });
    EXPECT_FALSE(has_stopped);
    EXPECT_GE(duration, seconds(10));
    EXPECT_LT(duration, seconds(25));
    EXPECT_TRUE(has_ended_alone);
    EXPECT_TRUE(has_stopped_then);
    EXPECT_THAT(messages, ElementsAre(proc_started_line, stop_started_line, stop_failed_line, loop_ending_line,
                                      proc_ending_line, stop_started_line, stop_succeeded_line));
}

TEST_F(CSocketThread, StopGivesUpThoughAnotherThreadOfTheObjectHasEnded) {
    std::promise<void> gate;
    const std::shared_future<void> opened(gate.get_future());
    Worker worker;
    worker.on_do = [&] {
        if (worker.Calls() == 1) {
            opened.wait();
        }
    };
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(worker.WaitForCalls(1));
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(worker.WaitForCalls(5));
    const auto duration = DurationOf([&] { EXPECT_FALSE(worker.Stop()); });
    EXPECT_GE(duration, seconds(9));
    EXPECT_LT(duration, seconds(25));
    gate.set_value();
    EXPECT_TRUE(worker.Stop());
}

// ---- no more threads

enum Outcome { as_expected, no_limit, started_beyond_the_limit, logged, did_not_start_later };

/// Uses up the process's threads, and needs a process of its own for that.
Outcome StartBeyondTheLimit() {
    rlimit before = {};
    getrlimit(RLIMIT_NPROC, &before);
    const rlimit none = {0, before.rlim_max};
    // The limit does not count for the superuser.
    if ((geteuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0) {
        return no_limit;
    }
    pthread_t thread;
    const auto nothing = [](void*) -> void* { return nullptr; };
    if (pthread_create(&thread, nullptr, nothing, nullptr) == 0) {
        pthread_join(thread, nullptr);
        return no_limit;
    }
    const LogCapture log;
    Worker worker;
    if (worker.Start()) {
        return started_beyond_the_limit;
    }
    if (!log.Messages().empty()) {
        return logged;
    }
    setrlimit(RLIMIT_NPROC, &before);
    return worker.Start() && worker.WaitForCalls(2) && worker.Stop() ? as_expected : did_not_start_later;
}

TEST_F(CSocketThread, StartFailsWhenThereAreNoMoreThreadsToHaveAndWorksLater) {
    const int outcome = StatusOfChild(StartBeyondTheLimit);
    if (outcome == no_limit) {
        GTEST_SKIP() << "the number of threads cannot be limited here";
    }
    EXPECT_EQ(as_expected, outcome);
}

// ---- settings and signals while workers run

TEST_F(CSocketThread, DelayCanBeSetWhileTheWorkerRuns) {
    Worker worker;
    worker.Start();
    EXPECT_TRUE(Eventually([&] {
        worker.SetIterationDelay(0, 1'000'000);
        worker.SetIterationDelay(0, 0);
        return worker.Calls() >= 50;
    }));
    worker.SetIterationDelay(1'000'000, 0);
    EXPECT_TRUE(worker.Stop());
}

TEST_F(CSocketThread, DefaultSchedulingCanBeSetByAllThreadsWhileOthersStart) {
    constexpr std::size_t starts = 30;
    const LogCapture log;
    Thread::AssignDefaultScheduling(0, SCHED_OTHER);
    std::atomic<bool> end{false};
    std::vector<std::thread> setters;
    for (const int policy : {SCHED_OTHER, SCHED_BATCH}) {
        setters.emplace_back([&end, policy] {
            while (!end) {
                Thread::AssignDefaultScheduling(0, policy);
                std::this_thread::yield();
            }
        });
    }
    for (std::size_t i = 0; i < starts; ++i) {
        std::atomic<int> policy{-1};
        Worker worker;
        worker.on_do = [&] { policy = sched_getscheduler(0); };
        worker.Start();
        EXPECT_TRUE(Eventually([&] { return policy == SCHED_OTHER || policy == SCHED_BATCH; }));
    }
    end = true;
    for (std::thread& setter : setters) {
        setter.join();
    }
    EXPECT_EQ(starts, log.Count(priority_set_line));
}

std::atomic<int> signals_handled{0};

void CountSignal(int) {
    ++signals_handled;
}

/// Sends SIGUSR1 to a worker's thread every millisecond for as long as the object lives.
class Signals {
public:
    explicit Signals(const Worker& worker) : m_before(), m_end(false) {
        struct sigaction action = {};
        action.sa_handler = CountSignal;
        sigaction(SIGUSR1, &action, &m_before);
        m_sender = std::thread([this, &worker] {
            while (!m_end) {
                syscall(SYS_tgkill, getpid(), worker.Thread(), SIGUSR1);
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    }
    ~Signals() {
        m_end = true;
        m_sender.join();
        sigaction(SIGUSR1, &m_before, nullptr);
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

private:
    struct sigaction m_before;
    std::atomic<bool> m_end;
    std::thread m_sender;
};

TEST_F(CSocketThread, SignalsNeitherShortenAPauseNorDisturbStop) {
    {
        Worker worker;
        const Signals signals(worker);
        EXPECT_GE(Shortest(Intervals(worker, 100, SteadyClock)), milliseconds(3));
    }
    {
        Worker worker;
        worker.SetIterationDelay(0, 100'000'000);
        const Signals signals(worker);
        EXPECT_GE(Shortest(Intervals(worker, 5, WallClock)), milliseconds(100));
    }
    EXPECT_LE(20, signals_handled);
}

}  // namespace
