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
#include <exception>
#include <iostream>
#include <set>
#include <string>

namespace {

/// The strict parser throws for everything that is not an address, and says why.
IPv4::IPAddress ShowAddress(const std::string& text) {
    const IPv4::IPAddress address(text);
    const TarnSocketIO::CIPString with_text(address);

    std::string hexadecimal;
    address.GetPresentation(hexadecimal, std::hex);
    std::cout << "\"" << text << "\" is " << with_text.c_str() << ", in hexadecimal " << hexadecimal << ", as a number "
              << static_cast<unsigned int>(static_cast<int>(with_text)) << "\n";
    return address;
}

void ShowHardwareAddress(const std::string& text) {
    TarnSocketIO::MACAddress address;
    address.Set(text.c_str());

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

void Refuse(const std::string& text, const std::exception& reason, bool is_hardware_address) {
    std::cerr << "addresses: \"" << text << "\" is refused: " << reason.what();
    if (is_hardware_address) {
        std::cerr << "; write six numbers, as in 00:1a:2b:3c:4d:5e\n";
        return;
    }
    // What an endpoint would make of it: this parser takes whatever it is given.
    const TarnSocketIO::CIPString lenient(text.c_str());
    std::cerr << "; write four numbers, as in 192.168.1.20. Read leniently it is " << lenient.c_str() << "\n";
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
        const bool is_hardware_address = text.find(':') != std::string::npos;
        try {
            if (is_hardware_address) {
                ShowHardwareAddress(text);
            } else {
                in_order.insert(ShowAddress(text));
            }
        } catch (const std::exception& reason) {
            Refuse(text, reason, is_hardware_address);
            all_accepted = false;
        }
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
