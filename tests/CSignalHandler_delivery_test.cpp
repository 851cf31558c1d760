// Signals that are sent, and what they do to the code that they interrupt. All of it happens in child processes.

#include <TarnSocketIO/CSignalHandler.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::ChildProcess;
using TarnTest::EndProcess;
using TarnTest::Eventually;
using TarnTest::handled_signals;
using TarnTest::HandlerWithRecorder;
using TarnTest::InChild;
using TarnTest::IsAsleep;
using TarnTest::OutputCapture;
using TarnTest::PlainRecord;
using TarnTest::RegistrationLine;
using TarnTest::Report;
using TarnTest::SendToItself;
using TarnTest::Shared;
using TarnTest::SignalCode;
using TarnTest::SignalDecoder;
using TarnTest::SignalDecoders;
using TarnTest::SignalRecord;
using TarnTest::SignalRecorder;
using TarnTest::Sink;
using TarnTest::TextOf;
using TarnTest::ThisThread;
using TarnTest::ToldSignal;
using testing::ElementsAre;
using testing::EndsWith;

// ---- what is printed and told

class CSignalHandlerCodes : public testing::TestWithParam<SignalDecoder> {};

TEST_P(CSignalHandlerCodes, AreReportedAndForwarded) {
    const SignalDecoder& decoder = GetParam();
    const siginfo_t sent_record = SignalRecord(decoder.signal, decoder.codes[0].code);
    if (PlainRecord([&] { SendToItself(sent_record); }).si_code != sent_record.si_code) {
        GTEST_SKIP() << "the emulator takes the record that a process sends itself for a fault of its own";
    }
    InChild([&decoder] {
        const HandlerWithRecorder handled;
        std::size_t sent = 0;
        for (const SignalCode& known : decoder.codes) {
            SCOPED_TRACE(known.text);
            const OutputCapture output;
            ASSERT_TRUE(SendToItself(SignalRecord(decoder.signal, known.code)));
            ASSERT_TRUE(handled.HasBeenTold(++sent));
            EXPECT_EQ(Report(decoder.signal, &handled.recorder, known.text), output.Text());
            const ToldSignal& told = handled.recorder.Told(sent - 1);
            EXPECT_EQ(decoder.signal, told.signal);
            EXPECT_EQ(decoder.signal, told.info.si_signo);
            EXPECT_EQ(known.code, told.info.si_code);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Of, CSignalHandlerCodes, testing::ValuesIn(SignalDecoders()),
                         [](const auto& each) { return each.param.name; });

TEST(CSignalHandler, RaisedSignalsAreHandledBeforeRaiseReturns) {
    InChild([] {
        const HandlerWithRecorder handled;
        for (const int signal : {SIGTERM, SIGINT, SIGCONT, SIGPOLL, SIGFPE, SIGILL, SIGBUS}) {
            const std::size_t before = handled.recorder.Calls();
            const OutputCapture output;
            ASSERT_EQ(0, raise(signal));
            ASSERT_EQ(before + 1, handled.recorder.Calls());
            const ToldSignal& told = handled.recorder.Told(before);
            EXPECT_EQ(signal, told.signal);
            EXPECT_EQ(SI_TKILL, told.info.si_code);
            EXPECT_EQ(Report(signal, &handled.recorder, TextOf(told.info)), output.Text());
        }
    });
}

TEST(CSignalHandler, QueuedSignalBringsItsRecordToTheCallback) {
    static constexpr int number = 0x1234567;
    const auto queue = [] {
        sigval value = {};
        value.sival_int = number;
        ASSERT_EQ(0, sigqueue(getpid(), SIGPOLL, value));
    };
    const siginfo_t plain = PlainRecord(queue);
    InChild([&] {
        const HandlerWithRecorder handled;
        const OutputCapture output;
        queue();
        ASSERT_TRUE(handled.HasBeenTold(1));
        const siginfo_t& info = handled.recorder.Told(0).info;
        EXPECT_EQ(SI_QUEUE, info.si_code);
        EXPECT_EQ(getpid(), info.si_pid);
        // An emulator may leave anything here.
        if (plain.si_value.sival_int == number) {
            EXPECT_EQ(number, info.si_value.sival_int);
            EXPECT_EQ(getuid(), info.si_uid);
        }
        EXPECT_EQ(Report(SIGPOLL, &handled.recorder, "POLL: unknown value -1"), output.Text());
    });
}

TEST(CSignalHandler, SignalsOfAnotherProcessComeWithItsNumber) {
    const Shared<std::atomic<std::size_t>> calls;
    const pid_t parent = getpid();
    SignalRecorder recorder;
    ChildProcess child([&] {
        const CSignalHandler handler(&recorder);
        recorder.on_signal = [&calls](int) { ++*calls; };
        *calls = 100;  // ready
        ASSERT_TRUE(Eventually([&] { return recorder.Calls() == 3; }));
        for (std::size_t n = 0; n < 3; ++n) {
            EXPECT_EQ(SI_USER, recorder.Told(n).info.si_code);
            EXPECT_EQ(parent, recorder.Told(n).info.si_pid);
        }
        EXPECT_THAT(recorder.Signals(), ElementsAre(SIGINT, SIGTERM, SIGCONT));
    });
    ASSERT_TRUE(Eventually([&] { return *calls == 100; }));
    std::size_t sent = 0;
    for (const int signal : {SIGINT, SIGTERM, SIGCONT}) {
        ASSERT_EQ(0, kill(child.Id(), signal));
        ASSERT_TRUE(Eventually([&] { return *calls == 100 + sent + 1; })) << signal;
        ++sent;
    }
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_THAT(child.Output(),
                EndsWith("\n" + Report(SIGINT, &recorder, "SIGINT") + Report(SIGTERM, &recorder, "SIGTERM") +
                         Report(SIGCONT, &recorder, "unknown")));
}

TEST(CSignalHandler, StoppedProcessReportsThatItGoesOn) {
    const Shared<std::atomic<bool>> is_ready;
    SignalRecorder recorder;
    ChildProcess child([&] {
        const CSignalHandler handler(&recorder);
        *is_ready = true;
        EXPECT_TRUE(Eventually([&] { return recorder.Calls() == 1; }));
    });
    ASSERT_TRUE(Eventually([&] { return is_ready->load(); }));
    ASSERT_EQ(0, kill(child.Id(), SIGSTOP));
    ASSERT_TRUE(Eventually([&child] { return waitpid(child.Id(), nullptr, WUNTRACED | WNOHANG) == child.Id(); }));
    ASSERT_EQ(0, kill(child.Id(), SIGCONT));
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_THAT(child.Output(), EndsWith("\n" + Report(SIGCONT, &recorder, "unknown")));
}

TEST(CSignalHandler, CallbackIsCalledOnceWhenTheReportIsWrittenOut) {
    SignalRecorder recorder;
    recorder.on_signal = [](int) { EXPECT_EQ(10, write(STDOUT_FILENO, "(callback)", 10)); };
    const Shared<const void*> instance;
    ChildProcess child([&] {
        const CSignalHandler handler(&recorder);
        *instance = &handler;
        std::printf("before, ");
        raise(SIGINT);
        std::printf("after");
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ(RegistrationLine(0, *instance) + "before, " + Report(SIGINT, &recorder, "SIGINT") + "(callback)after",
              child.Output());
}

TEST(CSignalHandler, ReportIsWrittenOutThoughTheCallbackEndsTheProcess) {
    for (const Sink::Kind kind : {Sink::Kind::File, Sink::Kind::Pipe}) {
        const Shared<ToldSignal> told;
        EndProcess callback(*told);
        ChildProcess child(
            [&callback] {
                const CSignalHandler handler(&callback);
                raise(SIGTERM);
            },
            kind);
        EXPECT_EQ(EndProcess::status, child.ExitStatus());
        EXPECT_THAT(child.Output(), EndsWith("\n" + Report(SIGTERM, &callback, "SIGTERM")));
        EXPECT_EQ(SIGTERM, told->signal);
    }
}

TEST(CSignalHandler, OnlyTheLatestCallbackIsTold) {
    InChild([] {
        const HandlerWithRecorder first;
        const HandlerWithRecorder second;
        const OutputCapture output;
        raise(SIGTERM);
        EXPECT_EQ(Report(SIGTERM, &second.recorder, "SIGTERM"), output.Text());
        EXPECT_EQ(0u, first.recorder.Calls());
        EXPECT_EQ(1u, second.recorder.Calls());
    });
}

TEST(CSignalHandler, SignalsArePrintedAndNothingElseWhenNoInstanceIsLeft) {
    InChild([] {
        HandlerWithRecorder handled;
        handled.DestroyHandler();
        for (const int signal : {SIGTERM, SIGINT}) {
            const OutputCapture output;
            raise(signal);
            EXPECT_EQ(Report(signal, nullptr, signal == SIGINT ? "SIGINT" : "SIGTERM"), output.Text());
        }
        EXPECT_EQ(0u, handled.recorder.Calls());
    });
}

TEST(CSignalHandler, NextInstanceIsToldAgain) {
    InChild([] {
        HandlerWithRecorder first;
        first.DestroyHandler();
        const HandlerWithRecorder second;
        const OutputCapture output;
        raise(SIGTERM);
        EXPECT_EQ(1u, second.recorder.Calls());
        EXPECT_EQ(0u, first.recorder.Calls());
    });
}

// ---- what happens to the interrupted code

TEST(CSignalHandler, InterruptedSystemCallsFail) {
    InChild([] {
        const HandlerWithRecorder handled;
        for (const int signal : handled_signals) {
            SCOPED_TRACE(signal);
            std::array<int, 2> ends = {-1, -1};
            ASSERT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
            std::atomic<pid_t> id{0};
            std::atomic<bool> has_ended{false};
            ssize_t result = 0;
            int error = 0;
            std::thread reader([&] {
                id = ThisThread();
                char byte;
                result = read(ends[0], &byte, 1);
                error = errno;
                has_ended = true;
            });
            // A signal that comes before the thread is in the call does not interrupt it: the next one will.
            EXPECT_TRUE(Eventually([&] {
                if (id != 0 && IsAsleep(id)) {
                    pthread_kill(reader.native_handle(), signal);
                }
                return has_ended.load();
            }));
            EXPECT_EQ(1, write(ends[1], "x", 1));
            reader.join();
            EXPECT_EQ(-1, result);
            EXPECT_EQ(EINTR, error);
            close(ends[0]);
            close(ends[1]);
        }
    });
}

TEST(CSignalHandler, ErrorNumberOfTheInterruptedCodeIsKept) {
    InChild([] {
        HandlerWithRecorder handled;
        handled.recorder.on_signal = [](int) { errno = ERANGE; };
        for (const int signal : {SIGINT, SIGSEGV, SIGPOLL, SIGCONT}) {
            errno = EDOM;
            raise(signal);
            EXPECT_EQ(EDOM, errno) << signal;
        }
        EXPECT_EQ(4u, handled.recorder.Calls());
    });
}

TEST(CSignalHandler, ErrorNumberIsKeptAndTheCallbackToldWhenNothingCanBePrinted) {
    InChild([] {
        HandlerWithRecorder handled;
        const int output = dup(STDOUT_FILENO);
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        ASSERT_NE(-1, full);
        std::fflush(stdout);
        dup2(full, STDOUT_FILENO);
        errno = EDOM;
        raise(SIGINT);
        const int error = errno;
        dup2(output, STDOUT_FILENO);
        EXPECT_EQ(EDOM, error);
        EXPECT_EQ(1u, handled.recorder.Calls());
    });
}

}  // namespace
