#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/AliasValues.h"

/// What alias operations ask for, step by step, and what they say of a step that is refused while the failure action
/// returns.
namespace TarnTest {

/// All that can be asked for an alias, its values taken from the main interface.
inline const std::vector<std::string> all_requests = {
    "SIOCSIFADDR eth0:1 192.0.2.7", "SIOCGIFNETMASK eth0", "SIOCSIFNETMASK eth0:1 255.255.255.0",
    "SIOCGIFNETMASK eth0:1",        "SIOCGIFBRDADDR eth0", "SIOCSIFBRDADDR eth0:1 192.0.2.255",
    "SIOCGIFBRDADDR eth0:1",
};

inline const std::string refused = "IfReq::DoIoCtl: !errno (ioctl_structs.cpp:69)";
inline const std::string get_says = "IfReq::DoIoCtl error ";
inline const std::string set_says = "IfReq::DoIoCtl error SetIoCltIf::DoIoCtl error ";

/// What a refused request says on standard error, and the operation that made it.
inline std::string Errors(int error, const std::string& operation_says = "") {
    const std::string words = std::strerror(error);
    const std::string request_says = "ioctl : " + words + "\n\n (*__errno_location ()): " + std::to_string(error);
    return operation_says.empty() ? request_says : request_says + operation_says + ": " + words + "\n";
}

/// A step with which the operation ends if it is refused.
struct AliasStep {
    std::size_t number;  ///< of its request
    std::string output;
    std::string says;
    int line;
    std::string values;
    IPv4::IPAddress netmask;  ///< what the operation holds afterwards
    IPv4::IPAddress broadcast;
};

/// Those that copy the main interface's values, when the alias has its address.
inline const std::array<AliasStep, 4> copying_steps = {{
    {2, get_says, "ioctl - To get the netmask for interface", 183, "\n m_main_if_name: eth0\n m_netmask: 1.0.0.0",
     from_main, from_main},
    {3, set_says, "ioctl - Set the netmask for alias interface", 195, "\n m_netmask: 255.255.255.0", main_netmask,
     from_main},
    {5, get_says, "ioctl - To get the bcast for interface", 235, "\n m_main_if_name: eth0\n m_bcast: 1.0.0.0",
     main_netmask, from_main},
    {6, set_says, "ioctl - Set the bcast for alias interface", 248, "\n m_bcast: 192.0.2.255", main_netmask,
     main_broadcast},
}};

}  // namespace TarnTest
