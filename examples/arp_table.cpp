// Tells the hardware addresses that the kernel's ARP table has for some hosts, in both ways of asking.
//
//     arp_table DEVICE ADDRESS...
//
// The table only knows hosts that this one has talked to: ping them first.

#include <TarnSocketIO/TarnSocketIO.h>

#include <cstdio>
#include <exception>
#include <iostream>

namespace {

using IPv4::IPAddress;

void Show(const ARPFileReader& file, const TarnSocketIO::ARPIO& kernel, const char* device, const IPAddress& address) {
    // Asked before anything is written: a host that is not in the table is told on standard output, too.
    const TarnSocketIO::MACAddress from_kernel = kernel.GetMACAddress(address, device);
    std::cout << address << " file " << std::hex << file.GetCachedMACAddress(address) << " kernel " << from_kernel
              << std::dec << "\n";
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: arp_table DEVICE ADDRESS...\n");
        return 2;
    }
    try {
        ARPFileReader file;
        file.CacheFileContent();
        const TarnSocketIO::ARPIO kernel;
        for (int i = 2; i < argc; ++i) {
            Show(file, kernel, argv[1], IPAddress(argv[i]));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "arp_table: %s\n", error.what());
        return 1;
    }
    return 0;
}
