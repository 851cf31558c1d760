// Lets child processes run into real faults, and shows how the signal handler reports them before they end.
//
//     signal_report [fault...]      address    reads from an address where nothing is
//                                   file       reads a mapped file behind its end
//                                   terminate  sends itself SIGTERM
//
// Without arguments all of them, in this order. Exit status 1: a child did not end as it should; 2: bad arguments.

#include <TarnSocketIO/CSignalHandler.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using TarnSocketIO::CSignalHandler;
using TarnSocketIO::CSignalHandlerBase;

/// Lets the process end as the signal would have ended it by itself: whoever waits for it sees the signal, and a core
/// file shows the fault.
class EndBySignal : public CSignalHandlerBase {
public:
    // In signal context: nothing here but what is allowed there. The signal that is raised comes when this returns,
    // because it is blocked meanwhile; a fault is on the spot again.
    void HandleSignal(int signal_number, siginfo_t* /*info*/) override {
        signal(signal_number, SIG_DFL);
        raise(signal_number);
    }
};

void ReadFromNowhere() {
    // What a member of an object is read from when the pointer to the object is null. Volatile, because a compiler that
    // knows the address knows that nothing can be there.
    volatile std::uintptr_t nowhere = 0x10;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer to nothing is the point
    static_cast<void>(*reinterpret_cast<const volatile int*>(nowhere));
}

void ReadBehindEndOfFile() {
    // A mapped file that another process makes shorter is the usual way to get here.
    std::FILE* const file = std::tmpfile();
    if (file == nullptr) {
        return;
    }
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const mapping = mmap(nullptr, page, PROT_READ, MAP_SHARED, fileno(file), 0);
    if (mapping != MAP_FAILED) {
        static_cast<void>(*static_cast<const volatile char*>(mapping));
    }
}

void AskToTerminate() {
    kill(getpid(), SIGTERM);
}

struct Fault {
    const char* name;
    void (*happen)();
    int signal;
};

constexpr Fault faults[] = {
    {"address", ReadFromNowhere, SIGSEGV},
    {"file", ReadBehindEndOfFile, SIGBUS},
    {"terminate", AskToTerminate, SIGTERM},
};

const Fault* FindFault(const char* name) {
    for (const Fault& fault : faults) {
        if (std::strcmp(fault.name, name) == 0) {
            return &fault;
        }
    }
    return nullptr;
}

[[noreturn]] void RunChild(const Fault& fault) {
    // These faults are wanted: nobody needs their core files.
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);

    EndBySignal callback;
    const CSignalHandler handler(&callback);
    fault.happen();
    std::printf("signal_report: nothing has happened\n");
    std::exit(0);
}

/// @return whether the child's fault ended it.
bool Show(const Fault& fault) {
    std::printf("signal_report: fault \"%s\"\n", fault.name);
    // What is still in the buffer would be the child's, too, and come out twice.
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == -1) {
        std::perror("signal_report: fork");
        return false;
    }
    if (child == 0) {
        RunChild(fault);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const int ending = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    std::printf("signal_report: the child was ended by signal %d\n\n", ending);
    return ending == fault.signal;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::vector<const Fault*> chosen;
    for (int i = 1; i < argc; ++i) {
        const Fault* const fault = FindFault(argv[i]);
        if (fault == nullptr) {
            std::fprintf(stderr, "signal_report: \"%s\" is not a fault; known are address, file and terminate\n",
                         argv[i]);
            return 2;
        }
        chosen.push_back(fault);
    }
    if (chosen.empty()) {
        for (const Fault& fault : faults) {
            chosen.push_back(&fault);
        }
    }
    bool all_ended = true;
    for (const Fault* const fault : chosen) {
        all_ended = Show(*fault) && all_ended;
    }
    return all_ended ? 0 : 1;
}
