// Lists this host's IPv4 addresses with their interfaces, and what is known of each.
//
//     list_interfaces

#include <TarnSocketIO/TarnSocketIO.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>
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

template <class Request>
IPAddress Ask(const IfConfig& config, const char* name) {
    Request request(name);
    IPAddress address;
    config.DoIoCtl(request, address);
    return address;
}

void Show(const IfConfig& config, const char* name) {
    IfFlagsReq flags(name);
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
        GetAllIfs interfaces(64);  // records: an enumeration does not grow
        std::vector<const char*> names;
        config.DoIoCtl(interfaces, names);
        for (const char* const name : names) {
            Show(config, name);
        }
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "list_interfaces: %s\n", error.what());
        return 1;
    }
    return 0;
}
