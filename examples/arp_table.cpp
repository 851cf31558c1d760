// Tells the hardware addresses that the kernel's ARP table has for some hosts, in both ways of asking.
//
//     arp_table DEVICE ADDRESS...
//
// The table only knows hosts that this one has talked to: ping them first. Where two devices have the same neighbour,
// the file cannot be read: it ends the program.

#include <TarnSocketIO/TarnSocketIO.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using IPv4::IPAddress;

/// All of them, before anything is written. @throws std::invalid_argument, naming the one that is none.
std::vector<IPAddress> Parse(char** begin, char** end) {
    std::vector<IPAddress> addresses;
    for (char** text = begin; text != end; ++text) {
        try {
            addresses.emplace_back(*text);
        } catch (const std::exception& error) {
            throw std::invalid_argument(std::string("\"") + *text + "\" is no address: " + error.what());
        }
    }
    return addresses;
}

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
        const std::vector<IPAddress> addresses = Parse(argv + 2, argv + argc);
        ARPFileReader file;
        file.CacheFileContent();
        const TarnSocketIO::ARPIO kernel;
        for (const IPAddress& address : addresses) {
            Show(file, kernel, argv[1], address);
        }
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "arp_table: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "arp_table: %s\n", error.what());
        return 1;
    }
    return 0;
}
