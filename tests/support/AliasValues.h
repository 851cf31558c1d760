#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>

/// What tests of alias operations set and expect, on interfaces that PretendedInterfaces answers for.
namespace TarnTest {

inline constexpr int sd = 70;  // a descriptor that need not be there

// What an operation takes for "nothing", and for "that of the main interface".
inline const IPv4::IPAddress none;
inline const IPv4::IPAddress from_main(1, 0, 0, 0);

inline const IPv4::IPAddress alias_address(192, 0, 2, 7);
inline const IPv4::IPAddress main_netmask(255, 255, 255, 0);
inline const IPv4::IPAddress main_broadcast(192, 0, 2, 255);

}  // namespace TarnTest
