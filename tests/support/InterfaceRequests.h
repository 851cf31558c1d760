#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>

/// The requests for single addresses of an interface that the library makes.
namespace TarnTest {

using SetAddress = TarnSocketIO::SetIoCltIf<35094, IPv4::IPAddress, &TarnSocketIO::IfReq::SetAddress,
                                            &TarnSocketIO::IfReq::GetAddress>;
using SetNetmask = TarnSocketIO::SetIoCltIf<35100, IPv4::IPAddress, &TarnSocketIO::IfReq::SetAddress,
                                            &TarnSocketIO::IfReq::GetAddress>;
using SetBroadcast = TarnSocketIO::SetIoCltIf<35098, IPv4::IPAddress, &TarnSocketIO::IfReq::SetBcastAddress,
                                              &TarnSocketIO::IfReq::GetBcastAddress>;
using GetNetmask = TarnSocketIO::GetIoCltIf<35099, IPv4::IPAddress, &TarnSocketIO::IfReq::GetAddress>;
using GetBroadcast = TarnSocketIO::GetIoCltIf<35097, IPv4::IPAddress, &TarnSocketIO::IfReq::GetBcastAddress>;

}  // namespace TarnTest
