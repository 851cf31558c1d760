// What makes signals: real faults, and sockets that announce by signals what happens to them.

#include <TarnSocketIO/CSignalHandler.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cfenv>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::ChildProcess;
using TarnTest::EndProcess;
using TarnTest::HandlerWithRecorder;
using TarnTest::InChild;
using TarnTest::OutputCapture;
using TarnTest::PlainRecord;
using TarnTest::ReadFrom;
using TarnTest::Report;
using TarnTest::Shared;
using TarnTest::Sink;
using TarnTest::TextOf;
using TarnTest::ToldSignal;
using TarnTest::WriteTo;
using testing::ElementsAre;
using testing::EndsWith;

// ---- real faults

// NOLINTNEXTLINE(performance-no-int-to-ptr): a place where nothing is
volatile int* const nowhere = reinterpret_cast<int*>(std::uintptr_t{0x10});

TARN_FAULTS_ON_PURPOSE void RunIllegalInstruction() {
#if defined(__x86_64__) || defined(__i386__)
    __asm__ volatile("ud2");
#elif defined(__powerpc__)
    __asm__ volatile(".long 0");
#else
    __builtin_trap();
#endif
}

/// What a fault leaves behind.
struct Fault {
    int status = 0;
    std::string output;
    ToldSignal told = {};
    std::string report;  ///< what the output has to end with, whatever address there is

    explicit Fault(const std::function<void()>& happen, const void* address = nullptr) {
        const Shared<ToldSignal> shared;
        EndProcess callback(*shared);
        ChildProcess child([&] {
            const CSignalHandler handler(&callback);
            happen();
        });
        status = child.ExitStatus();
        output = child.Output();
        told = *shared;
        report = "\n" + Report(told.signal, &callback, TextOf(told.info), address);
        const siginfo_t plain = PlainRecord(happen);
        EXPECT_EQ(plain.si_signo, told.signal);
        EXPECT_EQ(plain.si_signo, told.info.si_signo);
        EXPECT_EQ(plain.si_code, told.info.si_code);
        EXPECT_EQ(plain.si_addr, told.info.si_addr);
        EXPECT_EQ("", child.Errors());
        EXPECT_EQ(EndProcess::status, status) << "ended by signal " << child.EndingSignal();
    }
};

TEST(CSignalHandler, ReadFromNowhereIsReportedWithItsAddress) {
    const Fault fault([] { ReadFrom(nowhere); }, const_cast<int*>(nowhere));
    EXPECT_EQ(SIGSEGV, fault.told.signal);
    EXPECT_EQ(SEGV_MAPERR, fault.told.info.si_code);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
    EXPECT_THAT(fault.output, EndsWith("\n\t\tAt address 0x10\n\n"));
}

