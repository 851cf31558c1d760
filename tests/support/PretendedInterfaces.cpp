#include "tests/support/PretendedInterfaces.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

#include "tests/support/ChildProcess.h"

namespace TarnTest {

namespace {

using Interface = PretendedInterfaces::Interface;
using IPv4::IPAddress;

/// In memory that forked processes share: one that aborts has told nobody what it asked for.
struct Log {
    std::array<char, 8192> lines{};  // each with its end
    std::size_t length = 0;
    int count = 0;
    int descriptor = -1;
    bool has_others = false;

    void Add(const std::string& line, int fd) {
        length += (line + '\n').copy(lines.data() + length, lines.size() - length);
        has_others = has_others || (count > 0 && fd != descriptor);
        descriptor = fd;
        ++count;
    }
};

struct State {
    std::vector<Interface> interfaces;
    std::map<int, int> refused;
    std::map<int, IPAddress> falsified;
    std::map<IPAddress, sockaddr> neighbours;  // their hardware addresses
    int result = 0;
    int length_of_list = -1;
    Shared<Log> log;
};

State* state = nullptr;

/// @return null if it is none that is answered here.
const char* NameOf(unsigned long request) {
    static const std::map<unsigned long, const char*> names = {
        {SIOCGIFCONF, "SIOCGIFCONF"},       {SIOCGIFFLAGS, "SIOCGIFFLAGS"},
        {SIOCSIFFLAGS, "SIOCSIFFLAGS"},     {SIOCGIFADDR, "SIOCGIFADDR"},
        {SIOCSIFADDR, "SIOCSIFADDR"},       {SIOCGIFNETMASK, "SIOCGIFNETMASK"},
        {SIOCSIFNETMASK, "SIOCSIFNETMASK"}, {SIOCGIFBRDADDR, "SIOCGIFBRDADDR"},
        {SIOCSIFBRDADDR, "SIOCSIFBRDADDR"}, {SIOCGARP, "SIOCGARP"}};
    const auto found = names.find(request);
    return found != names.end() ? found->second : nullptr;
}

IPAddress AddressIn(const ifreq& record) {
    sockaddr_in address{};
    std::memcpy(&address, &record.ifr_addr, sizeof address);
    return address.sin_addr;
}

void WriteAddress(ifreq& record, IPAddress value) {
    const sockaddr_in address = value;
    std::memcpy(&record.ifr_addr, &address, sizeof address);
}

std::string Describe(unsigned long request, const void* argument) {
    std::ostringstream text;
    text << NameOf(request) << ' ';
    if (request == SIOCGIFCONF) {
        const auto length = static_cast<std::size_t>(static_cast<const ifconf*>(argument)->ifc_len);
        text << length / sizeof(ifreq) << " records";
        return text.str();
    }
    if (request == SIOCGARP) {
        const arpreq& query = *static_cast<const arpreq*>(argument);
        text << IPAddress(query.arp_pa) << " on \"" << query.arp_dev << "\", flags " << query.arp_flags;
        return text.str();
    }
    const ifreq& record = *static_cast<const ifreq*>(argument);
    text << record.ifr_name;
    if (request == SIOCSIFFLAGS) {
        text << " 0x" << std::hex << record.ifr_flags;
    } else if (request == SIOCSIFADDR || request == SIOCSIFNETMASK || request == SIOCSIFBRDADDR) {
        text << ' ' << AddressIn(record);
    }
    return text.str();
}

int FillList(ifconf& list) {
    const std::size_t room = list.ifc_req != nullptr ? static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq) : 0;
    const std::size_t count = std::min(room, state->interfaces.size());
    for (std::size_t i = 0; i < count; ++i) {
        ifreq record{};
        state->interfaces[i].name.copy(record.ifr_name, IFNAMSIZ - 1);
        WriteAddress(record, state->interfaces[i].address);
        list.ifc_req[i] = record;
    }
    const std::size_t told = list.ifc_req != nullptr ? count : state->interfaces.size();
    list.ifc_len = state->length_of_list >= 0 ? state->length_of_list : static_cast<int>(told * sizeof(ifreq));
    return state->result;
}

bool IsAlias(const std::string& name) {
    return name.find(':') != std::string::npos;
}

int Fail(int error) {
    errno = error;
    return -1;
}

void Answer(unsigned long request, ifreq& record, Interface& interface) {
    switch (request) {
        case SIOCGIFFLAGS:
            record.ifr_flags = interface.flags;
            return;
        case SIOCSIFFLAGS:
            interface.flags = record.ifr_flags;
            return;
        case SIOCGIFADDR:
            return WriteAddress(record, interface.address);
        case SIOCSIFADDR:
            interface.address = AddressIn(record);
            return;
        case SIOCGIFNETMASK:
            return WriteAddress(record, interface.netmask);
        case SIOCSIFNETMASK:
            interface.netmask = AddressIn(record);
            return;
        case SIOCGIFBRDADDR:
            return WriteAddress(record, interface.broadcast);
        default:
            interface.broadcast = AddressIn(record);
            return;
    }
}

int AnswerFor(unsigned long request, ifreq& record) {
    const std::string name = record.ifr_name;
    const auto has_name = [&](const Interface& interface) { return interface.name == name; };
    std::vector<Interface>& all = state->interfaces;
    auto found = std::find_if(all.begin(), all.end(), has_name);
    if (found == all.end()) {
        if (request != SIOCSIFADDR || !IsAlias(name)) {
            return Fail(ENODEV);
        }
        found = all.insert(all.end(), {name, {}, IPAddress(255, 0, 0, 0), IPAddress(10, 255, 255, 255), IFF_UP});
    }
    Answer(request, record, *found);
    if (IsAlias(name) && (found->flags & IFF_UP) == 0) {
        all.erase(found);
    }
    return state->result;
}

int AnswerQuery(arpreq& query) {
    const auto found = state->neighbours.find(query.arp_pa);
    if (found == state->neighbours.end()) {
        return Fail(ENXIO);
    }
    query.arp_ha = found->second;
    return state->result;
}

int AnswerRequest(int fd, unsigned long request, void* argument) {
    state->log->Add(Describe(request, argument), fd);
    const int number = state->log->count;
    const auto refused = state->refused.find(number);
    if (refused != state->refused.end()) {
        return Fail(refused->second);
    }
    if (fd < 0) {
        return Fail(EBADF);
    }
    if (request == SIOCGIFCONF) {
        return FillList(*static_cast<ifconf*>(argument));
    }
    if (request == SIOCGARP) {
        return AnswerQuery(*static_cast<arpreq*>(argument));
    }
    const auto falsified = state->falsified.find(number);
    if (falsified != state->falsified.end()) {
        WriteAddress(*static_cast<ifreq*>(argument), falsified->second);
        return state->result;
    }
    return AnswerFor(request, *static_cast<ifreq*>(argument));
}

}  // namespace

