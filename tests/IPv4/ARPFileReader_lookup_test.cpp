// What a look-up asks the kernel: nothing.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>

#include "tests/support/ArpTables.h"
#include "tests/support/ChildProcess.h"

namespace {

using IPv4::IPAddress;
using TarnTest::ChildProcess;

/// From now on every system call ends the process, but for the one that ends it anyway.
bool ForbidSystemCalls() {
    std::array<sock_filter, 4> rules = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    }};
    const sock_fprog program{static_cast<unsigned short>(rules.size()), rules.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

constexpr int cannot_forbid = 77;

/// Runs `act` without the kernel. @return the exit status, which is that of `act`; -1 if it has asked the kernel.
template <class Act>
int StatusWithoutSystemCalls(Act act) {
    ChildProcess child([&act] {
        const int status = ForbidSystemCalls() ? act() : cannot_forbid;
        syscall(SYS_exit_group, status);
    });
    return child.ExitStatus();
}

TEST(ARPFileReaderLookUp, MakesNoSystemCall) {
    const TarnTest::TableFile file(TarnTest::arp_header + TarnTest::ArpLine("192.0.2.1", "00:11:22:33:44:55"));
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();

    const int asking = StatusWithoutSystemCalls([] { return getppid() == 0 ? 1 : 0; });
    if (asking == cannot_forbid) {
        GTEST_SKIP() << "system calls cannot be forbidden here";
    }
    ASSERT_EQ(-1, asking) << "nothing is forbidden";

    EXPECT_EQ(0, StatusWithoutSystemCalls([&reader] {
                  const bool is_known = reader.GetCachedMACAddress(IPAddress(192, 0, 2, 1)).OctetForm()[5] == 0x55;
                  const bool is_unknown = reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2)).OctetForm()[5] == 0;
                  return is_known && is_unknown ? 0 : 1;
              }));
}

}  // namespace