TEST(CSignalHandler, ReadFromNullIsReportedWithoutAnAddress) {
    const Fault fault([] { ReadFrom(nullptr); });
    EXPECT_EQ(SIGSEGV, fault.told.signal);
    EXPECT_EQ(SEGV_MAPERR, fault.told.info.si_code);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

/// Memory in pages of its own.
class Mapping {
public:
    Mapping(int protection, int flags, int fd)
        : m_size(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          m_address(mmap(nullptr, m_size, protection, flags, fd, 0)) {}
    ~Mapping() { munmap(m_address, m_size); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    char* Address() const { return static_cast<char*>(m_address); }
    void Allow(int protection) const { mprotect(m_address, m_size, protection); }

private:
    const std::size_t m_size;
    void* const m_address;
};

TEST(CSignalHandler, WriteToReadOnlyMemoryIsReportedWithItsAddress) {
    const Mapping memory(PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1);
    char* const address = memory.Address() + 0x123;
    const Fault fault([address] { WriteTo(address); }, address);
    EXPECT_EQ(SIGSEGV, fault.told.signal);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

TEST(CSignalHandler, ProcessGoesOnWhenTheCallbackHasMendedTheFault) {
    InChild([] {
        HandlerWithRecorder handled;
        const Mapping memory(PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1);
        handled.recorder.on_signal = [&memory](int) { memory.Allow(PROT_READ | PROT_WRITE); };
        WriteTo(memory.Address());
        EXPECT_EQ(1, ReadFrom(memory.Address()));
        EXPECT_THAT(handled.recorder.Signals(), ElementsAre(SIGSEGV));
    });
}

TEST(CSignalHandler, ReadBehindTheEndOfAMappedFileIsReported) {
    const Sink empty(Sink::Kind::File);
    const Mapping memory(PROT_READ, MAP_SHARED, empty.WriteEnd());
    const Fault fault([&memory] { ReadFrom(memory.Address()); });
    EXPECT_EQ(SIGBUS, fault.told.signal);
    EXPECT_EQ(BUS_ADRERR, fault.told.info.si_code);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

TEST(CSignalHandler, IllegalInstructionIsReported) {
    const Fault fault(RunIllegalInstruction);
    EXPECT_EQ(SIGILL, fault.told.signal);
    EXPECT_GE(fault.told.info.si_code, ILL_ILLOPC);
    EXPECT_LE(fault.told.info.si_code, ILL_BADSTK);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

#if defined(__x86_64__) || defined(__i386__)
// Elsewhere a division need not trap.

TEST(CSignalHandler, IntegerDivisionByZeroIsReported) {
    const Fault fault([] {
        int low = 1;
        int high = 0;
        __asm__ volatile("idivl %2" : "+a"(low), "+d"(high) : "r"(0) : "cc");
    });
    EXPECT_EQ(SIGFPE, fault.told.signal);
    EXPECT_EQ(FPE_INTDIV, fault.told.info.si_code);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

TARN_FAULTS_ON_PURPOSE void DivideFloatByZero() {
    volatile double zero = 0;
    feenableexcept(FE_DIVBYZERO);
    zero = 1 / zero;
}

TEST(CSignalHandler, FloatingPointDivisionByZeroIsReported) {
    const Fault fault(DivideFloatByZero);
    EXPECT_EQ(SIGFPE, fault.told.signal);
    EXPECT_EQ(FPE_FLTDIV, fault.told.info.si_code);
    EXPECT_THAT(fault.output, EndsWith(fault.report));
}

#endif

// ---- signal-driven I/O

/// A pair of connected sockets, whose first one announces by SIGPOLL what happens to it.
class AnnouncedSocket {
public:
    AnnouncedSocket() {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends.data()));
        EXPECT_EQ(0, fcntl(m_ends[0], F_SETOWN, getpid()));
        EXPECT_EQ(0, fcntl(m_ends[0], F_SETSIG, SIGPOLL));
        EXPECT_EQ(0, fcntl(m_ends[0], F_SETFL, O_ASYNC));
    }
    ~AnnouncedSocket() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    AnnouncedSocket(const AnnouncedSocket&) = delete;
    AnnouncedSocket& operator=(const AnnouncedSocket&) = delete;

    int Number() const { return m_ends[0]; }
    void Fill() const { EXPECT_EQ(1, write(m_ends[1], "x", 1)); }
    void HangUp() const { EXPECT_EQ(0, shutdown(m_ends[1], SHUT_RDWR)); }

private:
    std::array<int, 2> m_ends = {-1, -1};
};

TEST(CSignalHandler, DataThatArrivesIsReportedBySignalDrivenSockets) {
    InChild([] {
        const HandlerWithRecorder handled;
        const AnnouncedSocket socket;
        const OutputCapture output;
        socket.Fill();
        ASSERT_TRUE(handled.HasBeenTold(1));
        const ToldSignal& told = handled.recorder.Told(0);
        EXPECT_EQ(SIGPOLL, told.signal);
        EXPECT_EQ(POLL_IN, told.info.si_code);
        EXPECT_EQ(socket.Number(), told.info.si_fd);
        EXPECT_EQ(Report(SIGPOLL, &handled.recorder, "POLL: data available"), output.Text());
    });
}

TEST(CSignalHandler, HangUpIsReportedBySignalDrivenSockets) {
    InChild([] {
        const HandlerWithRecorder handled;
        const AnnouncedSocket socket;
        const OutputCapture output;
        socket.HangUp();
        ASSERT_TRUE(handled.HasBeenTold(1));
        EXPECT_EQ(POLL_HUP, handled.recorder.Told(0).info.si_code);
        EXPECT_EQ(Report(SIGPOLL, &handled.recorder, "POLL: remote descriptor closed"), output.Text());
    });
}

TEST(CSignalHandler, UnspecificSignalDrivenSocketIsReportedByTheNumberOfItsCode) {
    InChild([] {
        const HandlerWithRecorder handled;
        const AnnouncedSocket socket;
        ASSERT_EQ(0, fcntl(socket.Number(), F_SETSIG, 0));  // as it is by default: no record but for SI_KERNEL
        const OutputCapture output;
        socket.Fill();
        ASSERT_TRUE(handled.HasBeenTold(1));
        EXPECT_EQ(Report(SIGPOLL, &handled.recorder, "POLL: unknown value 128"), output.Text());
    });
}

}  // namespace
