// Lists this host's IPv4 interfaces and aliases, and what is known of each.
//
//     list_interfaces
//
// An interface that has several addresses without names of their own is listed with the first one. A request that the
// kernel refuses ends the program, as for an interface that goes while it is being asked for.

#include <TarnSocketIO/TarnSocketIO.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using IPv4::IPAddress;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;

using GetAddress = TarnSocketIO::GetIoCltIf<SIOCGIFADDR, IPAddress, &IfReq::GetAddress>;
using GetNetmask = TarnSocketIO::GetIoCltIf<SIOCGIFNETMASK, IPAddress, &IfReq::GetAddress>;
using GetBroadcast = TarnSocketIO::GetIoCltIf<SIOCGIFBRDADDR, IPAddress, &IfReq::GetBcastAddress>;

/// Each name once.
std::set<std::string> ListNames(const IfConfig& config) {
    // An enumeration does not grow: one that is full may have left something out.
    for (unsigned int records = 16;; records *= 2) {
        GetAllIfs interfaces(records);
        std::vector<const char*> names;
        config.DoIoCtl(interfaces, names);
        if (names.size() < records) {
            return {names.begin(), names.end()};
        }
    }
}

template <class Request>
IPAddress Ask(const IfConfig& config, const std::string& name) {
    Request request(name.c_str());
    IPAddress address;
    config.DoIoCtl(request, address);
    return address;
}

void Show(const IfConfig& config, const std::string& name) {
    IfFlagsReq flags(name.c_str());
    flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS);
    std::cout << name << ": " << Ask<GetAddress>(config, name) << " netmask " << Ask<GetNetmask>(config, name);
    if (flags.IsBroadcast()) {
        std::cout << " broadcast " << Ask<GetBroadcast>(config, name);
    }
    std::cout << (flags.IsUp() ? " up" : " down") << (flags.IsLoopback() ? " loopback" : "") << "\n";
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc > 1) {
        std::fprintf(stderr, "list_interfaces: takes no arguments, and got \"%s\"\n", argv[1]);
        return 2;
    }
    try {
        const IfConfig config;
        for (const std::string& name : ListNames(config)) {
            Show(config, name);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "list_interfaces: %s\n", error.what());
        return 1;
    }
    if (!std::cout.flush()) {
        std::fprintf(stderr, "list_interfaces: cannot write the list\n");
        return 1;
    }
    return 0;
}
