#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace TarnTest {

/// Takes all capabilities from the calling thread, for good: for child processes.
///
/// @return whether it has none any more.
inline bool GiveUpPrivileges() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return syscall(SYS_capset, &header, none.data()) == 0;
}

}  // namespace TarnTest
