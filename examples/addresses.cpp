// Reads addresses as a device gets them from users, files and the network, and shows each of them in every form.
//
//     addresses TEXT...      a text with a colon is a hardware address, any other an IPv4 address
//
// At the end the IPv4 addresses are listed in their order. Exit status 1: a text was refused; 2: there was none.

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <algorithm>
#include <ios>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>

namespace {

void ShowAddress(const std::string& text, IPv4::IPAddress address) {
    const TarnSocketIO::CIPString with_text(address);
    std::string hexadecimal;
    address.GetPresentation(hexadecimal, std::hex);
    std::cout << "\"" << text << "\" is " << with_text.c_str() << ", in hexadecimal " << hexadecimal << ", as a number "
              << static_cast<unsigned int>(static_cast<int>(with_text)) << "\n";
}

void ShowHardwareAddress(const std::string& text, const TarnSocketIO::MACAddress& address) {
    // The form with a text of its own, for a record that wants six octets.
    TarnSocketIO::CMacAddress octets;
    std::copy_n(address.OctetForm(), sizeof octets.m_Octets, octets.m_Octets);

    // Writing an address leaves the stream in upper case and filling with zeros; both are put back.
    const std::ios_base::fmtflags flags = std::cout.flags();
    const char fill = std::cout.fill();
    std::cout << "\"" << text << "\" is " << octets.GetString() << ", in capitals " << std::hex << address << "\n";
    std::cout.flags(flags);
    std::cout.fill(fill);
}

/// The strict parser throws for everything that is not an address, and says why. @return false if the text is none.
bool ReadAddress(const std::string& text, std::set<IPv4::IPAddress>& in_order) {
    try {
        const IPv4::IPAddress address(text);
        ShowAddress(text, address);
        in_order.insert(address);
        return true;
    } catch (const std::runtime_error& reason) {
        // What an endpoint would make of it: the lenient parser takes whatever it is given.
        const TarnSocketIO::CIPString lenient(text.c_str());
        std::cerr << "addresses: \"" << text << "\" is refused: " << reason.what()
                  << "; write four numbers, as in 192.168.1.20. Read leniently it is " << lenient.c_str() << "\n";
        return false;
    }
}

bool ReadHardwareAddress(const std::string& text) {
    try {
        TarnSocketIO::MACAddress address;
        address = text.c_str();
        ShowHardwareAddress(text, address);
        return true;
    } catch (const std::runtime_error& reason) {
        std::cerr << "addresses: \"" << text << "\" is refused: " << reason.what()
                  << "; write six numbers, as in 00:1a:2b:3c:4d:5e\n";
        return false;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 2) {
        std::cerr << "addresses: no text given; try: addresses 192.168.1.20 00:1a:2b:3c:4d:5e\n";
        return 2;
    }
    std::set<IPv4::IPAddress> in_order;
    bool all_accepted = true;
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        const bool has_colon = text.find(':') != std::string::npos;
        const bool accepted = has_colon ? ReadHardwareAddress(text) : ReadAddress(text, in_order);
        all_accepted = all_accepted && accepted;
    }
    if (!in_order.empty()) {
        std::cout << "in order:";
        for (const IPv4::IPAddress address : in_order) {
            std::cout << " " << address;
        }
        std::cout << "\n";
    }
    return all_accepted ? 0 : 1;
}
