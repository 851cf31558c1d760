#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/ioctl_structs.h>

/// Records as the kernel fills them.
namespace TarnTest {

inline TarnSocketIO::IfReq WithFlags(const char* name, int flags) {
    TarnSocketIO::IfReq record(name);
    record.ifr_flags = static_cast<short>(flags);
    return record;
}

inline TarnSocketIO::IfReq WithAddress(const char* name, IPv4::IPAddress address) {
    TarnSocketIO::IfReq record(name);
    record.SetAddress(address);
    return record;
}

}  // namespace TarnTest
