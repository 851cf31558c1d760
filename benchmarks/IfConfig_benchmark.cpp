// What it costs to ask the kernel for interfaces and their addresses, beside the bare requests.

#include <benchmark/benchmark.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using IPv4::IPAddress;
using TarnBenchmark::CompareResults;
using TarnBenchmark::Plan;
using TarnBenchmark::TargetTable;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfReq;

using GetAddress = TarnSocketIO::GetIoCltIf<SIOCGIFADDR, IPAddress, &IfReq::GetAddress>;

constexpr int calls = 500;
constexpr double at_least = 1 / 1.1;  // the bare request's time and a tenth
constexpr const char* loopback = "lo";

TargetTable table;

void Enumerate(benchmark::State& state) {
    const IfConfig config;
    GetAllIfs interfaces;
    std::vector<const char*> names;
    std::array<ifreq, GetAllIfs::INITIAL_IFREQ_SIZE> records;
    CompareResults(
        table, state, {"interfaces / SIOCGIFCONF", at_least}, calls,
        [](std::size_t left, std::size_t right) { return left == right && left > 0; },
        [&](int) { return config.DoIoCtl(interfaces, names) == 0 ? names.size() : 0; },
        [&](int) -> std::size_t {
            ifconf request{};
            request.ifc_len = sizeof records;
            request.ifc_req = records.data();
            const bool asked = ::ioctl(config.GetSocketDescriptor(), SIOCGIFCONF, &request) >= 0;
            return asked ? static_cast<std::size_t>(request.ifc_len) / sizeof records[0] : 0;
        });
}

void Ask(benchmark::State& state) {
    const IfConfig config;
    CompareResults(
        table, state, {"address of an interface / SIOCGIFADDR", at_least}, calls,
        [](in_addr_t left, in_addr_t right) { return left == right && left == htonl(INADDR_LOOPBACK); },
        [&](int) {
            GetAddress request(loopback);
            IPAddress address;
            config.DoIoCtl(request, address);
            return address.NetworkNumericForm();
        },
        [&](int) {
            ifreq request{};
            std::strncpy(request.ifr_name, loopback, sizeof request.ifr_name - 1);
            sockaddr_in address{};
            if (::ioctl(config.GetSocketDescriptor(), SIOCGIFADDR, &request) >= 0) {
                std::memcpy(&address, &request.ifr_addr, sizeof address);
            }
            return address.sin_addr.s_addr;
        });
}

void RegisterBenchmarks(const Plan& plan) {
    const auto add = [&plan](const char* name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, function)->Iterations(plan.Pairs(401))->UseManualTime();
    };
    add("IfConfig/interfaces", Enumerate);
    add("IfConfig/address", Ask);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, RegisterBenchmarks);
}