PretendedInterfaces::PretendedInterfaces(const std::vector<Interface>& interfaces) {
    state = new State;
    state->interfaces = interfaces;
}

PretendedInterfaces::~PretendedInterfaces() {
    delete state;
    state = nullptr;
}

void PretendedInterfaces::Refuse(int number, int error) {
    state->refused[number] = error;
}

void PretendedInterfaces::Falsify(int number, IPAddress answer) {
    state->falsified[number] = answer;
}

void PretendedInterfaces::SetResult(int result) {
    state->result = result;
}

void PretendedInterfaces::SetLengthOfList(int length) {
    state->length_of_list = length;
}

void PretendedInterfaces::AddNeighbour(IPAddress address, unsigned short hardware_type,
                                       const TarnSocketIO::MACAddress& mac) {
    sockaddr& hardware_address = state->neighbours[address];
    hardware_address.sa_family = hardware_type;
    std::copy_n(mac.OctetForm(), 6, hardware_address.sa_data);
}

std::vector<std::string> PretendedInterfaces::Requests() const {
    std::istringstream lines(std::string(state->log->lines.data(), state->log->length));
    std::vector<std::string> requests;
    for (std::string line; std::getline(lines, line);) {
        requests.push_back(line);
    }
    return requests;
}

int PretendedInterfaces::Descriptor() const {
    return state->log->has_others ? -1 : state->log->descriptor;
}

PretendedInterfaces::Interface PretendedInterfaces::Find(const std::string& name) const {
    for (const Interface& interface : state->interfaces) {
        if (interface.name == name) {
            return interface;
        }
    }
    throw std::out_of_range(name);
}

}  // namespace TarnTest

// What comes after the request is passed on as the C library itself reads it.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    if (TarnTest::state == nullptr || TarnTest::NameOf(request) == nullptr) {
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    }
    return TarnTest::AnswerRequest(fd, request, argument);
}
